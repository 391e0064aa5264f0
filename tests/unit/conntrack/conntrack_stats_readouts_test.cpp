// What is read out of a reading of the connection table.
#include <gtest/gtest.h>

#include <string>

#include "conntrack/conntrack_stats.h"
#include "tests/unit/conntrack/conntrack_stats_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::conntrack_counters_t;
using zol_monitor::ConntrackStats;
using zol_monitor::traffic_dir_t;
using HopConnections = ConntrackStats::HopConnections;

constexpr auto target = traffic_dir_t::target;
constexpr auto public_hop = traffic_dir_t::public_hop;
constexpr auto private_hop = traffic_dir_t::private_hop;

// Two networks, whose blocks the tests fill by hand: bytes of tx and rx tell where a figure comes from.
class ReadoutsTest : public ConntrackStatsTest {
 protected:
  ReadoutsTest() : stats_(&data_) {}
  static std::uint64_t sum(const conntrack_counters_t& c) { return c.tx_bytes + c.rx_bytes; }

  FedStats stats_;
};

// Verifies each read-out of a network.
TEST_F(ReadoutsTest, OfANetwork) {
  auto& total = stats_.networks["net-a"].total;
  total.add_tcp_counters({0, 0, 0, 1}, 1, true, true, public_hop);
  total.add_tcp_counters({0, 0, 0, 10}, 2, true, true, public_hop);
  total.add_tcp_counters({}, 2, true, true, target);
  total.add_udp_counters({0, 0, 0, 100}, 1);
  total.add_udp_counters({0, 0, 0, 1000}, 3);
  EXPECT_EQ(stats_.tcp_active_connections("net-a"), 2u);
  EXPECT_EQ(stats_.udp_active_connections("net-a"), 2u);
  EXPECT_EQ(sum(stats_.tcp_client2server_counters("net-a", public_hop)), 1u);
  EXPECT_EQ(sum(stats_.tcp_server2client_counters("net-a", public_hop)), 10u);
  EXPECT_EQ(sum(stats_.tcp_client2server_counters("net-a", target)), 0u);
  EXPECT_EQ(sum(stats_.tcp_server2client_counters("net-a", target)), 0u);
  EXPECT_EQ(sum(stats_.udp_client2server_counters("net-a")), 1000u);
  EXPECT_EQ(sum(stats_.udp_server2client_counters("net-a")), 100u);
}

// Verifies each read-out of a domain.
TEST_F(ReadoutsTest, OfADomain) {
  auto& domain = stats_.networks["net-a"].domain_counters["shop.example"];
  domain.add_tcp_counters({0, 0, 0, 1}, 1, true, true, private_hop);
  domain.add_tcp_counters({0, 0, 0, 10}, 2, true, true, private_hop);
  domain.add_udp_counters({0, 0, 0, 100}, 1);
  domain.add_udp_counters({0, 0, 0, 1000}, 3);
  EXPECT_EQ(sum(stats_.tcp_client2server_domain_counters("net-a", "shop.example", private_hop)), 1u);
  EXPECT_EQ(sum(stats_.tcp_server2client_domain_counters("net-a", "shop.example", private_hop)), 10u);
  EXPECT_EQ(sum(stats_.udp_client2server_domain_counters("net-a", "shop.example")), 1000u);
  EXPECT_EQ(sum(stats_.udp_server2client_domain_counters("net-a", "shop.example")), 100u);
  EXPECT_EQ(stats_.tcp_domain_active_connections("net-a", "shop.example"), 1u);
  EXPECT_EQ(stats_.udp_domain_active_connections("net-a", "shop.example"), 2u);
}

// Verifies each read-out of a client.
TEST_F(ReadoutsTest, OfAClient) {
  auto& client = stats_.networks["net-a"].client_counters["192.0.2.9"];
  client.add_tcp_counters({0, 0, 0, 1}, 1, true, true, public_hop);
  client.add_tcp_counters({0, 0, 0, 2}, 1, true, true, target);
  client.add_tcp_counters({0, 0, 0, 10}, 2, true, true, target);
  client.add_udp_counters({0, 0, 0, 100}, 1);
  client.add_udp_counters({0, 0, 0, 1000}, 3);
  EXPECT_EQ(sum(stats_.tcp_client2server_client_counters("net-a", "192.0.2.9")), 3u);
  EXPECT_EQ(sum(stats_.tcp_server2client_client_counters("net-a", "192.0.2.9")), 10u);
  EXPECT_EQ(sum(stats_.udp_client2server_client_counters("net-a", "192.0.2.9")), 1000u);
  EXPECT_EQ(sum(stats_.udp_server2client_client_counters("net-a", "192.0.2.9")), 100u);
  EXPECT_EQ(stats_.tcp_client_active_connections("net-a", "192.0.2.9"), 2u);
  EXPECT_EQ(stats_.udp_client_active_connections("net-a", "192.0.2.9"), 2u);
}

// Verifies that a figure of an unknown network makes its entry, and that the four questions don't.
TEST_F(ReadoutsTest, UnknownNetwork) {
  std::string domain = "before";
  EXPECT_FALSE(stats_.logical_network_has_traffic("net-x"));
  EXPECT_FALSE(stats_.has_domain_counters("net-x", domain));
  EXPECT_EQ(domain, "before");
  EXPECT_FALSE(stats_.domain_is_zero_traffic("net-x", "shop.example"));
  stats_.delete_domain_stats("net-x", "shop.example");
  EXPECT_TRUE(stats_.networks.empty());
  EXPECT_EQ(stats_.tcp_active_connections("net-x"), 0u);
  EXPECT_EQ(stats_.networks.count("net-x"), 1u);
  EXPECT_FALSE(stats_.has_counters("net-y", target));
  EXPECT_EQ(stats_.networks.count("net-y"), 1u);
}

// Verifies the walk over the domains of a network.
TEST_F(ReadoutsTest, Domains) {
  auto& network = stats_.networks["net-a"];
  EXPECT_FALSE(stats_.logical_network_has_traffic("net-a"));
  network.domain_counters["shop.example"].add_tcp_counters({0, 1, 0, 0}, 1, true, true, target);
  EXPECT_TRUE(stats_.logical_network_has_traffic("net-a"));
  EXPECT_FALSE(stats_.domain_is_zero_traffic("net-a", "shop.example"));
  EXPECT_TRUE(stats_.domain_is_zero_traffic("net-a", "asked.example"));
  std::string domain;
  EXPECT_TRUE(stats_.has_domain_counters("net-a", domain));
  EXPECT_EQ(domain, "asked.example");
  stats_.delete_domain_stats("net-a", "asked.example");
  EXPECT_TRUE(stats_.has_domain_counters("net-a", domain));
  EXPECT_EQ(domain, "shop.example");
}

// Verifies that a network has counters in the directions in which TCP has bytes, either way.
TEST_F(ReadoutsTest, HasTcpCounters) {
  auto& network = stats_.networks["net-a"];
  EXPECT_FALSE(stats_.has_counters("net-a", public_hop));
  network.total.add_tcp_counters({9, 0, 9, 0}, 1, true, true, public_hop);
  EXPECT_FALSE(stats_.has_counters("net-a", public_hop));
  network.total.add_tcp_counters({0, 1, 0, 0}, 1, true, true, public_hop);
  EXPECT_TRUE(stats_.has_counters("net-a", public_hop));
  EXPECT_FALSE(stats_.has_counters("net-a", private_hop));
  network.total.add_tcp_counters({0, 0, 0, 1}, 1, true, true, private_hop);
  EXPECT_TRUE(stats_.has_counters("net-a", private_hop));
  EXPECT_FALSE(stats_.has_counters("net-a", target));
}

// Verifies that UDP's bytes, either way, are counters towards the target and nowhere else.
TEST_F(ReadoutsTest, HasUdpCounters) {
  stats_.networks["to-client"].total.add_udp_counters({0, 1, 0, 0}, 1);
  stats_.networks["to-server"].total.add_udp_counters({0, 0, 0, 1}, 3);
  for (const char* id : {"to-client", "to-server"}) {
    EXPECT_TRUE(stats_.has_counters(id, target)) << id;
    EXPECT_FALSE(stats_.has_counters(id, public_hop)) << id;
  }
}

// Verifies the same for one domain.
TEST_F(ReadoutsTest, HasDomainCounters) {
  auto& domains = stats_.networks["net-a"].domain_counters;
  domains["sent.example"].add_tcp_counters({0, 1, 0, 0}, 1, true, true, public_hop);
  domains["received.example"].add_tcp_counters({0, 0, 0, 1}, 1, true, true, public_hop);
  domains["udp.example"].add_udp_counters({0, 0, 0, 1}, 1);
  domains["udp-out.example"].add_udp_counters({0, 0, 0, 1}, 3);
  EXPECT_TRUE(stats_.has_domain_counters("net-a", "sent.example", public_hop));
  EXPECT_TRUE(stats_.has_domain_counters("net-a", "received.example", public_hop));
  EXPECT_FALSE(stats_.has_domain_counters("net-a", "sent.example", target));
  EXPECT_TRUE(stats_.has_domain_counters("net-a", "udp.example", target));
  EXPECT_TRUE(stats_.has_domain_counters("net-a", "udp-out.example", target));
  EXPECT_FALSE(stats_.has_domain_counters("net-a", "udp.example", public_hop));
}

// Verifies that the totals go over all networks.
TEST_F(ReadoutsTest, Totals) {
  stats_.networks["net-a"].domain_counters["unknown"].add_tcp_counters({}, 1, true, false, target);
  stats_.networks["net-b"].domain_counters["unknown"].add_udp_counters({}, 1);
  stats_.networks["net-b"].add_active_non_tcp_connection();
  EXPECT_EQ(stats_.get_total_open_connections(), 2u);
  EXPECT_EQ(stats_.get_total_active_connections(), 2u);
}

// Verifies that the maps of hops add TCP and UDP of all networks, leave hops without connections out, and
// replace what was there.
TEST_F(ReadoutsTest, NextHops) {
  auto& first = stats_.networks["net-a"].next_hop_counters;
  first["203.0.113.5"].add_tcp_counters({}, 2, true, false, target);
  first["203.0.113.5"].add_udp_counters({}, 2);
  first["203.0.113.6"].add_tcp_counters({}, 2, true, false, target);
  first["203.0.113.7"];
  stats_.networks["net-b"].next_hop_counters["203.0.113.5"].add_tcp_counters({}, 2, true, true, target);
  HopConnections map = {{"stale", 1}};
  stats_.get_next_hop_open_connections_map(map);
  EXPECT_EQ(map, (HopConnections{{"203.0.113.5", 3}, {"203.0.113.6", 1}}));
  stats_.get_next_hop_active_connections_map(map);
  EXPECT_EQ(map, (HopConnections{{"203.0.113.5", 2}}));
}

// Verifies that the maps of previous hops are the process's own.
TEST_F(ReadoutsTest, PreviousHops) {
  ConntrackStats::last_prv_hop_open_sessions = {{"stale", 1}};
  ConntrackStats::last_prv_hop_active_sessions = {{"stale", 1}};
  auto& hops = stats_.networks["net-a"].prv_hop_counters;
  hops["198.51.100.20"].add_tcp_counters({}, 1, true, false, target);
  hops["198.51.100.21"].add_tcp_counters({}, 1, false, true, target);
  stats_.networks["net-b"].prv_hop_counters["198.51.100.20"].add_udp_counters({}, 1);
  stats_.networks["net-b"].next_hop_counters["203.0.113.5"].add_udp_counters({}, 2);
  stats_.set_prv_connections_map();
  EXPECT_EQ(ConntrackStats::last_prv_hop_open_sessions, (HopConnections{{"198.51.100.20", 2}}));
  EXPECT_EQ(ConntrackStats::last_prv_hop_active_sessions,
            (HopConnections{{"198.51.100.20", 1}, {"198.51.100.21", 1}}));
}

}  // namespace
}  // namespace zol_test
