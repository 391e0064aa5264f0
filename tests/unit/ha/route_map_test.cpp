#include "ha/route_map.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <string>

namespace {

using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using zol::Route;
using zol::route_any;
using zol::route_seen;
using zol::route_stale;
using zol::RouteMap;
using zol::Subnet;

Route route(const std::string& subnet, const std::string& via = "10.0.0.1", const std::string& dev = "eth0") {
  return {Subnet(subnet), via, dev, true, false, 1001, route_seen};
}

std::vector<std::string> texts(const std::vector<Route>& routes) {
  std::vector<std::string> result;
  for (const Route& one : routes)
    result.push_back(one.subnet.to_str() + " " + one.via + " " + one.dev);
  return result;
}

TEST(RouteMap, fresh_map_is_empty) {
  // Verifies that a map without routes finds nothing, not even a default route.
  const RouteMap map;
  EXPECT_TRUE(map.empty());
  EXPECT_THAT(map.find(inet_addr("10.1.2.3")), IsEmpty());
  EXPECT_THAT(map.dump(route_any), IsEmpty());
  EXPECT_EQ(map.find_exact(Subnet("0.0.0.0/0")), nullptr);
}

TEST(RouteMap, longest_prefix_wins) {
  // Verifies that of all the routes that hold an address the longest prefix's is found, from 32 bits down to
  // 0.
  RouteMap map;
  map.add_route(route("0.0.0.0/0", "10.0.0.9"));
  map.add_route(route("10.0.0.0/8", "10.0.0.8"));
  map.add_route(route("10.1.0.0/16", "10.0.0.16"));
  map.add_route(route("10.1.2.3/32", "10.0.0.32"));
  EXPECT_THAT(texts(map.find(inet_addr("10.1.2.3"))), UnorderedElementsAre("10.1.2.3/32 10.0.0.32 eth0"));
  EXPECT_THAT(texts(map.find(inet_addr("10.1.2.4"))), UnorderedElementsAre("10.1.0.0/16 10.0.0.16 eth0"));
  EXPECT_THAT(texts(map.find(inet_addr("10.2.2.4"))), UnorderedElementsAre("10.0.0.0/8 10.0.0.8 eth0"));
  EXPECT_THAT(texts(map.find(inet_addr("192.0.2.1"))), UnorderedElementsAre("0.0.0.0/0 10.0.0.9 eth0"));
}

TEST(RouteMap, address_outside_all_prefixes) {
  // Verifies that without a default route an address that no prefix holds has no route.
  RouteMap map;
  map.add_route(route("10.0.0.0/8"));
  EXPECT_THAT(map.find(inet_addr("11.0.0.1")), IsEmpty());
}

TEST(RouteMap, one_route_a_destination) {
  // Verifies that a later route to a destination takes the place of the earlier one, and only that one
  // counts.
  RouteMap map;
  EXPECT_TRUE(map.add_route(route("10.1.0.0/16", "10.0.0.1")));
  EXPECT_TRUE(map.add_route(route("10.1.0.0/16", "10.0.0.2")));
  EXPECT_THAT(texts(map.dump(route_any)), UnorderedElementsAre("10.1.0.0/16 10.0.0.2 eth0"));
  EXPECT_EQ(map.size(), 1U);
}

TEST(RouteMap, repeated_route_is_not_new) {
  // Verifies that a route is new when its destination, gateway or interface is, and not when it is repeated.
  RouteMap map;
  EXPECT_TRUE(map.add_route(route("10.1.0.0/16", "10.0.0.1", "eth0")));
  EXPECT_FALSE(map.add_route(route("10.1.0.0/16", "10.0.0.1", "eth0")));
  EXPECT_TRUE(map.add_route(route("10.1.0.0/16", "10.0.0.1", "eth1")));
  EXPECT_TRUE(map.add_route(route("10.1.0.0/17", "10.0.0.1", "eth1")));
}

TEST(RouteMap, host_bits_are_masked) {
  // Verifies that the destination's key is its masked address, whatever the record's first address says.
  RouteMap map;
  Route odd = route("10.1.0.0/16");
  odd.subnet.first += 7;
  map.add_route(odd);
  EXPECT_NE(map.find_exact(Subnet("10.1.0.0/16")), nullptr);
  EXPECT_TRUE(map.del_route(route("10.1.0.0/16")));
  EXPECT_TRUE(map.empty());
}

TEST(RouteMap, unset_subnet_is_not_taken) {
  // Verifies that a route without a destination changes nothing and can't be deleted.
  RouteMap map;
  Route unset = route("10.1.0.0/16");
  unset.subnet = Subnet();
  EXPECT_FALSE(map.add_route(unset));
  EXPECT_FALSE(map.del_route(unset));
  EXPECT_TRUE(map.empty());
}

TEST(RouteMap, deletion) {
  // Verifies that a deletion takes out that route alone: neither one by another hop nor another length's.
  RouteMap map;
  map.add_route(route("10.1.0.0/16", "10.0.0.1"));
  map.add_route(route("10.1.0.0/17", "10.0.0.1"));
  EXPECT_FALSE(map.del_route(route("10.1.0.0/16", "10.0.0.2")));
  EXPECT_FALSE(map.del_route(route("10.1.0.0/16", "10.0.0.1", "eth7")));
  EXPECT_FALSE(map.del_route(route("10.1.0.0/18", "10.0.0.1")));
  EXPECT_EQ(map.size(), 2U);
  EXPECT_TRUE(map.del_route(route("10.1.0.0/16", "10.0.0.1")));
  EXPECT_FALSE(map.del_route(route("10.1.0.0/16", "10.0.0.1")));
  EXPECT_THAT(texts(map.dump(route_any)), UnorderedElementsAre("10.1.0.0/17 10.0.0.1 eth0"));
}

TEST(RouteMap, dump_by_state) {
  // Verifies that a dump gives the routes whose state has no bit outside the mask.
  RouteMap map;
  map.add_route(route("10.1.0.0/16"));
  map.set_stale();
  map.add_route(route("10.2.0.0/16"));
  Route both = route("10.3.0.0/16");
  both.state = route_any;
  map.add_route(both);
  Route none = route("10.4.0.0/16");
  none.state = 0;
  map.add_route(none);
  EXPECT_THAT(texts(map.dump(route_seen)),
              UnorderedElementsAre("10.2.0.0/16 10.0.0.1 eth0", "10.4.0.0/16 10.0.0.1 eth0"));
  EXPECT_THAT(texts(map.dump(route_stale)),
              UnorderedElementsAre("10.1.0.0/16 10.0.0.1 eth0", "10.4.0.0/16 10.0.0.1 eth0"));
  EXPECT_THAT(map.dump(0), SizeIs(1));
  EXPECT_THAT(map.dump(3), SizeIs(4));
}

TEST(RouteMap, stale_routes) {
  // Verifies that set_stale marks all, a repeated route is seen again, and del_stale drops what is left
  // stale.
  RouteMap map;
  map.add_route(route("10.1.0.0/16"));
  map.add_route(route("10.2.0.0/16"));
  map.add_route(route("0.0.0.0/0"));
  map.set_stale();
  EXPECT_THAT(map.dump(route_seen), IsEmpty());
  EXPECT_THAT(map.dump(route_any), SizeIs(3));
  map.add_route(route("10.2.0.0/16"));
  map.del_stale();
  EXPECT_THAT(texts(map.dump(route_seen)), UnorderedElementsAre("10.2.0.0/16 10.0.0.1 eth0"));
}

TEST(RouteMap, copy_is_deep) {
  // Verifies that a copy keeps what it held, whatever is done to the map it was made of, and the other way.
  RouteMap map;
  map.add_route(route("10.1.0.0/16"));
  map.add_route(route("10.2.0.0/16"));
  RouteMap copy = map;
  map.del_route(route("10.1.0.0/16"));
  map.add_route(route("10.3.0.0/16"));
  map.set_stale();
  EXPECT_THAT(texts(copy.dump(route_seen)),
              UnorderedElementsAre("10.1.0.0/16 10.0.0.1 eth0", "10.2.0.0/16 10.0.0.1 eth0"));
  copy.clear();
  EXPECT_TRUE(copy.empty());
  EXPECT_THAT(map.dump(route_any), SizeIs(2));
  const RouteMap another = map;
  map.del_stale();
  EXPECT_TRUE(map.empty());
  EXPECT_THAT(another.dump(route_stale), SizeIs(2));
}

}  // namespace
