#include "vrrp_status.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <span>

#include "shared_object.h"
#include "sup_logger.h"

namespace zol_utils {

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("VRRPStatus");
  return l;
}

// The slots that this process has asked for.
std::map<std::string, int>& own_slots() {
  static std::map<std::string, int> slots;
  return slots;
}

// Another process may have left any count.
std::span<vrrp_instance_t> slots_of(vrrp_status_t& status) {
  return {status.instances.data(), std::min<std::size_t>(status.count, vrrp_status_t::max_instances)};
}

bool is_named(const vrrp_instance_t& instance, const std::string& name) {
  return instance.name[0] != 0 && instance_name(instance) == name;
}

vrrp_instance_t* instance_at(vrrp_status_t& status, int slot) {
  const std::span<vrrp_instance_t> slots = slots_of(status);
  if (slot < 0 || static_cast<std::size_t>(slot) >= slots.size() || slots[slot].name[0] == 0)
    return nullptr;
  return &slots[slot];
}

template <typename Wanted>
int find_slot(vrrp_status_t& status, Wanted wanted) {
  const std::span<vrrp_instance_t> slots = slots_of(status);
  const auto found = std::find_if(slots.begin(), slots.end(), wanted);
  return found == slots.end() ? VRRPStatus::no_slot : static_cast<int>(found - slots.begin());
}

int enter(vrrp_status_t& status, const std::string& name) {
  int slot = find_slot(status, [&](const auto& instance) { return is_named(instance, name); });
  if (slot != VRRPStatus::no_slot)
    return slot;
  slot = find_slot(status, [](const auto& instance) { return instance.name[0] == 0; });
  if (slot == VRRPStatus::no_slot && status.count < vrrp_status_t::max_instances)
    slot = static_cast<int>(status.count++);
  if (slot == VRRPStatus::no_slot)
    return slot;
  vrrp_instance_t& instance = status.instances[static_cast<std::size_t>(slot)];
  instance = {};
  std::memcpy(instance.name, name.data(), name.size());
  return slot;
}

}  // namespace

std::string instance_name(const vrrp_instance_t& instance) {
  return {instance.name, strnlen(instance.name, sizeof instance.name)};
}

int VRRPStatus::add_state(const std::string& name) {
  if (name.empty() || name.size() >= sizeof(vrrp_instance_t::name)) {
    SUP_LOG(logger(), log_level::error) << "add_state: not a name of an instance: '" << name << "'";
    return no_slot;
  }
  int slot = no_slot;
  if (!with_locked_record<vrrp_status_t>("add_state",
                                         [&](vrrp_status_t& status) { slot = enter(status, name); }))
    return no_slot;
  if (slot == no_slot)
    SUP_LOG(logger(), log_level::error) << "add_state: no slot is left for " << name;
  else
    own_slots()[name] = slot;
  return slot;
}

std::optional<vrrp_instance_t> VRRPStatus::get_state(int slot) {
  std::optional<vrrp_instance_t> found;
  if (slot >= 0)
    with_locked_record<vrrp_status_t>("get_state", [&](vrrp_status_t& status) {
      if (const vrrp_instance_t* instance = instance_at(status, slot))
        found = *instance;
    });
  return found;
}

void VRRPStatus::save_state_to_shm(int slot, VRRPRole role) {
  if (slot < 0)
    return;
  with_locked_record<vrrp_status_t>("save_state_to_shm", [&](vrrp_status_t& status) {
    vrrp_instance_t* instance = instance_at(status, slot);
    if (instance == nullptr || instance->role == role)
      return;
    instance->role = role;
    ++instance->state_changes;
  });
}

void VRRPStatus::clear_states(const std::set<std::string>& keep) {
  std::map<std::string, int> unwanted = own_slots();
  std::erase_if(unwanted, [&](const auto& entry) { return keep.contains(entry.first); });
  if (unwanted.empty())
    return;
  const bool cleared = with_locked_record<vrrp_status_t>("clear_states", [&](vrrp_status_t& status) {
    for (const auto& [name, slot] : unwanted) {
      vrrp_instance_t* instance = instance_at(status, slot);
      if (instance != nullptr && is_named(*instance, name))
        *instance = {};
    }
  });
  if (cleared)
    std::erase_if(own_slots(), [&](const auto& entry) { return unwanted.contains(entry.first); });
}

std::optional<vrrp_instance_t> VRRPStatus::get_dynamic_floating_ip_state() {
  std::optional<vrrp_instance_t> found;
  with_locked_record<vrrp_status_t>("get_dynamic_floating_ip_state", [&](vrrp_status_t& status) {
    const int slot =
        find_slot(status, [](const auto& instance) { return is_named(instance, dynamic_vrrp_instance); });
    if (slot != no_slot)
      found = status.instances[static_cast<std::size_t>(slot)];
  });
  return found;
}

}  // namespace zol_utils
