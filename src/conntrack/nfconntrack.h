// What the daemon reads of a tracked connection, and the layout of the connection mark.
//
// Every accessor of an address or a port sees the connection in the session's direction: when the mark says
// that the connection is reversed, source and destination change places. Addresses are IPv4 in network byte
// order, 0 for anything but AF_INET; ports are in host byte order. A null connection is not allowed.
#pragma once

#include <cstdint>

#include "conntrack/conntrack_str.h"

struct nf_conntrack;

namespace zol_monitor {

// The connection mark, as the node's firewall rules set it.
namespace conntrack_mark {
inline constexpr std::uint32_t fin_received = 0x1000000;  // by this node
inline constexpr std::uint32_t rst_received = 0x2000000;  // by this node
inline constexpr std::uint32_t rst_sent = 0x4000000;      // by this node
inline constexpr std::uint32_t reversed = 0x80;           // bit 7
inline constexpr std::uint32_t billed = 0x10000000;       // of a middle-mile node's link traffic
inline constexpr std::uint32_t unbilled = 0x40000000;

inline constexpr std::uint8_t service_id(std::uint32_t mark) {
  return (mark >> 8) & 0xff;
}
inline constexpr std::uint8_t link_byte(std::uint32_t mark) {
  return (mark >> 16) & 0xff;
}
// Bits 4 to 7 with a service id, bits 0 to 3 without.
inline constexpr std::uint32_t io_nibble(std::uint32_t mark) {
  return service_id(mark) != 0 ? (mark >> 4) & 0xf : mark & 0xf;
}
// Bit 3 of the nibble: the kernel's original direction runs against the session's.
inline constexpr bool is_io_reversed(std::uint32_t mark) {
  return (io_nibble(mark) & 8) != 0;
}
// The nibble as if the connection ran in the session's direction: bit 0 In, bit 1 Out; bit 3 is always 0.
inline constexpr std::uint32_t normalised_nibble(std::uint32_t mark) {
  const std::uint32_t nibble = io_nibble(mark);
  return (nibble & 8) != 0 ? nibble ^ 0xb : nibble;
}
inline constexpr std::uint32_t in_bit = 1;
inline constexpr std::uint32_t out_bit = 2;
}  // namespace conntrack_mark

struct nfconntrack_stats_t {
  std::uint64_t packets;
  std::uint64_t bytes;
};

// Both ends in the session's direction: what the four accessors below give.
struct nfconntrack_ends_t {
  std::uint32_t src;
  std::uint32_t dst;
  std::uint16_t sport;
  std::uint16_t dport;
};
nfconntrack_ends_t nfconntrack_get_ends(const nf_conntrack* ct);

bool nfconntrack_test_bit(const nf_conntrack* ct, int attribute);
std::uint8_t nfconntrack_get_protonum(const nf_conntrack* ct);
std::uint32_t nfconntrack_get_mark(const nf_conntrack* ct);
// Bit 7 of the mark, whatever the service id.
bool nfconntrack_is_reversed(const nf_conntrack* ct);
// Toggles bit 7 of the mark in this copy.
void nfconntrack_reverse(nf_conntrack* ct);
// Both directions in the session's order; false, and nothing is stored, when one of the four counters is
// missing.
bool nfconntrack_get_counters(const nf_conntrack* ct, nfconntrack_stats_t& orig, nfconntrack_stats_t& repl);
// Packets and bytes of the original direction, of the reply direction when reversed; and the opposite pair.
nfconntrack_stats_t nfconntrack_get_orig_stats(const nf_conntrack* ct);
nfconntrack_stats_t nfconntrack_get_repl_stats(const nf_conntrack* ct);
// 3 is established, above 3 are the closing states (linux/netfilter/nf_conntrack_tcp.h).
std::uint8_t nfconntrack_get_tcp_state(const nf_conntrack* ct);
std::uint32_t nfconntrack_get_orig_src(const nf_conntrack* ct);
std::uint16_t nfconntrack_get_orig_port(const nf_conntrack* ct);
std::uint32_t nfconntrack_get_dst(const nf_conntrack* ct);
std::uint16_t nfconntrack_get_dst_port(const nf_conntrack* ct);
std::uint32_t nfconntrack_get_id(const nf_conntrack* ct);
// Turns the counters of this copy, absolute as the kernel gives them, into the difference to the memories,
// which take the absolute values. When one remembered value is above the connection's, the kernel's counters
// were reset or the memory is of an earlier connection: the counters then stay, so that all of them are new.
// The memories are of the kernel's directions, whatever the mark says. A counter that the connection lacks is
// 0 and stays missing.
void nfconntrack_update_counters(nf_conntrack* ct, nfconntrack_stats_t& orig_memory,
                                 nfconntrack_stats_t& repl_memory);

}  // namespace zol_monitor
