// What the node's processes tell each other about VPN tunnels, as shared records (see shared_object.h):
//
//   vpn_tunnel_states_t    which tunnels stand, written by the monitoring daemon once a second
//   tunnel_med_results_t   what the routing side measured as the MED of each tunnel, read by it
//
// Numbers are little-endian. Main thread only.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "shared_lock.h"

namespace zol_utils {

struct vpn_tunnel_row_t {
  static constexpr std::size_t name_size = 1500;

  char name[name_size];      // the connection's name, terminated
  std::uint8_t established;  // 1 when the tunnel stands
};
static_assert(sizeof(vpn_tunnel_row_t) == 1501);

struct vpn_tunnel_states_t {
  static constexpr std::size_t max_rows = 100;

  shared_header_t header;
  std::uint32_t row_count;  // rows in use; the others hold what they held before
  std::array<vpn_tunnel_row_t, max_rows> rows;
};
static_assert(offsetof(vpn_tunnel_states_t, row_count) == 48);
static_assert(offsetof(vpn_tunnel_states_t, rows) == 52);
static_assert(sizeof(vpn_tunnel_states_t) == 150152);

struct tunnel_med_row_t {
  std::uint32_t address;  // the peer's address inside the tunnel, IPv4 in network order
  std::uint32_t med;      // 0xffffffff: no result
};
static_assert(sizeof(tunnel_med_row_t) == 8);

struct tunnel_med_results_t {
  static constexpr std::size_t max_rows = 1000;

  shared_header_t header;
  std::uint32_t row_count;
  std::uint32_t reserved;
  std::array<tunnel_med_row_t, max_rows> rows;
};
static_assert(offsetof(tunnel_med_results_t, row_count) == 48);
static_assert(offsetof(tunnel_med_results_t, rows) == 56);
static_assert(sizeof(tunnel_med_results_t) == 8056);

class VpnTunnelState {
 public:
  // Publishes the rows of `states` in place of all that were there; its header isn't looked at. A record
  // that can't be had is logged, and keeps what it holds. More rows than there are count as max_rows.
  static void set_tunnel_states(vpn_tunnel_states_t& states);
};

class TunnelMedResults {
 public:
  static constexpr std::uint32_t no_med = 0xffffffff;

  // The measured MED of the tunnel to that peer (its address in network order, as inet_aton gives it); no_med
  // when there is none or the record can't be had.
  static std::uint32_t get_med(unsigned address);
};

}  // namespace zol_utils
