// Which stations and tunnels this node pings, by its configuration, and what it tells the report about them.
//
// Only a middle-mile node that runs the active version, with VPNIPsec.station_monitor_freq_ms above 0, pings;
// a reload switches it on and off. Of each site that accepts connections:
//
//   a station   one of `monitored_stations`, from the first of VPNIPsec.icmp_local_addresses. All stations of
//               a site share one entry: the last of them, as text is ordered, is the one that is pinged
//   a tunnel    the far end of each enabled and monitored entry point of a route-based site, from this side's
//               address in the tunnel
//
// Main thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "config/zol_configurator.h"
#include "sites/site_additional_info.h"

namespace zol {
class MonitoredVPNSites;
class ZOLVPNSiteConf;
struct SiteEntry;
}  // namespace zol

namespace zol_monitor {

class MonitorPingManager;
struct MonitoringTarget;

// Hears of reloads while it lives. ZOLVPNSitesConf must be there first: so a reload has read the sites anew
// when it comes here.
class StationMonitor : public zol::ISiteAdditionalInfo, public zol::IReconfigure {
 public:
  StationMonitor();
  ~StationMonitor() override;

  void reconfigure() override;
  bool need_reconf(bool& enabled) override;  // always; a service there is none
  // reconfigure(), as a timer's callback; `station_monitor` is a StationMonitor.
  static void reload_cb(int fd, short events, void* station_monitor);

  // The site's station since the last call: a map of "monitored_stations" to a list of one map, see
  // MonitorPingManager::read_and_restart. An empty map when nothing is pinged.
  libvariant::Variant add_info(const std::string& site_id) const override;
  // The same for a tunnel, by "tunnel_monitor"; the entry key "general" is the station.
  libvariant::Variant add_info(const std::string& site_id, std::string entry_key) const override;
  // "<gateway_ip>_<peer_internal_ip>"; empty, which fits no tunnel, when one of them is.
  std::string gen_entry_key(const zol::VPNConnInfo& conn) const override;

  std::unique_ptr<MonitorPingManager> ping_manager;  // null while nothing is pinged
  std::uint32_t interval_ms = 0;                     // between two probes of a target

 private:
  std::vector<MonitoringTarget> targets_of(const zol::MonitoredVPNSites& sites) const;
  void add_stations(const zol::ZOLVPNSiteConf& site, std::vector<MonitoringTarget>& targets) const;
  void add_tunnel(const std::string& site_id, const zol::SiteEntry& entry,
                  std::vector<MonitoringTarget>& targets) const;
};

}  // namespace zol_monitor
