#include "sites/sites_subnets_map.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "sites/site_service.h"
#include "sites/vpn_conn_info.h"

namespace {

using zol::SitesSubnetsMap;
using zol::SiteSubnet;
using zol::Subnet;

std::uint32_t address(const char* text) {
  return inet_addr(text);
}

std::shared_ptr<zol::SiteService> site(const std::string& name) {
  auto made = std::make_shared<zol::SiteService>();
  made->name = name;
  return made;
}

void add(SitesSubnetsMap& map, const std::string& subnet, const std::string& name) {
  map.add_subnet({site(name), nullptr, Subnet(subnet)});
}

std::string name_at(const SitesSubnetsMap& map, const char* text) {
  const SiteSubnet found = map.find(address(text));
  return found.site ? found.site->name : "nobody";
}

// Verifies that the longest prefix wins, whichever was put in first.
TEST(SitesSubnetsMapTest, LongestPrefix) {
  for (const bool longest_first : {false, true}) {
    SitesSubnetsMap map;
    std::vector<std::pair<const char*, const char*>> subnets{
        {"10.0.0.0/8", "wide"}, {"10.1.0.0/16", "middle"}, {"10.1.2.3/32", "host"}};
    if (longest_first)
      std::swap(subnets.front(), subnets.back());
    for (const auto& [subnet, name] : subnets)
      add(map, subnet, name);
    EXPECT_EQ(name_at(map, "10.1.2.3"), "host");
    EXPECT_EQ(name_at(map, "10.1.2.4"), "middle");
    EXPECT_EQ(name_at(map, "10.2.2.3"), "wide");
    EXPECT_EQ(name_at(map, "11.1.2.3"), "nobody");
  }
}

// Verifies every prefix length from 0 to 32, at both ends of its subnet.
TEST(SitesSubnetsMapTest, EveryLength) {
  for (int length = 0; length <= 32; ++length) {
    SitesSubnetsMap map;
    const Subnet subnet(address("172.16.34.51"), length);
    map.add_subnet({site("it"), nullptr, subnet});
    EXPECT_EQ(map.find(htonl(subnet.first)).subnet, subnet) << length;
    EXPECT_EQ(map.find(htonl(subnet.last)).subnet, subnet) << length;
    if (length == 0)
      continue;
    EXPECT_EQ(map.look_up(htonl(subnet.first - 1)), nullptr) << length;
    EXPECT_EQ(map.look_up(htonl(subnet.last + 1)), nullptr) << length;
  }
}

// Verifies that a miss is told by null pointers and a negative prefix.
TEST(SitesSubnetsMapTest, Miss) {
  const SiteSubnet found = SitesSubnetsMap().find(address("10.0.0.1"));
  EXPECT_EQ(found.site, nullptr);
  EXPECT_EQ(found.conn, nullptr);
  EXPECT_LT(found.subnet.prefix, 0);
}

// Verifies that a later entry of the same subnet replaces site and connection, and the stored subnet stays.
TEST(SitesSubnetsMapTest, LaterEntryReplacesTheOwner) {
  SitesSubnetsMap map;
  const std::uint32_t first = 0x0a000000;
  const Subnet stored(first, 0x0affffff, 8);
  const Subnet later(first, 0x0a0000ff, 8);  // equal length and first address
  map.add_subnet({site("first"), nullptr, stored});
  const auto conn = std::make_shared<zol::VPNConnInfo>();
  map.add_subnet({site("second"), conn, later});
  const SiteSubnet found = map.find(address("10.0.0.9"));
  EXPECT_EQ(found.site->name, "second");
  EXPECT_EQ(found.conn, conn);
  EXPECT_EQ(found.subnet, stored);
  map.add_subnet({nullptr, nullptr, later});
  EXPECT_EQ(map.find(address("10.0.0.9")).site, nullptr);
}

// Verifies that an unset subnet isn't taken.
TEST(SitesSubnetsMapTest, UnsetSubnet) {
  SitesSubnetsMap map;
  map.add_subnet({site("it"), nullptr, Subnet()});
  EXPECT_TRUE(map.empty());
  EXPECT_EQ(map.look_up(0), nullptr);
}

// Verifies that an emptied map finds nothing and may be filled again.
TEST(SitesSubnetsMapTest, Clear) {
  SitesSubnetsMap map;
  add(map, "10.0.0.0/8", "before");
  EXPECT_FALSE(map.empty());
  map.clear();
  EXPECT_TRUE(map.empty());
  EXPECT_EQ(name_at(map, "10.0.0.1"), "nobody");
  add(map, "10.0.0.0/8", "after");
  EXPECT_EQ(name_at(map, "10.0.0.1"), "after");
}

// Verifies 20,000 random look-ups among 2,000 random subnets against a search through all of them.
TEST(SitesSubnetsMapTest, AgainstSearch) {
  std::mt19937 random(7);
  SitesSubnetsMap map;
  std::vector<Subnet> subnets;
  for (int i = 0; i < 2000; ++i) {
    const Subnet subnet(static_cast<unsigned>(random() & 0xffff000fu), static_cast<int>(random() % 26 + 7));
    subnets.push_back(subnet);
    map.add_subnet({nullptr, nullptr, subnet});
  }
  int hits = 0;
  for (int i = 0; i < 20000; ++i) {
    const auto ip = static_cast<std::uint32_t>(random() & 0xffff000fu);
    const Subnet* best = nullptr;
    for (const Subnet& subnet : subnets) {
      if (subnet.is_ip_in_range(ip) && (best == nullptr || subnet.prefix > best->prefix))
        best = &subnet;
    }
    const SiteSubnet* found = map.look_up(ip);
    ASSERT_EQ(found == nullptr, best == nullptr);
    hits += found != nullptr;
    if (best != nullptr) {
      ASSERT_EQ(found->subnet, *best);
    }
  }
  EXPECT_GT(hits, 1000);
}

}  // namespace
