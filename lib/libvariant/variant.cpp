#include "variant.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

#include "variant_access.h"
#include "variant_map.h"

namespace libvariant {
namespace {

const Variant& shared_null() {
  static const Variant null;
  return null;
}

// What a change on a value of the wrong kind gives back: null again at each call.
Variant& discarded() {
  static thread_local Variant value;
  value = Variant();
  return value;
}

template <typename Integer>
Integer cut_to_range(double value) {
  using Limits = std::numeric_limits<Integer>;
  if (std::isnan(value))
    return 0;
  // 2^63 and 2^64 are doubles, the largest integers below them are not.
  constexpr double beyond = std::is_signed_v<Integer> ? 0x1p63 : 0x1p64;
  if (value >= beyond)
    return Limits::max();
  if (value <= static_cast<double>(Limits::min()))
    return Limits::min();
  return static_cast<Integer>(value);
}

bool is_number(const Variant& value) {
  return value.kind() == Variant::Kind::Signed || value.kind() == Variant::Kind::Unsigned ||
         value.kind() == Variant::Kind::Double;
}

template <typename Integer>
bool equals_double(Integer number, double real) {
  constexpr double beyond = std::is_signed_v<Integer> ? 0x1p63 : 0x1p64;
  return real < beyond && real >= static_cast<double>(std::numeric_limits<Integer>::min()) &&
         std::trunc(real) == real && static_cast<Integer>(real) == number;
}

bool equal_numbers(const Variant& a, const Variant& b) {
  using Kind = Variant::Kind;
  if (a.kind() == Kind::Double && b.kind() == Kind::Double)
    return a.AsDouble() == b.AsDouble();
  if (a.kind() == Kind::Double)
    return equal_numbers(b, a);
  if (b.kind() == Kind::Double)
    return a.kind() == Kind::Signed ? equals_double(a.AsInt(), b.AsDouble())
                                    : equals_double(a.AsUnsigned(), b.AsDouble());
  if (a.kind() == b.kind())
    return a.kind() == Kind::Signed ? a.AsInt() == b.AsInt() : a.AsUnsigned() == b.AsUnsigned();
  return a.kind() == Kind::Signed ? std::cmp_equal(a.AsInt(), b.AsUnsigned())
                                  : std::cmp_equal(a.AsUnsigned(), b.AsInt());
}

}  // namespace

// --- making, copying, moving

Variant::Variant(const char* value) {
  hold_text(value == nullptr ? std::string_view() : value);
}
Variant::Variant(const std::string& value) {
  hold_text(value);
}
Variant::Variant(std::string_view value) {
  hold_text(value);
}
Variant::Variant(const Variant& other) {
  copy_content(other);
}

Variant& Variant::operator=(const Variant& other) {
  if (this != &other) {
    Variant copy(other);  // before the release: `other` may be a part of this value
    release();
    take_content(copy);
  }
  return *this;
}

Variant& Variant::operator=(Variant&& other) noexcept {
  if (this != &other) {
    Variant taken(std::move(other));
    release();
    take_content(taken);
  }
  return *this;
}

Variant Variant::make_map(std::size_t expected_keys) {
  Variant value;
  value.payload_.map = new VariantMap(expected_keys);
  value.kind_ = Kind::Map;
  return value;
}

Variant Variant::make_list() {
  Variant value;
  value.payload_.list = new List;
  value.kind_ = Kind::List;
  return value;
}

// Content is everything but key_size_, which belongs to the entry that the value stands in.
void Variant::copy_content(const Variant& other) {
  switch (other.kind_) {
    case Kind::String:
      hold_text(other.text());
      return;
    case Kind::List:
      payload_.list = new List(*other.payload_.list);
      break;
    case Kind::Map:
      payload_.map = new VariantMap(*other.payload_.map);
      break;
    default:
      payload_ = other.payload_;
  }
  kind_ = other.kind_;
}

void Variant::release_storage() noexcept {
  switch (kind_) {
    case Kind::String:
      delete[] payload_.long_text;
      break;
    case Kind::List:
      delete payload_.list;
      break;
    case Kind::Map:
      delete payload_.map;
      break;
    default:
      break;
  }
}

// --- text

void Variant::hold_text(std::string_view text) {
  if (text.size() <= sizeof(payload_.short_text)) {
    payload_ = {.natural = 0};
    text.copy(payload_.short_text, text.size());
    text_size_ = static_cast<std::uint8_t>(text.size());
  } else {
    if (text.size() > std::numeric_limits<std::uint32_t>::max())
      throw std::length_error("text too long");
    const auto size = static_cast<std::uint32_t>(text.size());
    payload_.long_text = new char[sizeof(size) + text.size()];
    std::memcpy(payload_.long_text, &size, sizeof(size));
    text.copy(payload_.long_text + sizeof(size), text.size());
    text_size_ = text_on_heap;
  }
  kind_ = Kind::String;
}

std::string_view Variant::text() const {
  return VariantAccess::text(*this);
}
std::string_view Variant::AsStringView() const {
  return IsString() ? text() : std::string_view();
}
std::string Variant::AsString() const {
  return std::string(AsStringView());
}

// --- maps

bool Variant::become_map() {
  if (kind_ == Kind::Null)
    *this = make_map();
  return kind_ == Kind::Map;
}

Variant& Variant::put(std::string_view key, bool literal, bool replace, Variant value) {
  if (!become_map())
    return discarded();
  Variant* present = payload_.map->find(key);
  if (present == nullptr)
    return payload_.map->add(key, literal, std::move(value));
  if (replace)
    *present = std::move(value);
  return *present;
}

Variant& Variant::append_entry(std::string_view key, Variant value) {
  if (!become_map())
    return discarded();
  return payload_.map->add(key, true, std::move(value));
}

const Variant& Variant::At(std::string_view key) const {
  const Variant* found = IsMap() ? payload_.map->find(key) : nullptr;
  return found == nullptr ? shared_null() : *found;
}

Variant* Variant::Find(std::string_view key) {
  return IsMap() ? payload_.map->find(key) : nullptr;
}

bool Variant::Contains(std::string_view key) const {
  return IsMap() && payload_.map->find(key) != nullptr;
}

bool Variant::Erase(std::string_view key) {
  return IsMap() && payload_.map->erase(key);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): its entries are taken out
void Variant::Merge(Variant other) {
  if (other.IsMap() && become_map())
    payload_.map->merge(*other.payload_.map);
}

std::map<std::string, Variant> Variant::AsMap() const {
  std::map<std::string, Variant> copy;
  ForEach([&](std::string_view key, const Variant& value) { copy.emplace(key, value); });
  return copy;
}

std::size_t Variant::map_size() const {
  return IsMap() ? payload_.map->size() : 0;
}

std::pair<std::string_view, const Variant*> Variant::map_entry(std::size_t index) const {
  const MapEntry& entry = payload_.map->entries()[index];
  return {entry.key(), &entry.value};
}

// --- lists

Variant& Variant::Append(Variant value) {
  if (kind_ == Kind::Null)
    *this = make_list();
  if (kind_ != Kind::List)
    return discarded();
  payload_.list->push_back(std::move(value));
  return payload_.list->back();
}

const Variant::List& Variant::AsList() const {
  static const List empty;
  return IsList() ? *payload_.list : empty;
}

Variant::List* Variant::MutableList() {
  return IsList() ? payload_.list : nullptr;
}

// --- all kinds

std::size_t Variant::Size() const {
  return IsList() ? payload_.list->size() : map_size();
}

bool Variant::Empty() const {
  switch (kind_) {
    case Kind::Null:
      return true;
    case Kind::String:
      return text().empty();
    case Kind::List:
    case Kind::Map:
      return Size() == 0;
    default:
      return false;
  }
}

void Variant::Clear() {
  switch (kind_) {
    case Kind::String:
      *this = Variant("");
      break;
    case Kind::List:
      *this = make_list();
      break;
    case Kind::Map:
      payload_.map->clear();
      break;
    default:
      *this = Variant();
  }
}

bool Variant::AsBool() const {
  return kind_ == Kind::Bool && payload_.boolean;
}

std::int64_t Variant::AsInt() const {
  switch (kind_) {
    case Kind::Signed:
      return payload_.number;
    case Kind::Unsigned:
      return static_cast<std::int64_t>(
          std::min<std::uint64_t>(payload_.natural, std::numeric_limits<std::int64_t>::max()));
    case Kind::Double:
      return cut_to_range<std::int64_t>(payload_.real);
    default:
      return 0;
  }
}

std::uint64_t Variant::AsUnsigned() const {
  switch (kind_) {
    case Kind::Signed:
      return static_cast<std::uint64_t>(std::max<std::int64_t>(payload_.number, 0));
    case Kind::Unsigned:
      return payload_.natural;
    case Kind::Double:
      return cut_to_range<std::uint64_t>(payload_.real);
    default:
      return 0;
  }
}

double Variant::AsDouble() const {
  switch (kind_) {
    case Kind::Signed:
      return static_cast<double>(payload_.number);
    case Kind::Unsigned:
      return static_cast<double>(payload_.natural);
    case Kind::Double:
      return payload_.real;
    default:
      return 0;
  }
}

bool operator==(const Variant& a, const Variant& b) {
  if (is_number(a) && is_number(b))
    return equal_numbers(a, b);
  if (a.kind_ != b.kind_)
    return false;
  switch (a.kind_) {
    case Variant::Kind::Bool:
      return a.payload_.boolean == b.payload_.boolean;
    case Variant::Kind::String:
      return a.text() == b.text();
    case Variant::Kind::List:
      return *a.payload_.list == *b.payload_.list;
    case Variant::Kind::Map: {
      bool equal = a.Size() == b.Size();
      a.ForEach([&](std::string_view key, const Variant& value) {
        equal = equal && b.Contains(key) && b.At(key) == value;
      });
      return equal;
    }
    default:
      return true;
  }
}

}  // namespace libvariant
