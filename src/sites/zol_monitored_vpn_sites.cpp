#include "sites/zol_monitored_vpn_sites.h"

#include "config/zol_conf_consts.h"
#include "sites/string_list.h"
#include "sup_logger.h"

namespace zol {

namespace {

constexpr int default_freq_ms = 1000;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("MonitoredVPNSites");
  return l;
}

}  // namespace

void MonitoredVPNSiteConf::configure(AConfigurator& conf, std::string site_path) {
  ZOLVPNSiteConf::configure(conf, std::move(site_path));
  for_each_text(
      conf, path + "." + zol_conf_consts::monitored_stations_key,
      [this](const std::string& station) { monitored_stations.insert(station); },
      [](int index) {
        SUP_LOG(logger(), log_level::error) << "Failed to retrieve #" << index << " monitored station value.";
      });
}

void MonitoredVPNSites::configure(AConfigurator& conf) {
  if (!conf.config.lookupValue(zol_conf_consts::vpnipsec_station_monitor_freq_ms_key,
                               station_monitor_freq_ms))
    station_monitor_freq_ms = default_freq_ms;
  ZOLVPNSites::configure(conf);
}

ZOLVPNSiteConf* MonitoredVPNSites::create_site_conf() {
  return new MonitoredVPNSiteConf;
}

}  // namespace zol
