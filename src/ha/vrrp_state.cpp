#include "ha/vrrp_state.h"

#include "core/ipc_messages.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

using zol_utils::VRRPRole;
using zol_utils::VRRPStatus;

namespace {

constexpr const char* own_name = "zol_monitor";
constexpr const char* main_process = "zol";

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("VRRPState");
  return l;
}

}  // namespace

VRRPState::VRRPState(const std::string& name) : IDispatch(own_name, main_process) {
  if (Helper::is_zol())
    shm_index = VRRPStatus::add_state(name);
}

VRRPState::VRRPState(const std::string& name, const VRRPState& old) : VRRPState(name) {
  role = old.role;
  state_changes = old.state_changes;
}

VRRPState::VRRPState(VRRPRole role_read, unsigned changes_read)
    : IDispatch(own_name, main_process), role(role_read), state_changes(changes_read) {}

void VRRPState::sync() {
  if (const auto entry = VRRPStatus::get_state(shm_index)) {
    role = entry->role;
    state_changes = entry->state_changes;
  }
}

void VRRPState::set_role(VRRPRole new_role) {
  if (new_role == role)
    return;
  VRRPStatus::save_state_to_shm(shm_index, new_role);
  role = new_role;
  ++state_changes;
  SUP_LOG(logger(), log_level::info) << "VRRP State change detected! new state "
                                     << role_str(static_cast<unsigned char>(new_role));
  dispatch_msg(msgtype_value(msgtype_e::vrrp_role));
}

bool VRRPState::process_vrrp_role_msg(unsigned char new_role) {
  const auto known = static_cast<VRRPRole>(new_role);
  if (known != VRRPRole::master && known != VRRPRole::backup) {
    SUP_LOG(logger(), log_level::error) << "Got unexpected role " << static_cast<unsigned>(new_role);
    return false;
  }
  set_role(known);
  return true;
}

const char* VRRPState::role_str(unsigned char role) {
  switch (static_cast<VRRPRole>(role)) {
    case VRRPRole::master:
      return "MASTER";
    case VRRPRole::backup:
      return "BACKUP";
    default:
      return "UKNOWN";
  }
}

bool VRRPState::is_service_running() {
  const std::string output =
      Helper::run_cmd("timeout 2 service keepalived status 2>/dev/null | grep 'Active:'");
  return output.find("(running)") != std::string::npos;
}

}  // namespace zol
