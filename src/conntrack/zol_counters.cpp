#include "conntrack/zol_counters.h"

#include <algorithm>
#include <array>

#include "config/address_text.h"
#include "config/services.h"
#include "config/zol_conf_consts.h"
#include "conntrack/nfconntrack.h"
#include "sessions/settings.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

using zol::address_text;

constexpr int in_row = 0;
constexpr int out_row = 1;
constexpr int forwarded_row = 2;

const std::string unknown_domain = "unknown";

int dir_row(traffic_dir_t dir) {
  switch (dir) {
    case traffic_dir_t::public_hop:
      return 0;
    case traffic_dir_t::private_hop:
      return 2;
    default:
      return 1;
  }
}

int protocol_row(ProtocolIndex p) {
  return static_cast<int>(p);
}

// The index only ever changes for a nibble without a role, which its look-up inserts.
int mark_row(std::uint8_t mark) {
  static const std::array<int, 4> rows = {0, mark_index()[1], mark_index()[2], mark_index()[3]};
  const int role = mark & 3;
  return role != 0 ? rows[static_cast<std::size_t>(role)] : mark_index()[0];
}

std::uint32_t sides_as_one(const std::uint32_t (&connections)[EntityCounters::mark_rows]) {
  return std::max(connections[in_row], connections[out_row]) + connections[forwarded_row];
}

// Whether a protocol is counted by leg; others than TCP only on a middle-mile node.
bool has_legs(ProtocolIndex p) {
  return p == ProtocolIndex::tcp || zol::Helper::is_middle_mile_network();
}

std::string text_of(std::uint32_t address) {
  return address_text(address);
}

const std::string& text_of(const std::string& text) {
  return text;
}

bool has_role(std::uint8_t m, std::uint32_t role) {
  return (m & role) != 0;
}

}  // namespace

std::map<int, int>& mark_index() {
  static std::map<int, int> index = {
      {conntrack_mark::in_bit, in_row},
      {conntrack_mark::out_bit, out_row},
      {conntrack_mark::in_bit | conntrack_mark::out_bit, forwarded_row},
  };
  return index;
}

void EntityCounters::add_counters(const conntrack_counters_t& added, ProtocolIndex p, std::uint8_t mark,
                                  bool is_open, bool is_active, traffic_dir_t dir) {
  const int protocol = protocol_row(p);
  const int row = mark_row(mark);
  conntrack_counters_t& cell = counters[protocol][row][dir_row(dir)];
  cell = cell + added;
  active[protocol][row] += is_active ? 1 : 0;
  open[protocol][row] += is_open ? 1 : 0;
}

void EntityCounters::add_tcp_counters(const conntrack_counters_t& added, std::uint8_t mark, bool is_open,
                                      bool is_active, traffic_dir_t dir) {
  add_counters(added, ProtocolIndex::tcp, mark, is_open, is_active, dir);
}

void EntityCounters::add_udp_counters(const conntrack_counters_t& added, std::uint8_t mark) {
  add_counters(added, ProtocolIndex::udp, mark, true, true, traffic_dir_t::target);
}

void EntityCounters::add_active_connection(ProtocolIndex p, std::uint8_t mark) {
  ++active[protocol_row(p)][mark_row(mark)];
}

std::uint32_t EntityCounters::active_connections(ProtocolIndex p) const {
  return sides_as_one(active[protocol_row(p)]);
}

std::uint32_t EntityCounters::open_connections(ProtocolIndex p) const {
  return sides_as_one(open[protocol_row(p)]);
}

conntrack_counters_t EntityCounters::client2server_counters(ProtocolIndex p, traffic_dir_t dir) const {
  const auto& cells = counters[protocol_row(p)];
  const conntrack_counters_t& in = cells[in_row][dir_row(dir)];
  const conntrack_counters_t& out = cells[out_row][dir_row(dir)];
  const conntrack_counters_t& forwarded = cells[forwarded_row][dir_row(dir)];
  if (!has_legs(p))  // the received packets stand on both sides: readers rely on it
    return {forwarded.rx_packets, forwarded.tx_bytes, forwarded.rx_packets, forwarded.rx_bytes};
  return {out.tx_packets + forwarded.rx_packets, out.tx_bytes + forwarded.rx_bytes,
          in.rx_packets + forwarded.rx_packets, in.rx_bytes + forwarded.rx_bytes};
}

conntrack_counters_t EntityCounters::server2client_counters(ProtocolIndex p, traffic_dir_t dir) const {
  const auto& cells = counters[protocol_row(p)];
  const conntrack_counters_t& in = cells[in_row][dir_row(dir)];
  const conntrack_counters_t& out = cells[out_row][dir_row(dir)];
  const conntrack_counters_t& forwarded = cells[forwarded_row][dir_row(dir)];
  if (!has_legs(p))
    return in;
  return {in.tx_packets + forwarded.tx_packets, in.tx_bytes + forwarded.tx_bytes,
          out.rx_packets + forwarded.tx_packets, out.rx_bytes + forwarded.tx_bytes};
}

conntrack_counters_t EntityCounters::tcp_client2server_counters(traffic_dir_t dir) const {
  return client2server_counters(ProtocolIndex::tcp, dir);
}

conntrack_counters_t EntityCounters::tcp_server2client_counters(traffic_dir_t dir) const {
  return server2client_counters(ProtocolIndex::tcp, dir);
}

conntrack_counters_t EntityCounters::udp_client2server_counters() const {
  return client2server_counters(ProtocolIndex::udp, traffic_dir_t::target);
}

conntrack_counters_t EntityCounters::udp_server2client_counters() const {
  return server2client_counters(ProtocolIndex::udp, traffic_dir_t::target);
}

bool EntityCounters::is_zero_traffic() const {
  for (const auto& protocol : counters)
    for (const auto& row : protocol)
      for (const conntrack_counters_t& cell : row)
        if (cell.tx_bytes != 0 || cell.rx_bytes != 0)
          return false;
  return true;
}

template <typename Key>
EntityCounters& EntityEntries<Key>::of(EntityMap& map, const Key& key) {
  EntityCounters*& entry = entries_[key];
  if (entry == nullptr)
    entry = &map[text_of(key)];
  return *entry;
}
template class EntityEntries<std::uint32_t>;
template class EntityEntries<std::string>;

LogicalNetworkCounters::LogicalNetworkCounters() {
  lookup_setting(zol_conf_consts::monitoring_domain_level_traffic_key, domain_level_traffic);
}

void LogicalNetworkCounters::add_tcp_counters(std::uint32_t client, std::uint32_t src, std::uint16_t sport,
                                              std::uint32_t dst, std::uint16_t dport, std::uint8_t m,
                                              const conntrack_counters_t& counters, bool established,
                                              bool active, const std::string& domain, bool reversed,
                                              bool private_network) {
  traffic_dir_t dir = traffic_dir_t::target;
  traffic_dir_t hop_dir = traffic_dir_t::target;
  if (zol::Services::is_internal_port(reversed ? sport : dport)) {
    dir = private_network ? traffic_dir_t::private_hop : traffic_dir_t::public_hop;
    hop_dir = traffic_dir_t::public_hop;
  }
  total.add_tcp_counters(counters, m, established, active, dir);
  domains_.of(domain_counters, domain_level_traffic ? domain : unknown_domain)
      .add_tcp_counters(counters, m, established, active, dir);
  if (client != 0)
    clients_.of(client_counters, client).add_tcp_counters(counters, m, established, active, hop_dir);
  if (has_role(m, conntrack_mark::out_bit))
    next_hops_.of(next_hop_counters, dst).add_tcp_counters(counters, m, established, active, hop_dir);
  if (has_role(m, conntrack_mark::in_bit))
    prv_hops_.of(prv_hop_counters, src).add_tcp_counters(counters, m, established, active, hop_dir);
}

void LogicalNetworkCounters::add_udp_counters(std::uint32_t client, std::uint32_t src, std::uint16_t,
                                              std::uint32_t dst, std::uint8_t m,
                                              const conntrack_counters_t& counters) {
  total.add_udp_counters(counters, m);
  domain_counters[unknown_domain].add_udp_counters(counters, m);
  clients_.of(client_counters, client).add_udp_counters(counters, m);
  if (has_role(m, conntrack_mark::out_bit))
    next_hops_.of(next_hop_counters, dst).add_udp_counters(counters, m);
  if (has_role(m, conntrack_mark::in_bit))
    prv_hops_.of(prv_hop_counters, src).add_udp_counters(counters, m);
}

void LogicalNetworkCounters::add_active_non_tcp_connection() {
  domain_counters[unknown_domain].add_active_connection(ProtocolIndex::other,
                                                        conntrack_mark::in_bit | conntrack_mark::out_bit);
}

std::uint32_t LogicalNetworkCounters::total_active_connections() const {
  std::uint32_t sum = 0;
  for (const auto& [domain, block] : domain_counters)
    sum += block.tcp_active_connections() + block.udp_active_connections() + block.other_active_connections();
  return sum;
}

std::uint32_t LogicalNetworkCounters::total_open_connections() const {
  std::uint32_t sum = 0;
  for (const auto& [domain, block] : domain_counters)
    sum += block.tcp_open_connections() + block.udp_open_connections();
  return sum;
}

void LogicalNetworkCounters::delete_domain_stats(const std::string& domain) {
  domains_.clear();
  domain_counters.erase(domain);
}

bool LogicalNetworkCounters::has_domain_stats(std::string& out) const {
  if (domain_counters.empty())
    return false;
  out = domain_counters.begin()->first;
  return true;
}

conntrack_counters_t LogicalNetworkCounters::tcp_client2server_counters(traffic_dir_t dir) const {
  return total.tcp_client2server_counters(dir);
}

conntrack_counters_t LogicalNetworkCounters::tcp_server2client_counters(traffic_dir_t dir) const {
  return total.tcp_server2client_counters(dir);
}

conntrack_counters_t LogicalNetworkCounters::udp_client2server_counters() const {
  return total.udp_client2server_counters();
}

conntrack_counters_t LogicalNetworkCounters::udp_server2client_counters() const {
  return total.udp_server2client_counters();
}

conntrack_counters_t LogicalNetworkCounters::tcp_client2server_domain_counters(const std::string& domain,
                                                                               traffic_dir_t dir) {
  return domain_counters[domain].tcp_client2server_counters(dir);
}

conntrack_counters_t LogicalNetworkCounters::tcp_server2client_domain_counters(const std::string& domain,
                                                                               traffic_dir_t dir) {
  return domain_counters[domain].tcp_server2client_counters(dir);
}

conntrack_counters_t LogicalNetworkCounters::udp_client2server_domain_counters(const std::string& domain) {
  return domain_counters[domain].udp_client2server_counters();
}

conntrack_counters_t LogicalNetworkCounters::udp_server2client_domain_counters(const std::string& domain) {
  return domain_counters[domain].udp_server2client_counters();
}

std::uint32_t LogicalNetworkCounters::tcp_domain_active_connections(const std::string& domain) {
  return domain_counters[domain].tcp_active_connections();
}

std::uint32_t LogicalNetworkCounters::udp_domain_active_connections(const std::string& domain) {
  return domain_counters[domain].udp_active_connections();
}

std::uint32_t LogicalNetworkCounters::tcp_client_active_connections(const std::string& client) {
  return client_counters[client].tcp_active_connections();
}

std::uint32_t LogicalNetworkCounters::udp_client_active_connections(const std::string& client) {
  return client_counters[client].udp_active_connections();
}

conntrack_counters_t LogicalNetworkCounters::udp_client2server_client_counters(const std::string& client) {
  return client_counters[client].udp_client2server_counters();
}

conntrack_counters_t LogicalNetworkCounters::udp_server2client_client_counters(const std::string& client) {
  return client_counters[client].udp_server2client_counters();
}

conntrack_counters_t LogicalNetworkCounters::tcp_client2server_client_counters(const std::string& client) {
  const EntityCounters& block = client_counters[client];
  return block.tcp_client2server_counters(traffic_dir_t::public_hop) +
         block.tcp_client2server_counters(traffic_dir_t::target);
}

conntrack_counters_t LogicalNetworkCounters::tcp_server2client_client_counters(const std::string& client) {
  const EntityCounters& block = client_counters[client];
  return block.tcp_server2client_counters(traffic_dir_t::public_hop) +
         block.tcp_server2client_counters(traffic_dir_t::target);
}

}  // namespace zol_monitor
