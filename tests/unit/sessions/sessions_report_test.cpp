#include <gtest/gtest.h>

#include "sessions/finished_sessions.h"
#include "sessions/zol_monitor_data.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sessions/sessions_fixture.h"

namespace zol_test {
namespace {

class SessionsReportTest : public SessionsTest {
 protected:
  void finish(std::uint8_t number) {
    identify_in(Uuid(number));
    table_.erase(in_connection());
  }
};

// Verifies that the report has the finished sessions and says how many.
TEST_F(SessionsReportTest, FinishedSessions) {
  finish(1);
  finish(2);
  const LogCapture log;
  const libvariant::Variant report = zol_monitor::take_sessions_report(table_);
  ASSERT_EQ(report.Size(), 2U);
  EXPECT_EQ(report.AsList().at(1).At("session_id").AsString(), Uuid(2).text());
  EXPECT_TRUE(log.contains(log_level::info, "generate_sessions_report: Number of reported sessions: 2"))
      << log.all();
  EXPECT_FALSE(log.contains("incomplete"));
  EXPECT_FALSE(log.contains("ignored"));
  EXPECT_EQ(table_.finished_sessions.reported_count, 2U);
}

// Verifies that flows that have ended make it into this report and its count.
TEST_F(SessionsReportTest, EndedFlows) {
  finish(1);
  table_.update_non_tcp_traffic(17, 1, 2, 100, 3, 4, true, "net-a");
  table_.non_tcp_sessions.begin()->second->last_seen_ms -= 30001;
  const LogCapture log;
  const libvariant::Variant report = zol_monitor::take_sessions_report(table_);
  EXPECT_EQ(report.Size(), 2U);
  EXPECT_TRUE(log.contains("generate_sessions_report: Number of reported sessions: 2")) << log.all();
}

// Verifies that a report without sessions is an empty list.
TEST_F(SessionsReportTest, NoSessions) {
  const libvariant::Variant report = zol_monitor::take_sessions_report(table_);
  EXPECT_TRUE(report.IsList());
  EXPECT_TRUE(report.Empty());
}

// Verifies that incomplete and ignored sessions are told of, when there is reason to.
TEST_F(SessionsReportTest, DroppedSessions) {
  configure("report_incomplete_sessions = false;");
  table_.finished_sessions.incomplete_count = 4;
  table_.finished_sessions.ignored_count = 3;
  const LogCapture log;
  zol_monitor::take_sessions_report(table_);
  EXPECT_TRUE(log.contains(
      log_level::info, "generate_sessions_report: Number of incomplete sessions that were not reported: 4"))
      << log.all();
  EXPECT_TRUE(log.contains(log_level::debug, "generate_sessions_report: Number of ignored sessions: 3"));
}

// Verifies that a report that is off, by setting or by a missing key, is empty and drops what had finished.
TEST_F(SessionsReportTest, Disabled) {
  for (const char* config : {"Monitoring: { session_report_is_enabled = false; };", "Monitoring: { };"}) {
    table_.finished_sessions.sessions.Append("a record");
    table_.finished_sessions.reported_count = 1;
    table_.finished_sessions.incomplete_count = 1;
    config_.set(config);
    const LogCapture log;
    const libvariant::Variant report = zol_monitor::take_sessions_report(table_);
    EXPECT_TRUE(report.IsList());
    EXPECT_TRUE(report.Empty());
    EXPECT_TRUE(table_.finished_sessions.sessions.Empty());
    EXPECT_EQ(table_.finished_sessions.reported_count + table_.finished_sessions.incomplete_count, 0U);
    EXPECT_TRUE(log.contains(log_level::debug,
                             "generate_sessions_report: sessions report is disabled, not sending report"))
        << log.all();
  }
}

// Verifies that sessions that finish after the report was taken wait for the next one.
TEST_F(SessionsReportTest, NextReport) {
  finish(1);
  zol_monitor::take_sessions_report(table_);
  table_.finished_sessions.clear();
  finish(2);
  const libvariant::Variant report = zol_monitor::take_sessions_report(table_);
  ASSERT_EQ(report.Size(), 1U);
  EXPECT_EQ(report.AsList().at(0).At("session_id").AsString(), Uuid(2).text());
}

// Verifies that the reporter's view hands out the monitor's finished sessions, and clears them when told.
TEST_F(SessionsReportTest, ReporterView) {
  const LogCapture log;
  zol_monitor::MonitorData data(&services_, &sites_, nullptr, false);
  data.sessions.finished_sessions.sessions.Append("a record");
  data.sessions.finished_sessions.reported_count = 1;
  zol_monitor::ZolSessionsReport report(&data);
  const libvariant::Variant list = report.generate_sessions_report();
  ASSERT_EQ(list.Size(), 1U);
  EXPECT_EQ(list.AsList().at(0).AsString(), "a record");
  EXPECT_EQ(data.sessions.finished_sessions.reported_count, 1U);
  report.clean_finished_sessions();
  EXPECT_EQ(data.sessions.finished_sessions.reported_count, 0U);
  EXPECT_TRUE(report.generate_sessions_report().Empty());
}

}  // namespace
}  // namespace zol_test
