// Where libnetfilter_conntrack keeps an attribute in its objects.
//
// The layout of the objects isn't public, and the library's getters cost two calls and two tables each, which
// a reading of a large connection table pays a dozen times a connection. So the layout is asked of the
// library itself, once: nfct_get_attr points into the object, and setting an attribute to what it holds
// already changes the one bit that says that it is set. What doesn't answer like this is left to the getters.
#pragma once

#include <libnetfilter_conntrack/libnetfilter_conntrack.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zol_monitor {

class NfctField {
 public:
  // Of an attribute that is a number of at most 8 bytes.
  explicit NfctField(nf_conntrack_attr attribute);

  bool is_learned() const { return set_mask_ != 0; }

  // Into the object; null when the attribute isn't set. What nfct_get_attr gives.
  const void* get(const nf_conntrack* ct) const {
    if (!is_learned())
      return nfct_get_attr(ct, attribute_);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(ct);
    return (bytes[set_byte_] & set_mask_) != 0 ? bytes + value_at_ : nullptr;
  }

  bool is_set(const nf_conntrack* ct) const { return get(ct) != nullptr; }

  // As the library keeps it: addresses and ports in network order. 0 when the attribute isn't set.
  template <typename Value>
  Value value(const nf_conntrack* ct) const {
    Value result{};
    if (const void* const at = get(ct))
      std::memcpy(&result, at, sizeof result);
    return result;
  }

 private:
  nf_conntrack_attr attribute_;
  std::uint32_t value_at_ = 0;
  std::uint32_t set_byte_ = 0;
  unsigned char set_mask_ = 0;
};

}  // namespace zol_monitor
