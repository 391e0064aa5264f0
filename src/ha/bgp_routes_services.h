// A live copy of the kernel's IPv4 route tables, into which the node's BGP daemon writes its routes.
//
// Notifications keep it right at once. A dump every 20 seconds catches what they missed: a route that the
// kernel has and the copy lacks comes with the next dump, and one that the kernel has lost goes two rounds
// later at the latest. A dump that failed, or that the kernel didn't bring to its end, takes nothing away.
//
// A change of routes resets the fast path of the kernel's UDP tunnels, whose cached next hops it outdates.
//
// Logs under "BGPRoutesServices". Main thread only.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/zol_libevent.h"
#include "ha/route_map.h"
#include "ha/route_reader.h"

namespace zol {

// Neighbouring subnets get neighbouring places, those of each length elsewhere.
struct SubnetHash {
  std::size_t operator()(const Subnet& subnet) const noexcept {
    constexpr std::uint64_t spread = 0x9e3779b97f4a7c15;
    return (static_cast<std::uint64_t>(subnet.first) >> (32 - subnet.prefix)) +
           static_cast<std::uint64_t>(subnet.prefix) * spread;
  }
};

class BGPRoutesServices : public RouteReader {
 public:
  // Made at first use, lives as long as the process. Needs the loop's base.
  static BGPRoutesServices* instance();
  // Whether a change of routes resets the fast path.
  static void apply_configuration(int enabled);

  ~BGPRoutesServices() override;

  // A copy of that table's routes, empty for a table that isn't known.
  RouteMap get_routing_table(int table) const;
  // The route of a table that an address takes, given in network order: one element, or none.
  std::vector<Route> get_routes_for_dest(int table, unsigned address) const;

  bool init() override;

  std::map<int, RouteMap> tables;
  // By interface: where the routes of all tables lead. An interface that has lost its last one stays, with an
  // empty set, until the round after.
  std::unordered_map<std::string, std::unordered_set<Subnet, SubnetHash>> subnets_by_dev;
  ZOLEventLibEvent recv_event;
  ZOLEventLibEventTimer periodic_timer;

  static bool fast_path_reset_enabled;
  static bool without_kernel;  // init does nothing, and the fast path's file isn't touched
  static const char* fast_path_file;

 protected:
  BGPRoutesServices();

  // Takes what the socket has into the copy.
  void routes_recv();
  // Drops what the last dump didn't bring back, and marks the rest for the next one.
  void handle_stale_routes();

 private:
  static void routes_recv_cb(int fd, short events, void* self);
  static void routes_periodic_cb(int fd, short events, void* self);

  void periodic();
  bool take_pending(int table, const std::vector<Route>& routes);
  bool add(RouteMap& map, const Route& route);
  bool remove(RouteMap& map, const Route& route);
  // For a route that leaves `map`: its interface loses the destination, unless another table leads there,
  // too.
  void forget_subnet(const RouteMap& map, const Route& route);
  // A change that the caller has seen, or an interface that has lost its last route, calls for a reset.
  void reset_fast_path_if_needed(bool changed);
};

}  // namespace zol
