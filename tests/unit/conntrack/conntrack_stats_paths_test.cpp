// What UDP and other protocols count as, and what a middle-mile node makes of a connection.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "conntrack/conntrack_stats.h"
#include "conntrack/nfconntrack.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/conntrack/conntrack_stats_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::SessionPtr;

// --- UDP and the rest

// Verifies that UDP without its setting goes the way of TCP, and so needs a role.
TEST_F(ConntrackStatsTest, UdpCommonPath) {
  FedStats stats(&data_);
  stats.parse(udp(with_mark(in_connection, service_mark)));
  EXPECT_TRUE(stats.networks.empty());
  stats.parse(udp(in_connection), {1, 100}, {2, 2000});
  EXPECT_EQ(fields(network_of(stats).total.counters[1][0][1]), (Fields{2, 2000, 1, 100}));
  EXPECT_EQ(stats.udp_active_connections("net-a"), 1u);
  EXPECT_EQ(stats.tcp_active_connections("net-a"), 0u);
}

// Verifies that UDP of a session counts for it on the common path.
TEST_F(ConntrackStatsTest, UdpSession) {
  const SessionPtr session = identify_in();
  FedStats stats(&data_);
  stats.parse(udp(in_connection), {1, 100}, {2, 2000});
  EXPECT_EQ(*session->in->incoming_bytes, 100u);
  EXPECT_EQ(data_.conntrack.new_udp_connections, 1u);
}

// Verifies that with its setting UDP counts both directions as flows of their own, each with its original
// bytes on both sides, its source as client; and that the mark is afterwards what it was.
TEST_F(ConntrackStatsTest, UdpOwnPath) {
  set_udp_enabled(true);
  FedStats stats(&data_);
  LogCapture log;
  const auto ct = stats.parse(udp(in_connection), {1, 100}, {2, 2000});
  EXPECT_EQ(zol_monitor::nfconntrack_get_mark(ct.get()), in_mark);
  const auto& cells = network_of(stats).total.counters[1];
  EXPECT_EQ(fields(cells[0][1]), (Fields{1, 100, 1, 100}));    // In
  EXPECT_EQ(fields(cells[1][1]), (Fields{2, 2000, 2, 2000}));  // the way back: Out, once it is put right
  EXPECT_EQ(network_of(stats).client_counters.size(), 2u);
  EXPECT_EQ(network_of(stats).client_counters.count("198.51.100.20"), 1u);
  EXPECT_EQ(network_of(stats).client_counters.count("192.0.2.1"), 1u);
  EXPECT_EQ(network_of(stats).prv_hop_counters.count("198.51.100.20"), 1u);
  EXPECT_EQ(network_of(stats).next_hop_counters.count("198.51.100.20"), 1u);
  EXPECT_TRUE(log.contains(log_level::debug,
                           "ct_parser_non_tcp_gxs_dir: Connection 198.51.100.20:40000 -> 192.0.2.1:443 is "
                           "counted for network net-a tx bytes 100 rx bytes 100 mark 1808"))
      << log.all();
  EXPECT_TRUE(log.contains(log_level::debug,
                           "ct_parser_non_tcp_gxs_dir: Connection 192.0.2.1:443 -> 198.51.100.20:40000 is "
                           "counted for network net-a tx bytes 2000 rx bytes 2000 mark 1936"))
      << log.all();
}

// Verifies what the own path needs: a service or a nibble, any protocol that isn't TCP.
TEST_F(ConntrackStatsTest, UdpOwnPathNeedsLittle) {
  set_udp_enabled(true);
  FedStats unmarked(&data_);
  const auto ct = unmarked.parse(udp(with_mark(in_connection, 0)));
  // The way back of an unmarked connection has a reversal bit, which without service is no part of the
  // nibble.
  EXPECT_TRUE(unmarked.networks.empty());
  FedStats service_only(&data_);
  service_only.parse(udp(with_mark(in_connection, service_mark)));
  EXPECT_TRUE(network_of(service_only).has_traffic());
  FedStats nibble_only(&data_);
  nibble_only.parse(udp(with_mark(in_connection, 2)));
  EXPECT_TRUE(has_counted(nibble_only));
  FedStats other(&data_);
  Flow gre = udp(in_connection);
  gre.protonum = IPPROTO_GRE;
  other.parse(gre);
  EXPECT_TRUE(network_of(other).has_traffic());
}

// Verifies that with the setting off, or in a reading that doesn't count, the own path isn't taken.
TEST_F(ConntrackStatsTest, UdpOwnPathIsOff) {
  set_udp_enabled(false);
  FedStats off(&data_);
  off.parse(udp(in_connection));
  EXPECT_EQ(network_of(off).total.counters[1][1][1].rx_bytes, 0u);
  ++zol::AConfigurator::generation;
  config_.configurator().config.lookup("IPTables.udp.enabled") = true;
  FedStats first(&data_, true);
  first.parse(udp(in_connection));
  EXPECT_TRUE(first.networks.empty());
  FedStats ignoring(&data_, false, true);
  ignoring.parse(udp(in_connection));
  EXPECT_TRUE(ignoring.networks.empty());
}

// Verifies that TCP keeps the common path when UDP has its own.
TEST_F(ConntrackStatsTest, TcpBesideUdp) {
  set_udp_enabled(true);
  FedStats stats(&data_);
  stats.parse(in_connection, {1, 100}, {2, 2000});
  EXPECT_EQ(fields(network_of(stats).total.counters[0][0][1]), (Fields{2, 2000, 1, 100}));
}

// --- a middle-mile node

class GxeConntrackStatsTest : public ConntrackStatsTest {
 protected:
  GxeConntrackStatsTest() : ConntrackStatsTest(true) {}
};

// Verifies that other protocols don't reach a logical network on a middle-mile node, and TCP does.
TEST_F(GxeConntrackStatsTest, NonTcpIsLinkTraffic) {
  FedStats stats(&data_);
  EXPECT_TRUE(stats.is_gxe);
  stats.parse(udp(in_connection));
  EXPECT_TRUE(stats.networks.empty());
  stats.parse(in_connection);
  EXPECT_TRUE(network_of(stats).has_traffic());
}

// Verifies that TCP with bit 29 in its mark is link traffic there, and nothing special on an ordinary node.
TEST_F(GxeConntrackStatsTest, TcpWithTheBit) {
  FedStats stats(&data_);
  stats.parse(with_mark(in_connection, in_mark | 0x20000000));
  EXPECT_TRUE(stats.networks.empty());
}

TEST_F(ConntrackStatsTest, TcpWithTheBit) {
  FedStats stats(&data_);
  stats.parse(with_mark(in_connection, in_mark | 0x20000000));
  EXPECT_TRUE(network_of(stats).has_traffic());
}

}  // namespace
}  // namespace zol_test
