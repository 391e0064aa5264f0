// What the reports read out of a reading of the connection table.
#include "conntrack/conntrack_stats.h"

namespace zol_monitor {

namespace {

using HopConnections = ConntrackStats::HopConnections;

bool has_bytes(const conntrack_counters_t& sum) {
  return sum.tx_bytes + sum.rx_bytes != 0;
}

unsigned open_connections(const EntityCounters& hop) {
  return hop.tcp_open_connections() + hop.udp_open_connections();
}

unsigned active_connections(const EntityCounters& hop) {
  return hop.tcp_active_connections() + hop.udp_active_connections();
}

void add_by_hop(const LogicalNetworkCounters::EntityMap& hops, unsigned (*connections)(const EntityCounters&),
                HopConnections& map) {
  for (const auto& [address, hop] : hops)
    if (const unsigned count = connections(hop); count != 0)
      map[address] += count;
}

}  // namespace

std::uint32_t ConntrackStats::tcp_active_connections(const std::string& id) {
  return networks[id].tcp_active_connections();
}

std::uint32_t ConntrackStats::udp_active_connections(const std::string& id) {
  return networks[id].udp_active_connections();
}

conntrack_counters_t ConntrackStats::tcp_client2server_counters(const std::string& id, traffic_dir_t dir) {
  return networks[id].tcp_client2server_counters(dir);
}

conntrack_counters_t ConntrackStats::tcp_server2client_counters(const std::string& id, traffic_dir_t dir) {
  return networks[id].tcp_server2client_counters(dir);
}

conntrack_counters_t ConntrackStats::udp_client2server_counters(const std::string& id) {
  return networks[id].udp_client2server_counters();
}

conntrack_counters_t ConntrackStats::udp_server2client_counters(const std::string& id) {
  return networks[id].udp_server2client_counters();
}

conntrack_counters_t ConntrackStats::tcp_client2server_domain_counters(const std::string& id,
                                                                       const std::string& domain,
                                                                       traffic_dir_t dir) {
  return networks[id].tcp_client2server_domain_counters(domain, dir);
}

conntrack_counters_t ConntrackStats::tcp_server2client_domain_counters(const std::string& id,
                                                                       const std::string& domain,
                                                                       traffic_dir_t dir) {
  return networks[id].tcp_server2client_domain_counters(domain, dir);
}

conntrack_counters_t ConntrackStats::udp_client2server_domain_counters(const std::string& id,
                                                                       const std::string& domain) {
  return networks[id].udp_client2server_domain_counters(domain);
}

conntrack_counters_t ConntrackStats::udp_server2client_domain_counters(const std::string& id,
                                                                       const std::string& domain) {
  return networks[id].udp_server2client_domain_counters(domain);
}

std::uint32_t ConntrackStats::tcp_domain_active_connections(const std::string& id,
                                                            const std::string& domain) {
  return networks[id].tcp_domain_active_connections(domain);
}

std::uint32_t ConntrackStats::udp_domain_active_connections(const std::string& id,
                                                            const std::string& domain) {
  return networks[id].udp_domain_active_connections(domain);
}

conntrack_counters_t ConntrackStats::tcp_client2server_client_counters(const std::string& id,
                                                                       const std::string& client) {
  return networks[id].tcp_client2server_client_counters(client);
}

conntrack_counters_t ConntrackStats::tcp_server2client_client_counters(const std::string& id,
                                                                       const std::string& client) {
  return networks[id].tcp_server2client_client_counters(client);
}

conntrack_counters_t ConntrackStats::udp_client2server_client_counters(const std::string& id,
                                                                       const std::string& client) {
  return networks[id].udp_client2server_client_counters(client);
}

conntrack_counters_t ConntrackStats::udp_server2client_client_counters(const std::string& id,
                                                                       const std::string& client) {
  return networks[id].udp_server2client_client_counters(client);
}

std::uint32_t ConntrackStats::tcp_client_active_connections(const std::string& id,
                                                            const std::string& client) {
  return networks[id].tcp_client_active_connections(client);
}

std::uint32_t ConntrackStats::udp_client_active_connections(const std::string& id,
                                                            const std::string& client) {
  return networks[id].udp_client_active_connections(client);
}

bool ConntrackStats::has_counters(const std::string& id, traffic_dir_t dir) {
  const LogicalNetworkCounters& network = networks[id];
  conntrack_counters_t sum =
      network.tcp_server2client_counters(dir) + network.tcp_client2server_counters(dir);
  if (dir == traffic_dir_t::target)
    sum = sum + network.udp_server2client_counters() + network.udp_client2server_counters();
  return has_bytes(sum);
}

bool ConntrackStats::has_domain_counters(const std::string& id, const std::string& domain,
                                         traffic_dir_t dir) {
  LogicalNetworkCounters& network = networks[id];
  conntrack_counters_t sum = network.tcp_server2client_domain_counters(domain, dir) +
                             network.tcp_client2server_domain_counters(domain, dir);
  if (dir == traffic_dir_t::target)
    sum = sum + network.udp_server2client_domain_counters(domain) +
          network.udp_client2server_domain_counters(domain);
  return has_bytes(sum);
}

bool ConntrackStats::logical_network_has_traffic(const std::string& id) const {
  const auto network = networks.find(id);
  return network != networks.end() && network->second.has_traffic();
}

bool ConntrackStats::has_domain_counters(const std::string& id, std::string& out) const {
  const auto network = networks.find(id);
  return network != networks.end() && network->second.has_domain_stats(out);
}

bool ConntrackStats::domain_is_zero_traffic(const std::string& id, const std::string& domain) {
  const auto network = networks.find(id);
  return network != networks.end() && network->second.is_zero_traffic(domain);
}

void ConntrackStats::delete_domain_stats(const std::string& id, const std::string& domain) {
  const auto network = networks.find(id);
  if (network != networks.end())
    network->second.delete_domain_stats(domain);
}

std::uint32_t ConntrackStats::get_total_active_connections() const {
  std::uint32_t sum = 0;
  for (const auto& [id, network] : networks)
    sum += network.total_active_connections();
  return sum;
}

std::uint32_t ConntrackStats::get_total_open_connections() const {
  std::uint32_t sum = 0;
  for (const auto& [id, network] : networks)
    sum += network.total_open_connections();
  return sum;
}

void ConntrackStats::get_next_hop_open_connections_map(HopConnections& map) const {
  map.clear();
  for (const auto& [id, network] : networks)
    add_by_hop(network.next_hop_counters, &open_connections, map);
}

void ConntrackStats::get_next_hop_active_connections_map(HopConnections& map) const {
  map.clear();
  for (const auto& [id, network] : networks)
    add_by_hop(network.next_hop_counters, &active_connections, map);
}

void ConntrackStats::set_prv_connections_map() const {
  last_prv_hop_open_sessions.clear();
  last_prv_hop_active_sessions.clear();
  for (const auto& [id, network] : networks) {
    add_by_hop(network.prv_hop_counters, &open_connections, last_prv_hop_open_sessions);
    add_by_hop(network.prv_hop_counters, &active_connections, last_prv_hop_active_sessions);
  }
}

}  // namespace zol_monitor
