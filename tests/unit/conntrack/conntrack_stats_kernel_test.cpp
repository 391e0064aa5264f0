// A reading of the real kernel's table.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <memory>
#include <string>

#include "conntrack/none_tcp_nfct_container.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/conntrack/intercepted_calls.h"
#include "tests/unit/conntrack/stats_kernel_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::ConntrackStats;
using zol_monitor::NoneTcpNFCTContainer;
using HopConnections = ConntrackStats::HopConnections;

class GxeStatsKernelTest : public StatsKernelTest {
 protected:
  GxeStatsKernelTest() : StatsKernelTest(true) {}
};

// --- the query

// Verifies that the kernel leaves out what has any of the mark's bits 0, 1, 2 and 6, and shows the rest.
TEST_F(StatsKernelTest, MarkFilter) {
  constexpr std::uint32_t shown[] = {0x710, 0x720, 0x730, 0x780, 0x7a0, 0x708, 0x8, 0x20};
  constexpr std::uint32_t left_out[] = {0x1, 0x2, 0x3, 0x4, 0x711, 0x712, 0x714, 0x740, 0x750, 0x40};
  Flow flow = in_connection;
  for (const auto& marks : {std::pair(shown, std::size(shown)), std::pair(left_out, std::size(left_out))})
    for (std::size_t i = 0; i < marks.second; ++i) {
      ++flow.source.port;
      flow.mark = marks.first[i];
      ASSERT_TRUE(table_->create(flow));
    }
  LogCapture log;
  const ConntrackStats stats(&data_, true, true);
  for (const std::uint32_t mark : shown)
    EXPECT_EQ(log.count(" mark " + std::to_string(mark) + " net "), 1) << mark;
  EXPECT_EQ(log.count("dump_parser [first time][ignoring query] [(6) "), static_cast<int>(std::size(shown)))
      << log.all();
}

// Verifies that only IPv4 is asked for.
TEST_F(StatsKernelTest, OnlyIPv4) {
  const zol_monitor::NfctHandle ct(nfct_new());
  in6_addr source{};
  in6_addr target{};
  ASSERT_EQ(inet_pton(AF_INET6, "2001:db8::1", &source), 1);
  ASSERT_EQ(inet_pton(AF_INET6, "2001:db8::2", &target), 1);
  nfct_set_attr_u8(ct.get(), ATTR_L3PROTO, AF_INET6);
  nfct_set_attr_u8(ct.get(), ATTR_L4PROTO, IPPROTO_TCP);
  nfct_set_attr(ct.get(), ATTR_IPV6_SRC, &source);
  nfct_set_attr(ct.get(), ATTR_IPV6_DST, &target);
  nfct_set_attr_u16(ct.get(), ATTR_PORT_SRC, htons(40000));
  nfct_set_attr_u16(ct.get(), ATTR_PORT_DST, htons(443));
  nfct_set_attr_u32(ct.get(), ATTR_MARK, in_mark);
  nfct_set_attr_u8(ct.get(), ATTR_TCP_STATE, tcp_established);
  nfct_set_attr_u32(ct.get(), ATTR_TIMEOUT, 600);
  nfct_setobjopt(ct.get(), NFCT_SOPT_SETUP_REPLY);
  ASSERT_TRUE(table_->create(ct.get()));
  ASSERT_TRUE(table_->create(in_connection));
  LogCapture log;
  const ConntrackStats stats(&data_, true, true);
  EXPECT_EQ(log.count("dump_parser "), 1) << log.all();
}

// Verifies that a table that can't be opened is logged and leaves the reading empty and what waits unread.
TEST_F(StatsKernelTest, NoHandle) {
  NoneTcpNFCTContainer::instance().push(make_ct(in_connection));
  ConntrackStats::last_open_sessions = ConntrackStats::last_active_sessions = 7;
  LogCapture log;
  std::unique_ptr<ConntrackStats> stats;
  {
    const NoDescriptors none;
    stats = std::make_unique<ConntrackStats>(&data_, false, false);
  }
  EXPECT_TRUE(log.contains(log_level::error, "Failed to allocate nf handle")) << log.all();
  EXPECT_TRUE(stats->networks.empty());
  EXPECT_FALSE(stats->is_complete);
  EXPECT_EQ(ConntrackStats::last_open_sessions, 7u);
  EXPECT_EQ(ConntrackStats::last_active_sessions, 7u);
  EXPECT_EQ(NoneTcpNFCTContainer::instance().size(), 1u);
}

// Verifies that a filter that can't be had is logged, leaves the reading empty and what waits unread, and
// that the process then knows of no active session.
TEST_F(StatsKernelTest, NoFilter) {
  ASSERT_TRUE(table_->create(in_connection));
  NoneTcpNFCTContainer::instance().push(make_ct(in_connection));
  ConntrackStats::last_open_sessions = ConntrackStats::last_active_sessions = 7;
  const NoDumpFilter none;
  LogCapture log;
  const ConntrackStats stats(&data_, false, false);
  EXPECT_TRUE(log.contains(log_level::error,
                           "Failed to allocate nf filter dump, unable to determine active sessions amount"))
      << log.all();
  EXPECT_TRUE(stats.networks.empty());
  EXPECT_EQ(NoneTcpNFCTContainer::instance().size(), 1u);
  EXPECT_EQ(ConntrackStats::last_active_sessions, 0u);
  EXPECT_EQ(ConntrackStats::last_open_sessions, 7u);
}

// Verifies that a reading's socket takes 18 MiB, as the one of the events does.
TEST_F(StatsKernelTest, ReceiveBuffer) {
  constexpr int size = 18 * 1024 * 1024;
  const int before = count_forced_receive_buffers(size);
  const ConntrackStats stats(&data_, true, true);
  EXPECT_EQ(count_forced_receive_buffers(size), before + 1);
}

// Verifies that a resetting reading of an empty table has nothing to warn of.
TEST_F(StatsKernelTest, EmptyTable) {
  LogCapture log;
  const ConntrackStats stats(&data_, false, false);
  EXPECT_TRUE(stats.is_complete);
  EXPECT_EQ(log.count("fit_dump_pieces"), 0) << log.all();
}

// --- what the reading leaves behind

// Verifies that a reading leaves its totals for the periodic report, and one that ignores the dump leaves
// those of the reading before.
TEST_F(StatsKernelTest, TotalsOfTheProcess) {
  if (!mark_traffic())
    GTEST_SKIP() << needs_iptables;
  const UdpTraffic traffic;
  traffic.exchange(10, 20);
  ASSERT_TRUE(table_->create(out_connection));
  { const ConntrackStats stats(&data_, false, false); }
  const auto expect_totals = [](const char* when) {
    EXPECT_EQ(ConntrackStats::last_active_sessions, 1u) << when;  // the datagrams; the entry carries no bytes
    EXPECT_EQ(ConntrackStats::last_open_sessions, 2u) << when;
    EXPECT_EQ(ConntrackStats::last_next_hop_open_sessions, (HopConnections{{"203.0.113.5", 1}})) << when;
    EXPECT_EQ(ConntrackStats::last_next_hop_active_sessions, HopConnections{}) << when;
    EXPECT_EQ(ConntrackStats::last_prv_hop_open_sessions, (HopConnections{{client_ip, 1}})) << when;
    EXPECT_EQ(ConntrackStats::last_prv_hop_active_sessions, (HopConnections{{client_ip, 1}})) << when;
  };
  expect_totals("counted");
  ASSERT_TRUE(table_->destroy(out_connection));
  { const ConntrackStats stats(&data_, false, true); }
  expect_totals("ignored");
}

// Verifies that a flow that has gone silent leaves the session table with a reading where there is no session
// report to take it, and waits for the report where there is one.
TEST_F(GxeStatsKernelTest, SilentFlowsWithoutSessionReport) {
  const auto add_flow = [this](std::uint32_t target, std::uint64_t last_seen_ms) {
    data_.sessions.update_non_tcp_traffic(IPPROTO_UDP, 1, target, 100, 0, 0, true, "");
    data_.sessions.non_tcp_sessions
        .at(zol_monitor::ZOLSessions::gen_non_tcp_key(IPPROTO_UDP, 1, target, 0, 0))
        ->last_seen_ms = last_seen_ms;
  };
  add_flow(2, 1);
  add_flow(3, zol::Helper::get_timestamp_ms());
  set_monitoring("session_report_resolution_ms = 1000;");
  { const ConntrackStats stats(&data_, false, false); }
  EXPECT_EQ(data_.sessions.non_tcp_sessions.size(), 2u);
  set_monitoring("session_report_resolution_ms = 0;");
  { const ConntrackStats stats(&data_, false, false); }
  EXPECT_EQ(data_.sessions.non_tcp_sessions.size(), 1u);
  EXPECT_TRUE(data_.sessions.finished_sessions.sessions.Empty());
}

// Verifies that what ended since the last reading is counted, oldest first, and freed.
TEST_F(GxeStatsKernelTest, DrainOfEndedConnections) {
  Flow flow = in_connection;
  flow.protonum = IPPROTO_UDP;
  flow.tcp_state = -1;
  NoneTcpNFCTContainer::instance().push(make_counted_ct(flow, {1, 100}, {2, 2000}));
  flow.source.port = 40001;
  NoneTcpNFCTContainer::instance().push(make_counted_ct(flow, {1, 100}, {2, 2000}));
  LogCapture log;
  { const ConntrackStats ignoring(&data_, false, true); }
  EXPECT_EQ(NoneTcpNFCTContainer::instance().size(), 2u);
  EXPECT_EQ(log.count("dump_parser"), 0);
  const ConntrackStats stats(&data_, false, false);
  EXPECT_EQ(NoneTcpNFCTContainer::instance().size(), 0u);
  const std::string all = log.all();
  const std::size_t first = all.find("dump_parser  [(17) 198.51.100.20:40000]");
  const std::size_t second = all.find("dump_parser  [(17) 198.51.100.20:40001]");
  EXPECT_NE(first, std::string::npos) << all;
  EXPECT_NE(second, std::string::npos) << all;
  EXPECT_LT(first, second);
}

// Verifies that the bytes of what ended are counted.
TEST_F(StatsKernelTest, DrainCounts) {
  Flow flow = in_connection;
  flow.protonum = IPPROTO_UDP;
  flow.tcp_state = -1;
  NoneTcpNFCTContainer::instance().push(make_counted_ct(flow, {1, 100}, {2, 2000}));
  EXPECT_EQ(count_received(), 100u);
}

// --- real packets

// Verifies that the bytes of real packets are those that went over the wire, and that the next reading finds
// only what came since: the kernel's counters are reset.
TEST_F(StatsKernelTest, CountsAndResets) {
  if (!mark_traffic())
    GTEST_SKIP() << needs_iptables;
  const UdpTraffic traffic;
  traffic.exchange(10, 20);
  traffic.exchange(100, 200);
  const ConntrackStats stats(&data_, false, false);
  EXPECT_EQ(received(stats), 110 + 2 * udp_overhead);
  EXPECT_EQ(sent(stats), 220 + 2 * udp_overhead);
  EXPECT_EQ(stats.networks.at("net-a").total.counters[1][0][1].rx_packets, 2u);
  EXPECT_EQ(count_received(), 0u);
  traffic.exchange(1, 1);
  EXPECT_EQ(count_received(), 1 + udp_overhead);
}

// Verifies that a real TCP connection counts as open and active, and as open only without further bytes.
TEST_F(StatsKernelTest, TcpConnection) {
  if (!mark_traffic())
    GTEST_SKIP() << needs_iptables;
  const BoundSocket listener(SOCK_STREAM, node_ip, service_port);
  ASSERT_EQ(listen(listener.get(), 1), 0);
  const BoundSocket client(SOCK_STREAM, client_ip, client_peer.port);
  ASSERT_TRUE(client.connect_to(node_ip, service_port));
  const BoundSocket accepted(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  ASSERT_TRUE(client.send_bytes(1000) && accepted.receive_bytes(1000));
  ConntrackStats first(&data_, false, false);
  const auto& total = first.networks.at("net-a").total;
  EXPECT_EQ(total.tcp_open_connections(), 1u);
  EXPECT_EQ(total.tcp_active_connections(), 1u);
  EXPECT_GT(first.tcp_client2server_counters("net-a", zol_monitor::traffic_dir_t::target).rx_bytes, 1000u);
  EXPECT_LT(first.tcp_client2server_counters("net-a", zol_monitor::traffic_dir_t::target).rx_bytes, 2000u);
  { const ConntrackStats takes_late_acknowledgements(&data_, false, false); }
  const ConntrackStats idle(&data_, false, false);
  EXPECT_EQ(idle.networks.at("net-a").total.tcp_open_connections(), 1u);
  EXPECT_EQ(idle.networks.at("net-a").total.tcp_active_connections(), 0u);
}

// Verifies that a reading that primes leaves the kernel's counters alone, and that one that ignores the dump
// resets them.
TEST_F(StatsKernelTest, WhichReadingsReset) {
  if (!mark_traffic())
    GTEST_SKIP() << needs_iptables;
  const UdpTraffic traffic;
  traffic.exchange(10, 10);
  { const ConntrackStats primes(&data_, true, false); }
  { const ConntrackStats neither(&data_, true, true); }
  EXPECT_EQ(count_received(), 10 + udp_overhead);
  traffic.exchange(10, 10);
  { const ConntrackStats resets(&data_, false, true); }
  EXPECT_EQ(count_received(), 0u);
}

// Verifies that coming up and reloads cost no bytes: their readings neither count nor reset.
TEST_F(StatsKernelTest, EventsLeaveTheCounters) {
  if (!mark_traffic())
    GTEST_SKIP() << needs_iptables;
  const UdpTraffic traffic;
  traffic.exchange(10, 10);
  LogCapture log;
  zol_monitor::ConntrackEvents events(&data_, &context_);
  EXPECT_EQ(log.count("dump_parser [first time][ignoring query] [(17) "), 1) << log.all();
  log.clear();
  events.reconfigure();
  EXPECT_EQ(log.count("dump_parser [first time] [(17) "), 1) << log.all();
  log.clear();
  events.reconfigure();
  EXPECT_EQ(log.count("dump_parser [first time][ignoring query] [(17) "), 1) << log.all();
  EXPECT_EQ(count_received(), 10 + udp_overhead);
}

}  // namespace
}  // namespace zol_test
