// Tracked connections with counters. Counters come from the kernel alone, the library has no setter for them:
// so these are decoded from a message of the kernel's form.
#pragma once

#include <endian.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <linux/netfilter/nfnetlink_conntrack.h>

#include <stdexcept>
#include <vector>

#include "conntrack/nfconntrack.h"
#include "tests/unit/conntrack/conntrack_fixture.h"

namespace zol_test {

inline void put_ct_counters(nlmsghdr* nlh, std::uint16_t direction,
                            const zol_monitor::nfconntrack_stats_t& stats) {
  nlattr* nest = mnl_attr_nest_start(nlh, direction);
  mnl_attr_put_u64(nlh, CTA_COUNTERS_PACKETS, htobe64(stats.packets));
  mnl_attr_put_u64(nlh, CTA_COUNTERS_BYTES, htobe64(stats.bytes));
  mnl_attr_nest_end(nlh, nest);
}

inline zol_monitor::NfctHandle make_counted_ct(const Flow& flow, const zol_monitor::nfconntrack_stats_t& orig,
                                               const zol_monitor::nfconntrack_stats_t& repl,
                                               std::uint32_t id = 1) {
  std::vector<char> message = make_message(flow, false);
  message.resize(MNL_SOCKET_BUFFER_SIZE);
  auto* nlh = static_cast<nlmsghdr*>(static_cast<void*>(message.data()));
  put_ct_counters(nlh, CTA_COUNTERS_ORIG, orig);
  put_ct_counters(nlh, CTA_COUNTERS_REPLY, repl);
  mnl_attr_put_u32(nlh, CTA_ID, htonl(id));
  zol_monitor::NfctHandle ct(nfct_new());
  if (nfct_nlmsg_parse(nlh, ct.get()) != 0)
    throw std::runtime_error("no connection in the message");
  nfct_set_attr_u32(ct.get(), ATTR_ID, id);  // libraries differ in the byte order they keep it in
  return ct;
}

}  // namespace zol_test
