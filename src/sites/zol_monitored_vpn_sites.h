// The VPN sites as the latency monitor sees them: with the stations to ping.
#pragma once

#include <set>
#include <string>

#include "sites/zol_vpn_sites.h"

namespace zol {

class MonitoredVPNSiteConf : public ZOLVPNSiteConf {
 public:
  void configure(AConfigurator& conf, std::string site_path) override;

  std::set<std::string> monitored_stations;  // addresses, as configured
};

// Its sites are MonitoredVPNSiteConfs.
class MonitoredVPNSites : public ZOLVPNSites {
 public:
  void configure(AConfigurator& conf) override;
  ZOLVPNSiteConf* create_site_conf() override;

  int station_monitor_freq_ms = 1000;  // between two probes of a station; 0 is off
};

}  // namespace zol
