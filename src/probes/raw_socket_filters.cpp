#include "probes/raw_socket_filters.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <netinet/in.h>

namespace zol {

namespace {

// Offsets within an IP header, and within the TCP header behind it; RFC 791, RFC 9293.
constexpr std::uint32_t ip_fragment = 6;
constexpr std::uint32_t ip_protocol = 9;
constexpr std::uint32_t ip_source = 12;
constexpr std::uint32_t ip_destination = 16;
constexpr std::uint32_t behind_ip = 20;  // without options
constexpr std::uint32_t tcp_destination_port = 2;
constexpr std::uint32_t tcp_flags = 13;

constexpr std::uint32_t version_mask = 0xf0;
constexpr std::uint32_t version_4 = 0x40;
constexpr std::uint32_t fragment_offset_mask = 0x1fff;
constexpr std::uint32_t syn_and_ack = 0x12;
constexpr std::uint32_t rst = 0x04;
constexpr auto packet_type = static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE);

constexpr sock_filter load_byte(std::uint32_t offset) {
  return BPF_STMT(BPF_LD | BPF_B | BPF_ABS, offset);
}

constexpr sock_filter load_half(std::uint32_t offset) {
  return BPF_STMT(BPF_LD | BPF_H | BPF_ABS, offset);
}

constexpr sock_filter load_word(std::uint32_t offset) {
  return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset);
}

constexpr sock_filter load_byte_behind_ip(std::uint32_t offset) {
  return BPF_STMT(BPF_LD | BPF_B | BPF_IND, offset);
}

constexpr sock_filter load_half_behind_ip(std::uint32_t offset) {
  return BPF_STMT(BPF_LD | BPF_H | BPF_IND, offset);
}

constexpr sock_filter take_ip_header_length() {
  return BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0);
}

constexpr sock_filter mask(std::uint32_t bits) {
  return BPF_STMT(BPF_ALU | BPF_AND | BPF_K, bits);
}

// Jumps are relative: how many instructions to leap over when the test holds, and when it doesn't.
constexpr sock_filter if_equal(std::uint32_t value, std::uint8_t then, std::uint8_t otherwise) {
  return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, then, otherwise);
}

constexpr sock_filter if_any_bit(std::uint32_t bits, std::uint8_t then, std::uint8_t otherwise) {
  return BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, bits, then, otherwise);
}

constexpr sock_filter if_at_least(std::uint32_t value, std::uint8_t then, std::uint8_t otherwise) {
  return BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, value, then, otherwise);
}

constexpr sock_filter if_above(std::uint32_t value, std::uint8_t then, std::uint8_t otherwise) {
  return BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, value, then, otherwise);
}

constexpr sock_filter accept = BPF_STMT(BPF_RET | BPF_K, accepted_bytes);
constexpr sock_filter drop = BPF_STMT(BPF_RET | BPF_K, 0);

// The message's type, and a zero behind it.
std::uint32_t tcmp_word(std::uint16_t type) {
  return std::uint32_t{type} << 8;
}

}  // namespace

std::array<sock_filter, 21> tcp_reply_filter(std::uint16_t first_port, std::uint16_t last_port) {
  return {
      load_byte(0),
      mask(version_mask),
      if_equal(version_4, 0, 17),
      load_byte(ip_protocol),
      if_equal(IPPROTO_TCP, 0, 15),
      load_half(ip_fragment),
      if_any_bit(fragment_offset_mask, 13, 0),
      take_ip_header_length(),
      load_byte_behind_ip(tcp_flags),
      mask(syn_and_ack),
      if_equal(syn_and_ack, 3, 0),
      load_byte_behind_ip(tcp_flags),
      mask(rst),
      if_equal(rst, 0, 6),
      load_half_behind_ip(tcp_destination_port),
      if_at_least(first_port, 0, 4),
      if_above(last_port, 3, 0),
      load_word(packet_type),
      if_equal(PACKET_OUTGOING, 1, 0),
      accept,
      drop,
  };
}

std::array<sock_filter, 7> destination_filter(std::uint32_t address) {
  return {
      load_byte(0),
      mask(version_mask),
      if_equal(version_4, 0, 3),
      load_word(ip_destination),
      if_equal(ntohl(address), 0, 1),
      accept,
      drop,
  };
}

std::array<sock_filter, 11> tcmp_filter(std::uint16_t type) {
  return {
      load_word(packet_type),
      if_equal(PACKET_OUTGOING, 8, 0),
      load_byte(0),
      mask(version_mask),
      if_equal(version_4, 0, 5),
      load_byte(ip_protocol),
      if_equal(tcmp_protocol, 0, 3),
      load_half(behind_ip),
      if_equal(tcmp_word(type), 0, 1),
      accept,
      drop,
  };
}

std::array<sock_filter, 11> tcmp_filter_from(std::uint32_t host, std::uint16_t type) {
  return {
      load_byte(0),
      mask(version_mask),
      if_equal(version_4, 0, 7),
      load_word(ip_source),
      if_equal(ntohl(host), 0, 5),
      load_byte(ip_protocol),
      if_equal(tcmp_protocol, 0, 3),
      load_half(behind_ip),
      if_equal(tcmp_word(type), 0, 1),
      accept,
      drop,
  };
}

}  // namespace zol
