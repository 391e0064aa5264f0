#include "conntrack/conntrack_message.h"

#include <libmnl/libmnl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace zol_monitor {

namespace {

enum class Form { any, fixed, text, nested };

struct Rule;
using Rules = std::span<const Rule>;  // indexed by the attribute's type

struct Rule {
  Form form = Form::any;
  std::size_t size = 0;         // of a fixed one, in bytes
  const Rule* inner = nullptr;  // the rules of a nested one
  std::size_t inner_count = 0;
};

constexpr Rule any;
constexpr Rule u8 = {Form::fixed, 1};
constexpr Rule u16 = {Form::fixed, 2};
constexpr Rule u32 = {Form::fixed, 4};
constexpr Rule u64 = {Form::fixed, 8};
constexpr Rule ipv6 = {Form::fixed, 16};
constexpr Rule text = {Form::text};

template <std::size_t count>
constexpr Rule nested(const Rule (&inner)[count]) {
  return {Form::nested, 0, inner, count};
}

// Each table is in the order of its enumeration in nfnetlink_conntrack.h, the unused 0 first.
constexpr Rule ip[] = {any, u32, u32, ipv6, ipv6};
constexpr Rule l4proto[] = {any, u8, u16, u16, u16, u8, u8, u16, u8, u8};
constexpr Rule tuple[] = {any, nested(ip), nested(l4proto), u16};
constexpr Rule tcp[] = {any, u8, u8, u8, u16, u16};
constexpr Rule dccp[] = {any, u8, u8, u64};
constexpr Rule sctp[] = {any, u8, u32, u32};
constexpr Rule protoinfo[] = {any, nested(tcp), nested(dccp), nested(sctp)};
constexpr Rule help[] = {any, text};
constexpr Rule counters[] = {any, u64, u64, u32, u32};
constexpr Rule sequence_adjustment[] = {any, u32, u32, u32};
constexpr Rule security_context[] = {any, text};
constexpr Rule timestamp[] = {any, u64, u64};
constexpr Rule synproxy[] = {any, u32, u32, u32};

constexpr Rule connection[] = {
    any,
    nested(tuple),                // CTA_TUPLE_ORIG
    nested(tuple),                // CTA_TUPLE_REPLY
    u32,                          // CTA_STATUS
    nested(protoinfo),            // CTA_PROTOINFO
    nested(help),                 // CTA_HELP
    any,                          // CTA_NAT_SRC
    u32,                          // CTA_TIMEOUT
    u32,                          // CTA_MARK
    nested(counters),             // CTA_COUNTERS_ORIG
    nested(counters),             // CTA_COUNTERS_REPLY
    u32,                          // CTA_USE
    u32,                          // CTA_ID
    any,                          // CTA_NAT_DST
    nested(tuple),                // CTA_TUPLE_MASTER
    nested(sequence_adjustment),  // CTA_SEQ_ADJ_ORIG
    nested(sequence_adjustment),  // CTA_SEQ_ADJ_REPLY
    u32,                          // CTA_SECMARK
    u16,                          // CTA_ZONE
    nested(security_context),     // CTA_SECCTX
    nested(timestamp),            // CTA_TIMESTAMP
    any,                          // CTA_MARK_MASK
    any,                          // CTA_LABELS
    any,                          // CTA_LABELS_MASK
    nested(synproxy),             // CTA_SYNPROXY
};
static_assert(std::size(connection) == CTA_SYNPROXY + 1);

bool is_sound(const nlattr* attribute, Rules rules);

// Like libmnl's walks, it ends where an attribute doesn't fit into the `size` bytes.
bool are_sound(const void* first, std::size_t size, Rules rules) {
  const char* end = static_cast<const char*>(first) + size;
  const auto* attribute = static_cast<const nlattr*>(first);
  const auto rest = [&] { return static_cast<int>(end - reinterpret_cast<const char*>(attribute)); };
  for (; mnl_attr_ok(attribute, rest()); attribute = mnl_attr_next(attribute)) {
    if (!is_sound(attribute, rules))
      return false;
  }
  return true;
}

bool is_sound(const nlattr* attribute, Rules rules) {
  const std::size_t type = mnl_attr_get_type(attribute);
  if (type >= rules.size())
    return true;
  const Rule& rule = rules[type];
  const std::size_t size = mnl_attr_get_payload_len(attribute);
  switch (rule.form) {
    case Form::any:
      return true;
    case Form::fixed:
      return size == rule.size;
    case Form::text:
      return size > 0 && static_cast<const char*>(mnl_attr_get_payload(attribute))[size - 1] == '\0';
    case Form::nested:
      return (size == 0 || size >= MNL_ATTR_HDRLEN) &&
             are_sound(mnl_attr_get_payload(attribute), size, {rule.inner, rule.inner_count});
  }
  return false;
}

}  // namespace

bool is_sound_datagram(const void* datagram, std::size_t size) {
  const auto* at = static_cast<const char*>(datagram);
  while (size >= MNL_NLMSG_HDRLEN) {
    nlmsghdr header;
    std::memcpy(&header, at, sizeof header);
    if (header.nlmsg_len < MNL_NLMSG_HDRLEN || header.nlmsg_len > size)
      return false;
    const std::size_t step = MNL_ALIGN(static_cast<std::size_t>(header.nlmsg_len));
    if (step >= size)
      return true;
    at += step;
    size -= step;
  }
  return true;
}

bool is_sound_conntrack_message(const nlmsghdr* nlh) {
  if (nlh->nlmsg_len < MNL_NLMSG_HDRLEN + sizeof(nfgenmsg))
    return false;
  return are_sound(mnl_nlmsg_get_payload_offset(nlh, sizeof(nfgenmsg)),
                   mnl_nlmsg_get_payload_len(nlh) - MNL_ALIGN(sizeof(nfgenmsg)), connection);
}

}  // namespace zol_monitor
