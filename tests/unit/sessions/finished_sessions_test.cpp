#include "sessions/finished_sessions.h"

#include <gtest/gtest.h>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sessions/sessions_fixture.h"
#include "zol_helper.h"

namespace zol_test {
namespace {

using zol_monitor::FinishedSessionsInfo;
using zol_monitor::SessionPtr;
using zol_monitor::SessionTerminationReason;

class FinishedSessionsTest : public SessionsTest {
 protected:
  // A session that ended well, just now.
  SessionPtr ended_session() {
    auto session =
        std::make_shared<zol_monitor::SessionInfo>(uuid_, ip(client_peer.address), client_peer.port);
    for (auto* leg : {session->in, session->out}) {
      leg->end_time_ms = session->start_time_ms + 10;
      leg->termination_reason = zol_monitor::STR_FIN_FROM_CLIENT_SIDE;
    }
    return session;
  }
  void insert(const SessionPtr& session) { finished_.insert_session(session, &services_, "", ""); }
  // What verify_session_info logs, one record a line.
  std::string verify(const SessionPtr& session) {
    const LogCapture log;
    finished_.verify_session_info(session, "id-1");
    for (const auto& record : log.records())
      EXPECT_EQ(record.level, log_level::warning) << record.text;
    return log.all();
  }

  const Uuid uuid_{1};
  FinishedSessionsInfo finished_;
};

// Verifies that a new list is an empty list with all counters zero.
TEST_F(FinishedSessionsTest, StartsEmpty) {
  EXPECT_TRUE(finished_.sessions.IsList());
  EXPECT_TRUE(finished_.sessions.Empty());
  EXPECT_EQ(finished_.reported_count + finished_.incomplete_count + finished_.ignored_count +
                finished_.non_tcp_count,
            0U);
}

// Verifies the text of each termination reason on either leg.
TEST_F(FinishedSessionsTest, TerminationTexts) {
  const struct {
    unsigned reason;
    const char* in;
    const char* out;
  } rows[] = {
      {0, "Unknown", "Unknown"},
      {1, "FIN Sent", "FIN Received"},
      {2, "FIN Received", "FIN Sent"},
      {3, "RST Sent", "RST Received"},
      {4, "RST Received", "RST Sent"},
      {5, "Resolution Failure", "Resolution Failure"},
      {6, "Connection TimeOut", "Connection TimeOut"},
      {7, "Connection Refused", "Connection Refused"},
      {8, "Unknown", "Unknown"},
  };
  for (const auto& row : rows) {
    const auto reason = static_cast<SessionTerminationReason>(row.reason);
    EXPECT_STREQ(finished_.termination_reason_to_string(reason, true), row.in);
    EXPECT_STREQ(finished_.termination_reason_to_string(reason, false), row.out);
  }
}

// Verifies what is logged for a missing reason and for one that doesn't exist.
TEST_F(FinishedSessionsTest, TerminationTextLogs) {
  const LogCapture log;
  finished_.termination_reason_to_string(zol_monitor::STR_NONE, true);
  finished_.termination_reason_to_string(static_cast<SessionTerminationReason>(8), true);
  EXPECT_TRUE(log.contains(log_level::debug, "Reporting session with unknown termination reason"))
      << log.all();
  EXPECT_TRUE(
      log.contains(log_level::error, "termination_reason_to_string wrong value for termination reason: 8"))
      << log.all();
}

// Verifies that a session is incomplete when the proxy never got its Out connection up.
TEST_F(FinishedSessionsTest, Incomplete) {
  const SessionPtr session = ended_session();
  for (unsigned reason = 0; reason <= 7; ++reason) {
    session->out->termination_reason = static_cast<SessionTerminationReason>(reason);
    EXPECT_EQ(finished_.is_session_incomplete(session), reason >= 5) << reason;
  }
  const LogCapture log;
  session->out->termination_reason = static_cast<SessionTerminationReason>(9);
  EXPECT_FALSE(finished_.is_session_incomplete(session));
  EXPECT_TRUE(log.contains(log_level::error, "is_session_incomplete wrong value for termination reason: 9"));
}

// Verifies that incomplete sessions are reported by default and dropped by setting, others never.
TEST_F(FinishedSessionsTest, IncompleteSessions) {
  const SessionPtr refused = ended_session();
  refused->out->termination_reason = zol_monitor::STR_CONNECTION_REFUSED;
  insert(refused);
  EXPECT_EQ(finished_.reported_count, 1U);
  configure("report_incomplete_sessions = false;");
  insert(refused);
  EXPECT_EQ(finished_.incomplete_count, 1U);
  EXPECT_EQ(finished_.reported_count, 1U);
  const SessionPtr closed = ended_session();
  closed->out->termination_reason = zol_monitor::STR_FIN_FROM_TARGET_SIDE;
  insert(closed);
  EXPECT_EQ(finished_.reported_count, 2U);
  EXPECT_EQ(finished_.sessions.Size(), 2U);
}

// Verifies that an ignored session is counted and dropped before it is verified.
TEST_F(FinishedSessionsTest, IgnoredSession) {
  const SessionPtr session = ended_session();
  session->ignored = true;
  session->start_time_ms = 0;
  const LogCapture log;
  insert(session);
  EXPECT_EQ(finished_.ignored_count, 1U);
  EXPECT_EQ(finished_.reported_count, 0U);
  EXPECT_TRUE(finished_.sessions.Empty());
  EXPECT_FALSE(log.contains("verify_session_info")) << log.all();
}

// Verifies that a session that is both incomplete and ignored counts as incomplete.
TEST_F(FinishedSessionsTest, IncompleteAndIgnored) {
  configure("report_incomplete_sessions = false;");
  const SessionPtr session = ended_session();
  session->ignored = true;
  session->out->termination_reason = zol_monitor::STR_CONNECTION_TIMEOUT;
  insert(session);
  EXPECT_EQ(finished_.incomplete_count, 1U);
  EXPECT_EQ(finished_.ignored_count, 0U);
}

// Verifies that a session that fails verification is reported all the same.
TEST_F(FinishedSessionsTest, UnverifiedSessionIsReported) {
  const SessionPtr session = ended_session();
  session->in->end_time_ms = 0;
  const LogCapture log;
  insert(session);
  EXPECT_TRUE(
      log.contains(log_level::warning, "verify_session_info Session ID: " + uuid_.text() +
                                           " verification error: Missing session end time on IN interface"))
      << log.all();
  EXPECT_EQ(finished_.reported_count, 1U);
}

// Verifies that verification stops at the first missing part, in the order of the parts.
TEST_F(FinishedSessionsTest, MissingParts) {
  const SessionPtr session = ended_session();
  EXPECT_EQ(verify(session), "");
  const std::uint64_t end = session->out->end_time_ms;
  session->out->termination_reason = zol_monitor::STR_NONE;
  const auto expect_error = [&](const std::string& error) {
    const LogCapture log;
    finished_.verify_session_info(session, "id-1");
    ASSERT_EQ(log.records().size(), 1U) << log.all();
    EXPECT_EQ(log.records()[0].text, "verify_session_info Session ID: id-1 verification error: " + error);
    EXPECT_EQ(log.records()[0].level, log_level::warning);
  };
  expect_error("Missing session termination reason on OUT interface");
  session->in->termination_reason = zol_monitor::STR_NONE;
  expect_error("Missing session termination reason on IN interface");
  session->out->end_time_ms = 0;
  expect_error("Missing session end time on OUT interface");
  session->in->end_time_ms = 0;
  expect_error("Missing session end time on IN interface");
  session->start_time_ms = 0;
  expect_error("Missing session start time");
  session->in->end_time_ms = end;
  expect_error("Missing session start time");
}

// Verifies that end times more than a minute apart are warned of, whichever leg is first.
TEST_F(FinishedSessionsTest, EndTimesApart) {
  const SessionPtr session = ended_session();
  session->in->end_time_ms = session->out->end_time_ms - 60000;
  EXPECT_EQ(verify(session), "");
  for (const std::int64_t gap : {-60001, 60001}) {
    session->in->end_time_ms = session->out->end_time_ms + static_cast<std::uint64_t>(gap);
    EXPECT_NE(
        verify(session).find("verify_session_info Session ID: id-1 verification error:  End-time diff value "
                             "between IN and OUT interface is out of sync: 60001 ( Bigger then 60000 )"),
        std::string::npos);
  }
}

// Verifies that end times more than 12 hours from now are warned of, each leg by itself, with the session
// after it.
TEST_F(FinishedSessionsTest, EndTimesOld) {
  const SessionPtr session = ended_session();
  const std::uint64_t now = zol::Helper::get_timestamp_ms();
  session->in->end_time_ms = session->out->end_time_ms = now - 43100000;
  EXPECT_EQ(verify(session), "");
  session->in->end_time_ms = session->out->end_time_ms = now - 43260000;
  const LogCapture log;
  finished_.verify_session_info(session, "id-1");
  ASSERT_EQ(log.records().size(), 4U) << log.all();
  const std::string begin = "verify_session_info Session ID: id-1 verification error: ";
  EXPECT_EQ(log.records()[0].text.find(
                begin + "End time on IN interface is out of sync with the current time: 43260"),
            0U)
      << log.all();
  EXPECT_TRUE(log.records()[0].text.ends_with("( Bigger then 43200000 )"));
  EXPECT_EQ(log.records()[1].text,
            "verify_session_info Session ID: id-1 Printing session info: 198.51.100.20:40000");
  EXPECT_EQ(log.records()[2].text.find(
                begin + "End time on OUT interface is out of sync with the current time: 43260"),
            0U);
  EXPECT_NE(log.records()[3].text.find("Printing session info: "), std::string::npos);
}

// Verifies that end times in the future are out of sync too.
TEST_F(FinishedSessionsTest, EndTimesAhead) {
  const SessionPtr session = ended_session();
  session->in->end_time_ms = session->out->end_time_ms = zol::Helper::get_timestamp_ms() + 43300000;
  EXPECT_NE(verify(session).find("End time on IN interface is out of sync"), std::string::npos);
}

// Verifies that the limit counts TCP records, and that 0 and a missing key are no limit.
TEST_F(FinishedSessionsTest, MaxSessions) {
  finished_.reported_count = 2;
  EXPECT_FALSE(finished_.is_max_sessions_reached());
  configure("session_report_max_sessions = 0;");
  EXPECT_FALSE(finished_.is_max_sessions_reached());
  configure("session_report_max_sessions = 3;");
  finished_.non_tcp_count = 10;
  EXPECT_FALSE(finished_.is_max_sessions_reached());
  finished_.reported_count = 3;
  EXPECT_TRUE(finished_.is_max_sessions_reached());
  finished_.reported_count = 4;
  EXPECT_TRUE(finished_.is_max_sessions_reached());
}

// Verifies that a non-TCP record is counted, but not in GXE mode.
TEST_F(FinishedSessionsTest, NonTcpCount) {
  const auto flow = std::make_shared<zol_monitor::NonTCPSessionInfo>(17, 1, 2, 3, 4);
  finished_.insert_non_tcp_session(flow);
  EXPECT_EQ(finished_.non_tcp_count, 1U);
  configure("", true);
  finished_.insert_non_tcp_session(flow);
  EXPECT_EQ(finished_.non_tcp_count, 1U);
  EXPECT_EQ(finished_.sessions.Size(), 2U);
  EXPECT_EQ(finished_.reported_count, 0U);
}

// Verifies that clearing empties the list and zeroes all four counters.
TEST_F(FinishedSessionsTest, Clear) {
  insert(ended_session());
  finished_.incomplete_count = finished_.ignored_count = finished_.non_tcp_count = 5;
  finished_.clear();
  EXPECT_TRUE(finished_.sessions.IsList());
  EXPECT_TRUE(finished_.sessions.Empty());
  EXPECT_EQ(finished_.reported_count + finished_.incomplete_count + finished_.ignored_count +
                finished_.non_tcp_count,
            0U);
}

}  // namespace
}  // namespace zol_test
