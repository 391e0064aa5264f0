// What the daemon's latency monitor measures, for the node's processes that choose between tunnels: a shared
// record (see shared_object.h) with one row for each address that is pinged. The figures of a row only grow,
// so that each reader gets the mean and the loss of its own period as the difference of two readings. Numbers
// are little-endian. Main thread only.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "shared_lock.h"

namespace zol_utils {

struct tunnel_latency_row_t {
  std::uint32_t address;         //  0: the pinged address, IPv4 in network order
  std::uint32_t reserved;        //  4: zero
  std::int64_t last_update;      //  8: time_t of the last sample
  std::uint64_t sample_count;    // 16: all samples
  std::uint64_t lost_count;      // 24: those without a reply
  std::uint64_t latency_sum_us;  // 32: of the samples with a reply
  std::int64_t last_latency_us;  // 40: of the last sample, -1 when it had no reply
};
static_assert(sizeof(tunnel_latency_row_t) == 48);

struct tunnel_monitoring_results_t {
  static constexpr std::size_t max_rows = 1000;

  shared_header_t header;
  std::uint32_t row_count;
  std::uint32_t reserved;
  std::array<tunnel_latency_row_t, max_rows> rows;
};
static_assert(offsetof(tunnel_monitoring_results_t, row_count) == 48);
static_assert(offsetof(tunnel_monitoring_results_t, rows) == 56);
static_assert(sizeof(tunnel_monitoring_results_t) == 48056);

// When a record that couldn't be had is asked for again. A variable for tests.
inline std::chrono::steady_clock::time_point tunnel_monitoring_next_try;

class TunnelMonitoringResults {
 public:
  // Adds one sample: an address as inet_aton gives it, and microseconds; one that isn't above 0 had no reply.
  // With all rows taken, a new address takes the row whose last sample is the oldest. A record that can't be
  // had is logged; the samples of the next 10 s are then left out, so that nobody
  // waits again for each.
  static void add_latency(unsigned address, long latency);
};

}  // namespace zol_utils
