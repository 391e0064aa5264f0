// The content of a value for this library's own hot loops; the kind is known to the caller.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

#include "variant.h"
#include "variant_map.h"

namespace libvariant {

struct VariantAccess {
  static bool boolean(const Variant& value) { return value.payload_.boolean; }
  static std::int64_t number(const Variant& value) { return value.payload_.number; }
  static std::uint64_t natural(const Variant& value) { return value.payload_.natural; }
  static double real(const Variant& value) { return value.payload_.real; }
  static const Variant::List& list(const Variant& value) { return *value.payload_.list; }
  static const VariantMap& map(const Variant& value) { return *value.payload_.map; }
  static std::string_view text(const Variant& value) {
    if (value.text_size_ != Variant::text_on_heap)
      return {value.payload_.short_text, value.text_size_};
    std::uint32_t size = 0;
    std::memcpy(&size, value.payload_.long_text, sizeof(size));
    return {value.payload_.long_text + sizeof(size), size};
  }
};

}  // namespace libvariant
