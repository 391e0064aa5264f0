#include "reporting/http_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "drive.h"
#include "http_client_calls.h"
#include "https_server.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using zol::HttpClient;
using zol_test::drive;
using zol_test::get;
using zol_test::HttpRequest;
using zol_test::HttpsServer;
using zol_test::LogCapture;
using zol_test::post;
using zol_test::status;
using zol_test::timeout_s;

TEST(HttpClientGetTest, body_is_received) {
  // Verifies that a GET hands over the body of the answer, and forgets that of the last one.
  HttpsServer server;
  server.answer_with(status(200, "", "first answer"));
  server.answer_with(status(200, "", "second"));
  LogCapture log;
  HttpClient client(false);
  ASSERT_TRUE(get(client, server.url() + "/list?x=1"));
  EXPECT_TRUE(log.contains(log_level::info, "Successfully queued HTTP GET request."));
  ASSERT_TRUE(drive(client));
  EXPECT_EQ(client.response_body, "first answer");
  ASSERT_TRUE(get(client, server.url()));
  EXPECT_THAT(client.response_body, IsEmpty());
  ASSERT_TRUE(drive(client));
  EXPECT_EQ(client.response_body, "second");
  const HttpRequest request = server.requests().at(0);
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.target, "/list?x=1");
  EXPECT_EQ(request.headers.at("host"), "hqs.example.com");
  EXPECT_EQ(request.headers.count("content-type"), 0U);
  EXPECT_EQ(request.headers.count("if-modified-since"), 0U);
}

TEST(HttpClientGetTest, date_and_authorization) {
  // Verifies that date and authorization follow the Host header, in this order.
  HttpsServer server;
  HttpClient client(false);
  ASSERT_TRUE(client.init_get_request_async(server.url(), "h", "", "Sat, 21 Nov 2026 08:00:00 GMT", "AWS x:y",
                                            false, timeout_s, false));
  ASSERT_TRUE(drive(client));
  const HttpRequest request = server.requests().at(0);
  std::vector<std::string> own;
  for (const std::string& line : request.header_lines) {
    if (!line.starts_with("Accept"))
      own.push_back(line);
  }
  EXPECT_THAT(own, ElementsAre("Host: h", "Date: Sat, 21 Nov 2026 08:00:00 GMT", "Authorization: AWS x:y"));
}

TEST(HttpClientGetTest, head_only) {
  // Verifies that a head-only request is a HEAD, and hands over the header lines.
  HttpsServer server;
  server.answer_with(status(200, "X-Mark: yes\r\n", "body"));
  HttpClient client(false);
  ASSERT_TRUE(client.init_get_request_async(server.url(), "h", "", "", "", true, timeout_s, false));
  ASSERT_TRUE(drive(client));
  EXPECT_EQ(server.requests().at(0).method, "HEAD");
  EXPECT_THAT(client.response_body, AllOf(HasSubstr("HTTP/1.1 200"), HasSubstr("X-Mark: yes")));
}

TEST(HttpClientGetTest, post_after_get) {
  // Verifies that nothing of a HEAD, with its redirections and header lines, is left in a POST, and back.
  HttpsServer server;
  server.answer_with(status(200));
  server.answer_with(status(302, "Location: /elsewhere\r\nLast-Modified: tomorrow\r\n", "moved"));
  server.answer_with(status(200, "", "a body"));
  HttpClient client(false);
  ASSERT_TRUE(client.init_get_request_async(server.url(), "h", "", "", "", true, timeout_s, true));
  ASSERT_TRUE(drive(client));
  ASSERT_TRUE(post(client, server.url(), "report"));
  ASSERT_TRUE(drive(client));
  EXPECT_EQ(client.response_code, 302);
  EXPECT_THAT(client.last_modified, IsEmpty());
  ASSERT_TRUE(get(client, server.url()));
  ASSERT_TRUE(drive(client));
  const std::vector<HttpRequest> requests = server.requests();
  ASSERT_THAT(requests, SizeIs(3));
  EXPECT_EQ(requests[0].method, "HEAD");
  EXPECT_EQ(requests[1].method, "POST");
  EXPECT_EQ(requests[1].body, "report");
  EXPECT_EQ(requests[2].method, "GET");
  EXPECT_EQ(requests[2].body, "");
  EXPECT_EQ(client.response_body, "a body");
}

TEST(HttpClientGetTest, redirection) {
  // Verifies that a GET follows a redirection.
  HttpsServer server;
  server.answer_with(status(302, "Location: " + server.url() + "/there\r\n"));
  server.answer_with(status(200, "", "there"));
  HttpClient client(false);
  ASSERT_TRUE(get(client, server.url() + "/here"));
  ASSERT_TRUE(drive(client));
  EXPECT_EQ(client.response_code, 200);
  EXPECT_EQ(client.response_body, "there");
  EXPECT_EQ(server.requests().at(1).target, "/there");
}

TEST(HttpClientGetTest, if_modified_since) {
  // Verifies that the date of the last answer is asked for again, and that a 304 keeps it.
  const std::string date = "Fri, 20 Nov 2026 10:00:00 GMT";
  HttpsServer server;
  server.answer_with(status(200, "Last-Modified: " + date + "\r\n"));
  server.answer_with(status(304));
  LogCapture log;
  HttpClient client(false);
  ASSERT_TRUE(get(client, server.url(), true));
  ASSERT_TRUE(drive(client));
  EXPECT_EQ(client.last_modified, date);
  EXPECT_TRUE(log.contains(log_level::trace, "Received header: Last-Modified: " + date));
  EXPECT_FALSE(log.contains("\r"));
  ASSERT_TRUE(get(client, server.url(), true));
  ASSERT_TRUE(drive(client));
  EXPECT_EQ(client.response_code, 304);
  EXPECT_EQ(client.last_modified, date);
  const std::vector<HttpRequest> requests = server.requests();
  ASSERT_THAT(requests, SizeIs(2));
  EXPECT_EQ(requests[0].headers.count("if-modified-since"), 0U);
  EXPECT_EQ(requests[1].headers.at("if-modified-since"), date);
}

TEST(HttpClientGetTest, without_if_modified_since) {
  // Verifies that a plain GET neither keeps nor sends the date.
  HttpsServer server;
  server.answer_with(status(200, "Last-Modified: yesterday\r\n"));
  HttpClient client(false);
  ASSERT_TRUE(get(client, server.url(), false));
  ASSERT_TRUE(drive(client));
  EXPECT_THAT(client.last_modified, IsEmpty());
}

}  // namespace
