#include "probes/station_monitor.h"

#include "dual_zol_helper.h"
#include "probes/ping_manager.h"
#include "sites/vpn_conn_info.h"
#include "sites/zol_monitored_vpn_sites.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

constexpr const char* sites_name = "monitored";
constexpr const char* station_key = "general";
constexpr unsigned long first_probe_id = 40000;
constexpr unsigned long last_probe_id = 65535;
constexpr unsigned long max_probes = 255;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("StationMonitor");
  return instance;
}

// The list of sites with their stations; the first call makes and reads it.
const zol::MonitoredVPNSites& monitored_sites() {
  zol::ZOLVPNSitesConf& conf = zol::ZOLVPNSitesConf::ref();
  const auto [found, added] = conf.try_emplace(sites_name, nullptr);
  if (found->second == nullptr) {
    found->second = new zol::MonitoredVPNSites;
    found->second->configure(*zol::TheConfigurator::get_configuration());
  }
  return dynamic_cast<const zol::MonitoredVPNSites&>(*found->second);
}

std::uint32_t interval_of(const zol::MonitoredVPNSites& sites) {
  if (sites.station_monitor_freq_ms >= 0)
    return static_cast<std::uint32_t>(sites.station_monitor_freq_ms);
  SUP_LOG(logger(), log_level::warning)
      << "VPNIPsec.station_monitor_freq_ms is below 0, the Station Monitor is disabled";
  return 0;
}

}  // namespace

StationMonitor::StationMonitor() {
  SUP_LOG(logger(), log_level::info) << "Created";
  StationMonitor::reconfigure();
  zol::TheConfigurator::get_configuration()->register_reconfiguration_cb(this);
}

StationMonitor::~StationMonitor() {
  SUP_LOG(logger(), log_level::info) << "Destroyed";
  zol::TheConfigurator::get_configuration()->unregister_reconfiguration_cb(this);
}

bool StationMonitor::need_reconf(bool&) {
  return true;
}

void StationMonitor::reload_cb(int, short, void* station_monitor) {
  static_cast<StationMonitor*>(station_monitor)->reconfigure();
}

void StationMonitor::reconfigure() {
  const zol::MonitoredVPNSites& sites = monitored_sites();
  interval_ms = interval_of(sites);
  const bool should_run = zol_utils::DualZOLHelper::instance()->zol_is_services_should_run();
  if (!should_run)
    SUP_LOG(logger(), log_level::notice)
        << "Station Monitor is disabled as it should be enabled only on the newer ZOL";
  if (!zol::Helper::is_middle_mile_network() || interval_ms == 0 || !should_run) {
    ping_manager.reset();
    return;
  }
  if (!ping_manager) {
    ping_manager = std::make_unique<MonitorPingManager>();
    ping_manager->init(first_probe_id, last_probe_id, max_probes);
  }
  ping_manager->update_probes(targets_of(sites));
}

std::vector<MonitoringTarget> StationMonitor::targets_of(const zol::MonitoredVPNSites& sites) const {
  std::vector<MonitoringTarget> targets;
  for (const zol::ZOLVPNSiteConf* site : sites.site_confs) {
    if (!site->accept_connections)
      continue;
    if (!zol::ZOLVPNSites::icmp_local_addresses.empty())
      add_stations(*site, targets);
    if (!site->route_based_enabled)
      continue;
    for (const zol::SiteEntry& entry : site->entries) {
      if (entry.enabled && entry.monitored)
        add_tunnel(site->internal_id, entry, targets);
    }
  }
  return targets;
}

void StationMonitor::add_stations(const zol::ZOLVPNSiteConf& site,
                                  std::vector<MonitoringTarget>& targets) const {
  for (const std::string& station : dynamic_cast<const zol::MonitoredVPNSiteConf&>(site).monitored_stations) {
    SUP_LOG(logger(), log_level::debug) << "Adding monitor station to " << station;
    targets.push_back({site.internal_id + "_" + station_key, zol::ZOLVPNSites::icmp_local_addresses.front(),
                       station, interval_ms});
  }
}

void StationMonitor::add_tunnel(const std::string& site_id, const zol::SiteEntry& entry,
                                std::vector<MonitoringTarget>& targets) const {
  const std::string& gw_ip = entry.primary ? entry.primary_gw_ip : entry.secondary_gw_ip;
  const std::string& site_ip = entry.primary ? entry.primary_site_ip : entry.secondary_site_ip;
  const std::string& pingable_ip =
      entry.primary ? entry.primary_internal_pingable_ip : entry.secondary_internal_pingable_ip;
  if (gw_ip.empty() || site_ip.empty() || pingable_ip.empty())
    return;
  SUP_LOG(logger(), log_level::debug) << "Adding tunnel monitor to " << pingable_ip;
  targets.push_back({site_id + "_" + gw_ip + "_" + site_ip, gw_ip, pingable_ip, interval_ms});
}

libvariant::Variant StationMonitor::add_info(const std::string& site_id) const {
  return add_info(site_id, station_key);
}

libvariant::Variant StationMonitor::add_info(const std::string& site_id, std::string entry_key) const {
  libvariant::Variant info = libvariant::Variant::make_map();
  if (!ping_manager) {
    SUP_LOG(logger(), log_level::debug) << "StationMonitor is disabled, not including it in report";
    return info;
  }
  libvariant::Variant figures = ping_manager->read_and_restart(site_id, entry_key);
  if (figures.Empty())
    return info;
  libvariant::Variant list = libvariant::Variant::make_list();
  list.Append(std::move(figures));
  if (entry_key == station_key)
    info.Add("monitored_stations", std::move(list));
  else
    info.Add("tunnel_monitor", std::move(list));
  return info;
}

std::string StationMonitor::gen_entry_key(const zol::VPNConnInfo& conn) const {
  if (conn.gateway_ip.empty() || conn.peer_internal_ip.empty())
    return "";
  return conn.gateway_ip + "_" + conn.peer_internal_ip;
}

}  // namespace zol_monitor
