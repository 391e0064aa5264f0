#include "sites/vpn_sites_services.h"

#include <gtest/gtest.h>

#include "sites/site_service.h"
#include "tests/support/config_fixture.h"

namespace {

class VpnSitesServicesTest : public testing::Test {
 protected:
  zol_test::ScopedConfig config_{"General: { zol_id = \"n1\"; };"};
};

class NoSites : public zol::SiteServicesBase {
 public:
  std::vector<zol::VPNConnInfo> get_connections_info_status() override { return {}; }
  void init() override {
    calls += "init ";
    SiteServicesBase::init();
  }
  void uninit() override { calls += "uninit "; }
  std::string calls;
};

// Verifies that a table without sites takes every address for the outside world.
TEST_F(VpnSitesServicesTest, EveryAddressIsTheWorld) {
  NoSites sites;
  for (const std::string ip : {"10.0.0.1", "192.0.2.55", "", "no address"}) {
    const zol::SiteConnRecord record = sites.get_site_record(ip);
    EXPECT_EQ(record.record_type, zol::ConnRecordType::world) << ip;
    EXPECT_EQ(record.key, "world") << ip;
  }
}

// Verifies that a table without sites has no records and reports an empty list of connections.
TEST_F(VpnSitesServicesTest, NoConnections) {
  NoSites sites;
  EXPECT_TRUE(sites.get_all_site_records().empty());
  const libvariant::Variant connections = sites.get_connections_info_variant(nullptr, true);
  EXPECT_TRUE(connections.IsList());
  EXPECT_TRUE(connections.Empty());
  EXPECT_EQ(sites.get_conn_agg(), nullptr);
}

// Verifies that the share of uptime is left out of an entry while nothing measures it.
TEST_F(VpnSitesServicesTest, NoUptimeWithoutAggregator) {
  NoSites sites;
  libvariant::Variant entry = libvariant::Variant::make_map();
  sites.vpn_set_conn_pct(entry, zol::VPNConnInfo{});
  sites.vpn_clear_conn_pct();
  EXPECT_TRUE(entry.Empty());
}

// Verifies that a reload is always wanted, leaves the running state alone, and sets the table up anew.
TEST_F(VpnSitesServicesTest, Reconfigure) {
  NoSites sites;
  sites.site_services["old"] = std::make_shared<zol::SiteService>();
  bool enabled = true;
  EXPECT_TRUE(sites.need_reconf(enabled));
  EXPECT_TRUE(enabled);
  sites.reconfigure();
  EXPECT_EQ(sites.calls, "uninit init ");
  EXPECT_TRUE(sites.site_services.empty());
}

// Verifies that there is one table of sites in the process, which hears of reloads.
TEST_F(VpnSitesServicesTest, Singleton) {
  zol::SiteServices* const sites = zol::SiteServices::instance();
  ASSERT_NE(sites, nullptr);
  EXPECT_EQ(zol::SiteServices::instance(), sites);
  EXPECT_TRUE(sites->get_connections_info_status().empty());
  sites->site_services["old"] = std::make_shared<zol::SiteService>();
  config_.configurator().reload_configuration("", 0);
  EXPECT_TRUE(sites->site_services.empty());
}

}  // namespace
