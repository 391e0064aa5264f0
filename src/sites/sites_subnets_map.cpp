#include "sites/sites_subnets_map.h"

#include <arpa/inet.h>

#include <algorithm>
#include <bit>

namespace zol {

namespace {

constexpr std::size_t fewest_buckets = 2;
constexpr std::size_t most_on_average = 4;
constexpr std::uint32_t golden_ratio = 0x9e3779b1;  // spreads addresses that differ in a few bits

std::uint32_t first_octet(std::uint32_t address) {
  return address >> 24;
}

std::size_t bucket_of(std::uint32_t first, int shift) {
  return first * golden_ratio >> shift;
}

}  // namespace

inline const SiteSubnet* SitesSubnetsMap::Table::find(std::uint32_t first) const {
  for (std::size_t i = bucket_of(first, shift_);; i = (i + 1) & (buckets_.size() - 1)) {
    const Bucket& bucket = buckets_[i];
    std::uint32_t found = 0;
    for (std::uint32_t n = 0; n < bucket_size; ++n)
      found |= static_cast<std::uint32_t>(bucket.first[n] == first) << n;
    found &= (1u << bucket.count) - 1;
    if (found != 0)
      return &entries_[bucket.place[std::countr_zero(found)]];
    if (bucket.count < bucket_size)
      return nullptr;
  }
}

void SitesSubnetsMap::Table::add(const SiteSubnet& entry) {
  if (entries_.size() >= most_on_average * buckets_.size())
    grow();
  if (const SiteSubnet* found = find(entry.subnet.first)) {
    SiteSubnet& stored = entries_[static_cast<std::size_t>(found - entries_.data())];
    stored.site = entry.site;
    stored.conn = entry.conn;
    return;
  }
  insert(entry.subnet.first, static_cast<std::uint32_t>(entries_.size()));
  entries_.push_back(entry);
}

void SitesSubnetsMap::Table::insert(std::uint32_t first, std::uint32_t place) {
  std::size_t i = bucket_of(first, shift_);
  while (buckets_[i].count == bucket_size)
    i = (i + 1) & (buckets_.size() - 1);
  Bucket& bucket = buckets_[i];
  bucket.first[bucket.count] = first;
  bucket.place[bucket.count++] = place;
}

void SitesSubnetsMap::Table::grow() {
  const std::size_t size = std::max(fewest_buckets, 2 * buckets_.size());
  buckets_ = std::vector<Bucket>(size);
  shift_ = 32 - std::countr_zero(size);
  for (std::size_t i = 0; i < entries_.size(); ++i)
    insert(entries_[i].subnet.first, static_cast<std::uint32_t>(i));
}

void SitesSubnetsMap::Table::clear() {
  entries_.clear();
  for (Bucket& bucket : buckets_)
    bucket.count = 0;
}

void SitesSubnetsMap::add_subnet(const SiteSubnet& entry) {
  const int length = entry.subnet.prefix;
  if (length < 0 || length > longest)
    return;
  tables_[length].add(entry);
  for (std::uint32_t octet = first_octet(entry.subnet.first); octet <= first_octet(entry.subnet.last);
       ++octet)
    lengths_[octet] |= std::uint64_t{1} << length;
  is_empty_ = false;
}

SiteSubnet SitesSubnetsMap::find(std::uint32_t address) const {
  const SiteSubnet* found = look_up(address);
  return found == nullptr ? SiteSubnet{} : *found;
}

const SiteSubnet* SitesSubnetsMap::look_up(std::uint32_t address) const {
  const std::uint32_t host_order = ntohl(address);
  for (std::uint64_t lengths = lengths_[first_octet(host_order)]; lengths != 0;) {
    const int length = std::bit_width(lengths) - 1;
    if (const SiteSubnet* found = tables_[length].find(first_address(host_order, length)))
      return found;
    lengths ^= std::uint64_t{1} << length;
  }
  return nullptr;
}

void SitesSubnetsMap::clear() {
  for (Table& table : tables_)
    table.clear();
  lengths_.fill(0);
  is_empty_ = true;
}

}  // namespace zol
