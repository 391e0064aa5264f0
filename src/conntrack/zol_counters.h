// The blocks in which a reading of the connection table counts traffic.
//
// Each byte is counted several times over: for the logical network (the customer's network that the service
// in the connection's mark belongs to), for the domain, for the client, for the next hop and for the previous
// hop. EntityCounters is the block of one of these, LogicalNetworkCounters the block of a network with its
// maps of the others. They live in a ConntrackStats and hold the traffic of one reporting interval.
//
// Addresses are in network order; `m` is the mark's normalised nibble (nfconntrack.h). Main thread only. A
// connection costs up to four hashed look-ups, one of them by text, and five array additions.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <absl/container/flat_hash_map.h>

#include "conntrack/conntrack_counters.h"

namespace zol_monitor {

enum class ProtocolIndex : std::uint8_t {
  tcp = 0,
  udp = 1,
  other = 2,
};

// Rows of a block by `m & 3`: 1 (In) to 0, 2 (Out) to 1, 3 (forwarded) to 2. Looking 0 up inserts it, with
// row 0. One for the process.
std::map<int, int>& mark_index();

class EntityCounters {
 public:
  static constexpr int protocol_rows = 4;  // by ProtocolIndex; the last stays empty
  static constexpr int mark_rows = 3;      // by mark_index
  static constexpr int dir_rows = 3;       // public hop, target, private hop

  virtual ~EntityCounters() = default;

  void add_counters(const conntrack_counters_t& added, ProtocolIndex p, std::uint8_t mark, bool is_open,
                    bool is_active, traffic_dir_t dir);
  void add_tcp_counters(const conntrack_counters_t& added, std::uint8_t mark, bool is_open, bool is_active,
                        traffic_dir_t dir);
  // Counts as open, active and towards the target.
  void add_udp_counters(const conntrack_counters_t& added, std::uint8_t mark);
  void add_active_connection(ProtocolIndex p, std::uint8_t mark);

  // Connections as a user sees them: a proxied one has an In and an Out side and is one connection, so the
  // larger of both counts, and the forwarded ones on top.
  std::uint32_t active_connections(ProtocolIndex p) const;
  std::uint32_t open_connections(ProtocolIndex p) const;
  std::uint32_t tcp_active_connections() const { return active_connections(ProtocolIndex::tcp); }
  std::uint32_t udp_active_connections() const { return active_connections(ProtocolIndex::udp); }
  std::uint32_t other_active_connections() const { return active_connections(ProtocolIndex::other); }
  std::uint32_t tcp_open_connections() const { return open_connections(ProtocolIndex::tcp); }
  std::uint32_t udp_open_connections() const { return open_connections(ProtocolIndex::udp); }

  // One stream through the node: what came in (rx) and what went on (tx). Forwarded traffic, which comes in
  // and goes out in one connection, shows in both. For a protocol other than TCP on a node that isn't a
  // middle-mile one the figures are those of single cells.
  conntrack_counters_t client2server_counters(ProtocolIndex p, traffic_dir_t dir) const;
  conntrack_counters_t server2client_counters(ProtocolIndex p, traffic_dir_t dir) const;
  conntrack_counters_t tcp_client2server_counters(traffic_dir_t dir) const;
  conntrack_counters_t tcp_server2client_counters(traffic_dir_t dir) const;
  conntrack_counters_t udp_client2server_counters() const;
  conntrack_counters_t udp_server2client_counters() const;
  // No bytes in any cell; packets don't count.
  bool is_zero_traffic() const;

  std::uint32_t active[protocol_rows][mark_rows] = {};  // connections with traffic in this interval
  std::uint32_t open[protocol_rows][mark_rows] = {};    // connections in the established state
  conntrack_counters_t counters[protocol_rows][mark_rows][dir_rows];
};

// Finds the entries of a map of texts faster than the map does: a dump looks up to four of them up for each
// connection. Who erases an entry of the map clears this.
template <typename Key>
class EntityEntries {
 public:
  using EntityMap = std::map<std::string, EntityCounters>;

  EntityEntries() = default;
  // A copy begins anew, since its map is another.
  EntityEntries(const EntityEntries&) {}
  EntityEntries& operator=(const EntityEntries&) {
    entries_.clear();
    return *this;
  }

  // The entry of an address, in network order, or of a text; added when it is missing.
  EntityCounters& of(EntityMap& map, const Key& key);
  void clear() { entries_.clear(); }

 private:
  absl::flat_hash_map<Key, EntityCounters*> entries_;
};
using AddressEntries = EntityEntries<std::uint32_t>;
using TextEntries = EntityEntries<std::string>;

// Asking for a domain or a client without traffic makes an empty entry of it, which walks of the maps then
// show.
class LogicalNetworkCounters {
 public:
  using EntityMap = std::map<std::string, EntityCounters>;

  // Reads Monitoring.domain_level_traffic (false when absent).
  LogicalNetworkCounters();
  virtual ~LogicalNetworkCounters() = default;

  // A client of 0 isn't known and has no entry. `private_network`: the other hop is reached through a private
  // network. The port that decides whether the connection leaves the overlay is the service's end: `dport`,
  // or `sport` when `reversed`. Ports in host order.
  void add_tcp_counters(std::uint32_t client, std::uint32_t src, std::uint16_t sport, std::uint32_t dst,
                        std::uint16_t dport, std::uint8_t m, const conntrack_counters_t& counters,
                        bool established, bool active, const std::string& domain, bool reversed,
                        bool private_network);
  void add_udp_counters(std::uint32_t client, std::uint32_t src, std::uint16_t sport, std::uint32_t dst,
                        std::uint8_t m, const conntrack_counters_t& counters);
  // Neither TCP nor UDP, forwarded, of no known domain.
  void add_active_non_tcp_connection();

  std::uint32_t tcp_active_connections() const { return total.tcp_active_connections(); }
  std::uint32_t udp_active_connections() const { return total.udp_active_connections(); }
  // Over the domains.
  std::uint32_t total_active_connections() const;
  std::uint32_t total_open_connections() const;

  bool has_traffic() const { return !domain_counters.empty(); }
  // The first domain; false, and `out` stays, when there is none.
  bool has_domain_stats(std::string& out) const;
  void delete_domain_stats(const std::string& domain);
  bool is_zero_traffic(const std::string& domain) { return domain_counters[domain].is_zero_traffic(); }

  conntrack_counters_t tcp_client2server_counters(traffic_dir_t dir) const;
  conntrack_counters_t tcp_server2client_counters(traffic_dir_t dir) const;
  conntrack_counters_t udp_client2server_counters() const;
  conntrack_counters_t udp_server2client_counters() const;

  conntrack_counters_t tcp_client2server_domain_counters(const std::string& domain, traffic_dir_t dir);
  conntrack_counters_t tcp_server2client_domain_counters(const std::string& domain, traffic_dir_t dir);
  conntrack_counters_t udp_client2server_domain_counters(const std::string& domain);
  conntrack_counters_t udp_server2client_domain_counters(const std::string& domain);
  std::uint32_t tcp_domain_active_connections(const std::string& domain);
  std::uint32_t udp_domain_active_connections(const std::string& domain);

  std::uint32_t tcp_client_active_connections(const std::string& client);
  std::uint32_t udp_client_active_connections(const std::string& client);
  conntrack_counters_t udp_client2server_client_counters(const std::string& client);
  conntrack_counters_t udp_server2client_client_counters(const std::string& client);
  // Towards the target and to hops.
  conntrack_counters_t tcp_client2server_client_counters(const std::string& client);
  conntrack_counters_t tcp_server2client_client_counters(const std::string& client);

  EntityMap& prv_hop_counters_map() { return prv_hop_counters; }
  EntityMap& next_hop_counters_map() { return next_hop_counters; }

  EntityCounters total;         // the whole network
  EntityMap domain_counters;    // by name; "unknown" when it isn't known, or when domains aren't counted
  EntityMap client_counters;    // by dotted address; rows of the target and of public hops only
  EntityMap next_hop_counters;  // by dotted destination of connections with an Out role
  EntityMap prv_hop_counters;   // by dotted source of connections with an In role
  bool domain_level_traffic = false;

 private:
  TextEntries domains_;
  AddressEntries clients_;
  AddressEntries next_hops_;
  AddressEntries prv_hops_;
};

}  // namespace zol_monitor
