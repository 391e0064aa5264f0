// A packet that a raw socket hands on, taken to probes by both managers. Whatever it holds, a probe ends well
// only by a whole reply of its own target.
#include <cstdint>
#include <cstring>

#include "fuzz/quiet_log.h"
#include "probes/latency_probe.h"
#include "probes/raw_socket_manager.h"

namespace {

constexpr const char* target = "127.0.0.1";
constexpr std::size_t icmp_reply_bytes = 20 + 8 + 40;
constexpr std::size_t tcp_reply_bytes = 20 + 20;

void put_in_flight(zol::RawSocketManager& manager, zol::LatencyProbe& probe) {
  probe.in_progress = true;
  probe.dst_ip = target;
  manager.probes[probe.get_probe_id()] = &probe;
}

// With no byte to spare behind the packet, so that a sanitizer sees a read beyond it.
void deliver(zol::RawSocketManager& manager, const std::uint8_t* data, std::size_t size) {
  zol::Packet packet(static_cast<int>(size));
  packet.set_length(static_cast<int>(size));
  if (size > 0)
    std::memcpy(packet.buffer, data, size);
  manager.on_packet_receive(packet);
}

void expect_from_target(const zol::LatencyProbe& probe, const std::uint8_t* data, std::size_t size,
                        std::size_t least) {
  static constexpr std::uint8_t address[] = {127, 0, 0, 1};
  if (probe.succeeded && (size < least || std::memcmp(data + 12, address, sizeof address) != 0))
    __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 1514)
    return 0;  // more than a socket hands on
  zol_fuzz::quiet_log();
  zol::IcmpRawSocketManager icmp_manager;
  zol::IcmpProbeConfig config;
  config.id = 40000;
  config.seq = 1;
  zol::ICMPLatencyProbe echo(&icmp_manager, config);
  put_in_flight(icmp_manager, echo);
  deliver(icmp_manager, data, size);
  expect_from_target(echo, data, size, icmp_reply_bytes);

  zol::TCPRawSocketManager tcp_manager;
  zol::TCPLatencyProbe syn(&tcp_manager, target, 20001, target);
  syn.set_probe_id(20000);
  syn.seq = 0x01020304;
  put_in_flight(tcp_manager, syn);
  deliver(tcp_manager, data, size);
  expect_from_target(syn, data, size, tcp_reply_bytes);
  if (syn.succeeded && syn.is_rejected())
    __builtin_trap();
  return 0;
}
