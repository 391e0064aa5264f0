#include "tunnel_monitoring_results.h"

#include <algorithm>
#include <chrono>
#include <ctime>

#include "shared_object.h"

namespace zol_utils {

namespace {

using steady_clock = std::chrono::steady_clock;

constexpr std::chrono::seconds retry_after{10};

tunnel_latency_row_t& row_of(tunnel_monitoring_results_t& record, std::uint32_t address) {
  constexpr std::uint32_t most = tunnel_monitoring_results_t::max_rows;
  const std::uint32_t count = std::min(record.row_count, most);  // another process may have spoilt it
  tunnel_latency_row_t* const first = record.rows.data();
  tunnel_latency_row_t* const end = first + count;
  tunnel_latency_row_t* row =
      std::find_if(first, end, [address](const auto& one) { return one.address == address; });
  if (row != end)
    return *row;
  if (count < most)
    record.row_count = count + 1;
  else
    row = std::min_element(first, end,
                           [](const auto& a, const auto& b) { return a.last_update < b.last_update; });
  *row = {};
  row->address = address;
  return *row;
}

void add_sample(tunnel_latency_row_t& row, std::int64_t latency_us) {
  const bool replied = latency_us > 0;
  row.last_update = std::time(nullptr);
  ++row.sample_count;
  row.lost_count += replied ? 0 : 1;
  row.latency_sum_us += replied ? static_cast<std::uint64_t>(latency_us) : 0;
  row.last_latency_us = replied ? latency_us : -1;
}

}  // namespace

void TunnelMonitoringResults::add_latency(unsigned address, long latency) {
  if (!shared_mem_enabled || steady_clock::now() < tunnel_monitoring_next_try)
    return;
  const bool added = with_locked_record<tunnel_monitoring_results_t>(
      "add_latency",
      [&](tunnel_monitoring_results_t& record) { add_sample(row_of(record, address), latency); });
  tunnel_monitoring_next_try = added ? steady_clock::time_point() : steady_clock::now() + retry_after;
}

}  // namespace zol_utils
