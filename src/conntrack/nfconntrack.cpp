#include "conntrack/nfconntrack.h"

#include <arpa/inet.h>

#include <libnetfilter_conntrack/libnetfilter_conntrack.h>

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

std::uint32_t nfconntrack_get_id(const nf_conntrack* ct) {
  return nfct_get_attr_u32(ct, ATTR_ID);
}

}  // namespace zol_monitor
