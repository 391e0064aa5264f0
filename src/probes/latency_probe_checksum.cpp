#include "probes/latency_probe_checksum.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

namespace zol {

namespace {

constexpr std::size_t tcp_header_bytes = 20;

struct TcpPseudoPacket {
  std::uint32_t src;
  std::uint32_t dst;
  std::uint8_t zero;
  std::uint8_t protocol;
  std::uint16_t length;  // network order
  unsigned char header[tcp_header_bytes];
};
static_assert(sizeof(TcpPseudoPacket) == 32);

}  // namespace

std::uint16_t packet_craft_in_cksum(const void* data, std::size_t length) {
  const auto* byte = static_cast<const unsigned char*>(data);
  std::uint32_t sum = 0;
  for (; length >= 2; length -= 2, byte += 2) {
    std::uint16_t word;
    std::memcpy(&word, byte, sizeof word);
    sum += word;
  }
  if (length == 1)
    sum += *byte;
  sum = (sum >> 16) + (sum & 0xffff);
  sum = (sum >> 16) + (sum & 0xffff);
  return static_cast<std::uint16_t>(~sum);
}

std::uint16_t packet_craft_in_cksum_icmp(const void* data, std::size_t length) {
  return packet_craft_in_cksum(data, length);
}

std::uint16_t packet_craft_in_cksum_tcp(std::uint32_t src, std::uint32_t dst, const void* tcp) {
  TcpPseudoPacket pseudo{src, dst, 0, IPPROTO_TCP, htons(tcp_header_bytes), {}};
  std::memcpy(pseudo.header, tcp, sizeof pseudo.header);
  return packet_craft_in_cksum(&pseudo, sizeof pseudo);
}

}  // namespace zol
