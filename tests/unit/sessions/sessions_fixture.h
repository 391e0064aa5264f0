// A session table with a configuration, services and sites of the test's own, and connections to feed it
// with.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "config/services.h"
#include "sessions/zol_sessions.h"
#include "sites/vpn_sites_services.h"
#include "tests/support/config_fixture.h"

namespace zol_test {

// "192.0.2.1" in network order.
std::uint32_t ip(const char* dotted);

// A session id that ends in the number.
class Uuid {
 public:
  explicit Uuid(std::uint8_t number) {
    bytes_.fill(0xa0);
    bytes_.back() = number;
  }
  operator const unsigned char*() const { return bytes_.data(); }  // NOLINT(google-explicit-constructor)
  std::string text() const;

 private:
  std::array<unsigned char, 16> bytes_;
};

struct Peer {
  const char* address;
  std::uint16_t port;
};

// A tracked TCP connection; with `mark` 0x80 its direction is reversed.
class Connection {
 public:
  Connection(const Peer& source, const Peer& target, std::uint32_t mark = 0);
  operator const nf_conntrack*() const { return ct_.get(); }  // NOLINT(google-explicit-constructor)

 private:
  std::unique_ptr<nf_conntrack, void (*)(nf_conntrack*)> ct_;
};

// Answers from a map of records; every other address is the world.
class FakeSites : public zol::SiteServicesBase {
 public:
  zol::SiteConnRecord get_site_record(const std::string& address) override;
  std::vector<zol::VPNConnInfo> get_connections_info_status() override { return {}; }

  std::map<std::string, zol::SiteConnRecord> records;
  int look_ups = 0;
};

zol::SiteConnRecord site_record(const std::string& address,
                                zol::ConnRecordType type = zol::ConnRecordType::site);

class EventCounter : public zol_monitor::ISessionsEvents {
 public:
  void max_sessions_notify() override { ++notified; }
  int notified = 0;
};

// One identification message; what a test doesn't set is what a proxy sends when it doesn't know.
struct Identification {
  bool outbound = false;
  Peer first = {"0.0.0.0", 0};
  Peer second = {"0.0.0.0", 0};
  Uuid uuid{1};
  Peer client = {"0.0.0.0", 0};
  std::uint16_t service_port = 0;
  const char* destination = "0.0.0.0";
  std::uint8_t retries = 0;
  std::uint16_t hop_order = 0;
  bool failopen = false;
  std::string user_agent{};
  std::string domain_name{};
  bool recover = false;
  Peer target = {"0.0.0.0", 0};
};

inline constexpr Peer client_peer = {"198.51.100.20", 40000};
inline constexpr Peer proxy_peer = {"192.0.2.1", 443};
inline constexpr Peer own_peer = {"192.0.2.1", 50000};
inline constexpr Peer hop_peer = {"203.0.113.5", 15000};  // its port is an internal one

// Keeps the services from the record that the node's processes share.
class SharedMemoryOff {
 public:
  SharedMemoryOff();
  ~SharedMemoryOff();
  SharedMemoryOff(const SharedMemoryOff&) = delete;
  SharedMemoryOff& operator=(const SharedMemoryOff&) = delete;

 private:
  bool was_enabled_;
};

class SessionsTest : public testing::Test {
 protected:
  SessionsTest();

  // The configuration with more Monitoring members, and in GXE mode when asked.
  void configure(const std::string& monitoring, bool gxe = false);
  void identify(const Identification& message);
  // The In leg of client_peer, the Out leg own_peer to hop_peer, and the logical network "net-a".
  zol_monitor::SessionPtr identify_in(const Uuid& uuid, const Peer& peer = client_peer);
  zol_monitor::SessionPtr identify_out(const Uuid& uuid, const Peer& first = hop_peer,
                                       const Peer& second = own_peer);
  // The connections of the two legs as the kernel tracks them.
  static Connection in_connection(const Peer& peer = client_peer) { return {peer, proxy_peer}; }
  static Connection out_connection(const Peer& own = own_peer, const Peer& hop = hop_peer) {
    return {own, hop};
  }

  const SharedMemoryOff shared_memory_off_;
  ScopedConfig config_;
  zol::Services services_;
  FakeSites sites_;
  zol_monitor::ZOLSessions table_;
  EventCounter events_;
};

}  // namespace zol_test
