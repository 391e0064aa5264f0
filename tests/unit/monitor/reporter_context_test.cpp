#include <fstream>

#include "reporting/zol_reporters.h"
#include "tests/unit/monitor/monitor_fixture.h"
#include "zol_helper.h"

namespace {

using zol_test::monitor_config;
using zol_test::MonitorFixture;
using zol_test::usual_periods;

class ReporterContexts : public MonitorFixture {};

std::string what_of(const std::function<void()>& work) {
  try {
    work();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "nothing thrown";
}

// Verifies that a missing number of retries ends the construction with its text.
TEST_F(ReporterContexts, MissingRetriesThrow) {
  config_.set(monitor_config("polling_rate_ms = 1;"));
  EXPECT_EQ(what_of([] { const zol_monitor::ReporterContext context(nullptr, "X", true); }),
            "ERROR couldn't find parameter total allowed attempts for HTTP request");
}

// Verifies that a missing period throws when the context is charged.
TEST_F(ReporterContexts, MissingResolutionThrows) {
  monitor().init_reporter();
  config_.set(monitor_config("reporter_total_retries = 2;"));
  EXPECT_EQ(what_of([this] { monitor().periodic().charge_reporter(true); }),
            "ERROR couldn't find the critical report resolution parameter");
}

// Verifies that a tick that meets a report under way makes none, loses nothing and leaves the retries alone.
TEST_F(ReporterContexts, TickDuringATransferIsIgnored) {
  monitor().init_reporter();
  auto& context = monitor().sessions_context();
  context.attempts = 1;
  context.reporter->body = "the report under way";
  context.reporter->client.async_running = true;
  context.send_report(0, 0);
  EXPECT_EQ(context.attempts, 1);
  EXPECT_EQ(context.reporter->body, "the report under way");
  EXPECT_FALSE(context.reporter->is_report_sent());
  EXPECT_TRUE(
      log_.contains(log_level::notice, "Request ignored since previous HTTP request is not completed yet"));
  EXPECT_TRUE(context.send_timer.is_pending());
  context.reporter->client.async_running = false;
}

// Verifies that a tick between the answer of the look-up and the next poll makes no second report, and that
// what that one would have taken stays.
TEST_F(ReporterContexts, TickBehindTheLookupIsIgnored) {
  monitor().init_reporter();
  auto& context = monitor().sessions_context();
  zol::HQSHttpClient& client = context.reporter->client;
  context.attempts = 1;
  context.reporter->body = "the report under way";
  client.resolver_context = &client;  // any look-up
  context.poll_send_report(0, 0);
  client.resolver_context = nullptr;
  ASSERT_TRUE(client.init_post_request_async("https://127.0.0.1:1/", "127.0.0.1", "", context.reporter->body,
                                             false, 2));
  ASSERT_FALSE(context.reporter->is_running());
  monitor().sessions.finished_sessions.sessions.Append("a finished session");
  context.send_report(0, 0);
  EXPECT_EQ(context.attempts, 1);
  EXPECT_EQ(context.reporter->body, "the report under way");
  EXPECT_EQ(monitor().sessions.finished_sessions.sessions.AsList().size(), 1U);
  EXPECT_TRUE(
      log_.contains(log_level::notice, "Request ignored since previous HTTP request is not completed yet"));
  EXPECT_TRUE(context.send_timer.is_pending());
  EXPECT_TRUE(context.poll_timer.is_pending());
}

// Verifies that a wall clock that was set back doesn't keep the active version from being looked at.
TEST_F(ReporterContexts, ClockSetBackDoesNotBlockTheLook) {
  constexpr std::uint64_t hour_ms = 3600000;
  zol_monitor::MonitorContext context;
  zol_monitor::last_dual_check_ms = zol::Helper::get_timestamp_ms() + hour_ms;
  zol_monitor::ReporterContext::update_dual_zol_state(&context);
  EXPECT_TRUE(log_.contains(log_level::debug, "update_dual_zol_state: reports state is_running [1]"));
  EXPECT_LE(zol_monitor::last_dual_check_ms, zol::Helper::get_timestamp_ms());
}

class StartCounter : public zol_test::BareMonitor {
 public:
  using BareMonitor::BareMonitor;
  void start() override { ++starts; }

  int starts = 0;
};

// Verifies that reports that were disabled resume, with their cycles, once this version is the active one.
TEST_F(ReporterContexts, DisabledReportsResume) {
  zol::Services services(false, false);
  StartCounter monitor(&services, zol::SiteServices::instance(), nullptr, true);
  monitor.init_reporter();
  zol_monitor::last_dual_check_ms = 0;
  monitor.resume_reports();
  EXPECT_FALSE(monitor.periodic().charged);
  EXPECT_EQ(zol_monitor::last_dual_check_ms, 0U);
  zol_monitor::reports_disabled = true;
  monitor.resume_reports();
  EXPECT_FALSE(zol_monitor::reports_disabled);
  EXPECT_EQ(monitor.starts, 1);
  EXPECT_TRUE(monitor.periodic().charged);
  EXPECT_TRUE(monitor.traffic().charged);
  EXPECT_TRUE(monitor.sessions_context().send_timer.is_pending());
}

// Verifies that a missing polling rate throws.
TEST_F(ReporterContexts, MissingPollingRateThrows) {
  monitor().init_reporter();
  config_.set(monitor_config("reporter_total_retries = 2;"));
  EXPECT_EQ(what_of([this] { monitor().periodic().charge_poll_send_report(); }),
            "ERROR couldn't find parameter polling rate that critical for monitoring");
}

// Verifies that a period of 0 switches a reporter off, and that a later period charges it at a random point
// below.
TEST_F(ReporterContexts, PeriodZeroIsOff) {
  config_.set(monitor_config(
      "report_resolution_ms = 0; traffic_report_resolution_ms = 60000;"
      "session_report_resolution_ms = 60000; reporter_total_retries = 0; polling_rate_ms = 1;"));
  monitor().init_reporter();
  monitor().charge_reporter();
  EXPECT_TRUE(log_.contains(log_level::info, "Reporter Periodic is disabled "));
  EXPECT_FALSE(monitor().periodic().charged);
  EXPECT_FALSE(monitor().periodic().send_timer.is_pending());
  EXPECT_TRUE(monitor().traffic().charged);
  config_.set(monitor_config(usual_periods));
  monitor().charge_reporter();
  EXPECT_TRUE(monitor().periodic().charged);
  timeval due{};
  ASSERT_NE(event_pending(&monitor().periodic().send_timer.ev, EV_TIMEOUT, &due), 0);
  timeval now{};
  event_base_gettimeofday_cached(zol::ZOLEventBase::base(), &now);
  EXPECT_LE(due.tv_sec - now.tv_sec, 60);
}

// Verifies that a charged context keeps its running cycle when all are charged again.
TEST_F(ReporterContexts, ChargedContextsKeepTheirCycle) {
  monitor().init_reporter();
  monitor().charge_reporter();
  timeval before{};
  event_pending(&monitor().traffic().send_timer.ev, EV_TIMEOUT, &before);
  monitor().charge_reporter();
  timeval after{};
  event_pending(&monitor().traffic().send_timer.ev, EV_TIMEOUT, &after);
  EXPECT_EQ(log_.count("Initial report will be sent in "), 3);
  EXPECT_EQ(before.tv_sec, after.tv_sec);
}

// Verifies that compression is read at each charge and copied to all contexts.
TEST_F(ReporterContexts, CompressionReachesAllContexts) {
  monitor().init_reporter();
  config_.set(monitor_config(std::string(usual_periods) + "compress_report = true;"));
  monitor().charge_reporter();
  EXPECT_TRUE(monitor().periodic().compress);
  EXPECT_TRUE(monitor().traffic().compress);
  EXPECT_TRUE(monitor().sessions_context().compress);
}

// Verifies that a report that keeps failing is tried once and then as often as the setting says, without a
// pause.
TEST_F(ReporterContexts, FailingReportIsRetriedAsConfigured) {
  monitor().init_reporter();
  monitor().periodic().send_report(0, 0);
  ASSERT_TRUE(
      run_until([this] { return log_.contains("poll_send_report: Failed to send Periodic report to HQS"); }));
  EXPECT_EQ(log_.count("Failed to compute HMAC"), 3);  // no secret in this configuration
  EXPECT_EQ(log_.count("poll_send_report: Retrying, 2 attempts left for sending Periodic report"), 1);
  EXPECT_EQ(log_.count("poll_send_report: Retrying, 1 attempts left for sending Periodic report"), 1);
  EXPECT_TRUE(monitor().periodic().charged);
}

// Verifies that without retries a failed send goes to the last line at once.
TEST_F(ReporterContexts, NoRetries) {
  config_.set(monitor_config(
      "report_resolution_ms = 60000; traffic_report_resolution_ms = 60000;"
      "session_report_resolution_ms = 60000; reporter_total_retries = 0; polling_rate_ms = 1;"));
  monitor().init_reporter();
  monitor().periodic().send_report(0, 0);
  ASSERT_TRUE(
      run_until([this] { return log_.contains("poll_send_report: Failed to send Periodic report to HQS"); }));
  EXPECT_FALSE(log_.contains("Retrying"));
}

// Verifies that a report without a server's URL is given up for this cycle.
TEST_F(ReporterContexts, MissingUrlGivesTheCycleUp) {
  monitor().init_reporter();
  config_.set(std::string("General: { hqs_http_client_timeout_sec = 2; }; Monitoring: { ") + usual_periods +
              "};");
  monitor().periodic().send_report(0, 0);
  EXPECT_TRUE(log_.contains(log_level::error, "Failed scheduling monitor report send."));
  EXPECT_TRUE(monitor().periodic().charged);
}

// Verifies that an empty session report counts as sent and isn't retried.
TEST_F(ReporterContexts, EmptyReportCountsAsSent) {
  monitor().init_reporter();
  monitor().sessions_context().send_report(0, 0);
  EXPECT_TRUE(monitor().sessions_context().reporter->is_report_sent());
  EXPECT_FALSE(log_.contains("Retrying"));
  EXPECT_FALSE(log_.contains("Failed to send"));
}

// Verifies that a full table fires the session report at the next pass of the loop in place of the pending
// charge.
TEST_F(ReporterContexts, FullTableBringsTheReportForward) {
  monitor().init_reporter();
  monitor().charge_reporter();
  monitor().max_sessions_notify();
  EXPECT_TRUE(log_.contains(log_level::debug,
                            "max_sessions_notify: Max sessions exceeded. Scheduling send report now"));
  EXPECT_TRUE(run_until([this] { return log_.contains("Not sending empty report"); }));
}

// Verifies that the time of an accepted report is stored in the status record.
TEST_F(ReporterContexts, LastSuccessIsPublished) {
  auto& status = status_record();
  monitor().init_reporter();
  monitor().periodic().reporter->client.last_success = 1234567;
  monitor().periodic().save_last_successful_report_sent();
  EXPECT_EQ(status.last_successful_report, 1234567);
}

// Verifies that a status record that isn't there costs a line and nothing else.
TEST_F(ReporterContexts, LastSuccessWithoutRecord) {
  zol_utils::shared_mem_enabled = true;
  zol_utils::shared_object_version = "unit-nobody-" + std::to_string(getpid());
  monitor().init_reporter();
  monitor().periodic().save_last_successful_report_sent();
  EXPECT_TRUE(log_.contains(log_level::error, "FATAL: Failed to open SharedObject shm"));
}

// Verifies that the reporters go in order and may be made anew.
TEST_F(ReporterContexts, ReportersCanBeTakenDownTwice) {
  monitor().init_reporter();
  monitor().charge_reporter();
  monitor().uninit_reporter();
  monitor().uninit_reporter();
  EXPECT_EQ(monitor().periodic().reporter, nullptr);
  EXPECT_FALSE(monitor().sessions_context().send_timer.is_pending());
}

}  // namespace
