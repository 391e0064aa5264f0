// One snapshot of the kernel's connection table, every connection of it classified and counted.
//
// An object lives for one reading: its constructor dumps the table, the traffic report reads the counters out
// of it, and it is destroyed. So its bytes are those of one reporting interval. Either the kernel resets the
// counters as it reads them, or, where the memory of connection counters (conntrack_states.h) is on, they
// stay in the kernel and the memory subtracts what earlier readings saw.
//
// The dump is the daemon's most expensive work and blocks the loop while it runs. The kernel filters by mark,
// so that connections that can't count stay out of it. When the kernel can't be reached, the object is empty,
// with an error line. Nothing is formatted for a log line that is off.
//
// Main thread only.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include <libnetfilter_conntrack/libnetfilter_conntrack.h>

#include "conntrack/conntrack_counters.h"
#include "conntrack/gxe_counters.h"
#include "conntrack/nfct_handle.h"
#include "conntrack/zol_counters.h"

namespace zol_monitor {

class ConntrackStatesManager;
class MonitorData;
struct FoundLeg;
struct nfconntrack_ends_t;

class ConntrackStats {
 public:
  using HopConnections = std::map<std::string, unsigned>;  // by dotted address of the hop

  // `monitor_data` isn't owned and outlives the object. With `first_time` the reading primes the memory of
  // counters and counts nothing; with `ignore_query` nothing that the dump yields is taken in.
  ConntrackStats(MonitorData* monitor_data, bool first_time, bool ignore_query);
  virtual ~ConntrackStats() = default;
  ConntrackStats(const ConntrackStats&) = delete;
  ConntrackStats& operator=(const ConntrackStats&) = delete;

  void read_conntrack_dump();
  // libnetfilter_conntrack's callback; `self` is a ConntrackStats*, which takes the connection over
  // (NFCT_CB_STOLEN) and does with it what dump_parser does, in the order of the dump, together with the next
  // few or at its end.
  static int dump_cb(nf_conntrack_msg_type type, nf_conntrack* ct, void* self);
  // Takes one connection in; its counters become those since the last reading where these are remembered.
  // Always NFCT_CB_CONTINUE.
  int dump_parser(nf_conntrack_msg_type type, nf_conntrack* ct);

  // rx is what the connection's source sent, the other way round with `swap`. All zero, with a warning, when
  // the connection carries no counters.
  static void counters_dump_parser(conntrack_counters_t* out, bool swap, const nf_conntrack* ct);
  // No bytes; packets don't count.
  static bool is_counters_zero(const conntrack_counters_t& counters);

  // --- the middle-mile node's links
  // The hops through which a site reaches the internet: SNDData.routing_hops.
  void read_site_to_internet_ips();
  // Addresses in network order; an override that isn't 0 stands for the address before it. Null when neither
  // end is a site or a route.
  GxeLinkCounters* link_counters_get(std::uint32_t src, std::uint32_t dst, std::uint32_t first_override,
                                     std::uint32_t second_override);
  // Null unless the record is an established site connection.
  GxeTunnelCounters* tunnel_counters_get(zol::SiteConnRecord& record);
  void ct_parser_tcp_gxe(nf_conntrack* ct, std::uint8_t m);
  // Counts both directions, each as a flow of its own; the mark is afterwards what it was.
  void ct_parser_non_tcp_gxe(nf_conntrack* ct);
  void ct_parser_non_tcp_gxe_dir(nf_conntrack* ct);
  void ct_parser_non_tcp_gxs(nf_conntrack* ct);
  void ct_parser_non_tcp_gxs_dir(nf_conntrack* ct);

  // --- read-outs by logical network id; asking for an unknown network makes an empty entry of it
  std::uint32_t tcp_active_connections(const std::string& id);
  std::uint32_t udp_active_connections(const std::string& id);
  conntrack_counters_t tcp_client2server_counters(const std::string& id, traffic_dir_t dir);
  conntrack_counters_t tcp_server2client_counters(const std::string& id, traffic_dir_t dir);
  conntrack_counters_t udp_client2server_counters(const std::string& id);
  conntrack_counters_t udp_server2client_counters(const std::string& id);

  conntrack_counters_t tcp_client2server_domain_counters(const std::string& id, const std::string& domain,
                                                         traffic_dir_t dir);
  conntrack_counters_t tcp_server2client_domain_counters(const std::string& id, const std::string& domain,
                                                         traffic_dir_t dir);
  conntrack_counters_t udp_client2server_domain_counters(const std::string& id, const std::string& domain);
  conntrack_counters_t udp_server2client_domain_counters(const std::string& id, const std::string& domain);
  std::uint32_t tcp_domain_active_connections(const std::string& id, const std::string& domain);
  std::uint32_t udp_domain_active_connections(const std::string& id, const std::string& domain);

  conntrack_counters_t tcp_client2server_client_counters(const std::string& id, const std::string& client);
  conntrack_counters_t tcp_server2client_client_counters(const std::string& id, const std::string& client);
  conntrack_counters_t udp_client2server_client_counters(const std::string& id, const std::string& client);
  conntrack_counters_t udp_server2client_client_counters(const std::string& id, const std::string& client);
  std::uint32_t tcp_client_active_connections(const std::string& id, const std::string& client);
  std::uint32_t udp_client_active_connections(const std::string& id, const std::string& client);

  // Bytes towards `dir`: TCP's, and UDP's when `dir` is the target.
  bool has_counters(const std::string& id, traffic_dir_t dir);
  bool has_domain_counters(const std::string& id, const std::string& domain, traffic_dir_t dir);

  // These four leave an unknown network unknown; those that tell something say false of it.
  bool logical_network_has_traffic(const std::string& id) const;
  bool has_domain_counters(const std::string& id, std::string& out) const;  // the network's first domain
  bool domain_is_zero_traffic(const std::string& id, const std::string& domain);
  void delete_domain_stats(const std::string& id, const std::string& domain);

  // --- sums over all networks
  std::uint32_t get_total_active_connections() const;
  std::uint32_t get_total_open_connections() const;
  // TCP and UDP connections by next hop, without hops that have none. The map is replaced.
  void get_next_hop_open_connections_map(HopConnections& map) const;
  void get_next_hop_active_connections_map(HopConnections& map) const;
  // Fills the two process-wide maps of previous hops.
  void set_prv_connections_map() const;

  // A connection as text for logs, in the session's direction, addresses masked as configured.
  static std::string debug_dump(const nf_conntrack* ct, MonitorData* monitor_data);

  std::map<std::string, LogicalNetworkCounters> networks;              // by logical network id
  std::unordered_map<std::string, GxeLinkCounters> link_counters;      // by the keys of both ends
  std::unordered_map<std::string, GxeTunnelCounters> tunnel_counters;  // by the record's key
  MonitorData* data;
  gxe_billing_counters_t site_to_internet_billing;
  gxe_billing_counters_t site_to_site_billing;
  std::unordered_set<std::string> site_to_internet_ips;  // dotted
  bool first_time;
  bool is_gxe;  // a middle-mile node
  bool ignore_query;
  bool is_ucpe;              // this node is a customer's edge
  bool is_complete = false;  // the kernel has told its whole table

  // What the last counting dump of the process found, for the periodic report.
  static inline std::uint32_t last_active_sessions = 0;
  static inline std::uint32_t last_open_sessions = 0;
  static inline HopConnections last_next_hop_open_sessions;
  static inline HopConnections last_next_hop_active_sessions;
  static inline HopConnections last_prv_hop_active_sessions;
  static inline HopConnections last_prv_hop_open_sessions;

 protected:
  // Takes no dump: the connections come from the caller through dump_parser.
  struct without_dump_t {};
  ConntrackStats(MonitorData* monitor_data, bool first_time, bool ignore_query, without_dump_t);

 private:
  struct CountedFlow;
  // As many connections as the processor can look up at once: most of a reading is waiting for memory.
  static constexpr std::size_t batch_size = 64;
  using Network = std::map<std::string, LogicalNetworkCounters>::value_type;

  bool query_kernel();
  void parse_batch();
  void find_sessions(std::span<const nfconntrack_ends_t> ends, std::span<FoundLeg> legs) const;
  void parse(nf_conntrack* ct, const nfconntrack_ends_t& ends, const FoundLeg& leg);
  void parse_connection(nf_conntrack* ct, const nfconntrack_ends_t& ends, const FoundLeg& leg);
  void drain_ended_connections();
  void publish_totals() const;

  // Null when it isn't there or is switched off.
  ConntrackStatesManager* states() const;
  const std::string& network_id(const nf_conntrack* ct) const;
  Network& network_of(const nf_conntrack* ct, std::uint32_t mark);
  bool takes_non_tcp_path(std::uint8_t protonum, std::uint32_t mark) const;
  bool is_countable(const nf_conntrack* ct, CountedFlow& flow) const;
  void classify(const nf_conntrack* ct, CountedFlow& flow) const;
  void parse_non_tcp(nf_conntrack* ct);
  void parse_marked(nf_conntrack* ct, CountedFlow& flow);
  bool count_tcp(nf_conntrack* ct, const CountedFlow& flow, Network& network, ConntrackStatesManager* memory);
  void update_session(const nf_conntrack* ct, const CountedFlow& flow);

  std::array<NfctHandle, batch_size> batch_;
  std::size_t batch_count_ = 0;
  std::array<Network*, 256> network_by_service_{};  // null until the service is met
};

}  // namespace zol_monitor
