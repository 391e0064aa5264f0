#include "reporting/http_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "drive.h"
#include "faults.h"
#include "http_client_calls.h"
#include "https_server.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace {

using testing::IsEmpty;
using testing::SizeIs;
using zol::HttpClient;
using zol_test::BoundClient;
using zol_test::drive;
using zol_test::Faults;
using zol_test::get;
using zol_test::HttpsServer;
using zol_test::LogCapture;
using zol_test::post;

TEST(HttpClientTest, start_state) {
  // Verifies that a new client is idle, holds no figures and receives into its own string.
  HttpClient client(false);
  EXPECT_FALSE(client.is_async_running());
  EXPECT_FALSE(client.report_sent);
  EXPECT_FALSE(client.response_done);
  EXPECT_EQ(client.last_success, 0);
  EXPECT_EQ(client.response_code, 0);
  EXPECT_EQ(client.response, &client.response_body);
  EXPECT_EQ(client.write_data, &client.response_body);
  EXPECT_THAT(client.bind_interface_value, IsEmpty());
  EXPECT_TRUE(client.continue_send());
}

TEST(HttpClientTest, options_set_once) {
  // Verifies that the constructor sets its five options, in order, and forbids the re-use of connections.
  Faults faults;
  HttpClient client(false);
  ASSERT_THAT(faults.options, SizeIs(5));
  EXPECT_EQ(faults.options[0].option, CURLOPT_SOCKOPTFUNCTION);
  EXPECT_EQ(faults.options[1].option, CURLOPT_SOCKOPTDATA);
  EXPECT_EQ(faults.options[2].option, CURLOPT_FORBID_REUSE);
  EXPECT_EQ(faults.options[2].value, 1);
  EXPECT_EQ(faults.options[3].option, CURLOPT_SSL_VERIFYHOST);
  EXPECT_EQ(faults.options[3].value, 0);
  EXPECT_EQ(faults.options[4].option, CURLOPT_BUFFERSIZE);
  EXPECT_EQ(faults.options[4].value, 524288);
}

TEST(HttpClientTest, connection_reuse) {
  // Verifies that a client with re-use says so and sends its second request over the first connection.
  HttpsServer server;
  server.answer_with({.keep_alive = true});
  LogCapture log;
  Faults faults;
  HttpClient client(true);
  EXPECT_EQ(faults.options[2].value, 0);
  EXPECT_TRUE(log.contains(log_level::info, "Connection re-use enabled."));
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  ASSERT_THAT(server.requests(), SizeIs(2));
  EXPECT_EQ(server.requests()[1].connection, 1);
}

TEST(HttpClientTest, no_connection_reuse) {
  // Verifies that a client without re-use opens a connection for each request and logs nothing of re-use.
  HttpsServer server;
  server.answer_with({.keep_alive = true});
  LogCapture log;
  HttpClient client(false);
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  ASSERT_THAT(server.requests(), SizeIs(2));
  EXPECT_EQ(server.requests()[1].connection, 2);
  EXPECT_FALSE(log.contains("re-use"));
}

TEST(HttpClientTest, no_multi_handle) {
  // Verifies that a missing multi handle ends the construction with its text.
  Faults faults;
  faults.no_multi_handle = true;
  try {
    HttpClient client(false);
    FAIL();
  } catch (const std::runtime_error& failure) {
    EXPECT_STREQ(failure.what(), "ERROR Fail to create m_curl multi handle for post method");
  }
}

TEST(HttpClientTest, no_easy_handle) {
  // Verifies that a missing easy handle ends the construction with its text.
  Faults faults;
  faults.no_easy_handle = true;
  try {
    HttpClient client(false);
    FAIL();
  } catch (const std::runtime_error& failure) {
    EXPECT_STREQ(failure.what(), "ERROR Fail to create m_curl handle for post method");
  }
}

TEST(HttpClientSocketTest, bind_interface_of_get) {
  // Verifies that the interface of a GET is used by it, and not by the POST that follows.
  HttpsServer server;
  HttpClient client(false);
  client.bind_interface_value = "127.0.0.5";
  ASSERT_TRUE(get(client, server.url()));
  ASSERT_TRUE(drive(client));
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  EXPECT_EQ(server.requests().at(0).peer_address, "127.0.0.5");
  EXPECT_EQ(server.requests().at(1).peer_address, "127.0.0.1");
}

TEST(HttpClientSocketTest, bind_interface_of_all) {
  // Verifies that the interface of a derived class is used by both kinds of requests.
  HttpsServer server;
  BoundClient client;
  client.bind_interface = "127.0.0.6";
  ASSERT_TRUE(get(client, server.url()));
  ASSERT_TRUE(drive(client));
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  EXPECT_EQ(server.requests().at(0).peer_address, "127.0.0.6");
  EXPECT_EQ(server.requests().at(1).peer_address, "127.0.0.6");
}

TEST(HttpClientSocketTest, sockopt_function) {
  // Verifies that each new socket is shown to the derived class, which may refuse it.
  HttpsServer server;
  BoundClient client;
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  EXPECT_EQ(client.sockopt_calls, 1);
  EXPECT_GE(client.sockopt_fd, 0);
  EXPECT_TRUE(client.report_sent);
  client.sockopt_result = CURL_SOCKOPT_ERROR;
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  EXPECT_FALSE(client.report_sent);
}

}  // namespace
