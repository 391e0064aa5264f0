// The traffic report's walk over the clients of a logical network.
#include "conntrack/detected_ip.h"

#include <gtest/gtest.h>

#include <map>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/conntrack/conntrack_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::DetectedIPInfo;
using zol_monitor::SessionPtr;
using zol_monitor::SessionTerminationReason;

constexpr Peer other_client = {"198.51.100.99", 41000};

class DetectedIPTest : public ConntrackTest {
 protected:
  DetectedIPTest() { set_monitoring("session_report_resolution_ms = 60000;"); }

  SessionPtr session(std::uint8_t number, const Peer& client = client_peer,
                     const std::string& network = "net-a", bool accepted = true) {
    SessionPtr made = identify_in(number, client);
    made->network_id = network;
    made->accepted_locally = accepted;
    return made;
  }
  bool next(const std::string& network = "net-a", bool accepted = true) {
    return events_.get_detected_ip(network, accepted, ip_, new_count_, in_, out_);
  }

  std::string ip_;
  std::uint32_t new_count_ = 0;
  DetectedIPInfo in_;
  DetectedIPInfo out_;
};

void expect_zero(const DetectedIPInfo& info) {
  EXPECT_EQ(info.average_rtt + info.total_retransmit + info.incoming_fin + info.outgoing_fin +
                info.incoming_rst + info.outgoing_rst,
            0u);
}

// Verifies that an empty snapshot gives false and leaves zeroed figures.
TEST_F(DetectedIPTest, EmptySnapshot) {
  new_count_ = 5;
  in_ = {1, 2, 3, 4, 5, 6};
  out_ = in_;
  events_.get_detected_ip_start();
  EXPECT_FALSE(next());
  EXPECT_EQ(new_count_, 0u);
  expect_zero(in_);
  expect_zero(out_);
}

// Verifies that the sessions of one client come out together and each call finds the next client.
TEST_F(DetectedIPTest, OneClientACall) {
  session(1);
  session(2, other_client);
  session(3, {client_peer.address, 40001});
  events_.get_detected_ip_start();
  std::map<std::string, std::uint32_t> seen;
  while (next())
    seen[ip_] += new_count_;
  EXPECT_EQ(seen,
            (std::map<std::string, std::uint32_t>{{client_peer.address, 2}, {other_client.address, 1}}));
  EXPECT_TRUE(events_.detected_sessions.empty());
}

// Verifies that sessions of another network or the other acceptance stay in the snapshot.
TEST_F(DetectedIPTest, OtherNetworkAndAcceptance) {
  session(1, {client_peer.address, 1}, "net-b");
  session(2, {client_peer.address, 2}, "net-a", false);
  session(3, {client_peer.address, 3});
  events_.get_detected_ip_start();
  ASSERT_TRUE(next());
  EXPECT_EQ(new_count_, 1u);
  EXPECT_FALSE(next());
  EXPECT_TRUE(next("net-a", false));
  EXPECT_TRUE(next("net-b", true));
  EXPECT_FALSE(next("net-b", false));
}

// Verifies that a session whose network, role and client are found out after the snapshot counts as what it
// is when the report asks.
TEST_F(DetectedIPTest, FoundOutAfterTheSnapshot) {
  const SessionPtr late = session(1, client_peer, "", false);
  events_.get_detected_ip_start();
  late->network_id = "net-a";
  late->accepted_locally = true;
  EXPECT_FALSE(next("", false));
  ASSERT_TRUE(next());
  EXPECT_EQ(ip_, client_peer.address);
  EXPECT_EQ(new_count_, 1u);
}

// Verifies that a session counts as new in its first report only.
TEST_F(DetectedIPTest, NewOnce) {
  const SessionPtr made = session(1);
  events_.get_detected_ip_start();
  ASSERT_TRUE(next());
  EXPECT_EQ(new_count_, 1u);
  EXPECT_EQ(made->state, 1u);
  events_.get_detected_ip_start();
  ASSERT_TRUE(next());
  EXPECT_EQ(new_count_, 0u);
}

// Verifies that a session without Out leg is finished as soon as its In leg has a reason, and isn't taken
// again.
TEST_F(DetectedIPTest, FinishedWithoutOutLeg) {
  const SessionPtr made = session(1);
  made->in->termination_reason = SessionTerminationReason::STR_FIN_FROM_CLIENT_SIDE;
  events_.get_detected_ip_start();
  EXPECT_TRUE(next());
  EXPECT_EQ(made->state, 2u);
  events_.get_detected_ip_start();
  EXPECT_FALSE(next());
}

// Verifies that a session with an Out leg is finished when both legs have a reason, and not before.
TEST_F(DetectedIPTest, FinishedWithBothLegs) {
  const SessionPtr made = session(1);
  identify_out(1);
  made->in->termination_reason = SessionTerminationReason::STR_FIN_FROM_CLIENT_SIDE;
  events_.get_detected_ip_start();
  EXPECT_TRUE(next());
  EXPECT_EQ(made->state, 1u);
  made->out->termination_reason = SessionTerminationReason::STR_FIN_FROM_CLIENT_SIDE;
  events_.get_detected_ip_start();
  EXPECT_TRUE(next());
  EXPECT_EQ(made->state, 2u);
}

// Verifies that a finished session in the snapshot doesn't hide its client's other sessions.
TEST_F(DetectedIPTest, FinishedSessionIsSkipped) {
  session(1)->state = 2;
  session(2, {client_peer.address, 40001});
  session(3, {client_peer.address, 40002})->state = 2;
  session(4, {client_peer.address, 40003});
  events_.get_detected_ip_start();
  ASSERT_TRUE(next());
  EXPECT_EQ(new_count_, 2u);
  EXPECT_FALSE(next());
}

// Verifies which round-trip time counts, with and without the kernel's answer, and how both sides are
// averaged.
TEST_F(DetectedIPTest, RoundTripTimes) {
  const SessionPtr one = session(1);
  one->in->tcp_info.rtt = 1000;  // the stored time goes before the kernel's
  know_socket(client_peer, 5000, 7);
  const Peer second = {client_peer.address, 40001};
  session(2, second);  // nothing stored: the kernel's
  know_socket(second, 2000, 1);
  const SessionPtr three = session(3, {client_peer.address, 40002});  // unknown to the kernel: what is stored
  three->in->tcp_info.rtt = 4000;
  three->in->tcp_info.total_retrans = 30;
  identify_out(1);
  one->out->tcp_info.rtt = 600;
  one->out->tcp_info.total_retrans = 2;
  events_.get_detected_ip_start();
  ASSERT_TRUE(next());
  EXPECT_EQ(in_.average_rtt, (1000u + 2000u + 4000u) / 3);
  EXPECT_EQ(in_.total_retransmit, 7u + 1u + 30u);
  EXPECT_EQ(out_.average_rtt, 600u / 3);
  EXPECT_EQ(out_.total_retransmit, 2u);
}

// Verifies that the sums of long times don't overflow.
TEST_F(DetectedIPTest, LongRoundTripTimes) {
  session(1)->in->tcp_info.rtt = 4000000000u;
  session(2, {client_peer.address, 40001})->in->tcp_info.rtt = 4000000000u;
  events_.get_detected_ip_start();
  ASSERT_TRUE(next());
  EXPECT_EQ(in_.average_rtt, 4000000000u);
}

// Verifies the warning for a kernel that answers a time of 0 where one is stored.
TEST_F(DetectedIPTest, ZeroRoundTripTimeIsLogged) {
  session(1)->in->tcp_info.rtt = 1000;
  know_socket(client_peer, 0, 0);
  events_.get_detected_ip_start();
  LogCapture log;
  ASSERT_TRUE(next());
  EXPECT_EQ(in_.average_rtt, 1000u);
  EXPECT_TRUE(log.contains(log_level::warning,
                           "get_detected_ip Received RTT with zero value  [ 198.51.100.20:40000 ]"))
      << log.all();
}

// Verifies that the ends of both sides are counted by their reasons.
TEST_F(DetectedIPTest, EndsAreCounted) {
  const SessionPtr made = session(1);
  made->in->termination_reason = SessionTerminationReason::STR_FIN_FROM_CLIENT_SIDE;
  made->out->termination_reason = SessionTerminationReason::STR_RST_FROM_TARGET_SIDE;
  events_.get_detected_ip_start();
  ASSERT_TRUE(next());
  EXPECT_EQ(in_.incoming_fin, 1u);
  EXPECT_EQ(out_.outgoing_rst, 1u);
}

// Verifies the counter of each reason, and that other reasons count nowhere.
TEST(IncreaseStrCount, EachReason) {
  DetectedIPInfo info;
  for (unsigned reason = 0; reason <= 7; ++reason)
    zol_monitor::increase_str_count(static_cast<SessionTerminationReason>(reason), info);
  EXPECT_EQ(info.outgoing_fin, 1u);
  EXPECT_EQ(info.incoming_fin, 1u);
  EXPECT_EQ(info.outgoing_rst, 1u);
  EXPECT_EQ(info.incoming_rst, 1u);
  info = {};
  zol_monitor::increase_str_count(SessionTerminationReason::STR_FIN_FROM_TARGET_SIDE, info);
  EXPECT_EQ(info.outgoing_fin, 1u);
  zol_monitor::increase_str_count(SessionTerminationReason::STR_FIN_FROM_CLIENT_SIDE, info);
  EXPECT_EQ(info.incoming_fin, 1u);
  zol_monitor::increase_str_count(SessionTerminationReason::STR_RST_FROM_TARGET_SIDE, info);
  EXPECT_EQ(info.outgoing_rst, 1u);
  zol_monitor::increase_str_count(SessionTerminationReason::STR_RST_FROM_CLIENT_SIDE, info);
  EXPECT_EQ(info.incoming_rst, 1u);
}

struct SnapshotRow {
  const char* name;
  const char* monitoring;
  std::size_t kept;
};

class SnapshotTest : public DetectedIPTest, public testing::WithParamInterface<SnapshotRow> {};

// Verifies which sessions the snapshot keeps: all with a session report or diagnostics, else those accepted
// here.
TEST_P(SnapshotTest, Kept) {
  session(1);
  session(2, other_client, "net-a", false);
  set_monitoring(GetParam().monitoring);
  events_.get_detected_ip_start();
  EXPECT_EQ(events_.detected_sessions.size(), GetParam().kept);
}

INSTANTIATE_TEST_SUITE_P(
    Settings, SnapshotTest,
    testing::Values(SnapshotRow{"Nothing", "", 1},
                    SnapshotRow{"NoReport", "session_report_resolution_ms = 0;", 1},
                    SnapshotRow{"Report", "session_report_resolution_ms = 1;", 2},
                    SnapshotRow{"Diagnostics", "traffic_report_diagnostics_enabled = true;", 2},
                    SnapshotRow{"NoDiagnostics", "traffic_report_diagnostics_enabled = false;", 1}),
    [](const auto& row) { return row.param.name; });

// Verifies that the end of the walk lets go of every session.
TEST_F(DetectedIPTest, FinishedLetsGo) {
  const SessionPtr made = session(1);
  const long held = made.use_count();
  events_.get_detected_ip_start();
  EXPECT_EQ(made.use_count(), held + 1);
  events_.get_detected_ip_finished();
  EXPECT_EQ(made.use_count(), held);
}

// Verifies that get_stats stores the kernel's figures and logs them.
TEST_F(DetectedIPTest, GetStats) {
  know_socket(client_peer, 12345, 6);
  std::uint32_t rtt = 0;
  int retrans = 0;
  LogCapture log;
  EXPECT_TRUE(events_.get_stats(ip(client_peer.address), client_peer.port, rtt, retrans));
  EXPECT_EQ(rtt, 12345u);
  EXPECT_EQ(retrans, 6);
  EXPECT_TRUE(log.contains(log_level::debug,
                           "get_stats: TCP info for [198.51.100.20:40000] RTT=12 ms, total retrans=6"))
      << log.all();
}

// Verifies that get_stats of an unknown socket stores nothing.
TEST_F(DetectedIPTest, GetStatsOfUnknownSocket) {
  std::uint32_t rtt = 1;
  int retrans = 2;
  EXPECT_FALSE(events_.get_stats(ip(client_peer.address), client_peer.port, rtt, retrans));
  EXPECT_EQ(rtt, 1u);
  EXPECT_EQ(retrans, 2);
}

}  // namespace
}  // namespace zol_test
