// The flows of other protocols than TCP.
#include <utility>

#include "config/address_text.h"
#include "sessions/settings.h"
#include "sessions/zol_sessions.h"

namespace zol_monitor {

std::string ZOLSessions::gen_non_tcp_key(std::uint32_t protonum, std::uint32_t src, std::uint32_t dst,
                                         int src_port, int dst_port) {
  std::string key = "[" + std::to_string(protonum) + "]:" + zol::address_text(src);
  if (src_port == 0 && dst_port == 0)
    return key + "==>" + zol::address_text(dst);
  return key + ":" + std::to_string(src_port) + "==>" + zol::address_text(dst) + ":" +
         std::to_string(dst_port);
}

void ZOLSessions::update_non_tcp_traffic(std::uint32_t protonum, std::uint32_t src, std::uint32_t dst,
                                         std::uint64_t bytes, int src_port, int dst_port, bool not_reversed,
                                         const std::string& network) {
  if (bytes == 0)
    return;
  std::shared_ptr<NonTCPSessionInfo>& session =
      non_tcp_sessions[gen_non_tcp_key(protonum, src, dst, src_port, dst_port)];
  if (!session) {
    session = std::make_shared<NonTCPSessionInfo>(protonum, src, dst, src_port, dst_port);
    session->set_net_id(network);
  }
  session->update_traffic(bytes);
  session->set_vpn_data(site_services);
  if (!not_reversed)
    session->set_reversed_io(true);
}

void ZOLSessions::drop_unreported_non_tcp_sessions() {
  if (session_report_resolution_ms() < 1)
    std::erase_if(non_tcp_sessions, [](const auto& entry) { return !entry.second->is_alive(); });
}

void ZOLSessions::update_non_tcp_sessions() {
  std::erase_if(non_tcp_sessions, [this](const auto& entry) {
    if (entry.second->is_alive())
      return false;
    finished_sessions.insert_non_tcp_session(entry.second);
    return true;
  });
}

}  // namespace zol_monitor
