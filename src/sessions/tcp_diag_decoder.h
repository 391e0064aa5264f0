// Decoder of the kernel's answer to a TCPDIAG_GETSOCK request: bytes in, sockets out, no I/O.
//
// RFC 3549 and linux/netlink.h for the messages, linux/inet_diag.h for their body. No length in the bytes is
// trusted; what doesn't fit ends the walk.
#pragma once

#include <netinet/tcp.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>

#include "sessions/session_keys.h"

namespace zol_monitor {

// One socket. Addresses in network order, ports in host order.
struct ConnStat {
  tcp_info info{};        // the first 104 bytes of the kernel's structure
  std::uint32_t src = 0;  // local address
  std::uint32_t dst = 0;  // remote address
  std::uint8_t family = 0;
  std::uint16_t sport = 0;
  std::uint16_t dport = 0;
  std::uint32_t state = 0;  // TCP_ESTABLISHED is 1
  std::uint32_t inode = 0;
};
static_assert(sizeof(tcp_info) == 104);

// By leg_key(address, port). Every socket stands in it twice, under its local and under its remote pair; of
// two sockets that share a pair the later one of the kernel's answer stays.
using ConnStatMap = std::map<std::uint64_t, ConnStat>;

// The sequence number that request and answer carry.
inline constexpr std::uint32_t tcp_diag_sequence = 123456;

enum class DiagResult {
  more,    // taken whole, another datagram follows
  done,    // the answer is complete
  failed,  // malformed, or the kernel's error; one error line says which
};

// Enters the sockets of one datagram. `truncated` says that the kernel cut it to the buffer (MSG_TRUNC).
DiagResult decode_tcp_diag(std::span<const std::byte> datagram, bool truncated, ConnStatMap& sockets);

// Enters the socket of one message, header included: 0 taken, 1 passed over (IPv6), 2 malformed. A message
// without INET_DIAG_INFO is taken and enters nothing; an attribute shorter than tcp_info leaves the rest
// zero.
int decode_tcp_diag_message(std::span<const std::byte> message, ConnStatMap& sockets);

}  // namespace zol_monitor
