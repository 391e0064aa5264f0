#include <gtest/gtest.h>

#include "conntrack/nfconntrack.h"
#include "sessions/zol_sessions.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sessions/sessions_fixture.h"
#include "zol_helper.h"

namespace zol_test {
namespace {

using zol_monitor::SessionPtr;
using zol_monitor::SessionTerminationReason;

class ConntrackOperationsTest : public SessionsTest {
 protected:
  ConntrackOperationsTest() : session_(identify_in(uuid_)) { identify_out(uuid_); }

  const Uuid uuid_{1};
  const SessionPtr session_;
  const Connection unknown_{{"10.9.9.9", 1}, {"10.9.9.8", 2}};
};

// Verifies that a termination reason goes to the leg of the connection, and can be read back.
TEST_F(ConntrackOperationsTest, TerminationReason) {
  table_.set_str(in_connection(), zol_monitor::STR_FIN_FROM_CLIENT_SIDE);
  table_.set_str(out_connection(), zol_monitor::STR_RST_FROM_TARGET_SIDE);
  EXPECT_EQ(session_->in_info.termination_reason, zol_monitor::STR_FIN_FROM_CLIENT_SIDE);
  EXPECT_EQ(session_->out_info.termination_reason, zol_monitor::STR_RST_FROM_TARGET_SIDE);
  SessionTerminationReason reason = zol_monitor::STR_NONE;
  EXPECT_TRUE(table_.get_str(out_connection(), reason));
  EXPECT_EQ(reason, zol_monitor::STR_RST_FROM_TARGET_SIDE);
}

// Verifies what is logged when the reason of an unknown connection is set or read.
TEST_F(ConntrackOperationsTest, TerminationReasonOfUnknown) {
  const LogCapture log;
  table_.set_str(unknown_, zol_monitor::STR_FIN_FROM_CLIENT_SIDE);
  SessionTerminationReason reason = zol_monitor::STR_NONE;
  EXPECT_FALSE(table_.get_str(unknown_, reason));
  const std::string connection = zol_monitor::ct_ntoa_s(unknown_);
  EXPECT_TRUE(log.contains(log_level::warning,
                           "Trying to set termination reason for non existing session info. in "
                           "connection: " +
                               connection))
      << log.all();
  EXPECT_TRUE(log.contains(
      log_level::error, "Trying to get termination reason for non existing info. connection: " + connection))
      << log.all();
}

// Verifies that the end time of the connection's leg becomes now.
TEST_F(ConntrackOperationsTest, EndTime) {
  table_.set_end_time(out_connection());
  table_.set_end_time(unknown_);
  EXPECT_EQ(session_->in_info.end_time_ms, 0U);
  EXPECT_LE(session_->out_info.end_time_ms, zol::Helper::get_timestamp_ms());
  EXPECT_GT(session_->out_info.end_time_ms, zol::Helper::get_timestamp_ms() - 60000);
}

// Verifies that bytes add up in the connection's leg: received ones as incoming, sent ones as outgoing.
TEST_F(ConntrackOperationsTest, AddCounters) {
  table_.add_counters(in_connection(), {.tx_packets = 1, .tx_bytes = 20, .rx_packets = 3, .rx_bytes = 400});
  table_.add_counters(in_connection(), {.tx_bytes = 1, .rx_bytes = 2});
  EXPECT_EQ(*session_->in_info.incoming_bytes, 402U);
  EXPECT_EQ(*session_->in_info.outgoing_bytes, 21U);
  EXPECT_EQ(*session_->out_info.incoming_bytes, 0U);
}

// Verifies that a reversed session counts into the other words of its leg.
TEST_F(ConntrackOperationsTest, AddCountersReversed) {
  table_.set_reversed_io(in_connection(), true);
  EXPECT_TRUE(session_->is_reversed());
  table_.add_counters(in_connection(), {.tx_bytes = 20, .rx_bytes = 400});
  EXPECT_EQ(session_->in_info.second_bytes, 400U);
  EXPECT_EQ(session_->in_info.first_bytes, 20U);
  table_.set_reversed_io(out_connection(), false);
  EXPECT_FALSE(session_->is_reversed());
  table_.set_reversed_io(unknown_, true);
  EXPECT_FALSE(session_->is_reversed());
}

// Verifies that counters of an unknown connection are logged as an error.
TEST_F(ConntrackOperationsTest, AddCountersOfUnknown) {
  const LogCapture log;
  table_.add_counters(unknown_, {});
  EXPECT_TRUE(log.contains(log_level::error, "Trying to add counters for non existing info. address: " +
                                                 zol_monitor::ct_ntoa_s(unknown_)))
      << log.all();
}

// Verifies that the next hop is the connection's target, another node when its port is an internal one.
TEST_F(ConntrackOperationsTest, NextHop) {
  table_.set_next_hop_ip(out_connection());
  EXPECT_EQ(session_->next_hop_ip, ip(hop_peer.address));
  EXPECT_EQ(session_->next_hop_port, hop_peer.port);
  EXPECT_TRUE(session_->is_next_hop_zol);
  const Uuid direct(2);
  const SessionPtr to_target = identify_out(direct, {"203.0.113.77", 443}, own_peer);
  table_.set_next_hop_ip(Connection(own_peer, {"203.0.113.77", 443}));
  EXPECT_FALSE(to_target->is_next_hop_zol);
  table_.set_next_hop_ip(unknown_);
}

// Verifies that for a reversed session the connection's source port tells whether the next hop is a node.
TEST_F(ConntrackOperationsTest, NextHopOfReversedSession) {
  session_->set_reversed_io(true);
  table_.set_next_hop_ip(out_connection());
  EXPECT_FALSE(session_->is_next_hop_zol);  // source port 50000
  EXPECT_EQ(session_->next_hop_port, hop_peer.port);
  identify_out(uuid_, {"203.0.113.77", 443}, {"192.0.2.1", 15001});
  table_.set_next_hop_ip(Connection({"192.0.2.1", 15001}, {"203.0.113.77", 443}));
  EXPECT_TRUE(session_->is_next_hop_zol);
}

// Verifies that a new next hop is looked up among the sites.
TEST_F(ConntrackOperationsTest, NextHopSite) {
  configure("", true);
  sites_.records.emplace(hop_peer.address, site_record(hop_peer.address));
  table_.set_next_hop_ip(out_connection());
  EXPECT_EQ(session_->out_info.gateway_ip, "gw-203.0.113.5");
}

// Verifies the ends of a session, both 0 for an unknown connection.
TEST_F(ConntrackOperationsTest, SessionEndpoints) {
  session_->next_hop_ip = ip(hop_peer.address);
  std::uint32_t client = 1;
  std::uint32_t next_hop = 1;
  table_.get_session_endpoints(out_connection(), client, next_hop);
  EXPECT_EQ(client, ip(client_peer.address));
  EXPECT_EQ(next_hop, ip(hop_peer.address));
  table_.get_session_endpoints(unknown_, client, next_hop);
  EXPECT_EQ(client, 0U);
  EXPECT_EQ(next_hop, 0U);
}

// Verifies that a connection's user is its session's client and domain.
TEST_F(ConntrackOperationsTest, UserIdentification) {
  session_->domain_name = "shop.example";
  std::uint32_t client = 0;
  std::uint16_t port = 0;
  std::string domain;
  EXPECT_TRUE(table_.get_user_identification(out_connection(), client, port, domain));
  EXPECT_EQ(client, ip(client_peer.address));
  EXPECT_EQ(port, client_peer.port);
  EXPECT_EQ(domain, "shop.example");
}

// Verifies that the user of an unknown connection is its own source, with a warning.
TEST_F(ConntrackOperationsTest, UnknownUser) {
  const LogCapture log;
  std::uint32_t client = 0;
  std::uint16_t port = 0;
  std::string domain;
  EXPECT_FALSE(table_.get_user_identification(unknown_, client, port, domain));
  EXPECT_EQ(client, ip("10.9.9.9"));
  EXPECT_EQ(port, 1);
  EXPECT_EQ(domain, "unknown");
  EXPECT_TRUE(
      log.contains(log_level::warning, "get_user_identification: Failed to locate user identification!"))
      << log.all();
}

}  // namespace
}  // namespace zol_test
