#include "ha/route_map.h"

#include <netinet/in.h>

#include <utility>

namespace zol {

namespace {

bool has_length(const Subnet& subnet) {
  return subnet.prefix >= 0 && subnet.prefix <= ipv4_bits;
}

}  // namespace

RouteMap::Table& RouteMap::own_table(int length) {
  std::shared_ptr<Table>& table = tables_[static_cast<std::size_t>(length)];
  if (!table)
    table = std::make_shared<Table>(0, NetworkHash{longest - length});
  else if (table.use_count() > 1)
    table = std::make_shared<Table>(*table);
  return *table;
}

bool RouteMap::add_route(const Route& route) {
  if (!has_length(route.subnet))
    return false;
  const auto [place, inserted] =
      own_table(route.subnet.prefix)
          .try_emplace(first_address(route.subnet.first, route.subnet.prefix), route);
  if (inserted)
    return true;
  Route& known = place->second;
  if (known.same_hop(route)) {
    known.state = route.state;
    return false;
  }
  known = route;
  return true;
}

bool RouteMap::del_route(const Route& route) {
  const Route* known = find_exact(route.subnet);
  if (known == nullptr || !known->same_hop(route))
    return false;
  own_table(route.subnet.prefix).erase(first_address(route.subnet.first, route.subnet.prefix));
  return true;
}

const Route* RouteMap::find_exact(const Subnet& subnet) const {
  if (!has_length(subnet))
    return nullptr;
  const auto& table = tables_[static_cast<std::size_t>(subnet.prefix)];
  if (!table)
    return nullptr;
  const auto found = table->find(first_address(subnet.first, subnet.prefix));
  return found == table->end() ? nullptr : &found->second;
}

std::vector<Route> RouteMap::find(unsigned address) const {
  const std::uint32_t wanted = ntohl(address);
  for (int length = longest; length >= 0; --length) {
    const auto& table = tables_[static_cast<std::size_t>(length)];
    if (!table)
      continue;
    const auto found = table->find(first_address(wanted, length));
    if (found != table->end())
      return {found->second};
  }
  return {};
}

std::vector<Route> RouteMap::dump(ROUTE_STATE mask) const {
  std::vector<Route> routes;
  routes.reserve(mask == route_any ? size() : 0);
  for_each(mask, [&](const Route& route) { routes.push_back(route); });
  return routes;
}

void RouteMap::set_stale() {
  for (int length = 0; length <= longest; ++length) {
    if (!tables_[static_cast<std::size_t>(length)])
      continue;
    for (auto& [first, route] : own_table(length))
      route.state = route_stale;
  }
}

void RouteMap::del_stale() {
  for (int length = 0; length <= longest; ++length) {
    auto& slot = tables_[static_cast<std::size_t>(length)];
    if (!slot)
      continue;
    Table& table = own_table(length);
    std::erase_if(table, [](const auto& entry) { return (entry.second.state & route_stale) != 0; });
    if (table.empty())
      slot.reset();
  }
}

void RouteMap::clear() {
  tables_.fill(nullptr);
}

std::size_t RouteMap::size() const {
  std::size_t routes = 0;
  for (const auto& table : tables_)
    routes += table ? table->size() : 0;
  return routes;
}

}  // namespace zol
