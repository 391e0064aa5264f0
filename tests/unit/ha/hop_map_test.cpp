#include <gtest/gtest.h>

#include "ha/ip_set_sink.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/ha/hop_map_fixture.h"

namespace zol {
namespace {

using zol_test::hop_config;
using zol_test::Node;
using zol_test::one_interface;
using zol_test::overlay;
using Strings = std::set<std::string>;

class HopMapTest : public testing::Test {
 protected:
  HopMapTest() : node_(hop_config(overlay)), map_(node_.map) {}

  Node node_;
  HopMap& map_;
};

std::string hop_of_mode(const std::string& mode, const std::string& floating) {
  return "hops = ( { hop_id = \"a\"; ha_mode = \"" + mode + "\"; floating_ips = ( " + floating + " ); } );";
}

int mode_of(const std::string& hop_data, const std::string& more, const std::string& id = "a") {
  return static_cast<int>(Node(hop_config(hop_data, id, more)).map.get_ha_mode());
}

// Verifies that an autonomous hop stays so as long as one of its addresses isn't configured here.
TEST(HopMapHaMode, Autonomous) {
  EXPECT_EQ(mode_of(hop_of_mode("autonomous", "\"10.0.0.1\", \"10.0.0.2\""), one_interface("10.0.0.1")), 2);
}

// Verifies that an autonomous hop whose addresses are all configured here counts as managed, which is logged.
TEST(HopMapHaMode, AutonomousWithFixedAddresses) {
  const Node node(hop_config(hop_of_mode("autonomous", "\"10.0.0.1\""), "a", one_interface("10.0.0.1")));
  zol_test::LogCapture log;
  EXPECT_EQ(node.map.get_ha_mode(), ha_mode_t::managed);
  EXPECT_TRUE(log.contains("get_ha_mode: Detected managed mode according to configurations!")) << log.all();
}

// Verifies that a managed hop stays so, and one without a mode, whatever the addresses.
TEST(HopMapHaMode, Others) {
  EXPECT_EQ(mode_of(hop_of_mode("managed", "\"10.0.0.1\""), one_interface("10.0.0.1")), 1);
  EXPECT_EQ(mode_of(hop_of_mode("managed", "\"10.0.0.1\""), ""), 1);
  EXPECT_EQ(mode_of(hop_of_mode("", "\"10.0.0.1\""), ""), 0);
}

// Verifies that a node that isn't in the map has no mode.
TEST(HopMapHaMode, UnknownHop) {
  EXPECT_EQ(mode_of(hop_of_mode("managed", ""), "", "z"), 0);
}

// Verifies the flags and lists of this node's hop.
TEST_F(HopMapTest, OwnHop) {
  EXPECT_TRUE(map_.is_direct_hop());
  EXPECT_FALSE(map_.zol_is_being_removed());
  EXPECT_EQ(map_.get_floating_ips(), (Strings{"203.0.113.1"}));
  EXPECT_EQ(map_.get_communication_groups(), (Strings{"g1", "g2"}));
  EXPECT_TRUE(Node(hop_config(overlay, "c")).map.zol_is_being_removed());
}

// Verifies that a map without this node's hop parses and answers with nothing.
TEST(HopMap, WithoutOwnHop) {
  const Node node(hop_config(overlay, "z"));
  EXPECT_TRUE(node.map.parsed);
  EXPECT_FALSE(node.map.is_direct_hop());
  EXPECT_FALSE(node.map.zol_is_being_removed());
  EXPECT_FALSE(node.map.is_ucpe_hop(""));
  EXPECT_TRUE(node.map.get_floating_ips().empty());
  EXPECT_TRUE(node.map.get_communication_groups().empty());
  EXPECT_TRUE(node.map.get_vrrp_neighbors().empty());
  EXPECT_FALSE(node.map.can_communicate_with_hop(node.map.hops.at("a")));
  EXPECT_EQ(node.map.get_all_peer_ips(false).size(), 6u);
}

// Verifies that the flags are false as long as no map was parsed.
TEST(HopMap, NotParsed) {
  const Node node("");
  EXPECT_FALSE(node.map.is_direct_hop());
  EXPECT_FALSE(node.map.zol_is_being_removed());
  EXPECT_FALSE(node.map.is_clustered());
}

// Verifies in which clusters this node is.
TEST_F(HopMapTest, Clustered) {
  EXPECT_TRUE(map_.is_clustered());
  EXPECT_TRUE(map_.is_clustered("s1"));
  EXPECT_FALSE(map_.is_clustered("s2"));
  EXPECT_FALSE(map_.is_clustered("nowhere"));
  EXPECT_FALSE(Node(hop_config(overlay, "z")).map.is_clustered());
}

// Verifies the priorities in a cluster, and their defaults.
TEST_F(HopMapTest, Priorities) {
  EXPECT_EQ(map_.get_hop_priority("s1"), 3);
  EXPECT_EQ(map_.get_worst_hop_priority("s1"), 8);
  EXPECT_EQ(map_.get_hop_priority("s2"), 1) << "this hop isn't in it";
  EXPECT_EQ(map_.get_worst_hop_priority("s2"), 3);
  EXPECT_EQ(map_.get_hop_priority("nowhere"), 1);
  EXPECT_EQ(map_.get_worst_hop_priority("nowhere"), 2);
  EXPECT_EQ(map_.get_worst_hop_priority("s3"), 2) << "no hops";
}

// Verifies that the neighbours are the hops of the own clusters with which this node may talk.
TEST_F(HopMapTest, VrrpNeighbors) {
  EXPECT_EQ(map_.get_vrrp_neighbors(), (Strings{"10.0.0.2"}));
}

// Verifies that only an autonomous node has neighbours.
TEST(HopMap, NoVrrpNeighborsWhenManaged) {
  EXPECT_TRUE(Node(hop_config(overlay, "a", one_interface("203.0.113.1"))).map.get_vrrp_neighbors().empty());
  EXPECT_TRUE(Node(hop_config(overlay, "b")).map.get_vrrp_neighbors().empty());
}

// Verifies that hops may talk when they share a group and the other isn't being removed.
TEST_F(HopMapTest, CanCommunicate) {
  EXPECT_TRUE(map_.can_communicate_with_hop(map_.hops.at("b")));
  EXPECT_FALSE(map_.can_communicate_with_hop(map_.hops.at("c"))) << "being removed";
  EXPECT_FALSE(map_.can_communicate_with_hop(map_.hops.at("d"))) << "no common group";
}

// Verifies that a node is no infrastructure when it is direct or clustered with a customer's edge.
TEST(HopMap, Infra) {
  EXPECT_FALSE(Node(hop_config(overlay, "a")).map.zol_is_infra()) << "direct";
  EXPECT_TRUE(Node(hop_config(overlay, "b")).map.zol_is_infra());
  EXPECT_FALSE(Node(hop_config(overlay, "d")).map.zol_is_infra()) << "an edge in a cluster";
  EXPECT_FALSE(Node(hop_config(overlay, "e")).map.zol_is_infra()) << "clustered with an edge";
}

// Verifies the edge test for this node and for others.
TEST(HopMap, Ucpe) {
  const Node node(hop_config(overlay, "d"));
  EXPECT_TRUE(node.map.is_ucpe_hop(""));
  EXPECT_TRUE(node.map.is_ucpe_hop("d"));
  EXPECT_FALSE(node.map.is_ucpe_hop("a"));
  EXPECT_FALSE(node.map.is_ucpe_hop("nowhere"));
}

// Verifies the lists over all hops.
TEST_F(HopMapTest, Lists) {
  EXPECT_EQ(map_.get_all_zol_ips(),
            (Strings{"10.0.0.1", "198.51.100.1", "10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5"}));
  EXPECT_EQ(map_.get_all_peer_ips(false), (Strings{"10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5"}));
  EXPECT_EQ(map_.get_all_peer_ips(true), (Strings{"10.0.0.2", "10.0.0.5"}));
  EXPECT_EQ(map_.get_all_tcp_obscured_peer_ips(), (Strings{"10.0.0.2", "10.0.0.4"}));
  EXPECT_EQ(map_.get_all_ucpe_hop_ips(), (Strings{"10.0.0.4"}));
  EXPECT_EQ(map_.get_all_routing_ids(), (std::set<int>{1, 2, 3, 5}));
  EXPECT_EQ(map_.get_bgp_peers(), (Strings{"10.0.0.2", "10.0.0.5"}));
}

// Verifies that the metadata are found by the hop's name.
TEST_F(HopMapTest, MetadataByName) {
  EXPECT_EQ(map_.get_metadata_by_fqdn_map("b.example"), "mb");
  EXPECT_EQ(map_.get_metadata_by_fqdn_map("a.example"), "{\"n\":1}");
  EXPECT_EQ(map_.get_metadata_by_fqdn_map("z.example"), "");
}

class RecordingSet : public IIPSetSink {
 public:
  void set_ips(const std::set<std::string>& set) override {
    addresses = set;
    ++calls;
  }
  Strings addresses;
  int calls = 0;
};

// Verifies that the firewall is told the addresses of all hops but those of this node's interfaces.
TEST(HopMap, OtherZolIps) {
  Node node(hop_config(overlay, "a", one_interface("10.0.0.1")));
  RecordingSet set;
  node.map.set_other_zol_ips(&set);
  node.map.update_other_zol_ips_ipset();
  EXPECT_EQ(set.calls, 1);
  EXPECT_EQ(set.addresses, (Strings{"198.51.100.1", "10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5"}));
}

// Verifies that a node without ipsets tells nobody.
TEST_F(HopMapTest, OtherZolIpsWithoutASet) {
  RecordingSet set;
  map_.set_other_zol_ips(&set);
  map_.set_other_zol_ips(nullptr);
  map_.update_other_zol_ips_ipset();
  EXPECT_EQ(set.calls, 0);
}

}  // namespace
}  // namespace zol
