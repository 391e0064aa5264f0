#include "reporting/hqs_http_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>

#include "dns/resolver.h"
#include "hqs_client_fixture.h"
#include "https_server.h"
#include "own_network.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace {

using testing::IsEmpty;
using testing::SizeIs;
using zol::HQSHttpClient;
using zol_test::body_text;
using zol_test::HQSHttpClientTest;
using zol_test::HttpsServer;
using zol_test::LogCapture;
using zol_test::NameServer;

class HQSLookupTest : public HQSHttpClientTest {
 protected:
  void SetUp() override {
    if (!zol_test::in_own_network())
      GTEST_SKIP() << "needs a network namespace of its own (CAP_SYS_ADMIN)";
    zol::DNSCache::instance()->answers.clear();
    names_ = std::make_unique<NameServer>();
  }
  static std::string url_of(const std::string& host, const HttpsServer& server) {
    return "https://" + host + ":" + std::to_string(server.port());
  }

  std::unique_ptr<NameServer> names_;
};

TEST_F(HQSLookupTest, resolved_name) {
  // Verifies that the request goes to the first address found, under the server's name, and is kept in the
  // file.
  names_->set("hqs.example.com", {"127.0.0.1", "127.0.0.2"});
  HttpsServer server;
  LogCapture log;
  const auto client = make_client();
  ASSERT_TRUE(post(*client, url_of("hqs.example.com", server)));
  EXPECT_NE(client->resolver_context, nullptr);
  EXPECT_TRUE(client->is_async_running());
  EXPECT_TRUE(client->continue_send());
  EXPECT_TRUE(client->is_async_running());
  EXPECT_EQ(client->body, body_text);
  run_to_end(*client);
  EXPECT_EQ(only_request(server).headers.at("host"), "hqs.example.com");
  EXPECT_TRUE(client->report_sent);
  EXPECT_TRUE(log.contains(log_level::debug, "> send DNS request for [hqs.example.com]"));
  EXPECT_TRUE(log.contains("Sending HTTP request to: https://127.0.0.1:"));
  EXPECT_EQ(client->cached_host, "hqs.example.com");
  EXPECT_EQ(client->cached_ip, "127.0.0.1");
  EXPECT_EQ(read_file(persistent_file()), "hqs.example.com 127.0.0.1\n");
}

TEST_F(HQSLookupTest, same_answer_twice) {
  // Verifies that an address that is in the file already is not written again.
  names_->set("hqs.example.com", {"127.0.0.1"});
  HttpsServer server;
  const auto client = make_client();
  ASSERT_TRUE(post(*client, url_of("hqs.example.com", server)));
  run_to_end(*client);
  std::ofstream(persistent_file()) << "touched\n";
  LogCapture log;
  ASSERT_TRUE(post(*client, url_of("hqs.example.com", server)));
  run_to_end(*client);
  EXPECT_TRUE(log.contains(log_level::debug, "Skipping save persistent hosts" + persistent_file()));
  EXPECT_EQ(read_file(persistent_file()), "touched\n");
}

TEST_F(HQSLookupTest, changed_answer) {
  // Verifies that a new address goes behind the old ones in the file, and is the one in use.
  std::ofstream(persistent_file()) << "hqs.example.com 127.0.0.77\n";
  names_->set("hqs.example.com", {"127.0.0.1"});
  HttpsServer server;
  const auto client = make_client();
  EXPECT_EQ(client->cached_ip, "127.0.0.77");
  ASSERT_TRUE(post(*client, url_of("hqs.example.com", server)));
  run_to_end(*client);
  EXPECT_EQ(client->cached_ip, "127.0.0.1");
  EXPECT_EQ(read_file(persistent_file()), "hqs.example.com 127.0.0.77\nhqs.example.com 127.0.0.1\n");
}

TEST_F(HQSLookupTest, failed_lookup_with_cached_address) {
  // Verifies that a failed look-up falls back on the file's address of the same name.
  std::ofstream(persistent_file()) << "gone.example.com 127.0.0.1\n";
  HttpsServer server;
  LogCapture log;
  const auto client = make_client();
  ASSERT_TRUE(post(*client, url_of("gone.example.com", server)));
  run_to_end(*client);
  EXPECT_TRUE(log.contains(log_level::error,
                           "resolve_complete_cb: Failed to Resolve HQS URL. Trying to used cached result"));
  EXPECT_EQ(only_request(server).headers.at("host"), "gone.example.com");
  EXPECT_TRUE(client->report_sent);
}

TEST_F(HQSLookupTest, failed_lookup_without_cached_address) {
  // Verifies that without a good address of that very name the request ends unsent.
  std::ofstream(persistent_file()) << "other.example.com 127.0.0.1\n";
  HttpsServer server;
  LogCapture log;
  const auto client = make_client();
  ASSERT_TRUE(post(*client, url_of("gone.example.com", server)));
  client->report_sent = true;
  run_to_end(*client);
  EXPECT_TRUE(log.contains(log_level::error, "resolve_complete_cb: No cached resolution. giving up"));
  EXPECT_FALSE(client->report_sent);
  EXPECT_FALSE(client->is_async_running());
  EXPECT_THAT(server.requests(), IsEmpty());
}

TEST_F(HQSLookupTest, second_request_during_lookup) {
  // Verifies that a request during a look-up cancels it with a warning, and only the second goes out.
  names_->keep_silent("slow.example.com");
  HttpsServer server;
  LogCapture log;
  const auto client = make_client();
  ASSERT_TRUE(post(*client, url_of("slow.example.com", server), "first"));
  ASSERT_NE(client->resolver_context, nullptr);
  ASSERT_TRUE(post(*client, server.url(), "second"));
  EXPECT_TRUE(
      log.contains(log_level::warning, "Resolver context already initialized. Canceling previous request"));
  EXPECT_EQ(client->resolver_context, nullptr);
  run_to_end(*client);
  EXPECT_EQ(only_request(server).body, "second");
}

TEST_F(HQSLookupTest, cancel_lookup) {
  // Verifies that a look-up can be given up, with the warning.
  names_->keep_silent("slow.example.com");
  LogCapture log;
  const auto client = make_client();
  ASSERT_TRUE(post(*client, "https://slow.example.com:443"));
  client->cancel_http_requests();
  EXPECT_EQ(client->resolver_context, nullptr);
  EXPECT_FALSE(client->is_async_running());
  EXPECT_EQ(log.count("Resolver context already initialized. Canceling previous request"), 1);
  client->cancel_http_requests();
  EXPECT_EQ(log.count("Resolver context already initialized. Canceling previous request"), 1);
}

TEST_F(HQSLookupTest, destroyed_during_lookup) {
  // Verifies that a client may go while its look-up is under way, and that the answer finds nobody.
  names_->set("hqs.example.com", {"127.0.0.1"});
  HttpsServer server;
  auto client = make_client();
  ASSERT_TRUE(post(*client, url_of("hqs.example.com", server)));
  client.reset();
  const auto other = make_client();
  ASSERT_TRUE(post(*other, url_of("hqs.example.com", server), "other"));
  run_to_end(*other);
  EXPECT_EQ(only_request(server).body, "other");
}

TEST_F(HQSLookupTest, unsupported_method) {
  // Verifies that a method that is neither GET nor POST sends nothing.
  names_->set("hqs.example.com", {"127.0.0.1"});
  HttpsServer server;
  LogCapture log;
  const auto client = make_client();
  ASSERT_TRUE(post(*client, url_of("hqs.example.com", server)));
  client->method = HQSHttpClient::method_none;
  run_to_end(*client);
  EXPECT_TRUE(log.contains(log_level::error, "Unsupported HTTP method type: 2"));
  EXPECT_TRUE(log.contains(log_level::error, "> failed sending report"));
  EXPECT_THAT(server.requests(), IsEmpty());
  EXPECT_FALSE(client->report_sent);
}

TEST_F(HQSLookupTest, every_request_asks_again) {
  // Verifies that the second request takes up the answer that the first one left in the resolver's cache.
  names_->set("hqs.example.com", {"127.0.0.1", "127.0.0.1"});
  HttpsServer server;
  LogCapture log;
  const auto client = make_client();
  ASSERT_TRUE(post(*client, url_of("hqs.example.com", server)));
  run_to_end(*client);
  ASSERT_TRUE(post(*client, url_of("hqs.example.com", server)));
  run_to_end(*client);
  EXPECT_THAT(server.requests(), SizeIs(2));
  EXPECT_EQ(log.count("> send DNS request for [hqs.example.com]"), 2);
}

}  // namespace
