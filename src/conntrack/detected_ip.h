// The figures of one detected client in the traffic report.
#pragma once

#include <cstdint>

#include "sessions/session_info.h"

namespace zol_monitor {

// One side of the sessions of a client: its In legs or its Out legs.
struct DetectedIPInfo {
  std::uint32_t average_rtt = 0;  // microseconds
  std::uint32_t total_retransmit = 0;
  std::uint32_t incoming_fin = 0;
  std::uint32_t outgoing_fin = 0;
  std::uint32_t incoming_rst = 0;
  std::uint32_t outgoing_rst = 0;
};

// Counts a leg's end: a FIN or RST from the client side came in, one from the target side went out. Other
// reasons count nowhere.
void increase_str_count(SessionTerminationReason reason, DetectedIPInfo& info);

}  // namespace zol_monitor
