#include <gtest/gtest.h>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/ha/hop_map_fixture.h"

namespace zol {
namespace {

using zol_test::hop_config;
using zol_test::LogCapture;
using zol_test::Node;
using zol_test::overlay;
using Strings = std::set<std::string>;

const std::string one_hop = "hops = ( { hop_id = \"a\"; } );";

// Verifies that every member of a hop is read.
TEST(HopMapParse, HopMembers) {
  const Node node(hop_config(overlay));
  EXPECT_TRUE(node.map.parsed);
  EXPECT_EQ(node.map.my_hop_id, "a");
  ASSERT_EQ(node.map.hops.size(), 5u);
  const HopData& a = node.map.hops.at("a");
  EXPECT_EQ(a.ha_mode, ha_mode_t::autonomous);
  EXPECT_EQ(a.zol_ips, (Strings{"10.0.0.1", "198.51.100.1"}));
  EXPECT_EQ(a.floating_ips, (Strings{"203.0.113.1"}));
  EXPECT_EQ(a.communication_groups, (Strings{"g1", "g2"}));
  EXPECT_TRUE(a.secured);
  EXPECT_TRUE(a.is_direct);
  EXPECT_FALSE(a.is_ucpe || a.tcp_obscured || a.is_being_removed);
  EXPECT_EQ(a.routing_id, 1);
  EXPECT_EQ(a.metadata, "{\"n\":1}");
  EXPECT_EQ(a.fqdn, "a.example");
  EXPECT_TRUE(node.map.hops.at("b").tcp_obscured);
  EXPECT_TRUE(node.map.hops.at("c").is_being_removed);
  EXPECT_TRUE(node.map.hops.at("d").is_ucpe);
}

// Verifies that members that are missing keep their defaults.
TEST(HopMapParse, HopDefaults) {
  const Node node(hop_config(one_hop));
  const HopData& a = node.map.hops.at("a");
  EXPECT_EQ(a.ha_mode, ha_mode_t::none);
  EXPECT_FALSE(a.secured || a.is_ucpe || a.tcp_obscured || a.is_being_removed || a.is_direct);
  EXPECT_EQ(a.routing_id, 0);
  EXPECT_TRUE(a.zol_ips.empty() && a.floating_ips.empty() && a.communication_groups.empty());
  EXPECT_TRUE(node.map.clusters.empty());
  EXPECT_EQ(node.map.out_mode, "unlimited");
  EXPECT_FALSE(node.map.is_out_mode_anycast());
}

// Verifies each text of ha_mode; an unknown one is none.
TEST(HopMapParse, HaModes) {
  const auto mode_of = [](const std::string& text) {
    const Node node(hop_config("hops = ( { hop_id = \"a\"; ha_mode = \"" + text + "\"; } );"));
    return static_cast<int>(node.map.hops.at("a").ha_mode);
  };
  EXPECT_EQ(mode_of("managed"), 1);
  EXPECT_EQ(mode_of("autonomous"), 2);
  EXPECT_EQ(mode_of("Managed"), 0);
  EXPECT_EQ(mode_of(""), 0);
}

// Verifies that without a list of hops nothing is parsed and an earlier map stays.
TEST(HopMapParse, NoHopData) {
  Node node(hop_config(overlay));
  node.config.set("General: { hop_id = \"b\"; };");
  LogCapture log;
  EXPECT_FALSE(node.map.parse("b"));
  EXPECT_TRUE(log.contains(log_level::info, "parse: Skipping since hop data hasn't been polled yet"))
      << log.all();
  EXPECT_TRUE(node.map.parsed);
  EXPECT_EQ(node.map.my_hop_id, "a");
}

// Verifies that an empty id keeps the one known, and that a new one is logged.
TEST(HopMapParse, HopId) {
  Node node(hop_config(one_hop));
  LogCapture log;
  EXPECT_TRUE(node.map.parse(""));
  EXPECT_EQ(node.map.my_hop_id, "a");
  EXPECT_EQ(log.count("Set self hop id"), 0);
  EXPECT_TRUE(node.map.parse("z"));
  EXPECT_EQ(node.map.my_hop_id, "z");
  EXPECT_TRUE(log.contains(log_level::debug, "parse: Set self hop id z")) << log.all();
}

// Verifies the out mode and its line.
TEST(HopMapParse, OutMode) {
  LogCapture log;
  const Node node(hop_config(one_hop + " out_mode = \"limitedAnycast\";"));
  EXPECT_TRUE(node.map.is_out_mode_anycast());
  EXPECT_TRUE(log.contains(log_level::debug, "parse_outs_mode: Parsed out mode is 'limitedAnycast'"))
      << log.all();
}

// Verifies the lines of a good parse.
TEST(HopMapParse, Lines) {
  LogCapture log;
  const Node node(hop_config(overlay));
  for (const char* line :
       {"parse_hops: Started parsing hops data", "parse_hop: Parsing my hop a", "parse_hop: Parsing hop b",
        ": Added 10.0.0.2 to zol_ips of b", ": Added 203.0.113.1 to floating_ips of a",
        ": Added g9 to communication_groups of d", "parse_clusters: Parsing clusters data",
        "parse_cluster: internal_site_id is s1", "parse_cluster: virtual router id is 51",
        "parse_cluster: Hop b with priority 7"})
    EXPECT_TRUE(log.contains(log_level::debug, line)) << line << "\n" << log.all();
}

// Verifies that clusters are read with their hops in order.
TEST(HopMapParse, Clusters) {
  const Node node(hop_config(overlay));
  ASSERT_EQ(node.map.clusters.size(), 3u);
  const ClusterData& s1 = node.map.clusters.at("s1");
  EXPECT_EQ(s1.virtual_router_id, 51);
  ASSERT_EQ(s1.hops.size(), 4u);
  EXPECT_EQ(s1.hops[1], (std::pair<std::string, int>{"b", 7}));
}

void expect_wiped(const Node& node) {
  EXPECT_FALSE(node.map.parsed);
  EXPECT_TRUE(node.map.hops.empty());
  EXPECT_TRUE(node.map.clusters.empty());
  EXPECT_FALSE(node.map.is_clustered());
}

// Verifies that a hop without id wipes the map.
TEST(HopMapParse, HopWithoutId) {
  LogCapture log;
  const Node node(hop_config("hops = ( { hop_id = \"a\"; }, { secured = true; } );"));
  expect_wiped(node);
  EXPECT_TRUE(log.contains("parse_hops: Wiping hop map")) << log.all();
}

// Verifies that a broken description takes the place of a good one: nothing of that is kept.
TEST(HopMapParse, BrokenAfterGood) {
  Node node(hop_config(overlay));
  node.config.set(hop_config("hops = ( { } );"));
  EXPECT_FALSE(node.map.parse("a"));
  expect_wiped(node);
  EXPECT_TRUE(node.map.get_all_peer_ips(false).empty());
}

struct BrokenCluster {
  const char* name;
  const char* cluster;
  const char* line;
};

class HopMapBrokenCluster : public testing::TestWithParam<BrokenCluster> {};

// Verifies that each member missing in a cluster is named and wipes all clusters and the map.
TEST_P(HopMapBrokenCluster, Wipes) {
  LogCapture log;
  const Node node(hop_config(one_hop +
                             " clusters = ( { internal_site_id = \"s\"; virtual_router_id = 1; hops = ( { "
                             "hop_id = \"a\"; priority = 1; } ); }, " +
                             GetParam().cluster + " );"));
  expect_wiped(node);
  EXPECT_TRUE(log.contains(log_level::error, std::string("parse_cluster") + GetParam().line)) << log.all();
  EXPECT_TRUE(log.contains(": Wiping cluster list")) << log.all();
}

INSTANTIATE_TEST_SUITE_P(
    Members, HopMapBrokenCluster,
    testing::Values(
        BrokenCluster{"SiteId", "{ virtual_router_id = 1; hops = ( ); }",
                      ": Missing internal site id in clusters !"},
        BrokenCluster{"RouterId", "{ internal_site_id = \"t\"; hops = ( ); }",
                      ": Missing virtual router id in clusters !"},
        BrokenCluster{"Hops", "{ internal_site_id = \"t\"; virtual_router_id = 1; }",
                      ": There are missing fields in clusters !"},
        BrokenCluster{"Priority",
                      "{ internal_site_id = \"t\"; virtual_router_id = 1; hops = ( { hop_id = \"a\"; } ); }",
                      ": Missing priority in cluster's hop!"},
        BrokenCluster{"HopId",
                      "{ internal_site_id = \"t\"; virtual_router_id = 1; hops = ( { priority = 1; } ); }",
                      ": Missing hop id in cluster's hop!"}),
    [](const auto& row) { return row.param.name; });

// Verifies that an element of a list of texts that is none is logged and left out.
TEST(HopMapParse, NumberAmongAddresses) {
  LogCapture log;
  const Node node(hop_config("hops = ( { hop_id = \"a\"; zol_ips = ( 7, \"10.0.0.1\" ); } );"));
  EXPECT_EQ(node.map.hops.at("a").zol_ips, (Strings{"10.0.0.1"}));
  EXPECT_TRUE(log.contains(log_level::error, "HopData.hops.[0].zol_ips.[0] is no text")) << log.all();
}

}  // namespace
}  // namespace zol
