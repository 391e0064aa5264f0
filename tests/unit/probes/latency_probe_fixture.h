// Probes and senders of a test's own.
#pragma once

#include <ctime>
#include <string>

#include "probes/latency_probe.h"
#include "probes/raw_socket_manager.h"
#include "tests/unit/probes/probe_packets.h"

namespace zol_test {

inline timespec wall_clock() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

// Not after.
inline bool is_before(const timespec& one, const timespec& other) {
  return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec <= other.tv_nsec;
}

class RecordingSender final : public zol::RawSocketSender {
 public:
  bool raw_sendto(zol::Packet&, zol::LatencyProbe*) override {
    ++sent;
    sent_at = wall_clock();
    return result;
  }

  bool result = true;
  int sent = 0;
  timespec sent_at{};
};

// A probe of no kind.
class PlainProbe : public zol::LatencyProbe {
 public:
  explicit PlainProbe(zol::RawSocketSender* packet_sender = nullptr, const std::string& host = "")
      : LatencyProbe("PlainProbe", 99) {
    sender = packet_sender;
    target = host;
  }
  void craft_packet(zol::Packet& packet) override {
    LatencyProbe::craft_packet(packet);
    crafted_at = wall_clock();
  }

  timespec crafted_at{};
};

inline Bytes crafted_by(zol::LatencyProbe& probe) {
  zol::Packet packet(1514);
  probe.craft_packet(packet);
  return Bytes(packet.data, packet.data + packet.get_length());
}

}  // namespace zol_test
