#include "vpn_tunnel_records.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "shared_object.h"

namespace zol_utils {

namespace {

constexpr std::time_t patience_s = 1;

}  // namespace

void VpnTunnelState::set_tunnel_states(vpn_tunnel_states_t& states) {
  const std::uint32_t count = std::min<std::uint32_t>(states.row_count, vpn_tunnel_states_t::max_rows);
  with_locked_record<vpn_tunnel_states_t>("set_tunnel_states", [&](vpn_tunnel_states_t& record) {
    std::memcpy(record.rows.data(), states.rows.data(), count * sizeof(vpn_tunnel_row_t));
    record.row_count = count;
  });
}

std::uint32_t TunnelMedResults::get_med(unsigned address) {
  // A report asks for each of its connections: a record that somebody sits on holds it up once only.
  static std::time_t failed_at = 0;
  const bool failed_just_now = std::time(nullptr) - failed_at <= patience_s;
  std::uint32_t med = no_med;
  const bool read = with_locked_record<tunnel_med_results_t>(
      "get_med",
      [&](const tunnel_med_results_t& record) {
        const auto* end =
            record.rows.data() + std::min<std::uint32_t>(record.row_count, tunnel_med_results_t::max_rows);
        const auto* row = std::find_if(record.rows.data(), end,
                                       [address](const auto& one) { return one.address == address; });
        if (row != end)
          med = row->med;
      },
      failed_just_now ? 0 : shared_lock_wait_ms);
  failed_at = read ? 0 : std::time(nullptr);
  return med;
}

}  // namespace zol_utils
