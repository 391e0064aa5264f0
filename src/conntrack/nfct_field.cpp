#include "conntrack/nfct_field.h"

#include <algorithm>
#include <array>
#include <bit>
#include <vector>

#include "conntrack/nfct_handle.h"

namespace zol_monitor {

namespace {

constexpr std::size_t largest_value = sizeof(std::uint64_t);
using Bytes = std::vector<unsigned char>;

// The library calls the question deprecated, and offers no other.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
std::size_t object_size() {
  return nfct_maxsize();
}
#pragma GCC diagnostic pop

Bytes bytes_of(const nf_conntrack* ct) {
  Bytes bytes(object_size());
  std::memcpy(bytes.data(), ct, bytes.size());
  return bytes;
}

// Whether they differ in one bit, and in which.
bool find_changed_bit(const Bytes& before, const Bytes& after, std::uint32_t& byte, unsigned char& mask) {
  const auto changed = std::mismatch(before.begin(), before.end(), after.begin());
  if (changed.first == before.end() || !std::equal(changed.first + 1, before.end(), changed.second + 1))
    return false;
  byte = static_cast<std::uint32_t>(changed.first - before.begin());
  mask = *changed.first ^ *changed.second;
  return std::has_single_bit(mask);
}

}  // namespace

NfctField::NfctField(nf_conntrack_attr attribute) : attribute_(attribute) {
  const NfctHandle ct(nfct_new());
  if (!ct)
    return;
  const Bytes before = bytes_of(ct.get());
  constexpr std::array<unsigned char, largest_value> nothing{};
  nfct_set_attr(ct.get(), attribute, nothing.data());
  // Before the object this wraps round to a great number.
  const std::uintptr_t value_at = reinterpret_cast<std::uintptr_t>(nfct_get_attr(ct.get(), attribute)) -
                                  reinterpret_cast<std::uintptr_t>(ct.get());
  unsigned char mask = 0;
  if (value_at > before.size() - largest_value ||
      !find_changed_bit(before, bytes_of(ct.get()), set_byte_, mask))
    return;
  value_at_ = static_cast<std::uint32_t>(value_at);
  set_mask_ = mask;
}

}  // namespace zol_monitor
