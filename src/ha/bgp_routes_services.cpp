#include "ha/bgp_routes_services.h"

#include <event2/event.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <unistd.h>

#include <algorithm>

#include "sup_logger.h"

namespace zol {

namespace {

constexpr unsigned round_period_ms = 20000;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("BGPRoutesServices");
  return l;
}

bool make_non_blocking(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

}  // namespace

bool BGPRoutesServices::fast_path_reset_enabled = false;
bool BGPRoutesServices::without_kernel = false;
const char* BGPRoutesServices::fast_path_file = "/proc/xt_udp_tunnel/reset_fastpath";

BGPRoutesServices* BGPRoutesServices::instance() {
  static BGPRoutesServices services;
  return &services;
}

void BGPRoutesServices::apply_configuration(int enabled) {
  fast_path_reset_enabled = enabled != 0;
}

BGPRoutesServices::BGPRoutesServices()
    : recv_event(EV_READ | EV_PERSIST, routes_recv_cb, this), periodic_timer(routes_periodic_cb, this, -1) {
  if (!BGPRoutesServices::init()) {
    SUP_LOG(logger(), log_level::error) << "Creation failed";
    return;
  }
  SUP_LOG(logger(), log_level::info) << "Created successfully";
  periodic_timer.charge(0);
}

BGPRoutesServices::~BGPRoutesServices() {
  recv_event.del(false);  // before the socket goes
}

bool BGPRoutesServices::init() {
  if (without_kernel)
    return true;
  if (!RouteReader::init())
    return false;
  const int fd = mnl_socket_get_fd(socket);
  if (!make_non_blocking(fd)) {
    SUP_LOG(logger(), log_level::error) << "Failed to set updates socket as non-blocking";
    return false;
  }
  if (!recv_event.add(fd, -1)) {
    SUP_LOG(logger(), log_level::error) << "Failed to create new event for updates route reader";
    return false;
  }
  return true;
}

RouteMap BGPRoutesServices::get_routing_table(int table) const {
  const auto found = tables.find(table);
  return found == tables.end() ? RouteMap() : found->second;
}

std::vector<Route> BGPRoutesServices::get_routes_for_dest(int table, unsigned address) const {
  const auto found = tables.find(table);
  return found == tables.end() ? std::vector<Route>() : found->second.find(address);
}

void BGPRoutesServices::routes_recv_cb(int, short, void* self) {
  static_cast<BGPRoutesServices*>(self)->routes_recv();
}

void BGPRoutesServices::routes_recv() {
  recv_route_result();
  bool changed = false;
  for (const auto& [table, routes] : pending)
    changed |= take_pending(table, routes);
  pending.clear();
  reset_fast_path_if_needed(changed);
}

bool BGPRoutesServices::take_pending(int table, const std::vector<Route>& routes) {
  RouteMap& map = tables[table];
  bool changed = false;
  for (const Route& route : routes) {
    SUP_LOG(logger(), log_level::debug) << "[" << table << "]"
                                        << " Got " << (route.added ? "added" : "removed") << " route for "
                                        << route.subnet << " via " << route.via << " dev " << route.dev;
    changed |= route.added ? add(map, route) : remove(map, route);
  }
  return changed;
}

bool BGPRoutesServices::add(RouteMap& map, const Route& route) {
  const Route* known = map.find_exact(route.subnet);
  if (known != nullptr && known->dev != route.dev)
    forget_subnet(map, *known);
  if (!map.add_route(route))
    return false;
  subnets_by_dev[route.dev].insert(route.subnet);
  return true;
}

bool BGPRoutesServices::remove(RouteMap& map, const Route& route) {
  if (!map.del_route(route))
    return false;
  forget_subnet(map, route);
  return true;
}

void BGPRoutesServices::forget_subnet(const RouteMap& map, const Route& route) {
  const auto has_it_too = [&](const auto& entry) {
    const Route* other = &entry.second == &map ? nullptr : entry.second.find_exact(route.subnet);
    return other != nullptr && other->dev == route.dev;
  };
  const auto found = subnets_by_dev.find(route.dev);
  if (found != subnets_by_dev.end() && std::none_of(tables.begin(), tables.end(), has_it_too))
    found->second.erase(route.subnet);
}

void BGPRoutesServices::routes_periodic_cb(int, short, void* self) {
  static_cast<BGPRoutesServices*>(self)->periodic();
}

void BGPRoutesServices::periodic() {
  handle_stale_routes();
  send_dump_request();
  periodic_timer.charge(round_period_ms);
}

void BGPRoutesServices::handle_stale_routes() {
  if (dump_unfinished)
    SUP_LOG(logger(), log_level::debug) << "handle_stale_routes: the last dump isn't whole, all routes stay";
  for (auto& [table, map] : tables) {
    if (dump_unfinished)
      break;
    map.for_each(route_stale, [&, &map = map](const Route& route) { forget_subnet(map, route); });
    map.del_stale();
    map.set_stale();
  }
  reset_fast_path_if_needed(false);
  // One reset is enough for an interface without routes.
  std::erase_if(subnets_by_dev, [](const auto& entry) { return entry.second.empty(); });
}

void BGPRoutesServices::reset_fast_path_if_needed(bool changed) {
  if (!fast_path_reset_enabled)
    return;
  const auto is_empty = [](const auto& entry) { return entry.second.empty(); };
  if (!changed && std::none_of(subnets_by_dev.begin(), subnets_by_dev.end(), is_empty))
    return;
  SUP_LOG(logger(), log_level::info) << "Resetting fast path";
  if (without_kernel)
    return;
  const int fd = open(fast_path_file, O_WRONLY | O_TRUNC | O_CLOEXEC);
  if (fd < 0) {
    SUP_LOG(logger(), log_level::error) << "Failed to open reset fast path proc file";
    return;
  }
  if (write(fd, "1", 1) != 1)
    SUP_LOG(logger(), log_level::error) << "Failed to write reset fast path proc file";
  close(fd);
}

}  // namespace zol
