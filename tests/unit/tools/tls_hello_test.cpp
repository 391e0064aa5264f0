#include "zol_proxy/tls_hello.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using standin::TlsHello;

std::string number(std::size_t value, int width) {
  std::string bytes;
  for (int shift = (width - 1) * 8; shift >= 0; shift -= 8)
    bytes += static_cast<char>(value >> shift & 255);
  return bytes;
}

std::string vector(const std::string& bytes, int width) {
  return number(bytes.size(), width) + bytes;
}

std::string extension(std::size_t kind, const std::string& body) {
  return number(kind, 2) + vector(body, 2);
}

std::string server_name(const std::string& name) {
  return extension(0, vector(std::string(1, '\0') + vector(name, 2), 2));
}

std::string handshake(const std::string& extensions) {
  const std::string body = std::string("\x03\x03", 2) + std::string(32, 'r') +  // version, random
                           vector("session", 1) +                               // session id
                           vector(std::string("\x13\x01", 2), 2) +              // cipher suites
                           vector(std::string(1, '\0'), 1) +                    // compression methods
                           vector(extensions, 2);
  return "\x01" + vector(body, 3);
}

std::string record(const std::string& payload) {
  return std::string("\x16\x03\x01", 3) + vector(payload, 2);
}

// Verifies that the server name is found behind another extension, folded to lower case.
TEST(TlsHelloTest, ServerName) {
  TlsHello hello;
  const std::string bytes = record(handshake(extension(10, "abcd") + server_name("WWW.Example.test")));
  EXPECT_EQ(hello.feed(bytes.data(), bytes.size()), TlsHello::State::found);
  EXPECT_EQ(hello.server_name(), "www.example.test");
}

// Verifies that the name is found whatever the pieces in which the bytes come, and not before they are whole.
TEST(TlsHelloTest, ByteByByte) {
  TlsHello hello;
  const std::string bytes = record(handshake(server_name("a.test")));
  for (std::size_t i = 0; i + 1 < bytes.size(); ++i)
    ASSERT_EQ(hello.feed(&bytes[i], 1), TlsHello::State::needs_more) << i;
  EXPECT_EQ(hello.feed(&bytes.back(), 1), TlsHello::State::found);
}

// Verifies that a message that spans two records is put together.
TEST(TlsHelloTest, TwoRecords) {
  TlsHello hello;
  const std::string message = handshake(server_name("two.test"));
  const std::string bytes = record(message.substr(0, 20)) + record(message.substr(20));
  EXPECT_EQ(hello.feed(bytes.data(), bytes.size()), TlsHello::State::found);
  EXPECT_EQ(hello.server_name(), "two.test");
}

// Verifies that a hello without the extension has no name.
TEST(TlsHelloTest, NoName) {
  TlsHello hello;
  const std::string bytes = record(handshake(extension(10, "abcd")));
  EXPECT_EQ(hello.feed(bytes.data(), bytes.size()), TlsHello::State::none);
}

// Verifies that other protocols and other handshake messages are told at once.
TEST(TlsHelloTest, OtherBytes) {
  TlsHello http;
  EXPECT_EQ(http.feed("GET /", 5), TlsHello::State::none);
  TlsHello server;
  const std::string bytes = record("\x02" + vector("body", 3));
  EXPECT_EQ(server.feed(bytes.data(), bytes.size()), TlsHello::State::none);
}

// Verifies that lengths beyond the end are not followed.
TEST(TlsHelloTest, LengthBeyondTheEnd) {
  TlsHello hello;
  const std::string bytes = record(handshake(number(0, 2) + number(5000, 2) + "abc"));
  EXPECT_EQ(hello.feed(bytes.data(), bytes.size()), TlsHello::State::none);
}

// Verifies that a hello that never ends is given up after 64 KiB.
TEST(TlsHelloTest, Endless) {
  TlsHello hello;
  const std::string bytes = record(std::string("\x01\xff\xff\xff", 4) + std::string(16000, 'x'));
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(hello.feed(bytes.data(), bytes.size()), TlsHello::State::needs_more);
  EXPECT_EQ(hello.feed(bytes.data(), bytes.size()), TlsHello::State::none);
}

}  // namespace
