#include "reporting/http_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "drive.h"
#include "faults.h"
#include "http_client_calls.h"
#include "https_server.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace {

using testing::IsEmpty;
using zol::HttpClient;
using zol_test::drive;
using zol_test::Faults;
using zol_test::get;
using zol_test::HttpsServer;
using zol_test::LogCapture;
using zol_test::post;

struct SetupFailure {
  CURLoption option;
  const char* text;
};

class PostSetupTest : public testing::TestWithParam<SetupFailure> {};

TEST_P(PostSetupTest, option_fails) {
  // Verifies that an option that can't be set logs its line and ends the request, and the next one works.
  HttpsServer server;
  HttpClient client(false);
  {
    LogCapture log;
    Faults faults;
    faults.failing_option = GetParam().option;
    EXPECT_FALSE(post(client, server.url()));
    EXPECT_TRUE(log.contains(log_level::error, GetParam().text)) << log.all();
    EXPECT_THAT(client.header_lists, IsEmpty());
  }
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  EXPECT_TRUE(client.report_sent);
}

INSTANTIATE_TEST_SUITE_P(
    HttpClient, PostSetupTest,
    testing::Values(
        SetupFailure{CURLOPT_URL, "Failed setting URL: 27"},
        SetupFailure{CURLOPT_POSTFIELDSIZE_LARGE, "Failed setting HTTP body (COPYPOSTFIELDS): 27"},
        SetupFailure{CURLOPT_COPYPOSTFIELDS, "Failed setting HTTP body (COPYPOSTFIELDS): 27"},
        SetupFailure{CURLOPT_SSL_VERIFYPEER, "Failed setting SSL host verification"},
        SetupFailure{CURLOPT_TIMEOUT, "Failed setting request timeout"},
        SetupFailure{CURLOPT_HTTPHEADER, "init_post_request_async: Failed setting custom http headers"}));

class GetSetupTest : public testing::TestWithParam<SetupFailure> {};

TEST_P(GetSetupTest, option_fails) {
  // Verifies the same for a GET.
  HttpsServer server;
  HttpClient client(false);
  client.bind_interface_value = "127.0.0.1";
  {
    LogCapture log;
    Faults faults;
    faults.failing_option = GetParam().option;
    EXPECT_FALSE(get(client, server.url()));
    EXPECT_TRUE(log.contains(log_level::error, GetParam().text)) << log.all();
  }
  ASSERT_TRUE(get(client, server.url()));
  ASSERT_TRUE(drive(client));
  EXPECT_TRUE(client.report_sent);
}

INSTANTIATE_TEST_SUITE_P(
    HttpClient, GetSetupTest,
    testing::Values(SetupFailure{CURLOPT_URL, "Failed setting URL: 27"},
                    SetupFailure{CURLOPT_INTERFACE, "Failed setting bind interface"},
                    SetupFailure{CURLOPT_SSL_VERIFYPEER, "Failed setting SSL host verification"},
                    SetupFailure{CURLOPT_TIMEOUT, "Failed setting request timeout"},
                    SetupFailure{CURLOPT_FOLLOWLOCATION, "Failed setting a follow location option"},
                    SetupFailure{CURLOPT_HTTPHEADER, "Failed setting custom http headers"}));

TEST(HttpClientSetupTest, negative_timeout) {
  // Verifies that libcurl's own refusal of a time-out ends the request.
  LogCapture log;
  HttpClient client(false);
  EXPECT_FALSE(client.init_post_request_async("https://127.0.0.1:1", "h", "", "{}", false, -1));
  EXPECT_TRUE(log.contains(log_level::error, "Failed setting request timeout"));
}

TEST(HttpClientSetupTest, no_header_list) {
  // Verifies that a header list that can't be made ends the request.
  LogCapture log;
  HttpClient client(false);
  Faults faults;
  faults.no_list = true;
  EXPECT_FALSE(post(client, "https://127.0.0.1:1"));
  EXPECT_TRUE(log.contains(log_level::error, "init_post_request_async: Failed setting custom http headers"));
}

TEST(HttpClientSetupTest, add_fails) {
  // Verifies that a handle that can't be added is logged with its code, and its list is freed.
  LogCapture log;
  HttpClient client(false);
  Faults faults;
  faults.add_result = CURLM_OUT_OF_MEMORY;
  EXPECT_FALSE(post(client, "https://127.0.0.1:1"));
  EXPECT_TRUE(log.contains(log_level::error, "Failed adding multi-handle: 3"));
  EXPECT_THAT(client.header_lists, IsEmpty());
}

TEST(HttpClientSetupTest, perform_fails) {
  // Verifies that an error of the whole stack makes continue_send() false, and a plea for another call
  // doesn't.
  HttpClient client(false);
  Faults faults;
  faults.perform_result = CURLM_INTERNAL_ERROR;
  EXPECT_FALSE(client.continue_send());
  faults.perform_result = CURLM_CALL_MULTI_PERFORM;
  EXPECT_TRUE(client.continue_send());
}

TEST(HttpClientSetupTest, unknown_message) {
  // Verifies that a message of another kind is logged and passed over.
  LogCapture log;
  HttpClient client(false);
  Faults faults;
  faults.message = CURLMsg{};
  faults.message->msg = CURLMSG_NONE;
  EXPECT_TRUE(client.continue_send());
  EXPECT_TRUE(log.contains(log_level::debug, "curl_multi_info_read: return unknown message code: 0"));
}

}  // namespace
