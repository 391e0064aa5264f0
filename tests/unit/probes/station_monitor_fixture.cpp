#include "tests/unit/probes/station_monitor_fixture.h"

#include <event2/event.h>

#include <chrono>

namespace zol_test {

bool run_loop_until(const std::function<bool()>& condition) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit)
      return false;
    const timeval step{0, 20000};
    event_base_loopexit(zol::ZOLEventBase::base(), &step);
    event_base_dispatch(zol::ZOLEventBase::base());
  }
  return true;
}

StationMonitorTest::StationMonitorTest() {
  zol_utils::shared_mem_enabled = false;
  zol::ZOLVPNSitesConf::instance();
  configure({});
}

StationMonitorTest::~StationMonitorTest() {
  monitor.reset();
  zol::ZOLVPNSitesConf& conf = zol::ZOLVPNSitesConf::ref();
  for (const auto& [name, sites] : conf)
    delete sites;
  conf.clear();
  zol_utils::shared_mem_enabled = shared_mem_enabled_;
}

void StationMonitorTest::configure(const std::vector<std::string>& sites, const std::string& vpn_members,
                                   const std::string& rest) {
  node.set(VpnNode::text(sites, vpn_members, rest));
}

void StationMonitorTest::reload(const std::vector<std::string>& sites, const std::string& vpn_members,
                                const std::string& rest) {
  configure(sites, vpn_members, rest);
  zol::ZOLVPNSitesConf::ref().reconfigure();
  node.config.configurator().reload_configuration("", 0);
}

StationMonitor& StationMonitorTest::make_monitor() {
  monitor = std::make_unique<StationMonitor>();
  return *monitor;
}

std::vector<std::pair<std::string, std::string>> StationMonitorTest::targets() const {
  std::vector<std::pair<std::string, std::string>> all;
  for (const auto& [key, entry] : probes())
    all.emplace_back(key, entry.target.source + ">" + entry.target.destination);
  return all;
}

}  // namespace zol_test
