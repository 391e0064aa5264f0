#include "reporting/hqs_http_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "faults.h"
#include "hqs_client_fixture.h"
#include "https_server.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "zol_helper.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using zol::HQSHttpClient;
using zol_test::body_text;
using zol_test::Faults;
using zol_test::HQSHttpClientTest;
using zol_test::HttpAnswer;
using zol_test::HttpRequest;
using zol_test::HttpsServer;
using zol_test::LogCapture;
using zol_test::timeout_s;

TEST_F(HQSHttpClientTest, signed_request) {
  // Verifies that the request ends with the token over the plain body and the window of the wall clock.
  HttpsServer server;
  LogCapture log;
  const auto client = make_client();
  const std::uint64_t before = zol::Helper::get_timestamp_ms();
  ASSERT_TRUE(post(*client, server.url()));
  // An address needs no look-up, so that the request is queued already.
  EXPECT_EQ(client->resolver_context, nullptr);
  EXPECT_THAT(client->body, IsEmpty());
  run_to_end(*client);
  const HttpRequest request = only_request(server);
  EXPECT_EQ(request.method, "POST");
  const std::string token = token_of(request.target);
  EXPECT_EQ(request.target, "/zolReport?key=node-7&token=" + token);
  EXPECT_TRUE(is_token_of(token, body_text, before)) << token;
  EXPECT_FALSE(is_token_of(token, body_text + " ", before));
  EXPECT_EQ(request.headers.at("host"), "127.0.0.1");
  EXPECT_EQ(request.body, body_text);
  EXPECT_EQ(request.headers.count("content-encoding"), 0U);
  EXPECT_TRUE(client->report_sent);
  EXPECT_TRUE(log.contains(log_level::info, "Sending HTTP request to: " + server.url() + "/zolReport"));
  EXPECT_TRUE(log.contains(log_level::info, "Request full URL: " + server.url() + request.target));
  EXPECT_TRUE(log.contains(log_level::debug, "resolve_complete_cb: Report body length: 13"));
  EXPECT_TRUE(log.contains(log_level::debug, "> send DNS request for [127.0.0.1]"));
  EXPECT_TRUE(log.contains(log_level::debug, "resolve_complete_cb: Resolve complete for HTTP client <"));
}

TEST_F(HQSHttpClientTest, secret_is_not_logged) {
  // Verifies that neither form of the secret shows in a log line.
  HttpsServer server;
  LogCapture log;
  const auto client = make_client(true);
  ASSERT_TRUE(post(*client, server.url()));
  run_to_end(*client);
  ASSERT_TRUE(client->report_sent);
  EXPECT_FALSE(log.contains(plain_secret));
  EXPECT_FALSE(log.contains(enciphered_));
}

TEST_F(HQSHttpClientTest, query_args_when_signed) {
  // Verifies that further arguments follow the token.
  HttpsServer server;
  const auto client = make_client();
  ASSERT_TRUE(post(*client, server.url(), body_text, "type=full&n=1"));
  run_to_end(*client);
  const HttpRequest request = only_request(server);
  EXPECT_EQ(request.target, "/zolReport?key=node-7&token=" + token_of(request.target) + "&type=full&n=1");
}

TEST_F(HQSHttpClientTest, query_args_when_unsigned) {
  // Verifies that the first separator of an unsigned request is a question mark, and that there may be none.
  HttpsServer server;
  const auto client = make_client(false, false);
  ASSERT_TRUE(post(*client, server.url(), body_text, "n=1"));
  run_to_end(*client);
  ASSERT_TRUE(post(*client, server.url()));
  run_to_end(*client);
  ASSERT_THAT(server.requests(), SizeIs(2));
  EXPECT_EQ(server.requests()[0].target, "/zolReport?n=1");
  EXPECT_EQ(server.requests()[1].target, "/zolReport");
}

TEST_F(HQSHttpClientTest, gzip_body) {
  // Verifies that a compressed body is gzip, and that the token still covers the plain one.
  HttpsServer server;
  const auto client = make_client(true);
  const std::string body(5000, 'a');
  const std::uint64_t before = zol::Helper::get_timestamp_ms();
  ASSERT_TRUE(post(*client, server.url(), body));
  run_to_end(*client);
  const HttpRequest request = only_request(server);
  EXPECT_EQ(request.headers.at("content-encoding"), "gzip");
  EXPECT_LT(request.body.size(), 500U);
  EXPECT_EQ(gunzip(request.body), body);
  EXPECT_TRUE(is_token_of(token_of(request.target), body, before));
}

TEST_F(HQSHttpClientTest, body_with_nul) {
  // Verifies that a body is gzipped up to its first NUL, and sent whole without compression.
  HttpsServer server;
  const std::string body("front\0behind", 12);
  const auto client = make_client(true);
  ASSERT_TRUE(post(*client, server.url(), body));
  run_to_end(*client);
  client->compress = false;
  ASSERT_TRUE(post(*client, server.url(), body));
  run_to_end(*client);
  ASSERT_THAT(server.requests(), SizeIs(2));
  EXPECT_EQ(gunzip(server.requests()[0].body), "front");
  EXPECT_EQ(server.requests()[1].body, body);
}

TEST_F(HQSHttpClientTest, gzip_fails) {
  // Verifies that a body that can't be compressed goes out as it is, with a warning.
  HttpsServer server;
  LogCapture log;
  Faults faults;
  faults.no_gzip = true;
  const auto client = make_client(true);
  ASSERT_TRUE(post(*client, server.url()));
  run_to_end(*client);
  const HttpRequest request = only_request(server);
  EXPECT_EQ(request.body, body_text);
  EXPECT_EQ(request.headers.count("content-encoding"), 0U);
  EXPECT_TRUE(log.contains(log_level::warning, "Failed gzipping buffer. Sending as plain text"));
}

TEST_F(HQSHttpClientTest, time_out_is_passed_on) {
  // Verifies that the caller's time-out bounds the transfer.
  HttpsServer server;
  server.answer_with({.kind = HttpAnswer::Kind::hang});
  const auto client = make_client();
  ASSERT_TRUE(client->init_post_request_async_resolver(server.url(), "/zolReport", "", body_text, 1, ""));
  EXPECT_EQ(client->timeout, 1);
  run_to_end(*client);
  EXPECT_EQ(client->response_code, 408);
}

TEST_F(HQSHttpClientTest, client_certificate) {
  // Verifies that the certificate's path reaches the transfer.
  HttpsServer server;
  zol_test::write_certificate("client.pem", "node-7");
  const auto client = make_client();
  ASSERT_TRUE(client->init_post_request_async_resolver(server.url(), "/zolReport", folder_ + "/client.pem",
                                                       body_text, timeout_s, ""));
  run_to_end(*client);
  EXPECT_EQ(only_request(server).client_certificate, "node-7");
}

TEST_F(HQSHttpClientTest, get_request) {
  // Verifies that a GET is not signed and hands over the answer.
  HttpsServer server;
  server.answer_with({.body = "an answer"});
  const auto client = make_client();
  ASSERT_TRUE(client->init_get_request_async_resolver(server.url(), "/list", "", timeout_s));
  run_to_end(*client);
  const HttpRequest request = only_request(server);
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.target, "/list");
  EXPECT_EQ(client->response_body, "an answer");
}

struct SigningFailure {
  const char* name;
  const char* secret;  // libconfig text, nothing to leave it out; "$" is the good one
  const char* id;
  const char* window;
  const char* text;
};

class HQSSigningTest : public HQSHttpClientTest, public testing::WithParamInterface<SigningFailure> {};

TEST_P(HQSSigningTest, nothing_unsigned_goes_out) {
  // Verifies that a request that can't be signed logs why, and nothing is sent.
  const SigningFailure& given = GetParam();
  const std::string secret = std::string(given.secret) == "$" ? "\"" + enciphered_ + "\"" : given.secret;
  config_->set(config_text(secret, given.id, given.window));
  HttpsServer server;
  LogCapture log;
  const auto client = make_client();
  client->report_sent = true;
  EXPECT_TRUE(post(*client, server.url()));
  run_to_end(*client);
  EXPECT_TRUE(log.contains(log_level::error, given.text)) << log.all();
  EXPECT_TRUE(log.contains(log_level::error, "Failed to compute HMAC"));
  EXPECT_TRUE(log.contains(log_level::error, "resolve_complete_cb: HTTP client <"));
  EXPECT_TRUE(log.contains(log_level::error, "> failed sending report"));
  EXPECT_THAT(server.requests(), IsEmpty());
  EXPECT_FALSE(client->report_sent);
  EXPECT_FALSE(client->is_async_running());
}

INSTANTIATE_TEST_SUITE_P(
    HQSHttpClient, HQSSigningTest,
    testing::Values(
        SigningFailure{"no_secret", "", "\"node-7\"", "60000",
                       "get_hmac_params: Couldn't get HMAC secret parameter"},
        SigningFailure{"no_key", "$", "", "60000", "get_hmac_params: Couldn't get HMAC key parameter"},
        SigningFailure{"no_timeout", "$", "\"node-7\"", "",
                       "get_hmac_params: Couldn't get HMAC timeout parameter"},
        SigningFailure{"empty_secret", "\"\"", "\"node-7\"", "60000",
                       "compute_hmac: Not enough parameters for HMAC"},
        SigningFailure{"empty_key", "$", "\"\"", "60000", "compute_hmac: Not enough parameters for HMAC"},
        SigningFailure{"zero_timeout", "$", "\"node-7\"", "0",
                       "compute_hmac: Not enough parameters for HMAC"},
        SigningFailure{"bad_secret", "\"bm90IGEgc2VjcmV0IG9mIG91cnM=\"", "\"node-7\"", "60000",
                       "compute_hmac: Couldn't decode HMAC secret"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(HQSHttpClientTest, settings_are_read_at_each_request) {
  // Verifies that a changed id signs the next request of the same client.
  HttpsServer server;
  const auto client = make_client();
  config_->set(config_text("\"" + enciphered_ + "\"", "\"node-8\"", "60000"));
  ASSERT_TRUE(post(*client, server.url()));
  run_to_end(*client);
  EXPECT_THAT(only_request(server).target, HasSubstr("?key=node-8&token="));
}

}  // namespace
