#include "zol_proxy/http_scanner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using standin::HttpPending;
using standin::HttpRequest;
using standin::HttpScanner;
using testing::ElementsAre;
using testing::IsEmpty;

struct HttpScannerTest : testing::Test {
  void ask(const std::string& bytes) { requests.feed(bytes.data(), bytes.size()); }
  void answer(const std::string& bytes) { responses.feed(bytes.data(), bytes.size()); }

  std::vector<std::string> methods;
  std::vector<std::string> hosts;
  std::vector<std::string> agents;
  std::vector<int> statuses;
  HttpPending pending;
  HttpScanner requests{pending, [this](const HttpRequest& request) {
                         methods.push_back(request.method);
                         hosts.push_back(request.host);
                         agents.push_back(request.user_agent);
                       }};
  HttpScanner responses{pending, [this](int status) { statuses.push_back(status); }};
};

// Verifies that method, host and user agent of a request are found, the host folded and without its port.
TEST_F(HttpScannerTest, Request) {
  ask("GET / HTTP/1.1\r\nHost: WWW.Example.test:8001\r\nUser-Agent: probe/1 (x)\r\n\r\n");
  EXPECT_THAT(methods, ElementsAre("GET"));
  EXPECT_THAT(hosts, ElementsAre("www.example.test"));
  EXPECT_THAT(agents, ElementsAre("probe/1 (x)"));
}

// Verifies that a message is found whatever the pieces in which its bytes come.
TEST_F(HttpScannerTest, ByteByByte) {
  const std::string text =
      "POST /a HTTP/1.1\r\nHost: a.test\r\nContent-Length: 3\r\n\r\nxyzGET /b HTTP/1.1\r\n\r\n";
  for (const char byte : text)
    ask(std::string(1, byte));
  EXPECT_THAT(methods, ElementsAre("POST", "GET"));
}

// Verifies that a body that looks like a message isn't taken for one.
TEST_F(HttpScannerTest, BodyIsSkipped) {
  ask("POST / HTTP/1.1\r\nContent-Length: 18\r\n\r\nGET / HTTP/1.1\r\n\r\nPUT / HTTP/1.1\r\n\r\n");
  EXPECT_THAT(methods, ElementsAre("POST", "PUT"));
}

// Verifies that a chunked body with extensions and a trailer is skipped to its end.
TEST_F(HttpScannerTest, ChunkedBody) {
  ask("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
  ask("5;x=y\r\nGET /\r\nA\r\n0123456789\r\n0\r\nTrailer: 1\r\n\r\nDELETE / HTTP/1.1\r\n\r\n");
  EXPECT_THAT(methods, ElementsAre("POST", "DELETE"));
}

// Verifies that a chunk size that is no number ends the scan.
TEST_F(HttpScannerTest, BrokenChunk) {
  ask("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n");
  EXPECT_TRUE(requests.is_off());
}

// Verifies that responses are found one after the other, interim ones left out.
TEST_F(HttpScannerTest, Responses) {
  answer("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nokHTTP/1.1 404 No\r\n");
  answer("Content-Length: 0\r\n\r\nHTTP/1.1 503 No\r\nContent-Length: 0\r\n\r\n");
  EXPECT_THAT(statuses, ElementsAre(200, 404, 503));
}

// Verifies that the answer to HEAD has no body, whatever its length says.
TEST_F(HttpScannerTest, AnswerToHead) {
  ask("HEAD / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
  answer("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nHTTP/1.1 301 Moved\r\nContent-Length: 0\r\n\r\n");
  EXPECT_THAT(statuses, ElementsAre(200, 301));
}

// Verifies that 204 and 304 have no body.
TEST_F(HttpScannerTest, BodilessStatus) {
  answer("HTTP/1.1 204 None\r\n\r\nHTTP/1.1 304 Same\r\nContent-Length: 9\r\n\r\nHTTP/1.1 500 No\r\n\r\n");
  EXPECT_THAT(statuses, ElementsAre(204, 304, 500));
}

// Verifies that an answer without a length goes on to the end of the connection.
TEST_F(HttpScannerTest, AnswerToTheEnd) {
  answer("HTTP/1.0 200 OK\r\n\r\nHTTP/1.1 200 OK\r\n\r\n");
  EXPECT_THAT(statuses, ElementsAre(200));
}

// Verifies that bytes of another protocol switch the scanner off at once.
TEST_F(HttpScannerTest, NoHttp) {
  ask("\x16\x03\x01");
  EXPECT_TRUE(requests.is_off());
  answer("SSH-2.0");
  EXPECT_TRUE(responses.is_off());
  EXPECT_THAT(methods, IsEmpty());
}

// Verifies that a line that only begins like a request isn't one.
TEST_F(HttpScannerTest, RequestOfNoVersion) {
  ask("HELO example.test\r\n");
  EXPECT_TRUE(requests.is_off());
  EXPECT_THAT(methods, IsEmpty());
}

// Verifies that a head without an end isn't collected for ever.
TEST_F(HttpScannerTest, EndlessHead) {
  ask("GET / HTTP/1.1\r\n");
  for (int i = 0; i < 70; ++i)
    ask("X: " + std::string(1000, 'x') + "\r\n");
  EXPECT_TRUE(requests.is_off());
}

// Verifies that a tunnel's bytes aren't scanned.
TEST_F(HttpScannerTest, Tunnel) {
  ask("CONNECT a.test:443 HTTP/1.1\r\nHost: a.test:443\r\n\r\n");
  answer("HTTP/1.1 200 OK\r\n\r\n");
  EXPECT_THAT(methods, ElementsAre("CONNECT"));
  EXPECT_THAT(statuses, ElementsAre(200));
  EXPECT_TRUE(requests.is_off());
  EXPECT_TRUE(responses.is_off());
}

// Verifies that an address literal in brackets keeps its colons and loses its port.
TEST_F(HttpScannerTest, HostInBrackets) {
  ask("GET / HTTP/1.1\r\nHost: [2001:db8::1]:80\r\n\r\nGET / HTTP/1.1\r\nHost: [2001:db8::2]\r\n\r\n");
  EXPECT_THAT(hosts, ElementsAre("[2001:db8::1]", "[2001:db8::2]"));
}

}  // namespace
