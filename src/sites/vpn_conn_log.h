// What is kept of a connection between two reports, and one question about the failure of one.
#pragma once

#include <cstdint>
#include <string>

#include "sites/vpn_conn_info.h"

namespace zol {

// The counts of the status cycles since the last report, one cycle a second.
struct ConnData {
  VPNConnInfo info;  // the last seen
  std::uint16_t connected_ticks = 0;
  std::uint16_t total_ticks = 0;
  bool ticked = false;  // seen in this cycle
};

struct ConnLog {
  // The line of the connection log, with the reason behind it when there is one.
  std::string with_reason() const { return reason.empty() ? log : log + " " + reason; }

  std::string log;  // the line without a reason; empty for the question of each minute
  std::string conn_name;
  std::uint64_t timestamp_ms = 0;  // since the epoch
  std::string reason;              // in words for the reader of the report
  std::string log_text;            // the line of the IKE daemon's log that tells it
  bool short_query = false;        // asked at the failure itself, not by the minute
};

}  // namespace zol
