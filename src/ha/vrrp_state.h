// The role of this node in one VRRP instance (RFC 5798), mirrored in the record that the node's processes
// share.
//
// Logs under "VRRPState". Main thread only.
#pragma once

#include <cstdint>
#include <string>

#include "core/zol_dispatch.h"
#include "vrrp_status.h"

namespace zol {

// Tells the node's main process, "zol", of a change.
class VRRPState : public IDispatch {
 public:
  // On a node, the instance is entered in the shared record.
  explicit VRRPState(const std::string& name);
  // The same, with the role and the count of an older state.
  VRRPState(const std::string& name, const VRRPState& old);
  // Without a place in the shared record: what was read there.
  VRRPState(zol_utils::VRRPRole role, unsigned state_changes);

  // Takes role and count out of the shared record. A state without a place there keeps its own.
  void sync();
  // A role that differs goes to the shared record and, as a message, to the main process.
  void set_role(zol_utils::VRRPRole new_role);
  void set_master() { set_role(zol_utils::VRRPRole::master); }
  void set_backup() { set_role(zol_utils::VRRPRole::backup); }
  void set_unknown() { set_role(zol_utils::VRRPRole::unknown); }
  bool is_master() const { return role == zol_utils::VRRPRole::master; }
  // The role as it comes in messages; false, with an error line, for a number that is no role.
  bool process_vrrp_role_msg(unsigned char new_role);

  // "MASTER", "BACKUP", and "UKNOWN" for every other number: who reads the logs knows that spelling.
  static const char* role_str(unsigned char role);
  // Whether the service that speaks VRRP on this machine runs. Asks the service manager, for two seconds at
  // most.
  static bool is_service_running();

  zol_utils::VRRPRole role = zol_utils::VRRPRole::unknown;
  std::uint32_t state_changes = 0;
  int shm_index = zol_utils::VRRPStatus::no_slot;
};

}  // namespace zol
