// A ConntrackEvents without a socket over a session table of the test's own, and connections to feed it with.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "config/services.h"
#include "conntrack/conntrack.h"
#include "conntrack/nfct_handle.h"
#include "core/monitor_context.h"
#include "sessions/zol_monitor_data.h"
#include "sites/vpn_sites_services.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"

namespace zol_test {

std::uint32_t ip(const char* dotted);  // network order

struct Peer {
  const char* address;
  std::uint16_t port;
};

inline constexpr std::uint8_t tcp_established = 3;
inline constexpr std::uint8_t tcp_fin_wait = 4;

// What a tracked connection is made of; unset members stay out of it.
struct Flow {
  Peer source = {"198.51.100.20", 40000};
  Peer target = {"192.0.2.1", 443};
  std::uint32_t mark = 0;
  std::uint8_t protonum = IPPROTO_TCP;
  int tcp_state = -1;
};

zol_monitor::NfctHandle make_ct(const Flow& flow);

// One netlink message of the kernel's, as bytes.
std::vector<char> make_message(const Flow& flow, bool deleted);

inline constexpr Peer client_peer = {"198.51.100.20", 40000};
inline constexpr Peer own_in_peer = {"192.0.2.1", 443};
inline constexpr Peer own_out_peer = {"192.0.2.1", 50000};
inline constexpr Peer hop_peer = {"203.0.113.5", 15000};  // its port is an internal one
inline constexpr std::uint32_t service_mark = 0x700;      // service 7, network "net-a"
inline constexpr std::uint32_t in_mark = service_mark | 0x10;
inline constexpr std::uint32_t out_mark = service_mark | 0x20;
inline constexpr std::uint32_t fin_received = 1u << 24;
inline constexpr std::uint32_t rst_received = 1u << 25;
inline constexpr std::uint32_t rst_sent = 1u << 26;

class CountingContext : public zol_monitor::MonitorContext {
 public:
  void context_start() override { ++started; }
  void context_end() override { ++ended; }
  int started = 0;
  int ended = 0;
};

class ConntrackTest : public testing::Test {
 protected:
  explicit ConntrackTest(bool gxe = false);
  ~ConntrackTest() override;

  // The session `number`, made as the proxy's message about its In leg makes it.
  zol_monitor::SessionPtr identify_in(std::uint8_t number = 1, const Peer& client = client_peer);
  // Adds the Out leg.
  zol_monitor::SessionPtr identify_out(std::uint8_t number = 1, const Peer& hop = hop_peer,
                                       const Peer& own = own_out_peer);
  // Feeds one event through the decoder; the result is libmnl's.
  int feed(const Flow& flow, bool deleted = false);
  // The same without the netlink form.
  void detect(const Flow& flow) { events_.detect_events(make_ct(flow).get()); }
  // A socket that the kernel reported with these figures.
  void know_socket(const Peer& peer, std::uint32_t rtt, std::uint32_t total_retrans);
  void set_monitoring(const std::string& members);

  bool gxe_;
  ScopedConfig config_;
  zol::Services services_;
  CountingContext context_;
  std::unique_ptr<LogCapture> quiet_;  // while the members below come up
  zol_monitor::MonitorData data_;      // its own reader is stopped
  zol_monitor::ConntrackEvents events_;
};

class GxeConntrackTest : public ConntrackTest {
 protected:
  GxeConntrackTest() : ConntrackTest(true) {}
};

}  // namespace zol_test
