// The storage of a map value: entries in the order in which they came, one after the other in memory, and
// beyond a few dozen of them a sorted index.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "variant.h"

namespace libvariant {

// A key and its value, 24 bytes. The size of the key, and whether it is a copy that the entry owns, stand in
// the padding of the value.
class MapEntry {
 public:
  // A literal key is not copied. Throws std::length_error for a key of 2 GiB or more.
  MapEntry(std::string_view key, bool literal, Variant entry_value);
  MapEntry(const MapEntry& other);
  MapEntry(MapEntry&& other) noexcept;
  MapEntry& operator=(MapEntry&& other) noexcept;
  MapEntry& operator=(const MapEntry&) = delete;
  ~MapEntry();

  std::string_view key() const { return {key_, value.key_size_ >> 1}; }
  bool has_literal_key() const { return (value.key_size_ & 1) == 0; }

 private:
  const char* key_;

 public:
  Variant value;
};
static_assert(sizeof(MapEntry) == 24);

class VariantMap {
 public:
  explicit VariantMap(std::size_t expected_keys = 0) { entries_.reserve(expected_keys); }
  VariantMap(const VariantMap& other);
  VariantMap& operator=(const VariantMap&) = delete;

  std::size_t size() const { return entries_.size(); }
  const std::vector<MapEntry>& entries() const { return entries_; }
  // Null when the key is missing.
  Variant* find(std::string_view key);
  // Adds an entry whose key is not there yet; the arguments are those of MapEntry.
  template <typename... Arguments>
  Variant& add(Arguments&&... arguments) {
    if (entries_.size() == entries_.capacity())
      make_room();
    entries_.emplace_back(std::forward<Arguments>(arguments)...);
    if (index_ || entries_.size() > index_from)
      index_last();
    return entries_.back().value;
  }
  // Keeps the order of the others while the map has no index.
  bool erase(std::string_view key);
  void clear();
  // Takes over the entries of the other map; see Variant::Merge.
  void merge(VariantMap& other);

 private:
  // Linear search is the faster one up to about here, and most maps of a report are smaller.
  static constexpr std::size_t index_from = 32;
  using Index = std::map<std::string_view, std::size_t>;

  std::size_t position(std::string_view key) const;  // size() when missing
  void make_index();
  void make_room();
  void index_last();

  std::vector<MapEntry> entries_;
  std::unique_ptr<Index> index_;
};

}  // namespace libvariant
