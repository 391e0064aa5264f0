// One VRRP instance of this node: its role and the addresses that move with it. HAManager holds them.
//
// Addresses are dotted text. Logs under "HAState". Main thread only.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "ha/vrrp_state.h"

namespace zol {

// The neighbours that are reached through one device.
struct vrrp_neighbor_group_t {
  std::string interface;            // the device
  std::string internal_ip;          // this node's address toward them
  std::set<std::string> neighbors;  // their addresses
};

struct HAState {
  // The state is set up now, and its role counts as seen.
  HAState(const std::string& instance_name, const VRRPState& vrrp_state);

  // Takes over what an older state of the instance remembers of its role, but not the role.
  void remember(const HAState& old);
  bool is_master() const { return vrrp.is_master(); }
  // Whether the role is another than at the last call, or at set-up when there was none.
  bool was_changed();

  // Groups the neighbours by device. One that no route leads to is left out, with a warning.
  void build_neighbors(const std::set<std::string>& neighbors);
  // A role message; `timestamp_us` is the wall clock in microseconds. One from before the set-up means
  // nothing. False when it wasn't taken.
  bool process_vrrp_role_msg(unsigned char role, std::uint64_t timestamp_us);
  // Finds a role out when it isn't known: from the state file, then from the addresses on this machine, else
  // backup. False when it had to be guessed.
  bool reload_vrrp_state(bool use_temp);
  // Takes the role out of /tmp/vrrp_state_<name>, with "_temp" behind it for `use_temp`. Any text with
  // "MASTER" is that, any other is backup. The file /tmp/vrrp_state of former versions gets the new name.
  bool read_state_file(bool use_temp);
  // Takes the floating addresses off the device of the default route, and with `clustered` false puts the
  // configured addresses that this machine lacks on it; ip-address(8). Address texts that are none are left
  // out with an error line: the commands run in a shell.
  void handle_alias_ips(bool clustered) const;
  // A node is a new master for five seconds.
  void update_new_master(bool is_master_now);

  std::string name;
  VRRPState vrrp;
  unsigned char last_role;                                       // at the last check
  std::map<std::string, vrrp_neighbor_group_t> neighbor_groups;  // by interface
  std::set<std::string> floating_ips;
  std::uint64_t new_master_since_ms = 0;  // wall clock, 0 while not master
  bool new_master = false;
  std::uint64_t load_time_us;  // wall clock of the set-up

 private:
  bool take_role_of(const std::string& content);
};

}  // namespace zol
