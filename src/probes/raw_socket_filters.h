// The socket filters of the raw sockets, as programs of the classic BPF machine; linux/filter.h. Each takes
// up to 262144 bytes of a packet that passes, and nothing of another. Packets begin with the IP header.
#pragma once

#include <linux/filter.h>

#include <array>
#include <cstdint>

namespace zol {

inline constexpr std::uint32_t accepted_bytes = 0x40000;
inline constexpr std::uint8_t tcmp_protocol = 233;

// IPv4, TCP, no fragment but the first, SYN with ACK or RST, a destination port of the range (host order),
// and not going out.
std::array<sock_filter, 21> tcp_reply_filter(std::uint16_t first_port, std::uint16_t last_port);

// IPv4 to that address (network order).
std::array<sock_filter, 7> destination_filter(std::uint32_t address);

// IPv4 of protocol 233 with an IP header of 20 bytes, a message type and a zero byte behind it; from any host
// but not going out, or from one host (network order).
std::array<sock_filter, 11> tcmp_filter(std::uint16_t type);
std::array<sock_filter, 11> tcmp_filter_from(std::uint32_t host, std::uint16_t type);

}  // namespace zol
