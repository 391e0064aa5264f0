// Whose an address is, all records, and the life of the table.
#include "sites/vpn_sites_services.h"

#include <gtest/gtest.h>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sites/site_table.h"

namespace {

using zol::ConnRecordType;
using zol::Disconnected;
using zol::Established;
using zol::SiteConnRecord;
using zol::Subnet;
using zol_test::add_conn;
using zol_test::SiteTable;

class VpnSitesServicesTest : public testing::Test {
 protected:
  VpnSitesServicesTest() { zol_test::without_kernel(); }

  SiteTable table_;
  zol_test::ScopedConfig config_{"General: { zol_id = \"n1\"; };"};
};

// Counts the calls of a reload.
class Counted : public SiteTable {
 public:
  void init() override {
    calls += "init ";
    SiteTable::init();
  }
  void uninit() override { calls += "uninit "; }
  std::string calls;
};

// Verifies that a table without sites takes every address for the outside world.
TEST_F(VpnSitesServicesTest, EveryAddressIsTheWorld) {
  for (const std::string ip : {"10.0.0.1", "192.0.2.55", "", "no address"}) {
    const SiteConnRecord record = table_.get_site_record(ip);
    EXPECT_EQ(record.record_type, ConnRecordType::world) << ip;
    EXPECT_EQ(record.key, "world") << ip;
  }
  EXPECT_TRUE(table_.get_all_site_records().empty());
  EXPECT_EQ(table_.get_conn_agg(), nullptr);
}

// Verifies the order of the answers: this node, a configured subnet, a learned one, a route of nobody, the
// world.
TEST_F(VpnSitesServicesTest, OrderOfAnswers) {
  const auto site = table_.add_site("s1");
  const auto conn = add_conn(*site, "id", "203.0.113.7");
  site->subnets = {Subnet("10.0.0.0/8")};
  table_.conf_subnets.add_subnet({site, conn, Subnet("10.0.0.0/8")});
  table_.bgp_subnets.add_subnet({site, conn, Subnet("172.16.0.0/16")});
  table_.bgp_subnets.add_subnet({nullptr, nullptr, Subnet("172.17.0.0/16")});
  table_.bgp_subnets.add_subnet({nullptr, nullptr, Subnet("10.5.0.0/16")});
  table_.local_ips = {"10.0.0.1", "172.16.0.1"};
  const zol_test::LogCapture log;
  const auto type_of = [this](const char* ip) { return table_.get_site_record(ip).record_type; };
  EXPECT_EQ(type_of("10.0.0.1"), ConnRecordType::local) << "though a configured subnet has it";
  EXPECT_EQ(type_of("172.16.0.1"), ConnRecordType::local) << "though a learned subnet has it";
  EXPECT_EQ(type_of("10.5.0.2"), ConnRecordType::site) << "before a longer learned prefix";
  EXPECT_EQ(type_of("172.16.0.2"), ConnRecordType::site);
  EXPECT_EQ(type_of("172.17.0.2"), ConnRecordType::bgp_route);
  EXPECT_EQ(type_of("192.0.2.1"), ConnRecordType::world);
  for (const char* text :
       {"Matching 10.0.0.1 to local ZOL", "Matching 10.5.0.2 to entry 203.0.113.7 by configuration",
        "Matching 172.16.0.2 to entry 203.0.113.7 by bgp",
        "Matching 172.17.0.2 to indirect BGP route 172.17.0.0/16", "Matching 192.0.2.1 to WORLD"})
    EXPECT_TRUE(log.contains(log_level::trace, text)) << text << "\n" << log.all();
  EXPECT_EQ(log.records().size(), 6u) << log.all();
}

// Verifies that a configured subnet whose site has no connection falls through to the learned ones.
TEST_F(VpnSitesServicesTest, SiteWithoutConnections) {
  const auto site = table_.add_site("s1");
  site->subnets = {Subnet("10.0.0.0/8")};
  table_.conf_subnets.add_subnet({site, nullptr, Subnet("10.0.0.0/8")});
  EXPECT_EQ(table_.get_site_record("10.0.0.5").record_type, ConnRecordType::world);
  table_.bgp_subnets.add_subnet({nullptr, nullptr, Subnet("10.0.0.0/24")});
  EXPECT_EQ(table_.get_site_record("10.0.0.5").record_type, ConnRecordType::bgp_route);
  EXPECT_EQ(table_.get_site_record("10.0.1.5").record_type, ConnRecordType::world);
}

// Verifies that a learned subnet with a site alone counts as a route of nobody.
TEST_F(VpnSitesServicesTest, LearnedWithoutConnection) {
  table_.bgp_subnets.add_subnet({table_.add_site("s1"), nullptr, Subnet("10.0.0.0/8")});
  EXPECT_EQ(table_.get_site_record("10.0.0.5").record_type, ConnRecordType::bgp_route);
}

// Verifies that the record is of the connection that answers for the address, with the state it has then.
TEST_F(VpnSitesServicesTest, RecordOfTheConnection) {
  const auto site = table_.add_site("s1");
  add_conn(*site, "@low", "low.example", Disconnected, 1);
  const auto up = add_conn(*site, "@up", "up.example", Established, 2);
  up->peer_ip = "198.51.100.9";
  site->subnets = {Subnet("10.0.0.0/8")};
  table_.conf_subnets.add_subnet({site, up, Subnet("10.0.0.0/8")});
  const SiteConnRecord record = table_.get_site_record("10.0.0.5");
  EXPECT_EQ(record.key, "up.example");
  EXPECT_EQ(record.site_name, "name of s1");
  EXPECT_EQ(record.site_id, "s1");
  EXPECT_EQ(record.ip, "up.example");
  EXPECT_EQ(record.peer_id, "up");
  EXPECT_EQ(record.state, Established);
}

// Verifies that text that is no address is looked up as 0.0.0.0.
TEST_F(VpnSitesServicesTest, NoAddress) {
  table_.bgp_subnets.add_subnet({nullptr, nullptr, Subnet("0.0.0.0/0")});
  EXPECT_EQ(table_.get_site_record("nonsense").record_type, ConnRecordType::bgp_route);
}

// Verifies that all records are those of enabled connections, by key, and of one key the first.
TEST_F(VpnSitesServicesTest, AllRecords) {
  const auto first = table_.add_site("a");
  const auto second = table_.add_site("b");
  table_.add_site("c");
  add_conn(*first, "one", "203.0.113.1");
  add_conn(*first, "off", "203.0.113.2")->enabled = false;
  add_conn(*first, "twice", "203.0.113.1", Established);
  add_conn(*second, "other", "203.0.113.1");
  add_conn(*second, "four", "203.0.113.4");
  const auto records = table_.get_all_site_records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records.at("203.0.113.1").site_id, "a");
  EXPECT_EQ(records.at("203.0.113.1").peer_id, "one");
  EXPECT_EQ(records.at("203.0.113.1").record_type, ConnRecordType::site);
  EXPECT_EQ(records.at("203.0.113.4").site_id, "b");
}

// Verifies that a reload is always wanted, leaves the running state alone, and sets the table up anew.
TEST_F(VpnSitesServicesTest, Reconfigure) {
  Counted sites;
  sites.site_services["old"] = std::make_shared<zol::SiteService>();
  sites.local_ips = {"10.0.0.1"};
  sites.conf_subnets.add_subnet({nullptr, nullptr, Subnet("10.0.0.0/8")});
  sites.bgp_subnets.add_subnet({nullptr, nullptr, Subnet("10.0.0.0/8")});
  bool enabled = true;
  EXPECT_TRUE(sites.need_reconf(enabled));
  EXPECT_TRUE(enabled);
  sites.reconfigure();
  EXPECT_EQ(sites.calls, "uninit init ");
  EXPECT_TRUE(sites.site_services.empty()) << "this is no middle-mile node";
  EXPECT_TRUE(sites.local_ips.empty());
  EXPECT_TRUE(sites.conf_subnets.empty());
  EXPECT_TRUE(sites.bgp_subnets.empty()) << "no cycle comes that would empty them";
}

// Verifies that the share of uptime is left out of an entry while nothing measures it.
TEST_F(VpnSitesServicesTest, NoUptimeWithoutAggregator) {
  libvariant::Variant entry = libvariant::Variant::make_map();
  table_.vpn_set_conn_pct(entry, zol::VPNConnInfo{});
  table_.vpn_clear_conn_pct();
  EXPECT_TRUE(entry.Empty());
}

// Verifies that there is one table of sites in the process, with a connection log, which hears of reloads.
TEST_F(VpnSitesServicesTest, Singleton) {
  zol::SiteServices* const sites = zol::SiteServices::instance();
  ASSERT_NE(sites, nullptr);
  EXPECT_EQ(zol::SiteServices::instance(), sites);
  EXPECT_NE(sites->get_conn_agg(), nullptr);
  EXPECT_FALSE(sites->vpn_status_timer.is_pending()) << "no sites";
  sites->site_services["old"] = std::make_shared<zol::SiteService>();
  config_.configurator().reload_configuration("", 0);
  EXPECT_TRUE(sites->site_services.empty());
  zol::SiteServices::end();
  EXPECT_EQ(sites->get_conn_agg(), nullptr);
  libvariant::Variant entry = libvariant::Variant::make_map();
  sites->vpn_set_conn_pct(entry, zol::VPNConnInfo{});
  sites->vpn_clear_conn_pct();
  EXPECT_TRUE(entry.Empty());
}

}  // namespace
