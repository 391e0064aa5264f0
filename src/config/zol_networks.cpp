#include "config/zol_networks.h"

#include <algorithm>
#include <exception>
#include <tuple>

#include "config/address_text.h"
#include "config/zol_conf_consts.h"
#include "ha/ha_manager.h"
#include "ha/vrrp_state.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr const char* unknown_address = "0.0.0.0";

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("ZOLNetworks");
  return l;
}

const libconfig::Config& configuration() {
  return TheConfigurator::get_configuration()->config;
}

template <typename T>
bool read_member(const std::string& path, const char* member, T& value) {
  if (configuration().lookupValue(path + "." + member, value))
    return true;
  SUP_LOG(logger(), log_level::error) << "Key " << path << " is missing " << member;
  return false;
}

// False when the row is to be left out; one without `interface` stays.
bool read_row(const std::string& path, interface_info_t& row) {
  read_member(path, "interface", row.interface);
  return read_member(path, "external_ip", row.external_ip) && read_member(path, "is_private", row.is_private);
}

bool is_plain(const interface_info_t& row) {
  return !row.is_private && !row.is_floating;
}

}  // namespace

bool interface_t::operator<(const interface_t& other) const {
  return std::tie(interface, external_ip) < std::tie(other.interface, other.external_ip);
}

ZOLNetworks* ZOLNetworks::instance() {
  static ZOLNetworks networks;
  return &networks;
}

ZOLNetworks::ZOLNetworks() : hop_map(this) {
  read_configuration();
  TheConfigurator::get_configuration()->register_reconfiguration_cb(this);
}

ZOLNetworks::~ZOLNetworks() {
  try {
    TheConfigurator::get_configuration()->unregister_reconfiguration_cb(this);
  } catch (const std::exception&) {  // no configuration is left to unregister from
  }
}

bool ZOLNetworks::need_reconf(bool&) {
  return true;
}

void ZOLNetworks::read_configuration() {
  interfaces.clear();
  my_ips.clear();
  possible_floating_ips.clear();
  std::string hop_id;
  configuration().lookupValue(zol_conf_consts::general_hop_id_key, hop_id);
  std::string internal = unknown_address;
  std::string external = unknown_address;
  read_interfaces(internal, external);
  read_possible_floating_ips();
  parse_hop_map(hop_id);
  merge_hop_map_info(internal, external);
  if (internal == traffic_out_internal_ip && external == traffic_out_external_ip)
    return;
  SUP_LOG(logger(), log_level::notice)
      << "read_configuration"
      << ": Saving outgoing interface ips " << internal << " -> " << external;
  traffic_out_internal_ip = internal;
  traffic_out_external_ip = external;
}

void ZOLNetworks::read_interfaces(std::string& internal, std::string& external) {
  ConfigListIterator it(zol_conf_consts::networking_interfaces_key);
  for (int i = 0, count = it.size(); i < count; ++i, ++it) {
    interface_info_t row;
    if (!read_row(*it, row))
      continue;
    if (!row.is_private) {
      internal = row.interface;
      external = row.external_ip;
    }
    my_ips.insert({row.interface, row.external_ip});
    interfaces.push_back(std::move(row));
  }
}

void ZOLNetworks::read_possible_floating_ips() {
  ConfigListIterator it(zol_conf_consts::sharednetworkdata_possible_floating_ips_key);
  for (int i = 0, count = it.size(); i < count; ++i, ++it) {
    const std::string element = *it;
    std::string address;
    if (configuration().lookupValue(element, address))
      possible_floating_ips.insert(address);
    else
      SUP_LOG(logger(), log_level::error) << "Key " << element << " is missing";
  }
}

void ZOLNetworks::parse_hop_map(const std::string& hop_id) {
  hop_map.my_ips = get_my_static_ips();
  if (hop_map.parse(hop_id))
    hop_map.update_other_zol_ips_ipset();
}

void ZOLNetworks::merge_hop_map_info(std::string& internal, std::string& external) {
  const ha_mode_t ha_mode = hop_map.get_ha_mode();
  floating_ips = hop_map.parsed ? hop_map.get_floating_ips() : possible_floating_ips;
  merge_floatings(floating_ips);
  if (!floating_ips.empty()) {
    if (ha_mode == ha_mode_t::autonomous && HAManager::has_dynamic_floating_ip())
      internal = external = *floating_ips.begin();
  } else if (get_static_external_ips().size() > 1) {
    floating_ips.insert(external);
  }
}

void ZOLNetworks::merge_floatings(const std::set<std::string>& addresses) {
  const std::set<std::string> own = get_my_static_ips();
  for (const std::string& address : addresses) {
    if (!own.contains(address))
      interfaces.push_back({address, address, false, true});
  }
}

bool ZOLNetworks::is_my_private_ip(unsigned int ip) const {
  const std::string address = address_text(ip);
  return std::any_of(interfaces.begin(), interfaces.end(),
                     [&](const interface_info_t& row) { return row.interface == address; });
}

bool ZOLNetworks::is_private_network(unsigned int ip) const {
  const std::set<std::string>& peers = hop_map.get_all_peer_ips(false);
  return !peers.empty() && Helper::is_private_address(ip) && peers.contains(address_text(ip));
}

bool ZOLNetworks::should_remove_vrrp_alias() const {
  const ha_mode_t ha_mode = hop_map.get_ha_mode();
  if (ha_mode == ha_mode_t::autonomous || hop_map.is_clustered())
    return false;
  return ha_mode != ha_mode_t::none || !VRRPState::is_service_running();
}

bool ZOLNetworks::has_dynamic_floating_ips() const {
  return hop_map.get_ha_mode() == ha_mode_t::autonomous && !hop_map.get_floating_ips().empty();
}

std::string ZOLNetworks::get_my_hop_floating_ip() const {
  return floating_ips.empty() ? std::string() : *floating_ips.begin();
}

std::set<std::string> ZOLNetworks::get_private_interfaces() const {
  std::set<std::string> addresses;
  for (const interface_info_t& row : interfaces) {
    if (row.is_private)
      addresses.insert(row.interface);
  }
  return addresses;
}

std::set<std::string> ZOLNetworks::get_my_static_ips() const {
  std::set<std::string> addresses;
  for (const interface_info_t& row : interfaces) {
    if (!row.is_floating)
      addresses.insert({row.interface, row.external_ip});
  }
  return addresses;
}

std::set<std::string> ZOLNetworks::get_static_external_ips() const {
  std::set<std::string> addresses;
  for (const interface_info_t& row : interfaces) {
    if (is_plain(row))
      addresses.insert(row.external_ip);
  }
  return addresses;
}

std::set<std::string> ZOLNetworks::get_static_internal_ips() const {
  const std::vector<std::string> addresses = get_preallocated_interfaces();
  return {addresses.begin(), addresses.end()};
}

std::vector<std::string> ZOLNetworks::get_preallocated_interfaces() const {
  std::vector<std::string> addresses;
  for (const interface_info_t& row : interfaces) {
    if (is_plain(row))
      addresses.push_back(row.interface);
  }
  return addresses;
}

std::set<interface_t> ZOLNetworks::get_interfaces(bool with_floating) const {
  std::set<interface_t> rows;
  for (const interface_info_t& row : interfaces) {
    if (with_floating || !row.is_floating)
      rows.insert({row.interface, row.external_ip, row.is_private});
  }
  return rows;
}

}  // namespace zol
