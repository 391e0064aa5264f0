#include "reporting/reporter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "config/zol_configurator.h"
#include "hqs_fixture.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace {

using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using zol_monitor::Reporter;
using zol_test::HttpsServer;
using zol_test::LogCapture;

constexpr const char* url_setting_key = "Monitoring.hqs_receiver_url";
constexpr const char* timeout_setting_key = "General.hqs_http_client_timeout_sec";

class CountingReporter : public Reporter {
 public:
  explicit CountingReporter(zol::AConfigurator* configurator)
      : Reporter(configurator, url_setting_key, "/zolReport", timeout_setting_key, false, true) {}

  std::string get_client_cert_path() override { return cert_path; }
  std::string create_report() override {
    ++created;
    return text.empty() ? "" : text + std::to_string(created);
  }
  void drop_report() override { ++dropped; }

  std::string text = "report ";
  std::string cert_path;
  int created = 0;
  int dropped = 0;
};

class ReporterTest : public zol_test::HqsFixture {
 protected:
  ReporterTest() { config_->set(good_config(url_setting(server_.url()))); }

  static std::string url_setting(const std::string& url) { return "hqs_receiver_url = \"" + url + "\"; "; }

  HttpsServer server_;
};

TEST_F(ReporterTest, start_state) {
  // Verifies that a new reporter has sent nothing, and that its client signs with the node's parameters.
  CountingReporter reporter(&config_->configurator());
  EXPECT_FALSE(reporter.is_report_sent());
  EXPECT_FALSE(reporter.is_running());
  EXPECT_EQ(reporter.get_last_successful_report_sent(), 0);
  EXPECT_TRUE(reporter.save_on_success);
  EXPECT_TRUE(reporter.is_save_on_success());
  EXPECT_THAT(reporter.get_query_args(), IsEmpty());
  EXPECT_TRUE(reporter.client.hmac);
  EXPECT_FALSE(reporter.client.if_modified_since);
  EXPECT_FALSE(reporter.client.compress);
  EXPECT_EQ(reporter.client.secret_key, "Monitoring.hmac_secret");
}

TEST_F(ReporterTest, sends_report) {
  // Verifies that a report is made, logged and posted to its path, and its success is told.
  LogCapture log;
  CountingReporter reporter(&config_->configurator());
  ASSERT_TRUE(reporter.send_report_async(false));
  EXPECT_TRUE(reporter.continue_send_report());
  EXPECT_TRUE(reporter.is_running());
  EXPECT_FALSE(reporter.is_report_sent());
  run_to_end(reporter.client);
  EXPECT_FALSE(reporter.is_running());
  EXPECT_TRUE(reporter.is_report_sent());
  EXPECT_GT(reporter.get_last_successful_report_sent(), 0);
  ASSERT_THAT(server_.requests(), SizeIs(1));
  EXPECT_THAT(server_.requests()[0].target, StartsWith("/zolReport?key=node-7&token="));
  EXPECT_EQ(server_.requests()[0].body, "report 1");
  EXPECT_EQ(reporter.client.timeout, 20);
  EXPECT_TRUE(log.contains(log_level::debug, "Report body: \nreport 1"));
}

TEST_F(ReporterTest, resend_keeps_the_text) {
  // Verifies that a resend posts the same text and makes no new report.
  server_.answer_with({.status = 500});
  CountingReporter reporter(&config_->configurator());
  ASSERT_TRUE(reporter.send_report_async(false));
  run_to_end(reporter.client);
  EXPECT_FALSE(reporter.is_report_sent());
  ASSERT_TRUE(reporter.resend_report_async());
  run_to_end(reporter.client);
  EXPECT_TRUE(reporter.is_report_sent());
  EXPECT_EQ(reporter.created, 1);
  ASSERT_THAT(server_.requests(), SizeIs(2));
  EXPECT_EQ(server_.requests()[1].body, "report 1");
  ASSERT_TRUE(reporter.send_report_async(false));
  EXPECT_EQ(reporter.created, 2);
}

TEST_F(ReporterTest, empty_report) {
  // Verifies that an empty report posts nothing and counts as sent.
  LogCapture log;
  CountingReporter reporter(&config_->configurator());
  reporter.text = "";
  ASSERT_TRUE(reporter.send_report_async(false));
  EXPECT_TRUE(log.contains(log_level::debug, "Not sending empty report"));
  EXPECT_TRUE(reporter.nothing_to_send);
  EXPECT_TRUE(reporter.continue_send_report());
  EXPECT_FALSE(reporter.is_running());
  EXPECT_TRUE(reporter.is_report_sent());
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(ReporterTest, failure_after_empty_report) {
  // Verifies that an empty report doesn't make the next one count as sent.
  server_.answer_with({.status = 500});
  CountingReporter reporter(&config_->configurator());
  reporter.text = "";
  ASSERT_TRUE(reporter.send_report_async(false));
  reporter.text = "report ";
  ASSERT_TRUE(reporter.send_report_async(false));
  run_to_end(reporter.client);
  EXPECT_FALSE(reporter.is_report_sent());
}

TEST_F(ReporterTest, missing_settings) {
  // Verifies that a missing URL or time-out is logged, and no report is made.
  CountingReporter reporter(&config_->configurator());
  config_->set(good_config());
  {
    LogCapture log;
    EXPECT_FALSE(reporter.send_report_async(false));
    EXPECT_TRUE(log.contains(
        log_level::error, std::string("send_report_async: missing configuration value: ") + url_setting_key));
  }
  config_->set("Monitoring: { " + url_setting(server_.url()) + " };");
  LogCapture log;
  EXPECT_FALSE(reporter.send_report_async(false));
  EXPECT_TRUE(log.contains(log_level::error, std::string("send_report_async: missing configuration value: ") +
                                                 timeout_setting_key));
  EXPECT_EQ(reporter.created, 0);
  EXPECT_FALSE(reporter.is_report_sent());
}

TEST_F(ReporterTest, missing_setting_drops_the_report) {
  // Verifies that a report without its settings lets go what it would have taken, and a resend nothing.
  CountingReporter reporter(&config_->configurator());
  ASSERT_TRUE(reporter.send_report_async(false));
  run_to_end(reporter.client);
  EXPECT_EQ(reporter.dropped, 0);
  config_->set(good_config());
  EXPECT_FALSE(reporter.send_report_async(false));
  EXPECT_EQ(reporter.dropped, 1);
  EXPECT_FALSE(reporter.resend_report_async());
  EXPECT_EQ(reporter.dropped, 1);
}

TEST_F(ReporterTest, invalid_url_after_success) {
  // Verifies that a report that couldn't start isn't taken for sent.
  CountingReporter reporter(&config_->configurator());
  ASSERT_TRUE(reporter.send_report_async(false));
  run_to_end(reporter.client);
  ASSERT_TRUE(reporter.is_report_sent());
  config_->set(good_config(url_setting("no url")));
  EXPECT_FALSE(reporter.send_report_async(false));
  EXPECT_FALSE(reporter.is_report_sent());
}

TEST_F(ReporterTest, report_during_transfer) {
  // Verifies that a report during the transfer of the last one is refused with the client's notice.
  LogCapture log;
  CountingReporter reporter(&config_->configurator());
  ASSERT_TRUE(reporter.send_report_async(false));
  ASSERT_TRUE(reporter.continue_send_report());
  ASSERT_TRUE(reporter.is_running());
  EXPECT_FALSE(reporter.send_report_async(false));
  EXPECT_TRUE(
      log.contains(log_level::notice, "Request ignored since previous HTTP request is not completed yet"));
  run_to_end(reporter.client);
  EXPECT_TRUE(reporter.is_report_sent());
  ASSERT_THAT(server_.requests(), SizeIs(1));
  EXPECT_EQ(server_.requests()[0].body, "report 1");
}

TEST_F(ReporterTest, compression) {
  // Verifies that the next report is gzipped once compression is switched on.
  CountingReporter reporter(&config_->configurator());
  reporter.set_compress(true);
  ASSERT_TRUE(reporter.send_report_async(false));
  run_to_end(reporter.client);
  ASSERT_THAT(server_.requests(), SizeIs(1));
  EXPECT_EQ(server_.requests()[0].headers.at("content-encoding"), "gzip");
  EXPECT_EQ(gunzip(server_.requests()[0].body), "report 1");
}

TEST_F(ReporterTest, client_certificate) {
  // Verifies that the reporter's certificate is shown to the server.
  zol_test::write_certificate("client.pem", "node-7");
  CountingReporter reporter(&config_->configurator());
  reporter.cert_path = folder_ + "/client.pem";
  ASSERT_TRUE(reporter.send_report_async(false));
  run_to_end(reporter.client);
  ASSERT_THAT(server_.requests(), SizeIs(1));
  EXPECT_EQ(server_.requests()[0].client_certificate, "node-7");
}

TEST_F(ReporterTest, metadata) {
  // Verifies that the metadata setting is read as JSON.
  config_->set(good_config("hqs_meta_data = \"{\\\"rack\\\": 4, \\\"tags\\\": [1, 2]}\"; "));
  const libvariant::Variant metadata = Reporter::get_hqs_metadata(config_->configurator());
  EXPECT_EQ(metadata.At("rack").AsInt(), 4);
  EXPECT_EQ(metadata.At("tags").Size(), 2U);
}

TEST_F(ReporterTest, missing_metadata) {
  // Verifies that a missing metadata setting is logged and thrown.
  LogCapture log;
  try {
    Reporter::get_hqs_metadata(config_->configurator());
    FAIL();
  } catch (const std::runtime_error& failure) {
    EXPECT_STREQ(failure.what(), "Couldn't read HQS meta data from configuration file ");
  }
  EXPECT_TRUE(log.contains(log_level::error, "Couldn't read HQS meta data from configuration file "));
}

TEST_F(ReporterTest, metadata_that_is_no_json) {
  // Verifies that metadata that is no JSON gives an empty value, not a failure.
  config_->set(good_config("hqs_meta_data = \"rack 4\"; "));
  LogCapture log;
  EXPECT_TRUE(Reporter::get_hqs_metadata(config_->configurator()).Empty());
}

}  // namespace
