// The plain values of traffic counting, shared by the session table and the connection tracking.
#pragma once

#include <cstdint>

namespace zol_monitor {

// What one connection moved; rx came in from the near side of the connection.
struct conntrack_counters_t {
  std::uint64_t tx_packets = 0;
  std::uint64_t tx_bytes = 0;
  std::uint64_t rx_packets = 0;
  std::uint64_t rx_bytes = 0;
};

// Where a connection leads: out of the overlay, or on to a hop.
enum class traffic_dir_t : std::uint8_t {
  target = 0,
  public_hop = 1,
  private_hop = 2,
};

}  // namespace zol_monitor
