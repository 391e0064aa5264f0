#include "conntrack/conntrack_str.h"

#include "config/address_text.h"
#include "conntrack/nfconntrack.h"
#include "zol_helper.h"

namespace zol_monitor {

std::string ct_ntoa_s(const nf_conntrack* ct) {
  const std::uint32_t nibble = conntrack_mark::normalised_nibble(nfconntrack_get_mark(ct));
  std::string text = (nibble & conntrack_mark::out_bit) == 0 ? "[IN] " : "[OUT] ";
  text += zol::Helper::make_log_addr(nfconntrack_get_orig_src(ct));
  text += ':' + std::to_string(nfconntrack_get_orig_port(ct)) + "->";
  text += zol::Helper::make_log_addr(nfconntrack_get_dst(ct));
  text += ':' + std::to_string(nfconntrack_get_dst_port(ct));
  return text;
}

std::string inet_ntoa_s(in_addr address) {
  return zol::address_text(address.s_addr);
}

}  // namespace zol_monitor
