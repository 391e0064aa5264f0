// The Internet checksum (RFC 1071) of packets under construction. Results stand as they go into the header,
// which holds 0 in their place while they are made.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zol {

// Over `length` bytes at any alignment; an odd last byte counts as a word with a zero high byte.
std::uint16_t packet_craft_in_cksum(const void* data, std::size_t length);

// Header and payload of an ICMP message.
std::uint16_t packet_craft_in_cksum_icmp(const void* data, std::size_t length);

// A TCP header of 20 bytes without payload, with its pseudo header (RFC 9293, section 3.1). Addresses in
// network order.
std::uint16_t packet_craft_in_cksum_tcp(std::uint32_t src, std::uint32_t dst, const void* tcp);

}  // namespace zol
