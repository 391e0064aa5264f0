#include "conntrack/gxe_counters.h"

#include <netinet/in.h>

#include <utility>

#include "config/zol_networks.h"
#include "conntrack/nfconntrack.h"

namespace zol_monitor {

namespace {

// Service 1 with the nibble of an Out leg, and without the billing bit.
constexpr std::uint32_t local_mask = 0x4000ffff;
constexpr std::uint32_t local_mark = 0x120;

double share(std::uint64_t part, std::uint64_t rest) {
  const double sum = static_cast<double>(part) + static_cast<double>(rest);
  return sum == 0.0 ? 0.0 : static_cast<double>(part) / sum;
}

int protocol_row(int protonum) {
  switch (protonum) {
    case IPPROTO_TCP:
      return 0;
    case IPPROTO_UDP:
      return 1;
    default:
      return 2;
  }
}

}  // namespace

void gxe_billing_counters_t::add_to_billing_ratio(int protonum, const conntrack_counters_t& counters,
                                                  std::uint32_t mark, bool between_edges) {
  const bool is_local = (mark & local_mask) == local_mark;
  const bool has_unbilled_bit = (mark & conntrack_mark::unbilled) != 0;
  bool is_billed = is_local;
  bool is_unbilled = has_unbilled_bit;
  if (between_edges) {
    is_billed = false;
    is_unbilled = true;
  } else if (protonum == IPPROTO_TCP) {
    is_unbilled = has_unbilled_bit && (mark & local_mark) != 0;
  } else {
    is_billed = is_local || (mark & conntrack_mark::billed) != 0;
  }
  if (is_billed) {
    billed_tx += counters.tx_bytes;
    billed_rx += counters.rx_bytes;
  }
  if (is_unbilled) {
    unbilled_tx += counters.tx_bytes;
    unbilled_rx += counters.rx_bytes;
  }
}

double gxe_billing_counters_t::get_rx_billing_factor(bool from_far_side) const {
  return from_far_side ? share(billed_tx, unbilled_tx) : share(billed_rx, unbilled_rx);
}

double gxe_billing_counters_t::get_tx_billing_factor(bool from_far_side) const {
  return from_far_side ? share(billed_rx, unbilled_rx) : share(billed_tx, unbilled_tx);
}

GxeLinkCounters::GxeLinkCounters(zol::SiteConnRecord first_end, zol::SiteConnRecord second_end,
                                 bool is_first_active, bool is_second_active)
    : first(std::move(first_end)),
      second(std::move(second_end)),
      first_active(is_first_active),
      second_active(is_second_active) {}

void GxeLinkCounters::add_counters(int protonum, const conntrack_counters_t& counters) {
  conntrack_counters_t& row = protocols[protocol_row(protonum)];
  row = row + counters;
  total = total + counters;
}

GxeTunnelCounters::GxeTunnelCounters(zol::SiteConnRecord tunnel) : record(std::move(tunnel)) {}

void GxeTunnelCounters::add_counters(const conntrack_counters_t& added) {
  counters = counters + added;
}

bool is_ucpe_to_ucpe(const std::string& a, const std::string& b) {
  const zol::ZOLNetworks* networks = zol::ZOLNetworks::instance();
  return networks->is_ucpe(a) && networks->is_ucpe(b);
}

}  // namespace zol_monitor
