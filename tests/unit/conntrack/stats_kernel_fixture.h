// Readings of the real kernel's table, in a network namespace of the test's own, and datagrams that it
// tracks.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <memory>
#include <string>

#include "conntrack/conntrack_stats.h"
#include "lib/common/unique_fd.h"
#include "tests/unit/conntrack/conntrack_stats_fixture.h"
#include "tests/unit/conntrack/kernel_conntrack.h"
#include "zol_helper.h"

namespace zol_test {

// Both are this machine's, and not the pair that the parser passes over.
inline constexpr const char* client_ip = "127.0.0.2";
inline constexpr const char* node_ip = "127.0.0.3";
inline constexpr std::uint16_t service_port = 443;
inline constexpr std::uint64_t udp_overhead = 20 + 8;  // IPv4 and UDP headers

class BoundSocket {
 public:
  BoundSocket(int type, const char* address, std::uint16_t port)
      : fd_(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
    const sockaddr_in name = address_of(address, port);
    const timeval patience = {.tv_sec = 10, .tv_usec = 0};
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    EXPECT_EQ(bind(fd_.get(), as_generic(name), sizeof name), 0);
  }
  explicit BoundSocket(int accepted) : fd_(accepted) {}

  static sockaddr_in address_of(const char* address, std::uint16_t port) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    name.sin_addr.s_addr = ip(address);
    return name;
  }
  static const sockaddr* as_generic(const sockaddr_in& name) {
    return static_cast<const sockaddr*>(static_cast<const void*>(&name));
  }

  bool connect_to(const char* address, std::uint16_t port) const {
    const sockaddr_in name = address_of(address, port);
    return connect(fd_.get(), as_generic(name), sizeof name) == 0;
  }
  bool send_bytes(std::size_t size) const {
    return send(fd_.get(), std::string(size, 'x').data(), size, 0) == static_cast<ssize_t>(size);
  }
  // One datagram, or what a stream has of it.
  bool receive_bytes(std::size_t size) const {
    std::string buffer(size, '\0');
    return recv(fd_.get(), buffer.data(), size, MSG_WAITALL) == static_cast<ssize_t>(size);
  }
  int get() const { return fd_.get(); }

 private:
  zol_utils::UniqueFd fd_;
};

// Two ends on loopback whose datagrams the kernel tracks under the mark of an In leg.
class UdpTraffic {
 public:
  UdpTraffic() : client_(SOCK_DGRAM, client_ip, client_peer.port), node_(SOCK_DGRAM, node_ip, service_port) {
    EXPECT_TRUE(client_.connect_to(node_ip, service_port));
    EXPECT_TRUE(node_.connect_to(client_ip, client_peer.port));
  }
  void exchange(std::size_t sent, std::size_t answered) const {
    EXPECT_TRUE(client_.send_bytes(sent) && node_.receive_bytes(sent));
    EXPECT_TRUE(node_.send_bytes(answered) && client_.receive_bytes(answered));
  }

 private:
  BoundSocket client_;
  BoundSocket node_;
};

class StatsKernelTest : public ConntrackStatsTest {
 protected:
  explicit StatsKernelTest(bool gxe = false) : ConntrackStatsTest(gxe) {}

  void SetUp() override {
    if (!network_.entered())
      GTEST_SKIP() << "needs the right to make a network namespace, and connection tracking in the kernel";
    table_ = std::make_unique<ConnectionTable>();
  }

  // Has the kernel track what goes out, marked as an In leg. False where the tool or its modules are missing.
  static bool mark_traffic() {
    std::string output;
    return zol::Helper::run_cmd_stderr("iptables -t mangle -A OUTPUT -j CONNMARK --set-mark 0x710", output) ==
           0;
  }
  static std::uint64_t received(const zol_monitor::ConntrackStats& stats) {
    const auto network = stats.networks.find("net-a");
    return network != stats.networks.end() ? network->second.total.counters[1][0][1].rx_bytes : 0;
  }
  static std::uint64_t sent(const zol_monitor::ConntrackStats& stats) {
    const auto network = stats.networks.find("net-a");
    return network != stats.networks.end() ? network->second.total.counters[1][0][1].tx_bytes : 0;
  }
  std::uint64_t count_received() { return received(zol_monitor::ConntrackStats(&data_, false, false)); }

  OwnNetwork network_;
  std::unique_ptr<ConnectionTable> table_;
};

inline constexpr const char* needs_iptables = "needs iptables with the CONNMARK target";

}  // namespace zol_test
