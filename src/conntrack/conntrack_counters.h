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

// Field by field.
inline constexpr conntrack_counters_t operator+(const conntrack_counters_t& a,
                                                const conntrack_counters_t& b) {
  return {a.tx_packets + b.tx_packets, a.tx_bytes + b.tx_bytes, a.rx_packets + b.rx_packets,
          a.rx_bytes + b.rx_bytes};
}

// A copy without its tx pair when `tx`, else without its rx pair.
inline constexpr conntrack_counters_t counters_zero_dir(const conntrack_counters_t& c, bool tx) {
  if (tx)
    return {0, 0, c.rx_packets, c.rx_bytes};
  return {c.tx_packets, c.tx_bytes, 0, 0};
}

// Where a connection leads: out of the overlay, or on to a hop.
enum class traffic_dir_t : std::uint8_t {
  target = 0,
  public_hop = 1,
  private_hop = 2,
};

}  // namespace zol_monitor
