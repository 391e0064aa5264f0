#include "conntrack/nfconntrack.h"

#include <arpa/inet.h>

#include <libnetfilter_conntrack/libnetfilter_conntrack.h>

#include <utility>

namespace zol_monitor {

namespace {

std::uint32_t get_address(const nf_conntrack* ct, nf_conntrack_attr attribute) {
  return nfct_get_attr_u8(ct, ATTR_ORIG_L3PROTO) == AF_INET ? nfct_get_attr_u32(ct, attribute) : 0;
}

std::uint16_t get_port(const nf_conntrack* ct, nf_conntrack_attr attribute) {
  return ntohs(nfct_get_attr_u16(ct, attribute));
}

nfconntrack_stats_t get_stats(const nf_conntrack* ct, bool reply) {
  if (reply)
    return {nfct_get_attr_u64(ct, ATTR_REPL_COUNTER_PACKETS), nfct_get_attr_u64(ct, ATTR_REPL_COUNTER_BYTES)};
  return {nfct_get_attr_u64(ct, ATTR_ORIG_COUNTER_PACKETS), nfct_get_attr_u64(ct, ATTR_ORIG_COUNTER_BYTES)};
}

// The library lets nobody set a counter: nfct_set_attr_u64 leaves the value of these attributes alone. The
// getter, however, points into the object, which is ours and was made mutable by nfct_new; hence the cast.
void set_counter(nf_conntrack* ct, nf_conntrack_attr attribute, std::uint64_t value) {
  const void* counter = nfct_get_attr(ct, attribute);
  if (counter != nullptr)
    *static_cast<std::uint64_t*>(const_cast<void*>(counter)) = value;
}

bool is_above(const nfconntrack_stats_t& memory, const nfconntrack_stats_t& current) {
  return memory.packets > current.packets || memory.bytes > current.bytes;
}

}  // namespace

bool nfconntrack_test_bit(const nf_conntrack* ct, int attribute) {
  return nfct_attr_is_set(ct, static_cast<nf_conntrack_attr>(attribute)) > 0;
}

std::uint8_t nfconntrack_get_protonum(const nf_conntrack* ct) {
  return nfct_get_attr_u8(ct, ATTR_ORIG_L4PROTO);
}

std::uint32_t nfconntrack_get_mark(const nf_conntrack* ct) {
  return nfct_get_attr_u32(ct, ATTR_MARK);
}

bool nfconntrack_is_reversed(const nf_conntrack* ct) {
  return (nfconntrack_get_mark(ct) & conntrack_mark::reversed) != 0;
}

void nfconntrack_reverse(nf_conntrack* ct) {
  nfct_set_attr_u32(ct, ATTR_MARK, nfconntrack_get_mark(ct) ^ conntrack_mark::reversed);
}

nfconntrack_stats_t nfconntrack_get_orig_stats(const nf_conntrack* ct) {
  return get_stats(ct, nfconntrack_is_reversed(ct));
}

nfconntrack_stats_t nfconntrack_get_repl_stats(const nf_conntrack* ct) {
  return get_stats(ct, !nfconntrack_is_reversed(ct));
}

bool nfconntrack_get_counters(const nf_conntrack* ct, nfconntrack_stats_t& orig, nfconntrack_stats_t& repl) {
  const auto counter = [ct](nf_conntrack_attr attribute) {
    return static_cast<const std::uint64_t*>(nfct_get_attr(ct, attribute));
  };
  const std::uint64_t* const orig_packets = counter(ATTR_ORIG_COUNTER_PACKETS);
  const std::uint64_t* const orig_bytes = counter(ATTR_ORIG_COUNTER_BYTES);
  const std::uint64_t* const repl_packets = counter(ATTR_REPL_COUNTER_PACKETS);
  const std::uint64_t* const repl_bytes = counter(ATTR_REPL_COUNTER_BYTES);
  if (orig_packets == nullptr || orig_bytes == nullptr || repl_packets == nullptr || repl_bytes == nullptr)
    return false;
  orig = {*orig_packets, *orig_bytes};
  repl = {*repl_packets, *repl_bytes};
  if (nfconntrack_is_reversed(ct))
    std::swap(orig, repl);
  return true;
}

std::uint8_t nfconntrack_get_tcp_state(const nf_conntrack* ct) {
  return nfct_get_attr_u8(ct, ATTR_TCP_STATE);
}

std::uint32_t nfconntrack_get_orig_src(const nf_conntrack* ct) {
  return get_address(ct, nfconntrack_is_reversed(ct) ? ATTR_ORIG_IPV4_DST : ATTR_ORIG_IPV4_SRC);
}

std::uint16_t nfconntrack_get_orig_port(const nf_conntrack* ct) {
  return get_port(ct, nfconntrack_is_reversed(ct) ? ATTR_ORIG_PORT_DST : ATTR_ORIG_PORT_SRC);
}

std::uint32_t nfconntrack_get_dst(const nf_conntrack* ct) {
  return get_address(ct, nfconntrack_is_reversed(ct) ? ATTR_ORIG_IPV4_SRC : ATTR_ORIG_IPV4_DST);
}

std::uint16_t nfconntrack_get_dst_port(const nf_conntrack* ct) {
  return get_port(ct, nfconntrack_is_reversed(ct) ? ATTR_ORIG_PORT_SRC : ATTR_ORIG_PORT_DST);
}

nfconntrack_ends_t nfconntrack_get_ends(const nf_conntrack* ct) {
  nfconntrack_ends_t ends{0, 0, get_port(ct, ATTR_ORIG_PORT_SRC), get_port(ct, ATTR_ORIG_PORT_DST)};
  if (nfct_get_attr_u8(ct, ATTR_ORIG_L3PROTO) == AF_INET) {
    ends.src = nfct_get_attr_u32(ct, ATTR_ORIG_IPV4_SRC);
    ends.dst = nfct_get_attr_u32(ct, ATTR_ORIG_IPV4_DST);
  }
  if (nfconntrack_is_reversed(ct))
    return {ends.dst, ends.src, ends.dport, ends.sport};
  return ends;
}

std::uint32_t nfconntrack_get_id(const nf_conntrack* ct) {
  return nfct_get_attr_u32(ct, ATTR_ID);
}

void nfconntrack_update_counters(nf_conntrack* ct, nfconntrack_stats_t& orig_memory,
                                 nfconntrack_stats_t& repl_memory) {
  const nfconntrack_stats_t orig = get_stats(ct, false);
  const nfconntrack_stats_t repl = get_stats(ct, true);
  if (!is_above(orig_memory, orig) && !is_above(repl_memory, repl)) {
    set_counter(ct, ATTR_ORIG_COUNTER_PACKETS, orig.packets - orig_memory.packets);
    set_counter(ct, ATTR_ORIG_COUNTER_BYTES, orig.bytes - orig_memory.bytes);
    set_counter(ct, ATTR_REPL_COUNTER_PACKETS, repl.packets - repl_memory.packets);
    set_counter(ct, ATTR_REPL_COUNTER_BYTES, repl.bytes - repl_memory.bytes);
  }
  orig_memory = orig;
  repl_memory = repl;
}

}  // namespace zol_monitor
