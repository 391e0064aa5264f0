#include "conntrack/nfconntrack.h"

#include <arpa/inet.h>

#include <libnetfilter_conntrack/libnetfilter_conntrack.h>

#include "conntrack/nfct_field.h"

namespace zol_monitor {

namespace {

const NfctField l3_protocol(ATTR_ORIG_L3PROTO);
const NfctField l4_protocol(ATTR_ORIG_L4PROTO);
const NfctField original_source(ATTR_ORIG_IPV4_SRC);
const NfctField original_target(ATTR_ORIG_IPV4_DST);
const NfctField original_source_port(ATTR_ORIG_PORT_SRC);
const NfctField original_target_port(ATTR_ORIG_PORT_DST);
const NfctField connection_mark(ATTR_MARK);
const NfctField tcp_state(ATTR_TCP_STATE);

struct CounterFields {
  NfctField packets;
  NfctField bytes;
};
const CounterFields original_counters{NfctField(ATTR_ORIG_COUNTER_PACKETS),
                                      NfctField(ATTR_ORIG_COUNTER_BYTES)};
const CounterFields reply_counters{NfctField(ATTR_REPL_COUNTER_PACKETS), NfctField(ATTR_REPL_COUNTER_BYTES)};

std::uint32_t get_address(const nf_conntrack* ct, const NfctField& address) {
  return l3_protocol.value<std::uint8_t>(ct) == AF_INET ? address.value<std::uint32_t>(ct) : 0;
}

std::uint16_t get_port(const nf_conntrack* ct, const NfctField& port) {
  return ntohs(port.value<std::uint16_t>(ct));
}

nfconntrack_stats_t get_stats(const nf_conntrack* ct, const CounterFields& counters) {
  return {counters.packets.value<std::uint64_t>(ct), counters.bytes.value<std::uint64_t>(ct)};
}

bool has_stats(const nf_conntrack* ct, const CounterFields& counters) {
  return counters.packets.is_set(ct) && counters.bytes.is_set(ct);
}

// The library lets nobody set a counter: nfct_set_attr_u64 leaves the value of these attributes alone. The
// getter, however, points into the object, which is ours and was made mutable by nfct_new; hence the cast.
void set_counter(nf_conntrack* ct, const NfctField& counter, std::uint64_t value) {
  if (const void* const at = counter.get(ct))
    *static_cast<std::uint64_t*>(const_cast<void*>(at)) = value;
}

void set_stats(nf_conntrack* ct, const CounterFields& counters, const nfconntrack_stats_t& stats) {
  set_counter(ct, counters.packets, stats.packets);
  set_counter(ct, counters.bytes, stats.bytes);
}

nfconntrack_stats_t operator-(const nfconntrack_stats_t& a, const nfconntrack_stats_t& b) {
  return {a.packets - b.packets, a.bytes - b.bytes};
}

bool is_above(const nfconntrack_stats_t& memory, const nfconntrack_stats_t& current) {
  return memory.packets > current.packets || memory.bytes > current.bytes;
}

}  // namespace

bool nfconntrack_test_bit(const nf_conntrack* ct, int attribute) {
  return nfct_attr_is_set(ct, static_cast<nf_conntrack_attr>(attribute)) > 0;
}

std::uint8_t nfconntrack_get_protonum(const nf_conntrack* ct) {
  return l4_protocol.value<std::uint8_t>(ct);
}

std::uint32_t nfconntrack_get_mark(const nf_conntrack* ct) {
  return connection_mark.value<std::uint32_t>(ct);
}

bool nfconntrack_is_reversed(const nf_conntrack* ct) {
  return (nfconntrack_get_mark(ct) & conntrack_mark::reversed) != 0;
}

void nfconntrack_reverse(nf_conntrack* ct) {
  nfct_set_attr_u32(ct, ATTR_MARK, nfconntrack_get_mark(ct) ^ conntrack_mark::reversed);
}

nfconntrack_stats_t nfconntrack_get_orig_stats(const nf_conntrack* ct) {
  return get_stats(ct, nfconntrack_is_reversed(ct) ? reply_counters : original_counters);
}

nfconntrack_stats_t nfconntrack_get_repl_stats(const nf_conntrack* ct) {
  return get_stats(ct, nfconntrack_is_reversed(ct) ? original_counters : reply_counters);
}

bool nfconntrack_get_counters(const nf_conntrack* ct, nfconntrack_stats_t& orig, nfconntrack_stats_t& repl) {
  if (!has_stats(ct, original_counters) || !has_stats(ct, reply_counters))
    return false;
  orig = nfconntrack_get_orig_stats(ct);
  repl = nfconntrack_get_repl_stats(ct);
  return true;
}

std::uint8_t nfconntrack_get_tcp_state(const nf_conntrack* ct) {
  return tcp_state.value<std::uint8_t>(ct);
}

std::uint32_t nfconntrack_get_orig_src(const nf_conntrack* ct) {
  return get_address(ct, nfconntrack_is_reversed(ct) ? original_target : original_source);
}

std::uint16_t nfconntrack_get_orig_port(const nf_conntrack* ct) {
  return get_port(ct, nfconntrack_is_reversed(ct) ? original_target_port : original_source_port);
}

std::uint32_t nfconntrack_get_dst(const nf_conntrack* ct) {
  return get_address(ct, nfconntrack_is_reversed(ct) ? original_source : original_target);
}

std::uint16_t nfconntrack_get_dst_port(const nf_conntrack* ct) {
  return get_port(ct, nfconntrack_is_reversed(ct) ? original_source_port : original_target_port);
}

nfconntrack_ends_t nfconntrack_get_ends(const nf_conntrack* ct) {
  return {nfconntrack_get_orig_src(ct), nfconntrack_get_dst(ct), nfconntrack_get_orig_port(ct),
          nfconntrack_get_dst_port(ct)};
}

std::uint32_t nfconntrack_get_id(const nf_conntrack* ct) {
  return nfct_get_attr_u32(ct, ATTR_ID);
}

void nfconntrack_update_counters(nf_conntrack* ct, nfconntrack_stats_t& orig_memory,
                                 nfconntrack_stats_t& repl_memory) {
  const nfconntrack_stats_t orig = get_stats(ct, original_counters);
  const nfconntrack_stats_t repl = get_stats(ct, reply_counters);
  if (!is_above(orig_memory, orig) && !is_above(repl_memory, repl)) {
    set_stats(ct, original_counters, orig - orig_memory);
    set_stats(ct, reply_counters, repl - repl_memory);
  }
  orig_memory = orig;
  repl_memory = repl;
}

}  // namespace zol_monitor
