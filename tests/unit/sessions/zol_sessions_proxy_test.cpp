#include <gtest/gtest.h>

#include "sessions/zol_sessions.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sessions/sessions_fixture.h"
#include "zol_helper.h"

namespace zol_test {
namespace {

using zol_monitor::SessionPtr;
using zol_monitor::SessionsErrorCounter;
using zol_monitor::SessionTerminationReason;

class ProxyMessagesTest : public SessionsTest {
 protected:
  void fail(zol::failure_reason_t reason, std::uint16_t port = 15000) {
    table_.set_out_termination_reason(ip(client_peer.address), client_peer.port, uuid_,
                                      {.address = ip(hop_peer.address), .port = port, .reason = reason});
  }
  unsigned long errors(zol::failure_reason_t reason) const {
    return SessionsErrorCounter::get_counter(table_.error_counters.total, reason);
  }

  const Uuid uuid_{1};
};

// Verifies each failure that ends an Out leg, with its counter.
TEST_F(ProxyMessagesTest, FailureReasons) {
  const std::pair<zol::failure_reason_t, SessionTerminationReason> rows[] = {
      {zol::FR_RESOLUTION_FAILURE, zol_monitor::STR_RESOLUTION_FAILURE},
      {zol::FR_PEER_TIMEOUT, zol_monitor::STR_CONNECTION_TIMEOUT},
      {zol::FR_CONNECTION_REFUSED, zol_monitor::STR_CONNECTION_REFUSED},
  };
  std::uint8_t number = 10;
  for (const auto& [reason, expected] : rows) {
    const Uuid uuid(number++);
    table_.set_out_termination_reason(0, 0, uuid, {.address = 1, .port = 2, .reason = reason});
    EXPECT_EQ(table_.get(uuid)->out->termination_reason, expected);
    EXPECT_EQ(errors(reason), 1U);
  }
}

// Verifies that a failure creates an unknown session, with the failed peer as its next hop.
TEST_F(ProxyMessagesTest, FailureCreatesSession) {
  const LogCapture log;
  fail(zol::FR_CONNECTION_REFUSED);
  const SessionPtr session = table_.get(uuid_);
  ASSERT_TRUE(session);
  EXPECT_EQ(session->client_ip, ip(client_peer.address));
  EXPECT_EQ(session->client_port, client_peer.port);
  EXPECT_EQ(session->next_hop_ip, ip(hop_peer.address));
  EXPECT_GT(session->out->end_time_ms, zol::Helper::get_timestamp_ms() - 60000);
  EXPECT_TRUE(session->is_next_hop_zol);
  EXPECT_TRUE(log.contains(log_level::debug, " Update termination reason for session ID: " + uuid_.text() +
                                                 " Client [ 198.51.100.20:40000] -> Failed Peer "
                                                 "[203.0.113.5:15000] Reason: 7"))
      << log.all();
}

// Verifies that a failed peer outside the internal ports is no node.
TEST_F(ProxyMessagesTest, FailedTarget) {
  fail(zol::FR_PEER_TIMEOUT, 443);
  EXPECT_FALSE(table_.get(uuid_)->is_next_hop_zol);
}

// Verifies that without a failed port it stays unknown whether the peer is a node, with a warning.
TEST_F(ProxyMessagesTest, NoFailedPort) {
  const LogCapture log;
  fail(zol::FR_PEER_TIMEOUT, 0);
  EXPECT_FALSE(table_.get(uuid_)->is_next_hop_zol);
  EXPECT_EQ(table_.get(uuid_)->out->termination_reason, zol_monitor::STR_CONNECTION_TIMEOUT);
  EXPECT_TRUE(log.contains(log_level::warning,
                           "set_out_termination_reason failed port does not exist, unable to set "
                           "\"is_next_hop_zol\" "))
      << log.all();
}

// Verifies that the reasons 4, 5 and 0 are refused as not supported, and change nothing.
TEST_F(ProxyMessagesTest, UnsupportedReasons) {
  for (const auto reason : {zol::FR_INVALID_HOST, zol::FR_FAILOPEN_CONNECTION, zol::FR_NONE}) {
    const LogCapture log;
    fail(reason);
    EXPECT_EQ(table_.get(uuid_)->out->termination_reason, zol_monitor::STR_NONE);
    EXPECT_EQ(table_.get(uuid_)->next_hop_ip, 0U);
    EXPECT_TRUE(table_.error_counters.total.empty());
    EXPECT_TRUE(log.contains(log_level::error, "set_out_termination_reason: Termination reason " +
                                                   std::to_string(reason) + " is not supported:"))
        << log.all();
  }
}

// Verifies that a session with an Out port, a next hop or a reason refuses a failure and counts nothing.
TEST_F(ProxyMessagesTest, FailureOfEstablishedOutLeg) {
  const SessionPtr session = identify_in(uuid_);
  const auto expect_refused = [&] {
    const LogCapture log;
    fail(zol::FR_CONNECTION_REFUSED);
    EXPECT_TRUE(
        log.contains(log_level::warning,
                     "set_out_termination_reason Trying to set termination reason for an existing session "
                     "info, with valid out info."))
        << log.all();
    EXPECT_TRUE(table_.error_counters.total.empty());
    EXPECT_EQ(session->out->end_time_ms, 0U);
  };
  session->out->port = 1;
  expect_refused();
  session->out->port = 0;
  session->next_hop_ip = 1;
  expect_refused();
  session->next_hop_ip = 0;
  session->out->termination_reason = zol_monitor::STR_FIN_FROM_CLIENT_SIDE;
  expect_refused();
  EXPECT_EQ(session->out->termination_reason, zol_monitor::STR_FIN_FROM_CLIENT_SIDE);
}

// Verifies that the failed peer is looked up among the sites.
TEST_F(ProxyMessagesTest, FailedSite) {
  configure("", true);
  sites_.records.emplace(hop_peer.address, site_record(hop_peer.address));
  fail(zol::FR_PEER_TIMEOUT);
  EXPECT_TRUE(table_.get(uuid_)->out->is_site);
}

// Verifies that a session is marked as ignored once, and what is logged then, again, and for an unknown one.
TEST_F(ProxyMessagesTest, IgnoredSession) {
  const LogCapture log;
  table_.ignored_session_info(uuid_);
  EXPECT_TRUE(log.contains(log_level::warning, "ignored_session_info: Unable to find session info"))
      << log.all();
  const SessionPtr session = identify_in(uuid_);
  table_.ignored_session_info(uuid_);
  EXPECT_TRUE(session->ignored);
  EXPECT_TRUE(
      log.contains(log_level::debug, "ignored_session_info: Session - " + uuid_.text() + " will be ignored"))
      << log.all();
  table_.ignored_session_info(uuid_);
  EXPECT_TRUE(session->ignored);
  EXPECT_TRUE(
      log.contains(log_level::warning, "ignored_session_info: Session already marked: " + uuid_.text()))
      << log.all();
}

// Verifies that an HTTP message counts in its session, and that an unknown session is an error.
TEST_F(ProxyMessagesTest, HttpCounters) {
  const LogCapture log;
  table_.update_http_counters(uuid_, zol::HTTP_GET_REQUEST);
  EXPECT_TRUE(log.contains(log_level::error, "update_http_counters: Session not found")) << log.all();
  const SessionPtr session = identify_in(uuid_);
  table_.update_http_counters(uuid_, zol::HTTP_GET_REQUEST);
  table_.update_http_counters(uuid_, zol::HTTP_4XX_RESPONSE);
  EXPECT_EQ(session->http_counters.get_counter(zol::HTTP_GET_REQUEST), 1U);
  EXPECT_EQ(session->http_counters.get_counter(zol::HTTP_4XX_RESPONSE), 1U);
}

// Verifies that the In leg takes the proxy's figures, found by its key or by the uuid, and the waiting adds
// up.
TEST_F(ProxyMessagesTest, InStats) {
  const SessionPtr session = identify_in(uuid_);
  tcp_info info{};
  info.tcpi_rtt = 1500;
  table_.set_in_stats(ip(client_peer.address), client_peer.port, uuid_, info, 20, 30);
  EXPECT_EQ(session->in_info.tcp_info.rtt, 1500U);
  EXPECT_EQ(session->in_info.read_idle_time_ms, 20U);
  EXPECT_EQ(session->in_info.write_congestion_time_ms, 30U);
  table_.set_in_stats(0, 0, uuid_, info, 21, 31);
  EXPECT_EQ(session->in_info.write_congestion_time_ms, 31U);
  EXPECT_EQ(table_.in_write_waiting_ms, 61U);
  EXPECT_EQ(table_.out_write_waiting_ms, 0U);
  EXPECT_EQ(session->out_info.tcp_info.rtt, 0U);
}

// Verifies that the Out leg takes the proxy's figures, found by the uuid alone, and the waiting adds up.
TEST_F(ProxyMessagesTest, OutStats) {
  const SessionPtr session = identify_out(uuid_);
  identify_in(Uuid(2));
  tcp_info info{};
  info.tcpi_total_retrans = 4;
  // The address is another session's key, which doesn't matter here.
  const LogCapture log;
  table_.set_out_stats(ip(client_peer.address), client_peer.port, uuid_, info, 20, 30);
  EXPECT_FALSE(log.contains("Duplicate keys"));
  EXPECT_EQ(session->out_info.tcp_info.total_retrans, 4U);
  EXPECT_EQ(session->out_info.read_idle_time_ms, 20U);
  EXPECT_EQ(session->out_info.write_congestion_time_ms, 30U);
  EXPECT_EQ(table_.out_write_waiting_ms, 30U);
  EXPECT_EQ(table_.in_write_waiting_ms, 0U);
}

// Verifies that figures for an unknown session are warned of and count nowhere.
TEST_F(ProxyMessagesTest, StatsOfUnknownSession) {
  const LogCapture log;
  table_.set_in_stats(ip("10.9.9.9"), 99, uuid_, tcp_info{}, 1, 2);
  table_.set_out_stats(ip("10.9.9.9"), 99, uuid_, tcp_info{}, 1, 2);
  EXPECT_TRUE(log.contains(log_level::warning,
                           "Trying to set stats information for non existing session info. IN "
                           "connection: 10.9.9.9.99"))
      << log.all();
  EXPECT_TRUE(log.contains(log_level::warning,
                           "Trying to set stats information for non existing session info. OUT "
                           "connection: 10.9.9.9.99"))
      << log.all();
  EXPECT_EQ(table_.in_write_waiting_ms + table_.out_write_waiting_ms, 0U);
}

}  // namespace
}  // namespace zol_test
