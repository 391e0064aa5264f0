// What a middle-mile node counts for its traffic report: the links between sites, routes and the world, the
// tunnels of sites, and, at a customer's edge, which share of the bytes is billed.
//
// Plain values of one reading of the connection table. Main thread only.
#pragma once

#include <cstdint>
#include <string>

#include "conntrack/conntrack_counters.h"
#include "sites/site_conn_record.h"

namespace zol_monitor {

// The bytes of connections that count for billing, and of those that don't. A connection may count in
// neither, in one or in both: what its mark says decides (the layout is in nfconntrack.h).
struct gxe_billing_counters_t {
  std::uint64_t billed_tx = 0;
  std::uint64_t unbilled_tx = 0;
  std::uint64_t billed_rx = 0;
  std::uint64_t unbilled_rx = 0;

  // Traffic between two customer's edges is never billed, whatever its mark says.
  void add_to_billing_ratio(int protonum, const conntrack_counters_t& counters, std::uint32_t mark,
                            bool between_edges);
  // The billed share, 0 to 1, and 0 without bytes. `from_far_side` sees the link from its other end, where
  // what this node sent was received: rx and tx change places.
  double get_rx_billing_factor(bool from_far_side) const;
  double get_tx_billing_factor(bool from_far_side) const;
};

// The traffic from one end to the other; the way back is a link of its own.
struct GxeLinkCounters {
  static constexpr int protocol_rows = 3;  // TCP, UDP, all others

  // The records are copies of what was known at the link's first sight within the reading; whether the ends
  // were active is told of that moment too.
  GxeLinkCounters(zol::SiteConnRecord first_end, zol::SiteConnRecord second_end, bool is_first_active,
                  bool is_second_active);

  // `protonum` as in an IP header.
  void add_counters(int protonum, const conntrack_counters_t& counters);

  zol::SiteConnRecord first;
  zol::SiteConnRecord second;
  bool first_active;  // the connection was established
  bool second_active;
  conntrack_counters_t protocols[protocol_rows];
  conntrack_counters_t total;  // of the rows
};

// The traffic through the tunnel of one site connection.
struct GxeTunnelCounters {
  explicit GxeTunnelCounters(zol::SiteConnRecord tunnel);

  void add_counters(const conntrack_counters_t& added);

  zol::SiteConnRecord record;
  conntrack_counters_t counters;
};

// Whether both are ids of hops at a customer's edge.
bool is_ucpe_to_ucpe(const std::string& a, const std::string& b);

}  // namespace zol_monitor
