// How one connection of a dump is classified and counted.
#include "conntrack/conntrack_stats.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sup_logger.h"
#include "tests/unit/conntrack/conntrack_stats_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::conntrack_counters_t;
using zol_monitor::ConntrackStats;
using zol_monitor::SessionPtr;

// --- counters_dump_parser

// Verifies that the source's bytes are rx, and that a swap turns both pairs round.
TEST_F(ConntrackStatsTest, CountersOfAConnection) {
  const auto ct = make_counted_ct(in_connection, {1, 100}, {2, 2000});
  conntrack_counters_t counters = {9, 9, 9, 9};
  ConntrackStats::counters_dump_parser(&counters, false, ct.get());
  EXPECT_EQ(fields(counters), (Fields{2, 2000, 1, 100}));
  ConntrackStats::counters_dump_parser(&counters, true, ct.get());
  EXPECT_EQ(fields(counters), (Fields{1, 100, 2, 2000}));
}

// Verifies that the counters of a reversed connection are taken in the session's direction.
TEST_F(ConntrackStatsTest, CountersOfAReversedConnection) {
  const auto ct = make_counted_ct(with_mark(in_connection, service_mark | 0xa0), {1, 100}, {2, 2000});
  conntrack_counters_t counters;
  ConntrackStats::counters_dump_parser(&counters, false, ct.get());
  EXPECT_EQ(fields(counters), (Fields{1, 100, 2, 2000}));
}

// Verifies that a connection without counters gives zero and a warning.
TEST_F(ConntrackStatsTest, NoAccounting) {
  LogCapture log;
  conntrack_counters_t counters = {9, 9, 9, 9};
  ConntrackStats::counters_dump_parser(&counters, false, make_ct(in_connection).get());
  EXPECT_EQ(fields(counters), (Fields{0, 0, 0, 0}));
  EXPECT_TRUE(log.contains(log_level::warning,
                           "Failed to read counters. net.netfilter.nf_conntrack_acct may be zero"))
      << log.all();
}

// Verifies that packets alone are no traffic.
TEST_F(ConntrackStatsTest, CountersZero) {
  EXPECT_TRUE(ConntrackStats::is_counters_zero({1, 0, 1, 0}));
  EXPECT_FALSE(ConntrackStats::is_counters_zero({0, 1, 0, 0}));
  EXPECT_FALSE(ConntrackStats::is_counters_zero({0, 0, 0, 1}));
}

// --- what is passed over

// Verifies that protocols without ports aren't counted on an ordinary node.
TEST_F(ConntrackStatsTest, OtherProtocol) {
  FedStats stats(&data_);
  Flow flow = in_connection;
  flow.protonum = IPPROTO_GRE;
  flow.tcp_state = -1;
  stats.parse(flow);
  EXPECT_TRUE(stats.networks.empty());
}

// Verifies that TCP without a state, and a connection without a mark, are passed over with an error.
TEST_F(ConntrackStatsTest, MissingAttributes) {
  FedStats stats(&data_);
  LogCapture log;
  Flow stateless = in_connection;
  stateless.tcp_state = -1;
  stats.parse(stateless);
  EXPECT_TRUE(log.contains(log_level::error, "Ignoring TCP connections without state")) << log.all();
  EXPECT_EQ(log.count("without mark"), 0);
  stats.parse(with_mark(in_connection, 0));
  EXPECT_TRUE(log.contains(log_level::error, "Ignoring TCP connections without mark")) << log.all();
  stats.parse(udp(with_mark(in_connection, 0)));
  EXPECT_EQ(log.count("Ignoring TCP connections without mark"), 2);
  EXPECT_TRUE(stats.networks.empty());
}

// Verifies that a connection without role isn't counted, also when it is a reversed one.
TEST_F(ConntrackStatsTest, NoRole) {
  for (const std::uint32_t mark : {service_mark, service_mark | 0xb0, 0x0bu}) {
    FedStats stats(&data_);
    LogCapture log;
    stats.parse(with_mark(in_connection, mark));
    EXPECT_TRUE(log.contains(log_level::trace, "Ignoring TCP connections without IO Mark")) << log.all();
    EXPECT_TRUE(stats.networks.empty()) << mark;
  }
}

// Verifies that a marked connection on loopback isn't counted, and that one with one end there is.
TEST_F(ConntrackStatsTest, Loopback) {
  FedStats stats(&data_);
  LogCapture log;
  Flow flow = in_connection;
  flow.source = {"127.0.0.1", 5000};
  flow.target = {"127.0.0.1", 443};
  stats.parse(flow);
  EXPECT_TRUE(log.contains(log_level::trace, "Ignoring TCP connections on loopback")) << log.all();
  EXPECT_TRUE(stats.networks.empty());
  flow.target = own_in_peer;
  stats.parse(flow);
  EXPECT_TRUE(has_counted(stats));
}

// Verifies that a connection without source address or port is passed over with an error.
TEST_F(ConntrackStatsTest, NoAddress) {
  FedStats stats(&data_);
  LogCapture log;
  Flow flow = in_connection;
  flow.source = {"0.0.0.0", 5000};
  stats.parse(flow);
  flow.source = {"198.51.100.20", 0};
  stats.parse(flow);
  EXPECT_EQ(log.count("Failed to retrieve connection address"), 2);
  EXPECT_TRUE(log.contains(log_level::error, "Failed to retrieve connection address"));
  EXPECT_TRUE(stats.networks.empty());
}

// Verifies that a reading that primes makes the network's entry and counts nothing, and touches no session.
TEST_F(ConntrackStatsTest, FirstTime) {
  const SessionPtr session = identify_in();
  FedStats stats(&data_, true);
  stats.parse(in_connection);
  ASSERT_EQ(stats.networks.count("net-a"), 1u);
  EXPECT_FALSE(has_counted(stats));
  EXPECT_TRUE(session->network_id.empty());
  EXPECT_EQ(*session->in->incoming_bytes, 0u);
}

// Verifies that a reading that ignores the dump makes the network's entry and counts nothing.
TEST_F(ConntrackStatsTest, IgnoreQuery) {
  FedStats stats(&data_, false, true);
  stats.parse(in_connection);
  ASSERT_EQ(stats.networks.count("net-a"), 1u);
  EXPECT_FALSE(has_counted(stats));
}

// --- TCP

// Verifies that an In leg's rx is what the client sent, and that it counts for network, client and hop.
TEST_F(ConntrackStatsTest, InLeg) {
  FedStats stats(&data_);
  LogCapture log;
  stats.parse(in_connection, {1, 100}, {2, 2000});
  EXPECT_EQ(fields(network_of(stats).total.counters[0][0][1]), (Fields{2, 2000, 1, 100}));
  EXPECT_EQ(network_of(stats).client_counters.count("198.51.100.20"), 1u);
  EXPECT_EQ(network_of(stats).prv_hop_counters.count("198.51.100.20"), 1u);
  EXPECT_TRUE(network_of(stats).next_hop_counters.empty());
  EXPECT_EQ(stats.tcp_active_connections("net-a"), 1u);
  EXPECT_TRUE(log.contains(log_level::debug, "dump_parser: Adding to net net-a tx bytes 2000 rx bytes 100"))
      << log.all();
}

// Verifies that an Out leg's tx is what this node sent on, and that its hop is the destination; the port of a
// hop keeps it in the overlay.
TEST_F(ConntrackStatsTest, OutLeg) {
  FedStats stats(&data_);
  stats.parse(out_connection, {1, 100}, {2, 2000});
  EXPECT_EQ(fields(network_of(stats).total.counters[0][1][0]), (Fields{1, 100, 2, 2000}));
  EXPECT_EQ(network_of(stats).next_hop_counters.count("203.0.113.5"), 1u);
  EXPECT_TRUE(network_of(stats).prv_hop_counters.empty());
}

// Verifies that a connection that the kernel saw the other way round counts as the one it is.
TEST_F(ConntrackStatsTest, ReversedInLeg) {
  FedStats stats(&data_);
  Flow flow = in_connection;  // nibble 0xa: reversed, and In once it is put right
  flow.source = own_in_peer;
  flow.target = client_peer;
  flow.mark = service_mark | 0xa0;
  stats.parse(flow, {2, 2000}, {1, 100});
  EXPECT_EQ(fields(network_of(stats).total.counters[0][0][1]), (Fields{2, 2000, 1, 100}));
  EXPECT_EQ(network_of(stats).prv_hop_counters.count("198.51.100.20"), 1u);
}

// Verifies that of such a connection the port that tells a hop is the kernel's source port.
TEST_F(ConntrackStatsTest, ReversedInLegToPort) {
  FedStats stats(&data_);
  Flow flow = in_connection;
  flow.source = {"192.0.2.1", 443};
  flow.target = {"198.51.100.20", 15443};
  flow.mark = service_mark | 0xa0;
  stats.parse(flow, {2, 2000}, {1, 100});
  EXPECT_EQ(fields(network_of(stats).total.counters[0][0][0]), (Fields{2, 2000, 1, 100}));
}

// Verifies that a connection whose other end is a hop's private address counts as one through a private
// network, whichever end it is.
TEST_F(ConntrackStatsTest, PrivateNetwork) {
  const Peer private_hop = {"10.9.0.2", 15000};
  Flow to_hop = out_connection;
  to_hop.target = private_hop;
  FedStats to(&data_);
  to.parse(to_hop);
  EXPECT_EQ(network_of(to).total.counters[0][1][2].tx_bytes, 100u);
  Flow from_hop = in_connection;
  from_hop.source = {"10.9.0.2", 40000};
  from_hop.target = {"192.0.2.1", 15443};
  FedStats from(&data_);
  from.parse(from_hop);
  EXPECT_EQ(network_of(from).total.counters[0][0][2].rx_bytes, 100u);
}

// Verifies that an established connection is open, and active only with bytes in the interval.
TEST_F(ConntrackStatsTest, OpenAndActive) {
  FedStats stats(&data_);
  stats.parse(in_connection, {1, 0}, {1, 0});
  EXPECT_EQ(network_of(stats).total.tcp_open_connections(), 1u);
  EXPECT_EQ(network_of(stats).total.tcp_active_connections(), 0u);
  stats.parse(in_connection, {1, 1}, {0, 0});
  EXPECT_EQ(network_of(stats).total.tcp_open_connections(), 2u);
  EXPECT_EQ(network_of(stats).total.tcp_active_connections(), 1u);
}

// Verifies that a connection that is coming up counts its bytes and is neither open nor active.
TEST_F(ConntrackStatsTest, ComingUp) {
  FedStats stats(&data_);
  Flow flow = in_connection;
  flow.tcp_state = 2;
  stats.parse(flow, {1, 60}, {1, 60});
  EXPECT_EQ(network_of(stats).total.counters[0][0][1].rx_bytes, 60u);
  EXPECT_EQ(network_of(stats).total.tcp_open_connections(), 0u);
  EXPECT_EQ(network_of(stats).total.tcp_active_connections(), 0u);
}

// Verifies that a closing connection of no session is dropped with a warning.
TEST_F(ConntrackStatsTest, ClosingWithoutSession) {
  FedStats stats(&data_);
  Flow flow = in_connection;
  flow.tcp_state = tcp_fin_wait;
  LogCapture log;
  stats.parse(flow, {1, 100}, {2, 2000});
  EXPECT_FALSE(has_counted(stats));
  EXPECT_TRUE(log.contains(log_level::warning,
                           "dump_parser: Not counting bytes net net-a tx bytes 2000 rx bytes 100"))
      << log.all();
}

// Verifies that a closing connection of a session is counted, to the session too, and tells why it closes.
TEST_F(ConntrackStatsTest, ClosingWithSession) {
  const SessionPtr session = identify_in();
  FedStats stats(&data_);
  Flow flow = with_mark(in_connection, in_mark | fin_received);
  flow.tcp_state = tcp_fin_wait;
  stats.parse(flow, {1, 100}, {2, 2000});
  EXPECT_EQ(network_of(stats).total.counters[0][0][1].rx_bytes, 100u);
  EXPECT_EQ(network_of(stats).total.tcp_open_connections(), 0u);
  EXPECT_EQ(*session->in->incoming_bytes, 100u);
  EXPECT_EQ(*session->in->outgoing_bytes, 2000u);
  EXPECT_EQ(session->in->termination_reason, 2u);
}

// Verifies that a dump makes good what events missed, and that the bytes of a session rise with each dump.
TEST_F(ConntrackStatsTest, SessionOfADump) {
  const SessionPtr session = identify_in();
  FedStats stats(&data_);
  stats.parse(in_connection, {1, 100}, {2, 2000});
  EXPECT_EQ(session->network_id, "net-a");
  EXPECT_EQ(data_.conntrack.new_tcp_connections, 1u);
  stats.parse(in_connection, {1, 10}, {2, 20});
  EXPECT_EQ(*session->in->incoming_bytes, 110u);
  EXPECT_EQ(*session->in->outgoing_bytes, 2020u);
  EXPECT_EQ(data_.conntrack.new_tcp_connections, 1u);
}

// Verifies that the direction that a dump shows is stored with the session.
TEST_F(ConntrackStatsTest, ReversedSession) {
  const SessionPtr session = identify_in();
  FedStats stats(&data_);
  Flow flow = {.source = own_in_peer,
               .target = client_peer,
               .mark = service_mark | 0xa0,
               .tcp_state = tcp_established};
  stats.parse(flow);
  EXPECT_TRUE(session->is_reversed());
}

// Verifies that a connection without service counts under the network of unmarked traffic, and its session's
// bytes stay.
TEST_F(ConntrackStatsTest, NoService) {
  const SessionPtr session = identify_in();
  FedStats stats(&data_);
  stats.parse(with_mark(in_connection, 1));
  ASSERT_EQ(stats.networks.size(), 1u);
  EXPECT_EQ(stats.networks.begin()->first, "");
  EXPECT_EQ(stats.networks.begin()->second.total.counters[0][0][1].rx_bytes, 100u);
  EXPECT_EQ(*session->in->incoming_bytes, 0u);
}

// Verifies that bytes are counted for the session's client and domain, not for the connection's ends.
TEST_F(ConntrackStatsTest, ClientAndDomainOfTheSession) {
  set_monitoring("domain_level_traffic = true;");
  const SessionPtr session = identify_in(1, client_peer);
  identify_out();
  session->domain_name = "shop.example";
  FedStats stats(&data_);
  stats.parse(out_connection);
  ASSERT_EQ(network_of(stats).client_counters.size(), 1u);
  EXPECT_EQ(network_of(stats).client_counters.begin()->first, client_peer.address);
  ASSERT_EQ(network_of(stats).domain_counters.size(), 1u);
  EXPECT_EQ(network_of(stats).domain_counters.begin()->first, "shop.example");
}

// --- logs

// Verifies the log form of a connection, and that the line of the parser tells what kind of reading it is.
TEST_F(ConntrackStatsTest, DebugDump) {
  const std::string dump =
      "[(6) 198.51.100.20:40000] => [192.0.2.1:443] 3 mark 1808 net [net-a] io 1 local traffic tx 2000 rx "
      "100 "
      "ct_state_id: 06";
  EXPECT_EQ(ConntrackStats::debug_dump(make_counted_ct(in_connection, {1, 100}, {2, 2000}).get(), &data_)
                .substr(0, dump.size()),
            dump);
  EXPECT_NE(ConntrackStats::debug_dump(make_ct(out_connection).get(), &data_).find(" io 2 traffic tx 0 rx 0"),
            std::string::npos);
  for (const auto& [first, ignore, text] : std::initializer_list<std::tuple<bool, bool, std::string>>{
           {false, false, "dump_parser  [(6) "},
           {true, false, "dump_parser [first time] [(6) "},
           {false, true, "dump_parser [ignoring query] [(6) "},
           {true, true, "dump_parser [first time][ignoring query] [(6) "}}) {
    LogCapture log;
    FedStats(&data_, first, ignore).parse(in_connection);
    EXPECT_TRUE(log.contains(log_level::debug, text)) << log.all();
  }
}

}  // namespace
}  // namespace zol_test
