// Raw sockets of the real kernel over devices of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "dns/resolver.h"
#include "probes/packet.h"
#include "probes/raw_socket.h"
#include "tests/support/log_capture.h"
#include "tests/unit/dns/dns_fixture.h"
#include "tests/unit/probes/latency_probe_fixture.h"
#include "tests/unit/probes/tun_wire.h"

namespace zol_test {

inline constexpr const char* wire_device = "probe0";
inline constexpr const char* own_address = "10.77.0.1";
inline constexpr const char* far_address = "10.77.0.2";
inline constexpr const char* third_address = "10.77.0.3";

// In the network namespace of the test program, and skipped where there is none.
class ProbeWireTest : public DnsTest {
 protected:
  void SetUp() override {
    DnsTest::SetUp();
    if (IsSkipped())
      return;
    zol::Resolver::set_instance(nullptr);
    wire_ = std::make_unique<TunWire>(wire_device, own_address);
  }

  std::unique_ptr<TunWire> wire_;
  LogCapture log_;
};

// What a socket has handed on.
struct Arrivals {
  static void take(zol::Packet& packet, void* context) {
    auto* self = static_cast<Arrivals*>(context);
    self->packets.emplace_back(packet.buffer, packet.buffer + packet.length);
    self->times.push_back(packet.timestamp);
  }

  std::vector<Bytes> packets;
  std::vector<timespec> times;
};

}  // namespace zol_test
