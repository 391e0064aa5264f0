// What is pinged by which configuration, and how reports hear of it.
#include "probes/station_monitor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sites/vpn_conn_info.h"
#include "sites/zol_monitored_vpn_sites.h"
#include "sup_logger.h"
#include "tests/unit/probes/station_monitor_fixture.h"

namespace zol_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

class StationMonitorSetup : public StationMonitorTest {
 protected:
  LogCapture log;
};

// Verifies that the monitor is heard of when it comes and goes, and hears of reloads in between.
TEST_F(StationMonitorSetup, Life) {
  configure({pinged_site.text()}, "station_monitor_freq_ms = 0;");
  make_monitor();
  EXPECT_TRUE(log.contains(log_level::info, "Created"));
  EXPECT_EQ(monitor->ping_manager, nullptr);
  reload({pinged_site.text()});
  EXPECT_NE(monitor->ping_manager, nullptr);
  monitor.reset();
  EXPECT_TRUE(log.contains(log_level::info, "Destroyed"));
  node.config.configurator().reload_configuration("", 0);  // and nobody is there to hear it
}

// Verifies that each reload concerns the monitor, and that no service stands behind it.
TEST_F(StationMonitorSetup, NeedsReconf) {
  make_monitor();
  for (bool enabled : {true, false}) {
    const bool before = enabled;
    EXPECT_TRUE(monitor->need_reconf(enabled));
    EXPECT_EQ(enabled, before);
  }
}

// Verifies that the first monitor makes and reads the list of monitored sites, and a later one takes it as it
// is.
TEST_F(StationMonitorSetup, SitesAreReadOnce) {
  configure({pinged_site.text()}, "station_monitor_freq_ms = 70;");
  make_monitor();
  auto* sites = dynamic_cast<zol::MonitoredVPNSites*>(zol::ZOLVPNSitesConf::ref().at("monitored"));
  ASSERT_NE(sites, nullptr);
  EXPECT_THAT(sites->site_confs, SizeIs(1));
  EXPECT_EQ(monitor->interval_ms, 70u);
  configure({}, "station_monitor_freq_ms = 80;");
  monitor->reconfigure();
  EXPECT_EQ(zol::ZOLVPNSitesConf::ref().at("monitored"), sites);
  EXPECT_THAT(sites->site_confs, SizeIs(1));
  EXPECT_EQ(monitor->interval_ms, 70u);
}

// Verifies that without ZOLVPNSitesConf's list of that name an empty place is filled too.
TEST_F(StationMonitorSetup, EmptyPlace) {
  configure({pinged_site.text()});
  zol::ZOLVPNSitesConf::ref()["monitored"] = nullptr;
  make_monitor();
  EXPECT_THAT(probes(), SizeIs(1));
}

// Verifies that the monitor is off on a node that is no middle mile, with a period of 0, and with one below
// 0.
TEST_F(StationMonitorSetup, Disabled) {
  configure({pinged_site.text()});
  make_monitor();
  EXPECT_NE(monitor->ping_manager, nullptr);
  reload({pinged_site.text()}, local_addresses, "MiddleMileNetwork: { enabled = false; };");
  EXPECT_EQ(monitor->ping_manager, nullptr);
  reload({pinged_site.text()}, local_addresses, "");
  EXPECT_EQ(monitor->ping_manager, nullptr);
  reload({pinged_site.text()});
  EXPECT_NE(monitor->ping_manager, nullptr);
  reload({pinged_site.text()}, std::string(local_addresses) + "station_monitor_freq_ms = 0;");
  EXPECT_EQ(monitor->ping_manager, nullptr);
  EXPECT_EQ(monitor->interval_ms, 0u);
  EXPECT_FALSE(log.contains(log_level::warning, "station_monitor_freq_ms"));
  reload({pinged_site.text()}, std::string(local_addresses) + "station_monitor_freq_ms = -1;");
  EXPECT_EQ(monitor->ping_manager, nullptr);
  EXPECT_EQ(monitor->interval_ms, 0u);
  EXPECT_TRUE(log.contains(log_level::warning,
                           "VPNIPsec.station_monitor_freq_ms is below 0, the Station Monitor is disabled"));
}

// Verifies that what is off answers nothing, and says why.
TEST_F(StationMonitorSetup, DisabledReport) {
  configure({pinged_site.text()}, "station_monitor_freq_ms = 0;");
  make_monitor();
  for (const auto& info : {monitor->add_info("17"), monitor->add_info("17", "a_b")}) {
    EXPECT_TRUE(info.IsMap());
    EXPECT_EQ(info.Size(), 0u);
  }
  EXPECT_EQ(log.count("StationMonitor is disabled, not including it in report"), 2);
}

// Verifies that switching off drops all samples, and switching on starts anew.
TEST_F(StationMonitorSetup, OffAndOn) {
  configure({pinged_site.text()});
  make_monitor();
  monitor->ping_manager->probes.at("17_general").latencies = {5};
  reload({pinged_site.text()}, std::string(local_addresses) + "station_monitor_freq_ms = 0;");
  reload({pinged_site.text()});
  ASSERT_THAT(probes(), SizeIs(1));
  EXPECT_THAT(probes().at("17_general").latencies, IsEmpty());
}

// Verifies that the ping manager is set up for 255 ids from 40000.
TEST_F(StationMonitorSetup, Ids) {
  make_monitor();
  EXPECT_EQ(monitor->ping_manager->first_id, 40000u);
  EXPECT_EQ(monitor->ping_manager->last_id, 65535u);
  EXPECT_EQ(monitor->ping_manager->max_probes, 255u);
}

// Verifies that stations of a site share its one entry, from the first local address to the last of the set.
TEST_F(StationMonitorSetup, Stations) {
  configure({pinged_site.text()}, std::string(local_addresses) + "station_monitor_freq_ms = 2500;");
  make_monitor();
  EXPECT_THAT(targets(), ElementsAre(Pair("17_general", "127.0.0.7>127.0.0.9")));
  EXPECT_EQ(probes().at("17_general").target.interval_ms, 2500u);
  EXPECT_TRUE(log.contains(log_level::debug, "Adding monitor station to 127.0.0.8"));
  EXPECT_TRUE(log.contains(log_level::debug, "Adding monitor station to 127.0.0.9"));
}

// Verifies that a site that accepts no connections isn't pinged at all.
TEST_F(StationMonitorSetup, SiteWithoutConnections) {
  configure({pinged_site.with("accept_connections", "false").text(),
             tunnel_site().with("internal_id", "\"18\"").without("accept_connections").text()});
  make_monitor();
  EXPECT_THAT(targets(), IsEmpty());
}

// Verifies that without local addresses stations aren't pinged, and tunnels are.
TEST_F(StationMonitorSetup, NoLocalAddresses) {
  configure({pinged_site.text(), tunnel_site().with("internal_id", "\"18\"").text()}, "");
  make_monitor();
  EXPECT_THAT(targets(), ElementsAre(Pair("18_127.0.1.1_127.0.1.2", "127.0.1.1>127.0.1.3")));
}

// Verifies that a tunnel is pinged by the block of its site's kind: the primary or the secondary one.
TEST_F(StationMonitorSetup, Tunnels) {
  configure(
      {tunnel_site().text(), tunnel_site().with("internal_id", "\"18\"").with("primary", "false").text()},
      std::string(local_addresses) + "station_monitor_freq_ms = 300;");
  make_monitor();
  EXPECT_THAT(targets(), ElementsAre(Pair("17_127.0.1.1_127.0.1.2", "127.0.1.1>127.0.1.3"),
                                     Pair("18_127.0.2.1_127.0.2.2", "127.0.2.1>127.0.2.3")));
  EXPECT_EQ(probes().begin()->second.target.interval_ms, 300u);
  EXPECT_TRUE(log.contains(log_level::debug, "Adding tunnel monitor to 127.0.1.3"));
}

// Verifies that a site that isn't route-based has no tunnels to ping.
TEST_F(StationMonitorSetup, NotRouteBased) {
  configure({tunnel_site().with("route_based_enabled", "false").text()});
  make_monitor();
  EXPECT_THAT(targets(), IsEmpty());
}

// Verifies that an entry point gives a target only when it is both enabled and monitored.
TEST_F(StationMonitorSetup, EntryFlags) {
  configure({tunnel_site(tunnel_entry.with("enabled", "false")).text(),
             tunnel_site(tunnel_entry.with("monitored", "false")).with("internal_id", "\"18\"").text()});
  make_monitor();
  EXPECT_THAT(targets(), IsEmpty());
}

// Verifies that an entry point that lacks one of its three addresses gives no target.
TEST_F(StationMonitorSetup, EntryWithoutAddress) {
  for (const char* missing : {"site_ip", "internal_pingable_ip", "gw_ip"}) {
    const Members whole{
        {"gw_ip", "\"127.0.1.1\""}, {"site_ip", "\"127.0.1.2\""}, {"internal_pingable_ip", "\"127.0.1.3\""}};
    const std::string block = "{ primary = " + whole.without(missing).text() + "; }";
    reload({tunnel_site(bare_entry.with("route_based", block)).text()});
    make_monitor();
    EXPECT_THAT(targets(), IsEmpty()) << missing;
    EXPECT_FALSE(log.contains("Adding tunnel monitor"));
    monitor.reset();
  }
}

// Verifies that a reload adds, changes and removes targets, and that only removing drops samples.
TEST_F(StationMonitorSetup, Reload) {
  const Members other = pinged_site.with("internal_id", "\"18\"");
  configure({pinged_site.text()});
  make_monitor();
  monitor->ping_manager->probes.at("17_general").latencies = {5};
  reload({pinged_site.text(), other.text()});
  EXPECT_THAT(targets(), SizeIs(2));
  EXPECT_THAT(probes().at("17_general").latencies, ElementsAre(5));
  reload({pinged_site.with("monitored_stations", R"(( "127.0.0.3" ))").text(), other.text()},
         std::string(local_addresses) + "station_monitor_freq_ms = 250;");
  EXPECT_EQ(probes().at("17_general").target.destination, "127.0.0.3");
  EXPECT_EQ(probes().at("17_general").target.interval_ms, 250u);
  EXPECT_THAT(probes().at("17_general").latencies, ElementsAre(5));
  reload({other.text()});
  EXPECT_THAT(targets(), ElementsAre(Pair("18_general", "127.0.0.7>127.0.0.9")));
  reload({pinged_site.text(), other.text()});
  EXPECT_THAT(probes().at("17_general").latencies, IsEmpty());
}

// Verifies that the timer's form of a reload is a reload.
TEST_F(StationMonitorSetup, ReloadCallback) {
  make_monitor();
  configure({pinged_site.text()});
  zol::ZOLVPNSitesConf::ref().reconfigure();
  zol::IReconfigure* base = monitor.get();
  ASSERT_NE(base, nullptr);
  StationMonitor::reload_cb(-1, 0, monitor.get());
  EXPECT_THAT(targets(), SizeIs(1));
}

// Verifies the key of a connection, and that one without an address has an empty key.
TEST_F(StationMonitorSetup, EntryKey) {
  make_monitor();
  zol::VPNConnInfo conn;
  EXPECT_EQ(monitor->gen_entry_key(conn), "");
  conn.gateway_ip = "127.0.1.1";
  EXPECT_EQ(monitor->gen_entry_key(conn), "");
  conn.peer_internal_ip = "127.0.1.2";
  EXPECT_EQ(monitor->gen_entry_key(conn), "127.0.1.1_127.0.1.2");
  conn.gateway_ip.clear();
  EXPECT_EQ(monitor->gen_entry_key(conn), "");
}

// Verifies that a site's station is one list under its key, also without samples, and a tunnel under its own.
TEST_F(StationMonitorSetup, Reports) {
  configure({tunnel_site().with("monitored_stations", R"(( "127.0.0.9" ))").text()});
  make_monitor();
  monitor->ping_manager->probes.at("17_127.0.1.1_127.0.1.2").latencies = {300};
  const zol::ISiteAdditionalInfo& info = *monitor;
  const auto site = info.add_info("17");
  EXPECT_EQ(site.Size(), 1u);
  ASSERT_THAT(site.At("monitored_stations").AsList(), SizeIs(1));
  const auto& station = site.At("monitored_stations").AsList()[0];
  EXPECT_EQ(station.At("ip").AsString(), "127.0.0.9");
  EXPECT_EQ(station.At("latency"), libvariant::Variant(0u));
  EXPECT_EQ(station.At("latency_sample_count"), libvariant::Variant(0u));
  EXPECT_EQ(station.At("loss"), libvariant::Variant(0.0));
  EXPECT_EQ(station.At("jitter"), libvariant::Variant(0u));
  zol::VPNConnInfo conn;
  conn.gateway_ip = "127.0.1.1";
  conn.peer_internal_ip = "127.0.1.2";
  const auto tunnel = info.add_info("17", info.gen_entry_key(conn));
  EXPECT_EQ(tunnel.Size(), 1u);
  ASSERT_THAT(tunnel.At("tunnel_monitor").AsList(), SizeIs(1));
  EXPECT_EQ(tunnel.At("tunnel_monitor").AsList()[0].At("latency"), libvariant::Variant(300u));
  EXPECT_EQ(tunnel.At("tunnel_monitor").AsList()[0].At("ip").AsString(), "127.0.1.3");
}

// Verifies that a connection without a key, an unknown one and an unknown site have nothing.
TEST_F(StationMonitorSetup, ReportsOfNothing) {
  configure({pinged_site.text()});
  make_monitor();
  for (const auto& info :
       {monitor->add_info("17", ""), monitor->add_info("17", "1_2"), monitor->add_info("18")}) {
    EXPECT_TRUE(info.IsMap());
    EXPECT_EQ(info.Size(), 0u);
  }
  EXPECT_TRUE(log.contains(log_level::debug, "No cached results for probe 1_2"));
}

}  // namespace
}  // namespace zol_test
