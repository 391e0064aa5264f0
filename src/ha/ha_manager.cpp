#include "ha/ha_manager.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <vector>

#include "config/zol_conf_consts.h"
#include "config/zol_networks.h"
#include "dual_zol_helper.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

using libvariant::Variant;
using zol_utils::vrrp_instance_t;
using zol_utils::vrrp_status_t;
using zol_utils::VRRPRole;
using zol_utils::VRRPStatus;

namespace {

constexpr int dynamic_priority = 1;  // the node's own address hangs on no tunnel

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("HAManager");
  return l;
}

bool is_dynamic(const std::string& name) {
  return name == zol_utils::dynamic_vrrp_instance;
}

const char* activity(const HAState& state) {
  return state.is_master() ? "active" : "standby";
}

Variant dynamic_report(const HAState& state) {
  Variant report = Variant::make_map();
  report.Assign("ip", ZOLNetworks::instance()->get_my_hop_floating_ip());
  report.Assign("state", activity(state));
  report.Assign("state_changes_amount", state.vrrp.state_changes);
  return report;
}

Variant site_report(const HAState& state) {
  Variant report = Variant::make_map();
  report.Assign("site_id", state.name);
  report.Assign("active_tunnel", state.is_master());
  report.Assign("state_changes_amount", state.vrrp.state_changes);
  return report;
}

}  // namespace

HAManager* HAManager::instance(bool reload) {
  static HAManager manager;
  if (reload)
    manager.reconfigure();
  return &manager;
}

HAManager::HAManager() : clear_cache_timer(clear_cache_cb, this, -1) {
  is_running = true;
  read_conf(false);
  TheConfigurator::get_configuration()->register_reconfiguration_cb(this);
}

HAManager::~HAManager() {
  try {
    TheConfigurator::get_configuration()->unregister_reconfiguration_cb(this);
  } catch (const std::exception&) {  // no configuration is left to unregister from
  }
}

bool HAManager::need_reconf(bool&) {
  return true;
}

void HAManager::reconfigure() {
  use_temp_state_files = false;
  TheConfigurator::get_configuration()->config.lookupValue(
      zol_conf_consts::general_use_temp_vrrp_instances_key, use_temp_state_files);
  read_conf(true);
}

void HAManager::post_reconfigure() {
  if (!zol_utils::DualZOLHelper::instance()->is_dual_installation() || !is_enabled() ||
      !was_ha_state_changed())
    return;
  SUP_LOG(logger(), log_level::info) << "High availability state changed! flushing caches";
  clear_caches();
}

// --- the instances
// ------------------------------------------------------------------------------------------------

void HAManager::read_conf(bool from_configuration) {
  if (!from_configuration) {
    load_states(false);
    return;
  }
  for (auto& [name, state] : states)
    state.vrrp.sync();
  // An instance that stays never leaves the record, where the other processes look it up meanwhile.
  std::set<std::string> kept;
  if (ZOLNetworks::instance()->has_dynamic_floating_ips())
    kept.insert(zol_utils::dynamic_vrrp_instance);
  VRRPStatus::clear_states(kept);
  std::map<std::string, HAState> made;
  if (!kept.empty()) {
    SUP_LOG(logger(), log_level::info) << "read_conf"
                                       << ": Autonomous floating ip is found";
    create_state(made, zol_utils::dynamic_vrrp_instance, dynamic_priority);
  }
  states.merge(former_);  // of before an earlier reload, when no reading came between
  former_ = std::exchange(states, std::move(made));
}

void HAManager::create_state(std::map<std::string, HAState>& made, const std::string& name,
                             int /*tunnel_priority*/) {
  SUP_LOG(logger(), log_level::info) << "create_state"
                                     << ": Creating new state for "
                                     << (is_dynamic(name) ? "Autonomous floating ip" : "Site " + name);
  const auto old = states.find(name);
  HAState state(name, old == states.end() ? VRRPState(name) : VRRPState(name, old->second.vrrp));
  if (old != states.end())
    state.remember(old->second);
  const ZOLNetworks& networks = *ZOLNetworks::instance();
  if (networks.hop_map.get_ha_mode() == ha_mode_t::autonomous) {
    const std::vector<std::string> preallocated = networks.get_preallocated_interfaces();
    state.floating_ips = {preallocated.begin(), preallocated.end()};
  } else {
    state.floating_ips = networks.hop_map.get_floating_ips();
  }
  state.build_neighbors(networks.hop_map.get_vrrp_neighbors());
  SUP_LOG(logger(), log_level::info) << "read_conf"
                                     << ": Adding " << state.floating_ips.size() << " floating ips and "
                                     << state.neighbor_groups.size() << " neighbor groups";
  made.insert_or_assign(name, std::move(state));
}

bool HAManager::open_shm() {
  shm = zol_utils::shared_mem_enabled ? zol_utils::SharedObject<vrrp_status_t>::instance() : nullptr;
  if (shm != nullptr)
    return true;
  SUP_LOG(logger(), log_level::debug) << "Shared memory disabled for: " << typeid(vrrp_status_t).name();
  return false;
}

// What a state remembers outlives a reload.
HAState& HAManager::state_of(const std::string& name, const VRRPState& read) {
  if (const auto found = states.find(name); found != states.end())
    return found->second;
  HAState& state = states.emplace(name, HAState(name, read)).first->second;
  if (const auto old = former_.find(name); old != former_.end())
    state.remember(old->second);
  return state;
}

void HAManager::load_states(bool keep_seen) {
  if (!open_shm())
    return;
  std::vector<vrrp_instance_t> entries;
  bool loaded = false;
  try {
    loaded =
        zol_utils::with_locked_record<vrrp_status_t>("load_states", [&entries](const vrrp_status_t& status) {
          const auto count = std::min<std::size_t>(status.count, vrrp_status_t::max_instances);
          entries.assign(status.instances.begin(), status.instances.begin() + count);
        });
  } catch (const std::runtime_error&) {
    SUP_LOG(logger(), log_level::fatal) << "Shared memory out of sync";
    throw;
  }
  if (!loaded)
    return;
  for (const vrrp_instance_t& entry : entries) {
    const std::string name = zol_utils::instance_name(entry);
    if (name.empty())
      continue;
    const VRRPState read(entry.role, entry.state_changes);
    HAState& state = state_of(name, read);
    state.vrrp.role = read.role;
    state.vrrp.state_changes = read.state_changes;
    if (!keep_seen)
      state.last_role = static_cast<unsigned char>(read.role);
  }
  former_.clear();
}

// --- what is asked
// ------------------------------------------------------------------------------------------------

std::pair<Variant, Variant> HAManager::get_ha_report() {
  load_states(true);
  Variant dynamic = Variant::make_map();
  Variant tunnels = Variant::make_list();
  for (const auto& [name, state] : states) {
    if (is_dynamic(name))
      dynamic = dynamic_report(state);
    else
      tunnels.Append(site_report(state));
  }
  Variant sites = Variant::make_map();
  if (!tunnels.Empty())
    sites.Assign("tunnels", std::move(tunnels));
  return {std::move(dynamic), std::move(sites)};
}

Variant HAManager::get_ha_info() {
  load_states(true);
  Variant list = Variant::make_list();
  for (const auto& [name, state] : states) {
    Variant entry = Variant::make_map();
    if (is_dynamic(name))
      entry.Assign("ip", ZOLNetworks::instance()->get_my_hop_floating_ip());
    else
      entry.Assign("site_id", name);
    entry.Assign("state", activity(state));
    entry.Assign("state_changes_amount", state.vrrp.state_changes);
    list.Append(std::move(entry));
  }
  return list;
}

bool HAManager::has_dynamic_floating_ip() {
  const auto entry = VRRPStatus::get_dynamic_floating_ip_state();
  return entry && entry->role == VRRPRole::master;
}

bool HAManager::process_vrrp_role_msg(const std::string& site, unsigned char role,
                                      std::uint64_t timestamp_us) {
  const auto found = states.find(site);
  if (found != states.end())
    return found->second.process_vrrp_role_msg(role, timestamp_us);
  SUP_LOG(logger(), log_level::error) << "No state exists for site " << site;
  return false;
}

void HAManager::reload_vrrp_state() {
  for (auto& [name, state] : states)
    state.reload_vrrp_state(use_temp_state_files);
}

void HAManager::handle_alias_ips(bool clustered) {
  for (const auto& [name, state] : states)
    state.handle_alias_ips(clustered);
}

bool HAManager::is_master() const {
  if (states.empty())
    SUP_LOG(logger(), log_level::error) << "No HA state exists";
  return std::any_of(states.begin(), states.end(),
                     [](const auto& entry) { return entry.second.is_master(); });
}

bool HAManager::is_master(const std::string& site) const {
  const auto found = states.find(site);
  if (found != states.end())
    return found->second.is_master();
  SUP_LOG(logger(), log_level::warning) << "Site " << site << " is not part of a cluster";
  return false;
}

bool HAManager::is_new_master() {
  if (states.empty())
    SUP_LOG(logger(), log_level::error) << "No HA state exists";
  bool is_new = false;
  for (auto& [name, state] : states) {
    state.update_new_master(state.is_master());
    is_new = is_new || state.new_master;
  }
  return is_new;
}

bool HAManager::was_ha_state_changed() {
  load_states(true);
  bool changed = false;
  for (auto& [name, state] : states)
    changed = state.was_changed() || changed;
  return changed;
}

}  // namespace zol
