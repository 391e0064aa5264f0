#include "reporting/hqs_http_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>

#include "dns/resolver.h"
#include "hqs_client_fixture.h"
#include "https_server.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace {

using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;
using zol::HQSHttpClient;
using zol_test::HQSHttpClientTest;
using zol_test::HttpsServer;
using zol_test::LogCapture;
using zol_test::timeout_s;

TEST_F(HQSHttpClientTest, parameters) {
  // Verifies that all reports and events sign with the same three settings.
  EXPECT_THAT(zol::hqs_hmac_parameters(),
              UnorderedElementsAre(Pair("secret", "Monitoring.hmac_secret"), Pair("key", "General.zol_id"),
                                   Pair("timeout", "Monitoring.hmac_timeout")));
}

TEST_F(HQSHttpClientTest, start_state) {
  // Verifies that a new client has no method, no look-up and no good address, and its own resolver.
  const auto client = make_client(true);
  EXPECT_EQ(client->method, 2);
  EXPECT_EQ(client->resolver_context, nullptr);
  EXPECT_FALSE(client->is_async_running());
  EXPECT_THAT(client->cached_host, IsEmpty());
  EXPECT_THAT(client->cached_ip, IsEmpty());
  EXPECT_TRUE(client->compress);
  EXPECT_TRUE(client->hmac);
  EXPECT_TRUE(client->resolver->cache_enabled);
  EXPECT_EQ(client->resolver->retries, 2);
  EXPECT_EQ(client->resolver->timeout_ms, 3000U);
  EXPECT_EQ(client->resolver->max_ttl_sec, 0U);
  EXPECT_EQ(client->secret_key, "Monitoring.hmac_secret");
  EXPECT_EQ(client->key_key, "General.zol_id");
  EXPECT_EQ(client->timeout_key, "Monitoring.hmac_timeout");
}

TEST_F(HQSHttpClientTest, missing_parameter_names) {
  // Verifies that signing without a name for each parameter is refused, and that without signing none is
  // needed.
  for (const char* missing : {"secret", "key", "timeout"}) {
    auto names = zol::hqs_hmac_parameters();
    names[missing] = "";
    try {
      HQSHttpClient client(names, false, &config_->configurator(), true, false);
      FAIL() << missing;
    } catch (const std::runtime_error& failure) {
      EXPECT_STREQ(failure.what(), "ERROR Missing parameters names for HMAC");
    }
    names.erase(missing);
    EXPECT_THROW(HQSHttpClient(names, false, &config_->configurator(), true, false), std::runtime_error);
    EXPECT_NO_THROW(HQSHttpClient(names, false, &config_->configurator(), false, false));
  }
  const HQSHttpClient unsigned_client(true, &config_->configurator());
  EXPECT_FALSE(unsigned_client.hmac);
  EXPECT_TRUE(unsigned_client.compress);
  EXPECT_FALSE(unsigned_client.if_modified_since);
}

TEST_F(HQSHttpClientTest, cached_host_from_file) {
  // Verifies that the first address of the file's first host is the last good resolution at start.
  std::ofstream(persistent_file()) << "z.example 192.0.2.9\nb.example 192.0.2.2\nb.example 192.0.2.1\n";
  const auto client = make_client();
  EXPECT_EQ(client->cached_host, "b.example");
  EXPECT_EQ(client->cached_ip, "192.0.2.2");
}

struct UrlCase {
  const char* url;
  const char* scheme;
  const char* host;
  const char* port;
};

class HQSUrlTest : public HQSHttpClientTest, public testing::WithParamInterface<UrlCase> {};

TEST_P(HQSUrlTest, parts) {
  // Verifies that a URL is cut by plain search.
  LogCapture log;
  const auto client = make_client();
  EXPECT_TRUE(post(*client, GetParam().url));
  EXPECT_EQ(client->scheme, GetParam().scheme);
  EXPECT_EQ(client->host, GetParam().host);
  EXPECT_EQ(client->port, GetParam().port);
  client->cancel_http_requests();
}

INSTANTIATE_TEST_SUITE_P(HQSHttpClient, HQSUrlTest,
                         testing::Values(UrlCase{"https://127.0.0.1:8443", "https", "127.0.0.1", "8443"},
                                         UrlCase{"http://127.0.0.1:80", "http", "127.0.0.1", "80"},
                                         UrlCase{"https://127.0.0.1", "https", "127.0.0.1", "127.0.0.1"},
                                         UrlCase{"https://127.0.0.1:", "https", "127.0.0.1", ""}));

class HQSBadUrlTest : public HQSHttpClientTest, public testing::WithParamInterface<const char*> {};

TEST_P(HQSBadUrlTest, refused) {
  // Verifies that a URL without a scheme or a host is refused with both lines, and nothing is looked up.
  LogCapture log;
  const auto client = make_client();
  client->report_sent = true;
  EXPECT_FALSE(post(*client, GetParam()));
  EXPECT_TRUE(log.contains(log_level::error, "read_url: Failed parsing HQS URL"));
  EXPECT_TRUE(log.contains(log_level::error,
                           "init_http_request_async_resolver: Couldn't find available HQS receiver URL"));
  EXPECT_FALSE(log.contains("send DNS request"));
  EXPECT_FALSE(client->is_async_running());
  EXPECT_FALSE(client->report_sent);
}

INSTANTIATE_TEST_SUITE_P(HQSHttpClient, HQSBadUrlTest,
                         testing::Values("", "hqs.example.com", "//hqs.example.com", "https:", "https://",
                                         "https:hqs.example.com:443", "https://:443"));

TEST_F(HQSHttpClientTest, url_without_port) {
  // Verifies that a URL without a port makes a request that fails, and no crash.
  LogCapture log;
  const auto client = make_client();
  EXPECT_TRUE(post(*client, "https://127.0.0.1"));
  EXPECT_TRUE(log.contains("Sending HTTP request to: https://127.0.0.1:127.0.0.1/zolReport"));
  run_to_end(*client);
  EXPECT_FALSE(client->report_sent);
}

TEST_F(HQSHttpClientTest, second_request_in_transfer) {
  // Verifies that a request during a transfer is refused with the notice, and the first is not touched.
  HttpsServer server;
  LogCapture log;
  const auto client = make_client();
  ASSERT_TRUE(post(*client, server.url(), "first"));
  ASSERT_TRUE(client->continue_send());
  ASSERT_TRUE(client->is_async_running());
  EXPECT_FALSE(
      client->init_post_request_async_resolver("https://127.0.0.9:9", "/other", "", "second", 1, ""));
  EXPECT_TRUE(
      log.contains(log_level::notice, "Request ignored since previous HTTP request is not completed yet"));
  EXPECT_EQ(client->path, "/zolReport");
  EXPECT_EQ(client->timeout, timeout_s);
  run_to_end(*client);
  EXPECT_EQ(only_request(server).body, "first");
  EXPECT_TRUE(client->report_sent);
}

TEST_F(HQSHttpClientTest, cancel_transfer) {
  // Verifies that a transfer can be given up, without a warning, and the next request goes out.
  HttpsServer server;
  LogCapture log;
  const auto client = make_client();
  ASSERT_TRUE(post(*client, server.url(), "first"));
  ASSERT_TRUE(client->continue_send());
  client->cancel_http_requests();
  EXPECT_FALSE(client->is_async_running());
  EXPECT_FALSE(log.contains("Canceling previous request"));
  ASSERT_TRUE(post(*client, server.url(), "second"));
  run_to_end(*client);
  EXPECT_EQ(only_request(server).body, "second");
}

TEST_F(HQSHttpClientTest, failure_after_success) {
  // Verifies that an earlier success doesn't make a failed request count as sent.
  HttpsServer server;
  server.answer_with({.status = 200});
  server.answer_with({.status = 500});
  const auto client = make_client();
  ASSERT_TRUE(post(*client, server.url()));
  run_to_end(*client);
  ASSERT_TRUE(client->report_sent);
  const std::time_t success = client->last_success;
  ASSERT_TRUE(post(*client, server.url()));
  run_to_end(*client);
  EXPECT_FALSE(client->report_sent);
  EXPECT_EQ(client->last_success, success);
}

}  // namespace
