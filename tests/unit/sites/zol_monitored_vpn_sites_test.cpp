#include "sites/zol_monitored_vpn_sites.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sites/vpn_config.h"

namespace zol {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using zol_test::bare_site;
using zol_test::VpnNode;

std::set<std::string> stations_of(const MonitoredVPNSites& list, std::size_t index) {
  return dynamic_cast<const MonitoredVPNSiteConf&>(*list.site_confs.at(index)).monitored_stations;
}

// Verifies that the period is read, and is 1000 ms without its key, also when an earlier reading had one.
TEST(MonitoredVPNSites, Frequency) {
  MonitoredVPNSites list;
  EXPECT_EQ(list.station_monitor_freq_ms, 1000);
  VpnNode node({}, "station_monitor_freq_ms = 250;");
  list.configure(node.config.configurator());
  EXPECT_EQ(list.station_monitor_freq_ms, 250);
  node.set(VpnNode::text({}, "station_monitor_freq_ms = 0;"));
  list.configure(node.config.configurator());
  EXPECT_EQ(list.station_monitor_freq_ms, 0);
  node.set(VpnNode::text({}));
  list.configure(node.config.configurator());
  EXPECT_EQ(list.station_monitor_freq_ms, 1000);
}

// Verifies that the sites have their stations beside what every site has.
TEST(MonitoredVPNSites, Stations) {
  const VpnNode node(
      {bare_site.with("monitored_stations", R"(( "10.2.0.9", "10.1.0.9", "10.2.0.9" ))").text(),
       bare_site.with("internal_id", "\"18\"").text()});
  MonitoredVPNSites list;
  list.configure(*TheConfigurator::get_configuration());
  ASSERT_EQ(list.site_confs.size(), 2u);
  EXPECT_THAT(stations_of(list, 0), ElementsAre("10.1.0.9", "10.2.0.9"));
  EXPECT_THAT(stations_of(list, 1), IsEmpty());
  EXPECT_EQ(list.site_confs[0]->metadata, "floor 2");
  EXPECT_EQ(list.get_site("18"), list.site_confs[1]);
}

// Verifies that a station that is no text is logged by its index, and the others stay.
TEST(MonitoredVPNSites, StationWithoutValue) {
  const VpnNode node({bare_site.with("monitored_stations", R"(( 1, "10.1.0.9" ))").text()});
  const zol_test::LogCapture log;
  MonitoredVPNSites list;
  list.configure(*TheConfigurator::get_configuration());
  EXPECT_THAT(stations_of(list, 0), ElementsAre("10.1.0.9"));
  EXPECT_TRUE(log.contains(log_level::error, "Failed to retrieve #0 monitored station value.")) << log.all();
}

// Verifies that a site of the monitor is refused for the same missing keys.
TEST(MonitoredVPNSites, RefusedSite) {
  const VpnNode node({bare_site.without("failover_order").text(), bare_site.text()});
  const zol_test::LogCapture log;
  MonitoredVPNSites list;
  list.configure(*TheConfigurator::get_configuration());
  EXPECT_EQ(list.site_confs.size(), 1u);
  EXPECT_TRUE(log.contains(log_level::error, " vpn site VPNIPsec.sites.[0] is missing failover_order key."));
}

}  // namespace
}  // namespace zol
