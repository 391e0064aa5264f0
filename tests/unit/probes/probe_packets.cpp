#include "tests/unit/probes/probe_packets.h"

#include <arpa/inet.h>

#include <algorithm>

#include "probes/packet.h"
#include "probes/raw_socket_manager.h"

namespace zol_test {

namespace {

constexpr std::size_t ip_header = 20;

void add_address(Bytes& bytes, std::size_t at, const std::string& text) {
  put32(bytes, at, ntohl(inet_addr(text.c_str())));
}

}  // namespace

void put16(Bytes& bytes, std::size_t at, unsigned value) {
  bytes[at] = static_cast<unsigned char>(value >> 8);
  bytes[at + 1] = static_cast<unsigned char>(value);
}

void put32(Bytes& bytes, std::size_t at, std::uint32_t value) {
  put16(bytes, at, value >> 16);
  put16(bytes, at + 2, value & 0xffff);
}

unsigned get16(const Bytes& bytes, std::size_t at) {
  return static_cast<unsigned>(bytes.at(at) << 8 | bytes.at(at + 1));
}

std::uint32_t get32(const Bytes& bytes, std::size_t at) {
  return get16(bytes, at) << 16 | get16(bytes, at + 2);
}

unsigned checksum_of(const Bytes& bytes, std::size_t begin, std::size_t end) {
  std::uint32_t sum = 0;
  for (std::size_t at = begin; at < end; at += 2)
    sum += at + 1 < end ? get16(bytes, at) : static_cast<unsigned>(bytes[at] << 8);
  while (sum > 0xffff)
    sum = (sum >> 16) + (sum & 0xffff);
  return ~sum & 0xffff;
}

Bytes ip_packet(const std::string& src, const std::string& dst, unsigned protocol, const Bytes& payload) {
  Bytes bytes(ip_header);
  bytes[0] = 0x45;  // version 4, five words
  put16(bytes, 2, static_cast<unsigned>(ip_header + payload.size()));
  put16(bytes, 4, 0x1234);  // identification
  bytes[8] = 64;            // time to live
  bytes[9] = static_cast<unsigned char>(protocol);
  add_address(bytes, 12, src);
  add_address(bytes, 16, dst);
  put16(bytes, 10, checksum_of(bytes, 0, ip_header));
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

Bytes icmp_packet(const std::string& src, const std::string& dst, unsigned type, unsigned id, unsigned seq,
                  std::size_t data_size) {
  Bytes message(8 + data_size, 'x');
  std::fill_n(message.begin(), 8, 0);
  message[0] = static_cast<unsigned char>(type);
  put16(message, 4, id);
  put16(message, 6, seq);
  put16(message, 2, checksum_of(message, 0, message.size()));
  return ip_packet(src, dst, IPPROTO_ICMP, message);
}

Bytes echo_reply(const std::string& src, const std::string& dst, unsigned id, unsigned seq,
                 std::size_t data_size) {
  return icmp_packet(src, dst, 0, id, seq, data_size);
}

Bytes tcp_packet(const Segment& segment) {
  Bytes pseudo(12 + 20);
  add_address(pseudo, 0, segment.src);
  add_address(pseudo, 4, segment.dst);
  pseudo[9] = IPPROTO_TCP;
  put16(pseudo, 10, 20);
  put16(pseudo, 12, segment.src_port);
  put16(pseudo, 14, segment.dst_port);
  put32(pseudo, 16, 0x01020304);  // sequence
  put32(pseudo, 20, segment.ack);
  pseudo[24] = 0x50;  // five words
  pseudo[25] = segment.flags;
  put16(pseudo, 26, 1024);  // window
  put16(pseudo, 28, checksum_of(pseudo, 0, pseudo.size()));
  return ip_packet(segment.src, segment.dst, IPPROTO_TCP, Bytes(pseudo.begin() + 12, pseudo.end()));
}

void fill(zol::Packet& packet, const Bytes& bytes) {
  packet.set_length(static_cast<int>(bytes.size()));
  std::copy(bytes.begin(), bytes.end(), packet.buffer);
}

void deliver(zol::RawSocketManager& manager, const Bytes& bytes, long seconds) {
  zol::Packet packet(static_cast<int>(bytes.size()));  // no byte more, so that a sanitizer sees a read beyond
  fill(packet, bytes);
  packet.timestamp.tv_sec = seconds;
  manager.on_packet_receive(packet);
}

}  // namespace zol_test
