// The list of the sites and the values beside it.
#include "sites/zol_vpn_sites.h"

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

constexpr const char* inside =
    R"(Networking: { interfaces = ( { interface = "10.0.0.1"; external_ip = "10.0.0.1"; is_private = true; } ); };)";

std::string site(const std::string& internal_id, const std::string& name = "x") {
  return bare_site.with("internal_id", "\"" + internal_id + "\"").with("name", "\"" + name + "\"").text();
}

std::vector<std::string> names(const ZOLVPNSites& list) {
  std::vector<std::string> all;
  for (const ZOLVPNSiteConf* conf : list.site_confs)
    all.push_back(conf->name);
  return all;
}

// Verifies that the sites stand in configured order, each found by its id.
TEST(ZOLVPNSites, ReadsSites) {
  VpnNode node({site("9", "nine"), site("1", "one")});
  node.configure();
  EXPECT_THAT(names(node.list), ElementsAre("nine", "one"));
  EXPECT_EQ(node.list.site_count, 2);
  ASSERT_NE(node.list.get_site("1"), nullptr);
  EXPECT_EQ(node.list.get_site("1")->name, "one");
  EXPECT_EQ(node.list.get_site("1")->path, "VPNIPsec.sites.[1]");
  EXPECT_EQ(node.list.get_site("2"), nullptr);
}

// Verifies that the values beside the sites are read from their keys.
TEST(ZOLVPNSites, SharedValues) {
  VpnNode node({}, R"(icmp_local_address_group = "grp"; icmp_local_addresses = ( "10.5.0.1", "10.4.0.1" );)",
               "IPTables: { rate_limit_mbps = 12.5; }; SharedNetworkData: { routing_id = 6; };");
  node.configure();
  EXPECT_TRUE(ZOLVPNSites::vpn_enabled);
  EXPECT_DOUBLE_EQ(ZOLVPNSites::rate_limit_mbps, 12.5);
  EXPECT_EQ(ZOLVPNSites::routing_id, 6);
  EXPECT_EQ(ZOLVPNSites::traffic_out_internal_ip, "172.16.0.1");
  EXPECT_EQ(ZOLVPNSites::traffic_out_external_ip, "198.51.100.1");
  EXPECT_EQ(ZOLVPNSites::icmp_local_address_group, "grp");
  EXPECT_THAT(ZOLVPNSites::icmp_local_addresses, ElementsAre("10.5.0.1", "10.4.0.1"));
  EXPECT_THAT(ZOLVPNSites::icmp_local_subnets, ElementsAre("10.5.0.1/32", "10.4.0.1/32"));
  EXPECT_EQ(node.list.site_count, 0);
}

// Verifies that without their keys the switch is off, the routing id 0, and the rate stays what it was.
TEST(ZOLVPNSites, SharedValuesMissing) {
  VpnNode node({}, "", "IPTables: { rate_limit_mbps = 12.5; }; SharedNetworkData: { routing_id = 6; };");
  node.configure();
  node.set(VpnNode::outside);
  node.configure();
  EXPECT_FALSE(ZOLVPNSites::vpn_enabled);
  EXPECT_EQ(ZOLVPNSites::routing_id, 0);
  EXPECT_DOUBLE_EQ(ZOLVPNSites::rate_limit_mbps, 12.5);
  EXPECT_EQ(ZOLVPNSites::icmp_local_address_group, "");
}

// Verifies that the node's rate may be an integer.
TEST(ZOLVPNSites, WholeRate) {
  VpnNode node({}, "", "IPTables: { rate_limit_mbps = 100; };");
  node.configure();
  EXPECT_DOUBLE_EQ(ZOLVPNSites::rate_limit_mbps, 100);
}

// Verifies that the local ICMP addresses are read only when their group has a name.
TEST(ZOLVPNSites, LocalAddressesNeedAGroup) {
  for (const std::string members : {"", "icmp_local_address_group = \"\";"}) {
    VpnNode node({}, members + R"(icmp_local_addresses = ( "10.5.0.1" );)");
    node.configure();
    EXPECT_THAT(ZOLVPNSites::icmp_local_addresses, IsEmpty());
    EXPECT_THAT(ZOLVPNSites::icmp_local_subnets, IsEmpty());
  }
}

// Verifies that an element of the local ICMP addresses that is no text is logged by its index, others stay.
TEST(ZOLVPNSites, LocalAddressWithoutValue) {
  VpnNode node({},
               R"(icmp_local_address_group = "g"; icmp_local_addresses = ( "10.5.0.1", 4, "10.6.0.1" );)");
  const zol_test::LogCapture log;
  node.configure();
  EXPECT_THAT(ZOLVPNSites::icmp_local_addresses, ElementsAre("10.5.0.1", "10.6.0.1"));
  EXPECT_THAT(ZOLVPNSites::icmp_local_subnets, ElementsAre("10.5.0.1/32", "10.6.0.1/32"));
  EXPECT_TRUE(log.contains(log_level::error, "Failed to retrieve #1 icmp_local_subnet_key value."))
      << log.all();
}

// Verifies that a node without an outgoing interface has no sites and no local addresses, with a warning,
// while the switches are read.
TEST(ZOLVPNSites, NoInterface) {
  VpnNode node({});
  const std::string members = R"(icmp_local_address_group = "g"; icmp_local_addresses = ( "10.5.0.1" );)";
  const std::string rest = "IPTables: { rate_limit_mbps = 3.5; }; SharedNetworkData: { routing_id = 8; };";
  node.set(VpnNode::text({site("1")}, members, rest, inside));
  ZOLVPNSites::vpn_enabled = false;
  const zol_test::LogCapture log;
  node.configure();
  EXPECT_TRUE(log.contains(log_level::warning, "No available interface for VPN, not reading configuration"))
      << log.all();
  EXPECT_TRUE(node.list.site_confs.empty());
  EXPECT_TRUE(node.list.sites.empty());
  EXPECT_EQ(node.list.site_count, 0);
  EXPECT_TRUE(ZOLVPNSites::vpn_enabled);
  EXPECT_DOUBLE_EQ(ZOLVPNSites::rate_limit_mbps, 3.5);
  EXPECT_EQ(ZOLVPNSites::routing_id, 8);
  EXPECT_EQ(ZOLVPNSites::icmp_local_address_group, "g");
  EXPECT_THAT(ZOLVPNSites::icmp_local_addresses, IsEmpty());
}

// Verifies that either unknown address alone keeps the sites from being read.
TEST(ZOLVPNSites, OneAddressUnknown) {
  for (const auto& [internal, external] : std::vector<std::pair<std::string, std::string>>{
           {"0.0.0.0", "198.51.100.1"}, {"172.16.0.1", "0.0.0.0"}}) {
    VpnNode node({});
    node.set(VpnNode::text({site("1")}, "", "",
                           "Networking: { interfaces = ( { interface = \"" + internal +
                               "\"; external_ip = \"" + external + "\"; is_private = false; } ); };"));
    node.configure();
    EXPECT_EQ(node.list.site_confs.size(), 0u) << internal << " " << external;
    EXPECT_EQ(ZOLVPNSites::traffic_out_internal_ip, internal);
    EXPECT_EQ(ZOLVPNSites::traffic_out_external_ip, external);
    EXPECT_TRUE(ZOLVPNSites::vpn_enabled);
  }
}

// Verifies that a site that is refused doesn't keep the others from being read.
TEST(ZOLVPNSites, RefusedSiteOnly) {
  VpnNode node({site("1", "one"), bare_site.without("metadata").text(), "5", site("2", "two")});
  const zol_test::LogCapture log;
  node.configure();
  EXPECT_THAT(names(node.list), ElementsAre("one", "two"));
  EXPECT_EQ(node.list.sites.size(), 2u);
  EXPECT_EQ(node.list.site_count, 4);
  EXPECT_TRUE(log.contains(log_level::error, " vpn site VPNIPsec.sites.[1] is missing metadata key."))
      << log.all();
  EXPECT_TRUE(log.contains(log_level::error, " vpn site VPNIPsec.sites.[2] is missing BGP.enabled key."))
      << log.all();
}

// Verifies that of two sites with one id both stand in the list, and the first is found by it.
TEST(ZOLVPNSites, SharedId) {
  VpnNode node({site("7", "first"), site("7", "second")});
  node.configure();
  EXPECT_THAT(names(node.list), ElementsAre("first", "second"));
  EXPECT_EQ(node.list.sites.size(), 1u);
  EXPECT_EQ(node.list.get_site("7")->name, "first");
}

// Verifies that a new reading starts from nothing.
TEST(ZOLVPNSites, ConfiguredAgain) {
  VpnNode node({site("1", "one"), site("2", "two")},
               R"(icmp_local_address_group = "g"; icmp_local_addresses = ( "10.5.0.1" );)");
  node.configure();
  node.configure();
  EXPECT_EQ(node.list.site_confs.size(), 2u);
  EXPECT_EQ(ZOLVPNSites::icmp_local_addresses.size(), 1u);
  node.set(VpnNode::text({site("3", "three")}));
  node.configure();
  EXPECT_THAT(names(node.list), ElementsAre("three"));
  EXPECT_EQ(node.list.get_site("1"), nullptr);
  EXPECT_EQ(node.list.site_count, 1);
  EXPECT_THAT(ZOLVPNSites::icmp_local_addresses, IsEmpty());
  EXPECT_THAT(ZOLVPNSites::icmp_local_subnets, IsEmpty());
}

// Verifies that a block without a list of sites, or with something else in its place, has none.
TEST(ZOLVPNSites, NoListOfSites) {
  VpnNode node({site("1")});
  node.configure();
  for (const std::string block : {"VPNIPsec: { enabled = true; };", "VPNIPsec: { sites = 5; };"}) {
    node.set(VpnNode::outside + block);
    node.configure();
    EXPECT_TRUE(node.list.site_confs.empty()) << block;
    EXPECT_EQ(node.list.site_count, 0) << block;
  }
}

// Verifies that clear forgets the sites, the addresses and the group, and leaves the switches.
TEST(ZOLVPNSites, Clear) {
  VpnNode node({site("1")}, R"(icmp_local_address_group = "g"; icmp_local_addresses = ( "10.5.0.1" );)",
               "IPTables: { rate_limit_mbps = 3.5; }; SharedNetworkData: { routing_id = 8; };");
  node.configure();
  node.list.clear();
  EXPECT_TRUE(node.list.site_confs.empty());
  EXPECT_TRUE(node.list.sites.empty());
  EXPECT_EQ(node.list.site_count, 0);
  EXPECT_EQ(ZOLVPNSites::traffic_out_internal_ip, "0.0.0.0");
  EXPECT_EQ(ZOLVPNSites::traffic_out_external_ip, "0.0.0.0");
  EXPECT_EQ(ZOLVPNSites::icmp_local_address_group, "");
  EXPECT_THAT(ZOLVPNSites::icmp_local_addresses, IsEmpty());
  EXPECT_THAT(ZOLVPNSites::icmp_local_subnets, IsEmpty());
  EXPECT_TRUE(ZOLVPNSites::vpn_enabled);
  EXPECT_EQ(ZOLVPNSites::routing_id, 8);
  EXPECT_DOUBLE_EQ(ZOLVPNSites::rate_limit_mbps, 3.5);
}

// Verifies that the end of one list leaves the values that all lists share.
TEST(ZOLVPNSites, EndOfAList) {
  VpnNode node({site("1")}, R"(icmp_local_address_group = "g"; icmp_local_addresses = ( "10.5.0.1" );)");
  {
    ZOLVPNSites other;
    other.configure(node.config.configurator());
  }
  EXPECT_EQ(ZOLVPNSites::traffic_out_internal_ip, "172.16.0.1");
  EXPECT_EQ(ZOLVPNSites::icmp_local_addresses.size(), 1u);
}

// Verifies that the tree that is given is read, not that of the process.
TEST(ZOLVPNSites, GivenTree) {
  VpnNode node({site("1", "one")});
  zol_test::ScopedConfig other("");
  node.configure();
  EXPECT_THAT(names(node.list), ElementsAre("one"));
}

}  // namespace
}  // namespace zol
