// The traffic report of a middle-mile node: links and tunnels.
#include <string>
#include <utility>

#include "config/zol_networks.h"
#include "sites/vpn_conn_info.h"
#include "sup_logger.h"
#include "zol_traffic_fixture.h"

namespace {

using libvariant::Variant;
using testing::IsEmpty;
using testing::SizeIs;
using zol::ConnRecordType;
using zol::SiteConnRecord;
using zol_monitor::conntrack_counters_t;
using zol_monitor::ZolTraffic;
using zol_test::FilledStats;
using zol_test::IsJson;
using zol_test::LogCapture;

SiteConnRecord site(const std::string& name) {
  SiteConnRecord record(ConnRecordType::site);
  record.key = "key-" + name;
  record.site_name = name;
  record.site_id = "site-" + name;
  record.ip = "192.0.2.9";
  record.peer_id = "peer-" + name;
  record.state = zol::Established;
  record.group = "Customer";
  record.metadata = "{\"floor\": 3}";
  record.primary = true;
  return record;
}

SiteConnRecord route(const std::string& group) {
  SiteConnRecord record(ConnRecordType::bgp_route);
  record.group = group;
  return record;
}

const SiteConnRecord world(ConnRecordType::world);
const SiteConnRecord this_node(ConnRecordType::local);

// Received 3 packets of 1001 bytes, sent 5 packets of 2003 bytes.
constexpr conntrack_counters_t both_ways = {5, 2003, 3, 1001};

class GxeTrafficTest : public zol_test::TrafficTest {
 protected:
  GxeTrafficTest() {
    configure({.middle_mile = true});
    ZolTraffic::tunnels_primed = true;
    totals_.interval_s = 10;
  }

  zol_monitor::GxeLinkCounters& add_link(const SiteConnRecord& first, const SiteConnRecord& second,
                                         const conntrack_counters_t& counters = both_ways) {
    const std::string key = first.key + "#" + second.key;
    zol_monitor::GxeLinkCounters link(first, second, first.state == zol::Established,
                                      second.state == zol::Established);
    link.add_counters(6, counters);
    return stats_.link_counters.emplace(key, std::move(link)).first->second;
  }
  void be_customers_edge() {
    zol::HopMap& map = zol::ZOLNetworks::instance()->hop_map;
    map.my_hop_id = "edge";
    map.hops["edge"].is_ucpe = true;
  }
  Variant generate() { return traffic_.generate_zol_traffic_report_gxe(stats_, &totals_, tunnels_); }
  // Of the one link.
  std::string billing(const Variant& link) {
    const auto text = [&link](std::string_view end, std::string_view key) {
      return std::to_string(link.At(end).At(key).AsUnsigned());
    };
    return text("src", "bytes_for_billing") + " " + text("src", "bytes_not_for_billing") + " " +
           text("dst", "bytes_for_billing") + " " + text("dst", "bytes_not_for_billing");
  }

  FilledStats stats_{&data_};
  std::vector<Variant> tunnels_;
};

// --- links

TEST_F(GxeTrafficTest, not_enabled) {
  // Verifies that with traffic reporting off, or not set, nothing is reported, summed up or primed.
  ZolTraffic::tunnels_primed = false;
  add_link(site("a"), world);
  be_customers_edge();
  LogCapture log;
  for (const char* setting : {"enabled = false; ", ""}) {
    configure({.traffic_report = setting, .middle_mile = true});
    EXPECT_THAT(generate(), IsJson("[]"));
  }
  EXPECT_EQ(totals_.total_bytes, 0U);
  EXPECT_EQ(totals_.total_packets, 0U);
  EXPECT_EQ(totals_.interval_s, 10);
  EXPECT_FALSE(ZolTraffic::tunnels_primed);
  EXPECT_THAT(tunnels_, IsEmpty());
  EXPECT_FALSE(log.contains("billing factor"));
}

TEST_F(GxeTrafficTest, link_from_site_to_world) {
  // Verifies that a site's end has the site's facts, any other type is the world, and that what was received
  // is the source's and what was sent the destination's.
  add_link(site("a"), world);
  EXPECT_THAT(only(generate()), IsJson(R"({
    "src": { "internal_id": "site-a", "site_name": "a", "site_vpn_group": "Customer",
             "metadata": { "floor": 3 }, "ip": "192.0.2.9", "id": "peer-a", "type": "Site_Direct",
             "bytes": 1001, "packets": 3 },
    "dst": { "type": "WORLD", "bytes": 2003, "packets": 5 } })"));
}

TEST_F(GxeTrafficTest, link_from_world_to_site) {
  // Verifies that the destination's end takes its state from the second record.
  add_link(world, site("a"));
  const Variant link = only(generate());
  EXPECT_THAT(link.At("src"), IsJson(R"({ "type": "WORLD", "bytes": 1001, "packets": 3 })"));
  EXPECT_EQ(link.At("dst").At("type").AsString(), "Site_Direct");
  EXPECT_EQ(link.At("dst").At("internal_id").AsString(), "site-a");
}

TEST_F(GxeTrafficTest, link_between_sites) {
  // Verifies that each end is direct or not by the state at the link's first sight.
  add_link(site("a"), site("b")).second_active = false;
  const Variant link = only(generate());
  EXPECT_EQ(link.At("src").At("type").AsString(), "Site_Direct");
  EXPECT_EQ(link.At("dst").At("type").AsString(), "Site_Indirect");
  stats_.link_counters.begin()->second.first_active = false;
  stats_.link_counters.begin()->second.second_active = true;
  const Variant other = only(generate());
  EXPECT_EQ(other.At("src").At("type").AsString(), "Site_Indirect");
  EXPECT_EQ(other.At("dst").At("type").AsString(), "Site_Direct");
}

TEST_F(GxeTrafficTest, link_of_route) {
  // Verifies that a route is an indirect site of which the group is known.
  add_link(route("Partner"), this_node);
  EXPECT_THAT(only(generate()), IsJson(R"({
    "src": { "type": "Site_Indirect", "site_vpn_group": "Partner", "bytes": 1001, "packets": 3 },
    "dst": { "type": "WORLD", "bytes": 2003, "packets": 5 } })"));
}

TEST_F(GxeTrafficTest, metadata) {
  // Verifies that a site's metadata is null when there is none, silently, or when it is no JSON.
  SiteConnRecord plain = site("a");
  plain.metadata = "";
  plain.state = zol::Disconnected;
  SiteConnRecord broken = site("b");
  broken.metadata = "floor 3";
  broken.state = zol::Disconnected;
  add_link(plain, broken);
  LogCapture log;
  const Variant link = only(generate());
  EXPECT_TRUE(link.At("src").Contains("metadata"));
  EXPECT_TRUE(link.At("src").At("metadata").IsNull());
  EXPECT_TRUE(link.At("dst").Contains("metadata"));
  EXPECT_TRUE(link.At("dst").At("metadata").IsNull());
  EXPECT_THAT(log.records(), SizeIs(1));
}

TEST_F(GxeTrafficTest, links_without_bytes) {
  // Verifies that a link that moved no bytes isn't reported or summed up, and one way is enough.
  add_link(site("a"), world, {.tx_packets = 5, .rx_packets = 3});
  add_link(site("b"), world, {.tx_packets = 1, .tx_bytes = 10});
  add_link(site("c"), world, {.rx_packets = 2, .rx_bytes = 20});
  EXPECT_THAT(generate(), testing::Property(&Variant::Size, 2));
  EXPECT_EQ(totals_.total_packets, 3U);
  EXPECT_EQ(totals_.total_bytes, 30U);
}

TEST_F(GxeTrafficTest, totals) {
  // Verifies that the totals are over all links, both ways, and count no sessions.
  add_link(site("a"), world);
  add_link(world, site("a"), {.tx_packets = 100, .tx_bytes = 10000, .rx_packets = 200, .rx_bytes = 20000});
  add_session();
  generate();
  EXPECT_EQ(totals_.total_packets, 308U);
  EXPECT_EQ(totals_.total_bytes, 33004U);
  EXPECT_EQ(totals_.new_sessions, 0U);
  EXPECT_EQ(totals_.interval_s, 10);
}

// --- billing

class GxeBillingTest : public GxeTrafficTest {
 protected:
  GxeBillingTest() {
    be_customers_edge();
    stats_.site_to_internet_billing = {.billed_tx = 3, .unbilled_tx = 1, .billed_rx = 1, .unbilled_rx = 1};
    stats_.site_to_site_billing = {.billed_tx = 1, .unbilled_tx = 3, .billed_rx = 1, .unbilled_rx = 7};
  }
};

TEST_F(GxeBillingTest, factors_are_logged) {
  // Verifies that the factors are logged, each as seen from this node.
  LogCapture log;
  generate();
  EXPECT_TRUE(log.contains(log_level::debug, "Calculated S2I rx billing factor of: 0.5"));
  EXPECT_TRUE(log.contains(log_level::debug, "Calculated S2I tx billing factor of: 0.75"));
  EXPECT_TRUE(log.contains(log_level::debug, "Calculated S2S rx billing factor of: 0.125"));
  EXPECT_TRUE(log.contains(log_level::debug, "Calculated S2S tx billing factor of: 0.25"));
}

TEST_F(GxeBillingTest, between_sites) {
  // Verifies that a link between sites or routes is split by the site factors of the far side, cut to whole
  // bytes.
  for (const auto& [first, second] : {std::pair{site("a"), site("b")}, std::pair{site("a"), route("g")},
                                      std::pair{route("g"), route("h")}, std::pair{route("g"), site("b")}}) {
    stats_.link_counters.clear();
    add_link(first, second);
    EXPECT_EQ(billing(only(generate())), "250 750 250 1752");
  }
}

TEST_F(GxeBillingTest, from_internet) {
  // Verifies that a link whose first end is no site is split by the internet factors of this side, whatever
  // its second end is.
  for (const auto& [first, second] :
       {std::pair{world, site("b")}, std::pair{this_node, route("h")}, std::pair{world, this_node}}) {
    stats_.link_counters.clear();
    add_link(first, second);
    EXPECT_EQ(billing(only(generate())), "500 500 1502 500");
  }
}

TEST_F(GxeBillingTest, to_internet) {
  // Verifies that a link whose second end alone is no site is split by the internet factors of the far side.
  for (const auto& [first, second] : {std::pair{site("a"), world}, std::pair{route("g"), this_node}}) {
    stats_.link_counters.clear();
    add_link(first, second);
    EXPECT_EQ(billing(only(generate())), "750 250 1001 1001");
  }
}

TEST_F(GxeBillingTest, nothing_billed_yet) {
  // Verifies that factors without any bytes behind them leave all bytes unbilled.
  stats_.site_to_internet_billing = {};
  add_link(site("a"), world);
  EXPECT_EQ(billing(only(generate())), "0 1001 0 2003");
}

TEST_F(GxeBillingTest, everything_billed) {
  // Verifies that the largest number of bytes that there is survives the way through floating point.
  stats_.site_to_internet_billing = {.billed_tx = 1, .unbilled_tx = 0, .billed_rx = 1, .unbilled_rx = 0};
  add_link(site("a"), world, {.tx_packets = 0, .tx_bytes = 0, .rx_packets = 1, .rx_bytes = ~0ULL});
  EXPECT_EQ(billing(only(generate())), "18446744073709551615 0 0 0");
}

TEST_F(GxeTrafficTest, no_billing_elsewhere) {
  // Verifies that a node that is no customer's edge has no billing keys and no billing lines.
  stats_.site_to_internet_billing = {.billed_tx = 3, .unbilled_tx = 1, .billed_rx = 1, .unbilled_rx = 1};
  add_link(site("a"), world);
  LogCapture log;
  const Variant link = only(generate());
  for (const char* end : {"src", "dst"}) {
    EXPECT_FALSE(link.At(end).Contains("bytes_for_billing"));
    EXPECT_FALSE(link.At(end).Contains("bytes_not_for_billing"));
  }
  EXPECT_FALSE(log.contains("billing factor"));
}

// --- tunnels

TEST_F(GxeTrafficTest, first_report) {
  // Verifies that the first report has all links and no tunnel, and the second one has them.
  ZolTraffic::tunnels_primed = false;
  sites_.records.emplace("key-a", site("a"));
  add_link(site("a"), world);
  EXPECT_THAT(generate(), testing::Property(&Variant::Size, 1));
  EXPECT_THAT(tunnels_, IsEmpty());
  EXPECT_TRUE(ZolTraffic::tunnels_primed);
  generate();
  EXPECT_THAT(tunnels_, SizeIs(1));
}

TEST_F(GxeTrafficTest, interval_without_length) {
  // Verifies that an interval of no length, or less, has no tunnels, and primes.
  sites_.records.emplace("key-a", site("a"));
  for (const int interval : {0, -5}) {
    ZolTraffic::tunnels_primed = false;
    totals_.interval_s = interval;
    generate();
    EXPECT_TRUE(ZolTraffic::tunnels_primed);
    generate();
    EXPECT_THAT(tunnels_, IsEmpty());
  }
}

TEST_F(GxeTrafficTest, tunnel) {
  // Verifies that a tunnel's upload is what links from its site received and its download what links to it
  // sent, with throughputs in whole bits a second.
  totals_.interval_s = 7;
  add_link(site("a"), world);
  add_link(world, site("a"));
  generate();
  ASSERT_THAT(tunnels_, SizeIs(1));
  EXPECT_THAT(tunnels_[0], IsJson(R"({
    "internal_id": "site-a", "site_name": "a", "site_vpn_group": "Customer", "metadata": { "floor": 3 },
    "ip": "192.0.2.9", "id": "peer-a", "is_primary": true,
    "upload": { "total": 1001, "total_packets": 3, "throughput": 1144 },
    "download": { "total": 2003, "total_packets": 5, "throughput": 2289 } })"));
}

TEST_F(GxeTrafficTest, tunnel_of_several_links) {
  // Verifies that the links of one site add up in its tunnel, and that a link between two sites feeds both.
  add_link(site("a"), world);
  add_link(site("a"), site("b"));
  generate();
  ASSERT_THAT(tunnels_, SizeIs(2));
  const bool a_first = tunnels_[0].At("site_name").AsString() == "a";
  const Variant& a = tunnels_[a_first ? 0 : 1];
  const Variant& b = tunnels_[a_first ? 1 : 0];
  EXPECT_EQ(a.At("upload").At("total").AsInt(), 2002);
  EXPECT_EQ(a.At("upload").At("total_packets").AsInt(), 6);
  EXPECT_EQ(a.At("download").At("total").AsInt(), 0);
  EXPECT_EQ(b.At("upload").At("total").AsInt(), 0);
  EXPECT_EQ(b.At("download").At("total").AsInt(), 2003);
}

TEST_F(GxeTrafficTest, idle_tunnels) {
  // Verifies that the tunnels without traffic follow in the order of their keys, all numbers 0, and those
  // with traffic aren't told twice.
  SiteConnRecord secondary = site("c");
  secondary.primary = false;
  sites_.records.emplace("key-a", site("a"));
  sites_.records.emplace("key-c", secondary);
  sites_.records.emplace("key-b", site("b"));
  add_link(site("a"), world);
  generate();
  ASSERT_THAT(tunnels_, SizeIs(3));
  EXPECT_EQ(tunnels_[0].At("site_name").AsString(), "a");
  EXPECT_EQ(tunnels_[0].At("upload").At("total").AsInt(), 1001);
  EXPECT_EQ(tunnels_[1].At("site_name").AsString(), "b");
  EXPECT_THAT(tunnels_[2], IsJson(R"({
    "internal_id": "site-c", "site_name": "c", "site_vpn_group": "Customer", "metadata": { "floor": 3 },
    "ip": "192.0.2.9", "id": "peer-c", "is_primary": false,
    "upload": { "total": 0, "total_packets": 0, "throughput": 0 },
    "download": { "total": 0, "total_packets": 0, "throughput": 0 } })"));
}

TEST_F(GxeTrafficTest, tunnel_that_moved_the_other_way) {
  // Verifies that a tunnel whose block got packets without bytes counts as idle, and one that is no site of
  // the node any more is reported while it has traffic.
  sites_.records.emplace("key-a", site("a"));
  add_link(site("a"), world, {.tx_packets = 5, .tx_bytes = 2003, .rx_packets = 3, .rx_bytes = 0});
  add_link(site("gone"), world);
  generate();
  ASSERT_THAT(tunnels_, SizeIs(2));
  EXPECT_EQ(tunnels_[0].At("site_name").AsString(), "gone");
  EXPECT_EQ(tunnels_[1].At("site_name").AsString(), "a");
  EXPECT_EQ(tunnels_[1].At("upload").At("total_packets").AsInt(), 0);
}

TEST_F(GxeTrafficTest, tunnel_that_is_down) {
  // Verifies that a site's connection that isn't established, and a route, feed no tunnel.
  SiteConnRecord down = site("a");
  down.state = zol::Connecting;
  sites_.records.emplace("key-a", down);
  add_link(down, route("g"));
  generate();
  ASSERT_THAT(tunnels_, SizeIs(1));
  EXPECT_EQ(tunnels_[0].At("upload").At("total").AsInt(), 0);
}

TEST_F(GxeTrafficTest, tunnels_are_appended) {
  // Verifies that what the caller's list holds already stays.
  tunnels_.push_back("earlier");
  sites_.records.emplace("key-a", site("a"));
  generate();
  ASSERT_THAT(tunnels_, SizeIs(2));
  EXPECT_EQ(tunnels_[0].AsString(), "earlier");
}

}  // namespace
