#include "variant_map.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace libvariant {
namespace {

const char* copy_of(std::string_view key) {
  char* copy = new char[key.size()];
  std::memcpy(copy, key.data(), key.size());
  return copy;
}

}  // namespace

MapEntry::MapEntry(std::string_view key, bool literal, Variant entry_value)
    : key_(nullptr), value(std::move(entry_value)) {
  if (key.size() > std::numeric_limits<std::uint32_t>::max() >> 1)
    throw std::length_error("key too long");
  const bool owned = !literal && !key.empty();
  key_ = owned ? copy_of(key) : (key.empty() ? "" : key.data());
  value.key_size_ = static_cast<std::uint32_t>(key.size()) << 1 | (owned ? 1U : 0U);
}

MapEntry::MapEntry(const MapEntry& other) : MapEntry(other.key(), other.has_literal_key(), other.value) {}

MapEntry::MapEntry(MapEntry&& other) noexcept
    : key_(std::exchange(other.key_, "")), value(std::move(other.value)) {
  value.key_size_ = std::exchange(other.value.key_size_, 0);
}

MapEntry& MapEntry::operator=(MapEntry&& other) noexcept {
  std::swap(key_, other.key_);
  std::swap(value.key_size_, other.value.key_size_);
  value = std::move(other.value);
  return *this;
}

MapEntry::~MapEntry() {
  if (!has_literal_key())
    delete[] key_;
}

VariantMap::VariantMap(const VariantMap& other) : entries_(other.entries_) {
  if (entries_.size() > index_from)
    make_index();
}

std::size_t VariantMap::position(std::string_view key) const {
  if (index_) {
    const auto found = index_->find(key);
    return found == index_->end() ? entries_.size() : found->second;
  }
  const auto found = std::find_if(entries_.begin(), entries_.end(),
                                  [&](const MapEntry& entry) { return entry.key() == key; });
  return static_cast<std::size_t>(found - entries_.begin());
}

Variant* VariantMap::find(std::string_view key) {
  const std::size_t at = position(key);
  return at == entries_.size() ? nullptr : &entries_[at].value;
}

// Less room ahead than std::vector takes: many thousand small maps wait for a report.
void VariantMap::make_room() {
  entries_.reserve(entries_.size() + std::max<std::size_t>(4, entries_.size() / 4));
}

void VariantMap::index_last() {
  if (index_)
    index_->emplace(entries_.back().key(), entries_.size() - 1);
  else
    make_index();
}

void VariantMap::make_index() {
  auto index = std::make_unique<Index>();
  for (std::size_t i = 0; i < entries_.size(); ++i)
    index->emplace(entries_[i].key(), i);
  index_ = std::move(index);
}

bool VariantMap::erase(std::string_view key) {
  const std::size_t at = position(key);
  if (at == entries_.size())
    return false;
  if (!index_) {
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(at));
    return true;
  }
  index_->erase(index_->find(key));
  if (at + 1 != entries_.size()) {  // the last one fills the gap, so that the index stays right
    entries_[at] = std::move(entries_.back());
    index_->find(entries_[at].key())->second = at;
  }
  entries_.pop_back();
  return true;
}

void VariantMap::clear() {
  index_.reset();
  entries_.clear();
}

void VariantMap::merge(VariantMap& other) {
  for (MapEntry& incoming : other.entries_) {
    Variant* present = find(incoming.key());
    if (present == nullptr)
      add(std::move(incoming));
    else if (present->IsMap() && incoming.value.IsMap())
      present->Merge(std::move(incoming.value));
    else
      *present = std::move(incoming.value);
  }
  other.index_.reset();  // its keys have moved
  other.entries_.clear();
}

}  // namespace libvariant
