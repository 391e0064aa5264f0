// A middle-mile node with sites to ping, and probes whose outcome a test sets.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "dual_zol_helper.h"
#include "probes/ping_manager.h"
#include "probes/station_monitor.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sites/vpn_config.h"
#include "zol_helper.h"

namespace zol_test {

using zol_monitor::MonitoringTarget;
using zol_monitor::MonitorPingManager;
using zol_monitor::StationMonitor;

// Nothing goes out: the test says what comes of it.
class FakeProbe : public zol::LatencyProbe {
 public:
  FakeProbe() : LatencyProbe("FakeProbe", 1) {}
  ~FakeProbe() override {
    if (when_gone)
      when_gone();
  }
  unsigned long get_probe_id() override { return id; }
  void set_probe_id(unsigned long probe_id) override { id = probe_id; }

  unsigned long id = 0;
  std::function<void()> when_gone;
};

inline timespec at_ms(std::uint64_t ms) {
  return {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
}

// A probe that was sent so long ago and waits for its reply.
inline std::unique_ptr<FakeProbe> waiting_probe(std::uint64_t age_ms, unsigned long id = 0) {
  auto probe = std::make_unique<FakeProbe>();
  probe->start_time = at_ms(zol::Helper::get_timestamp_ms() - age_ms);
  probe->in_progress = true;
  probe->id = id;
  return probe;
}

// One whose reply took so many microseconds.
inline std::unique_ptr<FakeProbe> replied_probe(std::uint64_t age_ms, long latency_us) {
  auto probe = waiting_probe(age_ms);
  probe->stop_time = probe->start_time;
  probe->stop_time.tv_sec += latency_us / 1000000;
  probe->stop_time.tv_nsec += latency_us % 1000000 * 1000;
  probe->in_progress = false;
  probe->succeeded = true;
  return probe;
}

// Runs the process's loop until the condition holds; false when it doesn't within a generous time.
bool run_loop_until(const std::function<bool()>& condition);

inline const Members pinged_site = bare_site.with("accept_connections", "true")
                                       .with("route_based_enabled", "false")
                                       .with("monitored_stations", R"(( "127.0.0.9", "127.0.0.8" ))");

inline const Members tunnel_entry = bare_entry.with(
    "route_based",
    R"({ primary = { gw_ip = "127.0.1.1"; site_ip = "127.0.1.2"; netmask = "255.255.255.252"; internal_pingable_ip = "127.0.1.3"; };
         secondary = { gw_ip = "127.0.2.1"; site_ip = "127.0.2.2"; netmask = "255.255.255.252"; internal_pingable_ip = "127.0.2.3"; }; })");

inline Members tunnel_site(const Members& entry = tunnel_entry) {
  return pinged_site.without("monitored_stations")
      .with("route_based_enabled", "true")
      .with("entry_points", list_of({entry.text()}));
}

class StationMonitorTest : public testing::Test {
 protected:
  static constexpr const char* local_addresses =
      R"(icmp_local_address_group = "g"; icmp_local_addresses = ( "127.0.0.7", "127.0.0.6" );)";
  static constexpr const char* middle_mile = "MiddleMileNetwork: { enabled = true; };";

  StationMonitorTest();
  ~StationMonitorTest() override;

  void configure(const std::vector<std::string>& sites, const std::string& vpn_members = local_addresses,
                 const std::string& rest = middle_mile);
  // The same with a monitor that lives: what a reload of the node does.
  void reload(const std::vector<std::string>& sites, const std::string& vpn_members = local_addresses,
              const std::string& rest = middle_mile);
  StationMonitor& make_monitor();
  const MonitorPingManager::Probes& probes() const { return monitor->ping_manager->probes; }
  // Keys of the entries and "source>destination" of each.
  std::vector<std::pair<std::string, std::string>> targets() const;

  VpnNode node{{}};
  std::unique_ptr<StationMonitor> monitor;

 private:
  const bool shared_mem_enabled_ = zol_utils::shared_mem_enabled;
};

}  // namespace zol_test
