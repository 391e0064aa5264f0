#include "config/services.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "config/cached_setting.h"
#include "config/zol_conf_consts.h"
#include "dual_zol_helper.h"
#include "shared_object.h"
#include "shared_records.h"
#include "sup_logger.h"

namespace zol {

using zol_utils::DualZOLHelper;
using zol_utils::ZolHistoricServices;

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("Services");
  return l;
}

const Service& no_service() {
  static const Service none;
  return none;
}

// The block is made here first: one that doesn't fit leaves the shared record as it was.
std::array<unsigned char, ZolHistoricServices::block_size>& transfer_buffer() {
  static std::array<unsigned char, ZolHistoricServices::block_size> buffer{};
  return buffer;
}

std::string entry_key(const std::string& public_host, std::uint16_t port) {
  return public_host + ":" + std::to_string(port);
}

const Service* find_by_entry(const std::vector<Service>& services, const std::string& public_host,
                             std::uint16_t port) {
  const auto found = std::find_if(services.begin(), services.end(), [&](const Service& service) {
    return service.public_host == public_host && service.external_port_in == port;
  });
  return found != services.end() ? &*found : nullptr;
}

bool lookup_port_limit(CachedSetting<int>& setting, const char* key, int& limit) {
  if (setting.lookup(limit))
    return true;
  SUP_LOG(logger(), log_level::error) << "is_internal_port"
                                      << ": Couldn't retrive configuration parameter " << key;
  return false;
}

}  // namespace

Services::Services(bool write_shared, bool watch) : writes_shm(write_shared), watch_reconf(watch) {
  if (watch_reconf)
    TheConfigurator::get_configuration()->register_reconfiguration_cb(this);
  try {
    if (DualZOLHelper::instance()->zol_is_running())
      restore_historical();
    if (watch_reconf)
      Services::reconfigure();
    else
      read_conf();
  } catch (...) {
    leave_configurator();
    throw;
  }
}

Services::~Services() {
  leave_configurator();
}

void Services::leave_configurator() noexcept {
  if (!watch_reconf)
    return;
  try {
    TheConfigurator::get_configuration()->unregister_reconfiguration_cb(this);
  } catch (const std::exception&) {  // no configuration is left to unregister from
  }
}

void Services::read_conf() {
  services.clear();
  read_conf_do(zol_conf_consts::multipletargets_services_key);
}

std::uint8_t Services::read_conf_do(const std::string& key) {
  SUP_LOG(logger(), log_level::debug) << "Read services";
  std::uint8_t highest = 0;
  ConfigListIterator element(key);
  for (int i = 0, count = element.size(); i < count; ++i, ++element) {
    services.emplace_back(*element);
    highest = std::max(highest, services.back().service_id);
  }
  const char* target_key = zol_conf_consts::monitoring_unmarked_target_key;
  if (!TheConfigurator::get_configuration()->config.lookupValue(target_key, unmarked_target)) {
    SUP_LOG(logger(), log_level::error) << "Key is missing " << target_key;
  }
  return highest;
}

bool Services::need_reconf(bool&) {
  return true;
}

void Services::reconfigure() {
  if (!DualZOLHelper::instance()->zol_is_running()) {
    max_service_id = 0;
    return;
  }
  // A service is historical as long as no current one has its id.
  historical.add(services);
  services.clear();
  const std::uint8_t highest = read_conf_do(zol_conf_consts::multipletargets_services_key);
  historical.remove(services);
  index_historical();
  max_service_id = std::max(highest, historical.get_max_id());
  if (writes_shm)
    store_historical();
}

void Services::index_historical() {
  historical_index_.clear();
  for (const Service& service : historical.get_services())
    historical_index_[service.service_id] = historical.get_by_service_id(service.service_id);
}

// What an earlier run stored isn't overwritten before it has been taken over.
void Services::store_historical() {
  zol_utils::with_locked_record<ZolHistoricServices>("reconfigure", [this](ZolHistoricServices& record) {
    if (!restored_)
      take_historical(record.block);
    auto& buffer = transfer_buffer();
    if (historical.serialize(buffer.data(), buffer.size()))
      std::memcpy(record.block, buffer.data(), buffer.size());
  });
}

void Services::restore_historical() {
  zol_utils::with_locked_record<ZolHistoricServices>(
      "Services", [this](const ZolHistoricServices& record) { take_historical(record.block); });
}

// What this run knows of a service is newer than what an earlier one stored.
void Services::take_historical(const unsigned char* block) {
  const std::vector<Service> newer = historical.get_services();
  historical.deserialize(block);
  historical.add(newer);
  historical.remove(services);
  index_historical();
  max_service_id = std::max(max_service_id, historical.get_max_id());
  restored_ = true;
}

const Service& Services::find_by_service_id(std::uint8_t id, bool with_historical) const {
  for (const Service& service : services)
    if (service.service_id == id)
      return service;
  if (with_historical) {
    const auto found = historical_index_.find(id);
    if (found != historical_index_.end() && !found->second.logical_network_id.empty())
      return found->second;
  }
  const Service* unmarked = find_by_host(unmarked_target);
  return unmarked != nullptr ? *unmarked : no_service();
}

Service Services::get_by_service_id(std::uint8_t id, bool with_historical) const {
  return find_by_service_id(id, with_historical);
}

const Service* Services::find_by_host(const std::string& host) const {
  const auto found = std::find_if(services.begin(), services.end(), [&](const Service& service) {
    return service.host == host || service.aux_host == host;
  });
  return found != services.end() ? &*found : nullptr;
}

Service Services::get_by_host(const std::string& host) const {
  const Service* found = find_by_host(host);
  return found != nullptr ? *found : Service();
}

bool Services::external_port_has_service(std::uint16_t port) const {
  return std::any_of(services.begin(), services.end(), [&](const Service& service) {
    return service.external_port_in == port || service.internal_port == port;
  });
}

bool Services::is_shared_port(std::uint16_t port) const {
  return std::count_if(services.begin(), services.end(), [&](const Service& service) {
           return service.external_port_in == port && service.is_port_owned;
         }) >= 2;
}

bool Services::is_internal_port(std::uint16_t port) {
  static const char* const start_key = zol_conf_consts::iptables_internal_port_range_start_key;
  static const char* const end_key = zol_conf_consts::iptables_internal_port_range_end_key;
  static CachedSetting<int> start_setting(start_key);
  static CachedSetting<int> end_setting(end_key);
  int first = 0;
  int last = 0;
  const bool has_first = lookup_port_limit(start_setting, start_key, first);
  const bool has_last = lookup_port_limit(end_setting, end_key, last);
  return has_first && has_last && first <= port && port <= last;
}

std::string Services::get_target_by_logical_net_id(const std::string& network) const {
  const auto found = std::find_if(services.begin(), services.end(), [&](const Service& service) {
    return service.logical_network_id == network;
  });
  std::string target = found != services.end() ? found->host : std::string();
  if (target.empty())
    target = historical.get_target_by_logical_net_id(network);
  return target.empty() ? unmarked_target : target;
}

std::set<std::string> Services::get_logical_network_ids(bool with_historical) const {
  std::set<std::string> ids;
  if (with_historical)
    ids = historical.get_logical_network_ids();
  for (const Service& service : services)
    ids.insert(service.logical_network_id);
  return ids;
}

std::vector<Service> Services::get_service_vec(bool with_historical) const {
  std::vector<Service> all;
  if (with_historical)
    all = historical.get_services();
  all.insert(all.end(), services.begin(), services.end());
  return all;
}

std::uint8_t Services::alloc_service_id(const std::string& public_host, std::uint16_t port) {
  if (const Service* configured = find_by_entry(services, public_host, port))
    return configured->service_id;
  if (const std::uint8_t id = historical.get_by_public_host_port(public_host, port); id != 0)
    return id;
  if (!DualZOLHelper::instance()->zol_is_running())
    if (const std::uint8_t id = dual_historical.get_by_public_host_port(public_host, port); id != 0)
      return id;
  const auto [entry, is_new] = allocated_ids.try_emplace(entry_key(public_host, port), 0);
  if (is_new)
    entry->second = ++max_service_id;
  return entry->second;
}

void Services::dual_zol_save_services(const std::vector<Service>& saved) {
  dual_historical.add(saved);
}

std::vector<Service> Services::dual_zol_remove_used_services(const std::vector<Service>& used) {
  dual_historical.remove(used);
  return dual_historical.get_services();
}

}  // namespace zol
