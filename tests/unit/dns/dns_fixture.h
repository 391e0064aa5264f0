// Scripted name servers on the loopback of a network namespace of the test's own, on the test's own loop.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/zol_libevent.h"

namespace zol_test {

using Bytes = std::vector<unsigned char>;

// Network and mount namespaces of its own, with the loopback up and /etc/hosts and /etc/resolv.conf as files
// that the test may write. Once, before any thread is made; false when the process may not.
bool enter_own_namespaces();
bool in_own_namespaces();
void write_hosts(const std::string& text);
void write_resolv_conf(const std::string& text);

// A reply (RFC 1035, section 4.1) to a query, built up record by record. Names of records are pointers to the
// question's.
class Reply {
 public:
  explicit Reply(const Bytes& query);

  Reply& code(unsigned char rcode);
  Reply& truncated();
  Reply& id(std::uint16_t value);
  Reply& a(const std::string& address, std::uint32_t ttl);
  Reply& cname(const std::string& name, std::uint32_t ttl);
  Reply& record(std::uint16_t type, std::uint32_t ttl, const Bytes& rdata);

  Bytes bytes;
};

// The wire form of a name, labels with their lengths.
Bytes wire_name(const std::string& name);
// A query for an A record, as a client sends it.
Bytes make_query(std::uint16_t id, const std::string& name);
std::uint16_t id_of(const Bytes& message);

// Answers each query with the datagrams that the script gives for it, in order.
class ScriptedServer {
 public:
  using Script = std::function<std::vector<Bytes>(const Bytes& query)>;

  // On port 53 of a loopback address.
  ScriptedServer(const std::string& address, Script script);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  // One more datagram to whoever asked last.
  void send(const Bytes& reply) const;

  int queries = 0;
  Bytes last_query;
  Script script;

 private:
  static void read_cb(int fd, short events, void* self);

  int fd_;
  sockaddr_in peer_{};
  zol::ZOLEventLibEvent event_;
};

// Silence.
std::vector<Bytes> no_answer(const Bytes& query);

std::uint32_t address_of(const std::string& text);

// Has its name servers set for each test, and skips where there is no network namespace.
class DnsTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  static void use_servers(const std::vector<std::string>& addresses);
  static std::vector<std::string> servers();
  // Runs the loop until the condition holds; false when it doesn't within a generous time.
  static bool run_until(const std::function<bool()>& condition);
  // Passes over what is ready, until nothing is.
  static void run_ready();
};

}  // namespace zol_test
