#include "reporting/http_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <string>

#include "drive.h"
#include "faults.h"
#include "http_client_calls.h"
#include "https_server.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace {

using testing::Ge;
using testing::Gt;
using testing::IsEmpty;
using testing::SizeIs;
using zol::HttpClient;
using zol_test::drive;
using zol_test::Faults;
using zol_test::get;
using zol_test::HttpAnswer;
using zol_test::HttpRequest;
using zol_test::HttpsServer;
using zol_test::LogCapture;
using zol_test::post;
using zol_test::status;
using zol_test::timeout_s;

std::string pem_file(const std::string& common_name) {
  std::string file = testing::TempDir() + "zol_client_" + std::to_string(getpid()) + ".pem";
  zol_test::write_certificate(file, common_name);
  return file;
}

TEST(HttpClientPostTest, request_as_sent) {
  // Verifies that a POST carries its headers in order, its body whole, and the name in the Host header.
  HttpsServer server;
  LogCapture log;
  HttpClient client(false);
  const std::string url = server.url() + "/zolReport?key=1&token=2";
  const std::string body("{\"a\": 1}\0tail", 13);
  ASSERT_TRUE(client.init_post_request_async(url, "hqs.example.com", "", body, false, timeout_s));
  EXPECT_TRUE(log.contains(log_level::info, "Request full URL: " + url));
  EXPECT_TRUE(log.contains(log_level::info, "Successfully queued HTTP request for sending."));
  ASSERT_TRUE(drive(client));
  ASSERT_THAT(server.requests(), SizeIs(1));
  const HttpRequest request = server.requests()[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/zolReport?key=1&token=2");
  EXPECT_EQ(request.headers.at("host"), "hqs.example.com");
  EXPECT_EQ(request.headers.at("content-type"), "application/json");
  EXPECT_EQ(request.headers.at("content-length"), "13");
  EXPECT_EQ(request.headers.count("content-encoding"), 0U);
  EXPECT_EQ(request.headers.count("date"), 0U);
  EXPECT_EQ(request.headers.count("authorization"), 0U);
  EXPECT_EQ(request.body, body);
}

TEST(HttpClientPostTest, order_of_options) {
  // Verifies that the body's size goes before the body, and that the options follow the order of the
  // contract.
  Faults faults;
  HttpClient client(false);
  faults.options.clear();
  ASSERT_TRUE(client.init_post_request_async("https://127.0.0.1:1/", "h", "/c.pem", "{}", false, 7));
  const CURLoption order[] = {
      CURLOPT_URL,     CURLOPT_POSTFIELDSIZE_LARGE, CURLOPT_COPYPOSTFIELDS, CURLOPT_SSLCERTTYPE,
      CURLOPT_SSLCERT, CURLOPT_SSL_VERIFYPEER,      CURLOPT_TIMEOUT,        CURLOPT_HTTPHEADER};
  for (std::size_t i = 1; i < std::size(order); ++i) {
    EXPECT_GE(faults.place(order[i - 1]), 0) << order[i - 1];
    EXPECT_LT(faults.place(order[i - 1]), faults.place(order[i])) << order[i - 1] << " " << order[i];
  }
  EXPECT_EQ(faults.options[static_cast<std::size_t>(faults.place(CURLOPT_POSTFIELDSIZE_LARGE))].value, 2);
  EXPECT_EQ(faults.options[static_cast<std::size_t>(faults.place(CURLOPT_SSL_VERIFYPEER))].value, 0);
  EXPECT_EQ(faults.options[static_cast<std::size_t>(faults.place(CURLOPT_TIMEOUT))].value, 7);
}

TEST(HttpClientPostTest, compressed_header) {
  // Verifies that a compressed body is announced as gzip.
  HttpsServer server;
  HttpClient client(false);
  ASSERT_TRUE(client.init_post_request_async(server.url(), "h", "", "zipped", true, timeout_s));
  ASSERT_TRUE(drive(client));
  const HttpRequest request = server.requests().at(0);
  EXPECT_EQ(request.headers.at("content-encoding"), "gzip");
  const auto place = [&request](const std::string& line) {
    return std::find(request.header_lines.begin(), request.header_lines.end(), line) -
           request.header_lines.begin();
  };
  EXPECT_LT(place("Host: h"), place("Content-Type: application/json"));
  EXPECT_LT(place("Content-Type: application/json"), place("Content-Encoding: gzip"));
  EXPECT_LT(place("Content-Encoding: gzip"), static_cast<long>(request.header_lines.size()));
}

TEST(HttpClientPostTest, empty_body) {
  // Verifies that a body of 0 bytes still sends the headers, and the request counts as sent.
  HttpsServer server;
  HttpClient client(false);
  ASSERT_TRUE(post(client, server.url(), ""));
  ASSERT_TRUE(drive(client));
  ASSERT_THAT(server.requests(), SizeIs(1));
  EXPECT_EQ(server.requests()[0].method, "POST");
  EXPECT_EQ(server.requests()[0].headers.at("content-length"), "0");
  EXPECT_EQ(server.requests()[0].headers.at("content-type"), "application/json");
  EXPECT_TRUE(client.report_sent);
}

TEST(HttpClientPostTest, large_body) {
  // Verifies that a body of several megabytes arrives unchanged, from the client's own copy.
  HttpsServer server;
  HttpClient client(false);
  std::string body(3000000, 'x');
  for (std::size_t i = 0; i < body.size(); i += 7)
    body[i] = static_cast<char>(i % 251);
  std::string given = body;
  ASSERT_TRUE(post(client, server.url(), given));
  given.assign(given.size(), '-');
  ASSERT_TRUE(drive(client));
  ASSERT_THAT(server.requests(), SizeIs(1));
  EXPECT_TRUE(server.requests()[0].body == body);
}

TEST(HttpClientPostTest, success) {
  // Verifies that status 200 counts as sent, sets the time and reads the figures and addresses.
  HttpsServer server;
  server.answer_with(status(200, "", "0123456789"));
  LogCapture log;
  HttpClient client(false);
  const std::time_t before = std::time(nullptr);
  ASSERT_TRUE(post(client, server.url(), "12345"));
  ASSERT_TRUE(drive(client));
  EXPECT_TRUE(client.report_sent);
  EXPECT_TRUE(client.response_done);
  EXPECT_EQ(client.response_code, 200);
  EXPECT_THAT(client.last_success, Ge(before));
  EXPECT_TRUE(log.contains(log_level::info, "HTTP request completed successfully."));
  EXPECT_EQ(client.primary_ip, "127.0.0.1");
  EXPECT_EQ(client.local_ip, "127.0.0.1");
  EXPECT_THAT(client.total_time, Gt(0.0));
  EXPECT_THAT(client.connect_time, Gt(0.0));
  EXPECT_EQ(client.size_upload, 5.0);
  EXPECT_EQ(client.size_download, 10.0);
  EXPECT_THAT(client.speed_download, Ge(0.0));
  EXPECT_FALSE(client.is_async_running());
  EXPECT_THAT(client.header_lists, IsEmpty());
}

TEST(HttpClientPostTest, answer_is_discarded) {
  // Verifies that the body of an answer goes neither to standard output nor to the response.
  HttpsServer server;
  server.answer_with(status(200, "", "an answer that nobody reads"));
  HttpClient client(false);
  testing::internal::CaptureStdout();
  const bool queued = post(client, server.url());
  const bool driven = drive(client);
  std::fflush(stdout);
  const std::string printed = testing::internal::GetCapturedStdout();
  ASSERT_TRUE(queued && driven);
  EXPECT_THAT(printed, IsEmpty());
  EXPECT_THAT(client.response_body, IsEmpty());
  EXPECT_TRUE(client.report_sent);
}

TEST(HttpClientPostTest, status_500) {
  // Verifies that status 500 isn't counted as sent and logs its warning.
  HttpsServer server;
  server.answer_with(status(500));
  LogCapture log;
  HttpClient client(false);
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  EXPECT_FALSE(client.report_sent);
  EXPECT_TRUE(client.response_done);
  EXPECT_EQ(client.response_code, 500);
  EXPECT_EQ(client.last_success, 0);
  EXPECT_TRUE(log.contains(log_level::warning, "HTTP reponse error: 500"));
}

TEST(HttpClientPostTest, only_200_is_sent) {
  // Verifies that another status of success is an error too.
  HttpsServer server;
  server.answer_with(status(204));
  LogCapture log;
  HttpClient client(false);
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  EXPECT_FALSE(client.report_sent);
  EXPECT_TRUE(log.contains(log_level::warning, "HTTP reponse error: 204"));
}

TEST(HttpClientPostTest, status_304) {
  // Verifies that status 304 isn't counted as sent, without a warning.
  HttpsServer server;
  server.answer_with(status(304));
  LogCapture log;
  HttpClient client(false);
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  EXPECT_FALSE(client.report_sent);
  EXPECT_TRUE(client.response_done);
  EXPECT_EQ(client.response_code, 304);
  EXPECT_TRUE(log.contains(log_level::info, "HTTP request completed successfully, but there was no update"));
  for (const auto& record : log.records())
    EXPECT_GT(record.level, log_level::warning) << record.text;
}

TEST(HttpClientPostTest, failure_after_success) {
  // Verifies that a request that fails isn't taken for sent because an earlier one was.
  HttpsServer server;
  server.answer_with(status(200));
  server.answer_with(status(500));
  HttpClient client(false);
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  ASSERT_TRUE(client.report_sent);
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  EXPECT_FALSE(client.report_sent);
}

TEST(HttpClientPostTest, refused) {
  // Verifies that a refused connection gives code 503 without an exchange.
  LogCapture log;
  HttpClient client(false);
  ASSERT_TRUE(post(client, "https://127.0.0.1:" + std::to_string(zol_test::unused_port())));
  ASSERT_TRUE(drive(client));
  EXPECT_EQ(client.response_code, 503);
  EXPECT_FALSE(client.response_done);
  EXPECT_FALSE(client.report_sent);
  EXPECT_THAT(client.primary_ip, IsEmpty());
  EXPECT_TRUE(log.contains(log_level::warning, "Server replied with reset."));
}

TEST(HttpClientPostTest, time_out) {
  // Verifies that a silent server gives code 408 at the end of the time-out.
  HttpsServer server;
  server.answer_with({.kind = HttpAnswer::Kind::hang});
  LogCapture log;
  HttpClient client(false);
  ASSERT_TRUE(client.init_post_request_async(server.url(), "h", "", "{}", false, 1));
  ASSERT_TRUE(drive(client));
  EXPECT_EQ(client.response_code, 408);
  EXPECT_FALSE(client.response_done);
  EXPECT_FALSE(client.report_sent);
  EXPECT_TRUE(log.contains(log_level::warning, "HTTP request timeout."));
}

TEST(HttpClientPostTest, broken_connection) {
  // Verifies that a connection that breaks is logged with libcurl's code and text.
  HttpsServer server(HttpsServer::Transport::plain);
  server.answer_with({.kind = HttpAnswer::Kind::reset});
  LogCapture log;
  HttpClient client(false);
  ASSERT_TRUE(post(client, server.url()));
  ASSERT_TRUE(drive(client));
  EXPECT_FALSE(client.report_sent);
  EXPECT_FALSE(client.response_done);
  EXPECT_TRUE(log.contains(
      log_level::warning, "HTTP request failed. Status code: 56 (Failure when receiving data from the peer)"))
      << log.all();
}

TEST(HttpClientPostTest, client_certificate) {
  // Verifies that a configured client certificate is shown, and no longer when the next request has none.
  HttpsServer server;
  HttpClient client(false);
  const std::string file = pem_file("node-7");
  ASSERT_TRUE(client.init_post_request_async(server.url(), "h", file, "{}", false, timeout_s));
  ASSERT_TRUE(drive(client));
  ASSERT_TRUE(client.init_post_request_async(server.url(), "h", "", "{}", false, timeout_s));
  ASSERT_TRUE(drive(client));
  unlink(file.c_str());
  ASSERT_THAT(server.requests(), SizeIs(2));
  EXPECT_EQ(server.requests()[0].client_certificate, "node-7");
  EXPECT_EQ(server.requests()[1].client_certificate, "");
}

TEST(HttpClientPostTest, missing_certificate_file) {
  // Verifies that a certificate file that isn't there fails the transfer, not the process.
  HttpsServer server;
  LogCapture log;
  HttpClient client(false);
  ASSERT_TRUE(client.init_post_request_async(server.url(), "h", "/nonexistent.pem", "{}", false, timeout_s));
  ASSERT_TRUE(drive(client));
  EXPECT_FALSE(client.report_sent);
  EXPECT_TRUE(log.contains(log_level::warning, "HTTP request failed. Status code: 58 ("));
}

TEST(HttpClientPostTest, second_request_is_refused) {
  // Verifies that a request on a queued handle is refused and leaves the first one untouched.
  HttpsServer server;
  LogCapture log;
  HttpClient client(false);
  ASSERT_TRUE(post(client, server.url() + "/first", "first"));
  EXPECT_FALSE(client.is_async_running());  // not before the first step
  EXPECT_FALSE(post(client, server.url() + "/second", "second"));
  EXPECT_TRUE(log.contains(log_level::error, "Failed adding multi-handle: 7"));
  EXPECT_FALSE(get(client, server.url() + "/third"));
  ASSERT_TRUE(drive(client));
  ASSERT_THAT(server.requests(), SizeIs(1));
  EXPECT_EQ(server.requests()[0].target, "/first");
  EXPECT_EQ(server.requests()[0].body, "first");
  EXPECT_TRUE(client.report_sent);
}

TEST(HttpClientPostTest, running_flag) {
  // Verifies that the flag is set by the first step, and falls with the end of the transfer.
  HttpsServer server;
  LogCapture log;
  HttpClient client(false);
  ASSERT_TRUE(post(client, server.url()));
  EXPECT_THAT(client.header_lists, SizeIs(1));
  EXPECT_FALSE(client.is_async_running());
  ASSERT_TRUE(client.continue_send());
  EXPECT_TRUE(client.is_async_running());
  EXPECT_TRUE(log.contains(log_level::trace, "curl_multi_perform: num_running_req:1"));
  ASSERT_TRUE(drive(client));
  EXPECT_FALSE(client.is_async_running());
  EXPECT_TRUE(log.contains(log_level::trace, "curl_multi_perform: num_running_req:0"));
}

TEST(HttpClientPostTest, cleaned_request) {
  // Verifies that a cleaned request doesn't go out, and that the client takes the next one.
  HttpsServer server;
  HttpClient client(false);
  ASSERT_TRUE(post(client, server.url() + "/first"));
  ASSERT_TRUE(client.continue_send());
  client.clean_http_requests();
  EXPECT_FALSE(client.is_async_running());
  EXPECT_THAT(client.header_lists, IsEmpty());
  ASSERT_TRUE(post(client, server.url() + "/second"));
  ASSERT_TRUE(drive(client));
  ASSERT_THAT(server.requests(), SizeIs(1));
  EXPECT_EQ(server.requests()[0].target, "/second");
}

TEST(HttpClientPostTest, destroyed_in_transfer) {
  // Verifies that a client may go while its request is under way.
  HttpsServer server;
  server.answer_with({.kind = HttpAnswer::Kind::hang});
  {
    HttpClient client(false);
    ASSERT_TRUE(post(client, server.url()));
    while (server.requests().empty()) {
      ASSERT_TRUE(client.continue_send());
      curl_multi_poll(client.multi.get(), nullptr, 0, 20, nullptr);
    }
    ASSERT_TRUE(client.continue_send());
    ASSERT_TRUE(client.is_async_running());
  }
  HttpClient other(false);
  ASSERT_TRUE(get(other, server.url()));
  ASSERT_TRUE(drive(other));
  EXPECT_TRUE(other.report_sent);
}

}  // namespace
