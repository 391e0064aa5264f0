// The routes of one kernel table, by destination. Value types.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "config/subnet.h"

namespace zol {

// A bit mask.
using ROUTE_STATE = unsigned;
inline constexpr ROUTE_STATE route_seen = 1;   // in the last dump, or in a notification since
inline constexpr ROUTE_STATE route_stale = 2;  // not seen again since the dump before
inline constexpr ROUTE_STATE route_any = route_seen | route_stale;

struct Route {
  Subnet subnet;            // the destination
  std::string via;          // the gateway's dotted address, empty without one
  std::string dev;          // the interface's name, empty without one
  bool added = false;       // true for a new route, false for one that has gone
  bool link_local = false;  // the gateway is a link-local address
  std::uint16_t table = 0;  // the table's number, its lower 16 bits
  ROUTE_STATE state = 0;

  // The way to the destination is the same.
  bool same_hop(const Route& other) const { return via == other.via && dev == other.dev; }
};

// One route a destination; a later one takes the place of an earlier.
//
// A copy is deep for whoever holds it, yet costs nothing: the tables of the prefix lengths are shared until
// one of the two changes them. Main thread only, all copies together.
class RouteMap {
 public:
  // True when the route is new: its destination was unknown, or was reached by another gateway or interface.
  // A route whose subnet is unset is not taken.
  bool add_route(const Route& route);
  // True when the route was there. A destination that is held with another gateway or interface stays: that
  // is another route, which the kernel still has.
  bool del_route(const Route& route);

  // The route of the longest prefix that holds the address, given in network order: one element, or none.
  std::vector<Route> find(unsigned address) const;
  // The route to exactly that destination; null without one. Good until the map changes.
  const Route* find_exact(const Subnet& subnet) const;
  // The routes whose state has no bit outside `mask`.
  std::vector<Route> dump(ROUTE_STATE mask) const;
  // The same without copies: calls visit(const Route&) for each.
  template <typename Visit>
  void for_each(ROUTE_STATE mask, Visit visit) const;

  // Marks every route stale; add_route marks one seen again.
  void set_stale();
  // Drops the routes that are stale.
  void del_stale();
  void clear();
  bool empty() const { return size() == 0; }
  std::size_t size() const;

 private:
  static constexpr int longest = 32;

  // Neighbours get neighbouring places: the kernel dumps routes in the order of their addresses.
  struct NetworkHash {
    int host_bits = 0;
    std::size_t operator()(std::uint32_t first) const noexcept {
      return static_cast<std::uint64_t>(first) >> host_bits;
    }
  };
  using Table = std::unordered_map<std::uint32_t, Route, NetworkHash>;  // by the first address, host order

  // The table of a prefix length, this map's own from now on.
  Table& own_table(int length);

  std::array<std::shared_ptr<Table>, longest + 1> tables_;  // by prefix length; null for an empty one
};

template <typename Visit>
void RouteMap::for_each(ROUTE_STATE mask, Visit visit) const {
  for (const auto& table : tables_) {
    if (!table)
      continue;
    for (const auto& [first, route] : *table) {
      if ((route.state & ~mask) == 0)
        visit(route);
    }
  }
}

}  // namespace zol
