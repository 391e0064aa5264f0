// Packets as they lie on the wire, made byte by byte and without the code under test.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zol {
class Packet;
class RawSocketManager;
}  // namespace zol

namespace zol_test {

using Bytes = std::vector<unsigned char>;

inline constexpr unsigned char flag_fin = 0x01;
inline constexpr unsigned char flag_syn = 0x02;
inline constexpr unsigned char flag_rst = 0x04;
inline constexpr unsigned char flag_ack = 0x10;

void put16(Bytes& bytes, std::size_t at, unsigned value);
void put32(Bytes& bytes, std::size_t at, std::uint32_t value);
unsigned get16(const Bytes& bytes, std::size_t at);
std::uint32_t get32(const Bytes& bytes, std::size_t at);

// RFC 1071 over big-endian words, of a header that holds its checksum: 0 when that is right.
unsigned checksum_of(const Bytes& bytes, std::size_t begin, std::size_t end);

// An IPv4 packet; its length and checksum are right.
Bytes ip_packet(const std::string& src, const std::string& dst, unsigned protocol, const Bytes& payload);
// An ICMP message of any type in an IPv4 packet.
Bytes icmp_packet(const std::string& src, const std::string& dst, unsigned type, unsigned id, unsigned seq,
                  std::size_t data_size = 40);
Bytes echo_reply(const std::string& src, const std::string& dst, unsigned id, unsigned seq,
                 std::size_t data_size = 40);
// A TCP segment without payload in an IPv4 packet.
struct Segment {
  std::string src;
  std::uint16_t src_port;
  std::string dst;
  std::uint16_t dst_port;
  std::uint32_t ack = 0;
  unsigned char flags = 0;
};
Bytes tcp_packet(const Segment& segment);

// A Packet in the form that the socket hands on, received at `seconds`.
void deliver(zol::RawSocketManager& manager, const Bytes& bytes, long seconds = 0);
void fill(zol::Packet& packet, const Bytes& bytes);

}  // namespace zol_test
