// How the TCP connections of a middle-mile node reach links, tunnels and billing.
#include <gtest/gtest.h>

#include <string>
#include <unordered_set>

#include "tests/unit/conntrack/gxe_stats_fixture.h"

namespace zol_test {
namespace {

using zol::ConnRecordType;
using zol::SiteConnRecord;
using zol_monitor::GxeLinkCounters;
using zol_monitor::NfctHandle;

// --- the hops towards the internet

// Verifies that without the list, and with an empty one, no address leads to the internet.
TEST_F(GxeStatsTest, NoRoutingHops) {
  EXPECT_TRUE(Reading(&data_).site_to_internet_ips.empty());
  config_.set(gxe_config(true, true, "") + "SNDData: { routing_hops = ( ); };");
  EXPECT_TRUE(Reading(&data_).site_to_internet_ips.empty());
}

// Verifies that the addresses of the hops that lead to the internet are taken, and that those of this node's
// own hop, of hops that don't lead there and of hops that don't say so are left out.
TEST_F(GxeStatsTest, RoutingHops) {
  configure(true, true, R"(
    { dc_id = "dc-2"; site_to_inet = true; hop_ips = ( "10.8.0.1", "10.8.0.2" ); },
    { dc_id = "hop-1"; site_to_inet = true; hop_ips = ( "10.8.1.1" ); },
    { dc_id = "dc-3"; site_to_inet = false; hop_ips = ( "10.8.2.1" ); },
    { dc_id = "dc-4"; hop_ips = ( "10.8.3.1" ); },
    { site_to_inet = true; hop_ips = ( "10.8.4.1" ); },
    { dc_id = "dc-5"; site_to_inet = true; hop_ips = ( 7, "10.8.5.1" ); },
    { dc_id = "dc-6"; site_to_inet = true; })");
  const std::unordered_set<std::string> wanted = {"10.8.0.1", "10.8.0.2", "10.8.4.1", "10.8.5.1"};
  EXPECT_EQ(Reading(&data_).site_to_internet_ips, wanted);
}

// Verifies that reading again forgets what was there.
TEST_F(GxeStatsTest, RoutingHopsAreReadAnew) {
  configure_internet_hop();
  Reading stats(&data_);
  EXPECT_EQ(stats.site_to_internet_ips.size(), 1U);
  configure(true, true);
  stats.read_site_to_internet_ips();
  EXPECT_TRUE(stats.site_to_internet_ips.empty());
}

// --- links and tunnels

// Verifies that a link is made once, under the keys of both ends, and that the way back is another one.
TEST_F(GxeStatsTest, LinkOfTwoSites) {
  Reading stats(&data_);
  GxeLinkCounters* link = stats.link_counters_get(ip(site_a), ip(site_b), 0, 0);
  ASSERT_NE(link, nullptr);
  EXPECT_EQ(link->first.key, "a");
  EXPECT_EQ(link->second.key, "b");
  EXPECT_EQ(stats.link_counters_get(ip(site_a), ip(site_b), 0, 0), link);
  EXPECT_NE(stats.link_counters_get(ip(site_b), ip(site_a), 0, 0), link);
  EXPECT_EQ(stats.link_counters.size(), 2U);
  EXPECT_EQ(find(stats, "a#b"), link);
  EXPECT_NE(find(stats, "b#a"), nullptr);
}

// Verifies that one end that is a site or a route is enough, and that two that aren't make no link.
TEST_F(GxeStatsTest, LinkNeedsOneSite) {
  Reading stats(&data_);
  EXPECT_NE(stats.link_counters_get(ip(site_a), ip(outside), 0, 0), nullptr);
  EXPECT_NE(find(stats, "a#world"), nullptr);
  EXPECT_NE(stats.link_counters_get(ip(outside), ip(route), 0, 0), nullptr);
  EXPECT_NE(find(stats, "world#bgp_route"), nullptr);
  EXPECT_EQ(stats.link_counters_get(ip(outside), ip(own), 0, 0), nullptr);
  EXPECT_EQ(stats.link_counters_get(ip(own), ip(outside), 0, 0), nullptr);
  EXPECT_EQ(stats.link_counters.size(), 2U);
}

// Verifies that each override stands for the address before it.
TEST_F(GxeStatsTest, LinkOverrides) {
  Reading stats(&data_);
  EXPECT_NE(stats.link_counters_get(ip(outside), ip(outside), ip(site_a), 0), nullptr);
  EXPECT_NE(find(stats, "a#world"), nullptr);
  EXPECT_NE(stats.link_counters_get(ip(outside), ip(outside), 0, ip(site_b)), nullptr);
  EXPECT_NE(find(stats, "world#b"), nullptr);
  EXPECT_EQ(stats.link_counters_get(ip(site_a), ip(site_b), ip(outside), ip(outside)), nullptr);
}

// Verifies that the states of the ends are those of the link's first sight.
TEST_F(GxeStatsTest, LinkStatesStay) {
  sites_.add(site_b, "b", ConnRecordType::site, zol::Connecting);
  Reading stats(&data_);
  const GxeLinkCounters* link = stats.link_counters_get(ip(site_a), ip(site_b), 0, 0);
  EXPECT_TRUE(link->first_active);
  EXPECT_FALSE(link->second_active);
  sites_.add(site_a, "a", ConnRecordType::site, zol::Disconnected);
  sites_.add(site_b, "b", ConnRecordType::site, zol::Established);
  stats.link_counters_get(ip(site_a), ip(site_b), 0, 0);
  EXPECT_TRUE(link->first_active);
  EXPECT_FALSE(link->second_active);
  EXPECT_EQ(link->second.state, zol::Connecting);
}

// Verifies that only an established site connection has tunnel counters, one block a key.
TEST_F(GxeStatsTest, Tunnels) {
  Reading stats(&data_);
  SiteConnRecord established = sites_.get_site_record(site_a);
  zol_monitor::GxeTunnelCounters* tunnel = stats.tunnel_counters_get(established);
  ASSERT_NE(tunnel, nullptr);
  EXPECT_EQ(tunnel->record.key, "a");
  EXPECT_EQ(stats.tunnel_counters_get(established), tunnel);
  SiteConnRecord connecting = sites_.get_site_record(site_b);
  connecting.state = zol::Connecting;
  EXPECT_EQ(stats.tunnel_counters_get(connecting), nullptr);
  SiteConnRecord of_a_route = sites_.get_site_record(route);
  of_a_route.state = zol::Established;
  EXPECT_EQ(stats.tunnel_counters_get(of_a_route), nullptr);
  EXPECT_EQ(stats.tunnel_counters.size(), 1U);
  EXPECT_EQ(stats.tunnel_counters.count("a"), 1U);
}

// --- TCP

constexpr std::uint8_t in_role = 1;
constexpr std::uint8_t out_role = 2;

// Verifies that an In leg without session puts what its source was sent on the way back, and what the source
// sent on the way forth.
TEST_F(GxeStatsTest, TcpInLeg) {
  Reading stats(&data_);
  const NfctHandle ct = connection(site_a, site_b, 0x110, IPPROTO_TCP);
  stats.ct_parser_tcp_gxe(ct.get(), in_role);
  ASSERT_EQ(stats.link_counters.size(), 2U);
  expect_counters(find(stats, "a#b")->total, none, forth);
  expect_counters(find(stats, "b#a")->total, back, none);
  expect_counters(find(stats, "a#b")->protocols[0], none, forth);
  EXPECT_TRUE(stats.networks.empty());
}

// Verifies that an Out leg is seen from the other side.
TEST_F(GxeStatsTest, TcpOutLeg) {
  Reading stats(&data_);
  const NfctHandle ct = connection(site_a, site_b, 0x120, IPPROTO_TCP);
  stats.ct_parser_tcp_gxe(ct.get(), out_role);
  expect_counters(find(stats, "a#b")->total, forth, none);
  expect_counters(find(stats, "b#a")->total, none, back);
}

// Verifies that the ends of the connection's session take the place of its own.
TEST_F(GxeStatsTest, TcpWithSession) {
  const zol_monitor::SessionPtr session = identify_in(1, {outside, 1000});
  session->client_ip = ip(site_a);
  session->next_hop_ip = ip(site_b);
  Reading stats(&data_);
  const NfctHandle ct = connection(outside, own, 0x110, IPPROTO_TCP);
  stats.ct_parser_tcp_gxe(ct.get(), in_role);
  ASSERT_EQ(stats.link_counters.size(), 2U);
  expect_counters(find(stats, "a#b")->total, none, forth);
  expect_counters(find(stats, "b#a")->total, back, none);
}

// Verifies that a connection that touches no site makes no link.
TEST_F(GxeStatsTest, TcpWithoutSites) {
  Reading stats(&data_);
  const NfctHandle ct = connection(outside, own, 0x110, IPPROTO_TCP);
  stats.ct_parser_tcp_gxe(ct.get(), in_role);
  EXPECT_TRUE(stats.link_counters.empty());
}

// Verifies that TCP towards a hop of the internet is billed as between sites, and all else as to the
// internet.
TEST_F(GxeStatsTest, TcpBilling) {
  configure_internet_hop();
  Reading stats(&data_);
  stats.ct_parser_tcp_gxe(connection(site_a, internet_hop, 0x120, IPPROTO_TCP).get(), out_role);
  EXPECT_EQ(stats.site_to_site_billing.billed_tx, forth.bytes);
  EXPECT_EQ(stats.site_to_site_billing.billed_rx, back.bytes);
  EXPECT_EQ(stats.site_to_internet_billing.billed_tx, 0U);
  stats.ct_parser_tcp_gxe(connection(site_a, site_b, 0x120, IPPROTO_TCP).get(), out_role);
  EXPECT_EQ(stats.site_to_internet_billing.billed_tx, forth.bytes);
  EXPECT_EQ(stats.site_to_site_billing.billed_tx, forth.bytes);
}

// Verifies that TCP between two edges is billed by its mark all the same.
TEST_F(GxeStatsTest, TcpBillingBetweenEdges) {
  configure(true, true);
  Reading stats(&data_);
  stats.ct_parser_tcp_gxe(connection(site_a, site_b, 0x120, IPPROTO_TCP).get(), out_role);
  EXPECT_EQ(stats.site_to_internet_billing.billed_tx, forth.bytes);
  EXPECT_EQ(stats.site_to_internet_billing.unbilled_tx, 0U);
}

// Verifies that only a customer's edge bills.
TEST_F(GxeStatsTest, NoBillingElsewhere) {
  configure_internet_hop(false);
  Reading stats(&data_);
  stats.ct_parser_tcp_gxe(connection(site_a, internet_hop, 0x120, IPPROTO_TCP).get(), out_role);
  stats.ct_parser_non_tcp_gxe(connection(site_a, internet_hop, bit_28).get());
  for (const auto& billing : {stats.site_to_site_billing, stats.site_to_internet_billing}) {
    EXPECT_EQ(billing.billed_tx, 0U);
    EXPECT_EQ(billing.billed_rx, 0U);
  }
}

}  // namespace
}  // namespace zol_test
