// The dynamic value in which reports and events are built, and its JSON form.
//
// A value is null, a bool, a signed or unsigned 64-bit number, a double, a string, a list or a map. It owns
// what it holds; copying copies deep, moving is cheap and leaves null. Maps keep one value for each key; key
// order carries no meaning.
//
// Reads that don't fit the kind of the value give the empty result of their type and never throw.
//
// Values wait in memory by the hundred thousand, so they are small: 16 bytes for a value, with a text of up
// to 8 bytes in place, and 24 for an entry of a map, whose literal keys cost nothing more. Look-up in a map
// is linear while it is small and logarithmic beyond. A reference to a value in a map or list is good until
// the next value is added to or taken from that map or list.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace libvariant {

class VariantMap;  // the storage of a map
class MapEntry;

// A key written in the code. Only a constant expression makes one, so the text outlives every map and is
// never copied.
class LiteralKey {
 public:
  consteval LiteralKey(const char* text) : text_(text) {}  // NOLINT(google-explicit-constructor)
  std::string_view text() const { return text_; }

 private:
  std::string_view text_;
};

template <typename T>
concept UnsignedNumber = std::unsigned_integral<T> && !std::same_as<T, bool>;

class Variant {
 public:
  enum class Kind : std::uint8_t { Null, Bool, Signed, Unsigned, Double, String, List, Map };
  using List = std::vector<Variant>;

  Variant() noexcept = default;
  template <std::same_as<bool> T>  // bool alone, since any pointer would convert to it
  Variant(T value) noexcept : Variant(BoolTag{}, value) {}  // NOLINT: values convert by design
  template <std::signed_integral T>
  Variant(T value) noexcept : Variant(SignedTag{}, static_cast<std::int64_t>(value)) {}  // NOLINT
  template <UnsignedNumber T>
  Variant(T value) noexcept : Variant(UnsignedTag{}, static_cast<std::uint64_t>(value)) {}  // NOLINT
  template <std::floating_point T>
  Variant(T value) noexcept : Variant(DoubleTag{}, static_cast<double>(value)) {}  // NOLINT
  Variant(const char* value);         // NOLINT: null is an empty string
  Variant(const std::string& value);  // NOLINT
  Variant(std::string_view value);    // NOLINT
  Variant(const Variant& other);
  Variant(Variant&& other) noexcept { take_content(other); }
  Variant& operator=(const Variant& other);
  Variant& operator=(Variant&& other) noexcept;
  ~Variant() { release(); }

  static Variant make_map(std::size_t expected_keys = 0);
  static Variant make_list();

  Kind kind() const { return kind_; }
  bool IsNull() const { return kind_ == Kind::Null; }
  bool IsMap() const { return kind_ == Kind::Map; }
  bool IsList() const { return kind_ == Kind::List; }
  bool IsString() const { return kind_ == Kind::String; }
  // Null, or a string, list or map without content.
  bool Empty() const;
  std::size_t Size() const;  // of a list or map, 0 else
  // A list, map or string becomes empty and keeps its kind; everything else becomes null.
  void Clear();

  // --- map: a null value becomes a map first; on another kind they do nothing (and give a shared null)
  // Sets the value of a key, replacing what is there. Returns the stored value.
  Variant& Assign(LiteralKey key, Variant value) { return put(key.text(), true, true, std::move(value)); }
  template <std::same_as<std::string> S>
  Variant& Assign(const S& key, Variant value) {  // NOLINT(performance-unnecessary-value-param): it is moved
    return assign_copied(key, std::move(value));
  }
  // The same, unless the key is there already; returns what is stored.
  Variant& Set(LiteralKey key, Variant value) { return put(key.text(), true, false, std::move(value)); }
  template <std::same_as<std::string> S>
  Variant& Set(const S& key, Variant value) {  // NOLINT(performance-unnecessary-value-param): it is moved
    return set_copied(key, std::move(value));
  }
  // Assign for a key that the map doesn't have yet, without the search; the caller vouches for that.
  Variant& Add(LiteralKey key, Variant value) { return append_entry(key.text(), std::move(value)); }
  // The value of a key; a null Variant, not stored, when the key is missing.
  const Variant& At(std::string_view key) const;
  Variant* Find(std::string_view key);
  bool Contains(std::string_view key) const;
  bool Erase(std::string_view key);
  // Takes over all keys of the other map; equal keys get its values, maps within maps are merged likewise.
  void Merge(Variant other);
  // A copy as a standard map; empty for other kinds.
  std::map<std::string, Variant> AsMap() const;
  // Calls visit(std::string_view key, const Variant& value) for each entry.
  template <typename Visitor>
  void ForEach(Visitor visit) const {
    for (std::size_t i = 0, size = map_size(); i < size; ++i) {
      const auto entry = map_entry(i);
      visit(entry.first, *entry.second);
    }
  }

  // --- list: a null value becomes a list first; on another kind Append does nothing
  Variant& Append(Variant value);
  const List& AsList() const;  // an empty list for other kinds
  List* MutableList();         // null for other kinds

  // --- scalars: a number converts to the other number types, cut to their range
  bool AsBool() const;
  std::int64_t AsInt() const;
  std::uint64_t AsUnsigned() const;
  double AsDouble() const;
  std::string AsString() const;           // empty for other kinds
  std::string_view AsStringView() const;  // the same, good while the value stays as it is

  // Equal kinds and contents; the number kinds compare by value.
  friend bool operator==(const Variant& a, const Variant& b);

 private:
  friend class MapEntry;
  friend struct VariantAccess;

  struct BoolTag {};
  struct DoubleTag {};
  struct SignedTag {};
  struct UnsignedTag {};
  Variant(BoolTag, bool value) noexcept : payload_{.boolean = value}, kind_(Kind::Bool) {}
  Variant(DoubleTag, double value) noexcept : payload_{.real = value}, kind_(Kind::Double) {}
  Variant(SignedTag, std::int64_t value) noexcept : payload_{.number = value}, kind_(Kind::Signed) {}
  Variant(UnsignedTag, std::uint64_t value) noexcept : payload_{.natural = value}, kind_(Kind::Unsigned) {}

  bool become_map();
  Variant& put(std::string_view key, bool literal, bool replace, Variant value);
  Variant& append_entry(std::string_view key, Variant value);
  Variant& assign_copied(std::string_view key, Variant value) {
    return put(key, false, true, std::move(value));
  }
  Variant& set_copied(std::string_view key, Variant value) {
    return put(key, false, false, std::move(value));
  }
  std::size_t map_size() const;
  std::pair<std::string_view, const Variant*> map_entry(std::size_t index) const;

  void hold_text(std::string_view text);
  std::string_view text() const;
  void copy_content(const Variant& other);
  // Inline, as all that happens to a number on its way into a map: a session's report has sixty.
  void take_content(Variant& other) noexcept {
    payload_ = other.payload_;
    kind_ = std::exchange(other.kind_, Kind::Null);
    text_size_ = other.text_size_;
  }
  void release() noexcept {
    if (kind_ > Kind::String || (kind_ == Kind::String && text_size_ == text_on_heap))
      release_storage();
    kind_ = Kind::Null;
  }
  void release_storage() noexcept;

  static constexpr std::uint8_t text_on_heap = 0xff;

  union Payload {
    bool boolean;
    std::int64_t number;
    std::uint64_t natural;
    double real;
    char short_text[8];
    char* long_text;  // a 32-bit size, then the bytes
    List* list;
    VariantMap* map;
  };
  Payload payload_ = {.natural = 0};
  Kind kind_ = Kind::Null;
  std::uint8_t text_size_ = 0;  // of a short text, or text_on_heap
  std::uint32_t key_size_ = 0;  // of the key when this is the value of a map's entry; no part of the value
};
static_assert(sizeof(Variant) == 16);

// JSON text of a value. Parameters is a map with "pretty" (bool, false when missing: four blanks a level, a
// line feed a member) and "precision" (significant digits of a double, 1 to 17, 17 when missing). A double
// that is not finite is written as 0. Bytes that are no UTF-8 are written as U+FFFD, one for each part that
// can't belong to a character.
std::string Serialize(const Variant& value, const Variant& parameters);

// The value of a JSON text (RFC 8259). Text that is no JSON, or nests deeper than 256, logs one error with
// the offset under the category "Variant" and gives a null value; the text itself isn't logged. Of equal keys
// the last wins. A whole number is kept as signed or unsigned 64 bits, one beyond that and any other as a
// double.
Variant Deserialize(std::string_view text);

}  // namespace libvariant
