// To which site and connection an address belongs, by the longest prefix.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "config/subnet.h"

namespace zol {

struct SiteService;
struct VPNConnInfo;

// A subnet and whose it is. Either pointer may be null: a subnet of a site as a whole, or a route that
// belongs to no known connection.
struct SiteSubnet {
  std::shared_ptr<SiteService> site;
  std::shared_ptr<VPNConnInfo> conn;
  Subnet subnet;  // its prefix is negative in the answer of a look-up that found nothing
};

// One hash table for each prefix length from 0 to 32. A look-up is the hot path of new sessions and of the
// readings of the connection table: it probes the lengths that may have the address, longest first, and
// allocates nothing.
class SitesSubnetsMap {
 public:
  // An entry of the same length and first address keeps its subnet and gets the new site and connection. An
  // unset subnet is left out.
  void add_subnet(const SiteSubnet& entry);
  // The entry with the longest prefix that holds the address, which is in network order.
  SiteSubnet find(std::uint32_t address) const;
  // The same without a copy: null when nothing holds it. Good until the map changes.
  const SiteSubnet* look_up(std::uint32_t address) const;
  // Keeps the memory for the next filling.
  void clear();
  bool empty() const { return is_empty_; }

 private:
  static constexpr int longest = 32;

  // Buckets of one line of the cache each, filled from the front, by the subnet's first address in host
  // order. What a full bucket has no room for is in the next one. A probe compares all seven addresses of a
  // bucket at once, so that the processor needn't guess which of them is there.
  class Table {
   public:
    const SiteSubnet* find(std::uint32_t first) const;
    void add(const SiteSubnet& entry);
    void clear();

   private:
    static constexpr std::uint32_t bucket_size = 7;
    struct alignas(64) Bucket {
      std::uint32_t first[bucket_size];
      std::uint32_t count;
      std::uint32_t place[bucket_size];  // in entries_
    };

    void insert(std::uint32_t first, std::uint32_t place);
    void grow();

    std::vector<Bucket>
        buckets_;  // empty, or a power of two; on average four of seven places are taken at most
    std::vector<SiteSubnet> entries_;
    int shift_ = 0;  // 32 less the binary logarithm of the number of buckets
  };

  std::array<Table, longest + 1> tables_;
  // By the address's first octet, bit n: a subnet of length n has such addresses. The traffic of the outside
  // world seldom shares that octet with a customer's, and is done then.
  std::array<std::uint64_t, 256> lengths_ = {};
  bool is_empty_ = true;
};

}  // namespace zol
