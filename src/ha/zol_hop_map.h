// The overlay as the central server describes it: its hops, how they form clusters, and who may talk to whom.
//
// The description stands in the configuration under HopData and is parsed as a whole: one broken hop or
// cluster wipes the map, so that nobody sees half an overlay. Addresses are dotted text. Main thread only.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace zol {

class IIPSetSink;
class ZOLNetworks;

// Who moves a hop's floating addresses.
enum class ha_mode_t {
  none = 0,
  managed = 1,     // they are fixed on their machines
  autonomous = 2,  // the nodes themselves
};

struct HopData {
  ha_mode_t ha_mode = ha_mode_t::none;
  std::set<std::string> zol_ips;
  std::set<std::string> floating_ips;
  std::set<std::string> communication_groups;
  bool secured = false;
  bool is_ucpe = false;  // a node at the customer's edge
  bool tcp_obscured = false;
  bool is_being_removed = false;
  bool is_direct = false;
  int routing_id = 0;    // 0 for none
  std::string metadata;  // JSON
  std::string fqdn;
};

struct ClusterData {
  int virtual_router_id = 0;
  std::vector<std::pair<std::string, int>> hops;  // hop id and priority, in the order of the list

  // Null when the hop isn't in the cluster.
  const int* priority_of(const std::string& hop_id) const;
};

class HopMap {
 public:
  // Not owned; outlives the map.
  explicit HopMap(const ZOLNetworks* networks);

  // Takes the configured description in the place of the one held; an empty id leaves my_hop_id alone. False
  // when there is no description yet, which changes nothing, and when it is broken, which leaves the map
  // empty.
  bool parse(const std::string& hop_id);
  void clear();

  bool is_out_mode_anycast() const { return out_mode == "limitedAnycast"; }
  bool is_clustered() const { return clustered; }
  // This node's hop is in the cluster of that site.
  bool is_clustered(const std::string& site) const;
  // An autonomous hop whose floating addresses are all configured on this machine counts as managed.
  ha_mode_t get_ha_mode() const;
  // Of this node's hop; empty without it.
  std::set<std::string> get_floating_ips() const;
  std::set<std::string> get_communication_groups() const;
  // The addresses of those hops of this node's clusters with which it may talk; only in autonomous mode.
  std::set<std::string> get_vrrp_neighbors() const;
  // Of this node's hop in the cluster of that site; 1 without one.
  int get_hop_priority(const std::string& site) const;
  // Beyond the largest of the cluster; 2 without one.
  int get_worst_hop_priority(const std::string& site) const;

  bool is_direct_hop() const;
  bool zol_is_being_removed() const;
  // Neither direct nor in a cluster with a customer's edge.
  bool zol_is_infra() const;
  // An empty id is this node's hop.
  bool is_ucpe_hop(const std::string& hop_id) const;
  // They have a group in common, and the hop isn't being removed.
  bool can_communicate_with_hop(const HopData& hop) const;

  // The addresses of all hops.
  std::set<std::string> get_all_zol_ips() const;
  // The addresses of the other hops; with the argument, only of those with which this node may talk. The
  // reference is good until the next parse.
  const std::set<std::string>& get_all_peer_ips(bool communicating_only) const;
  std::set<std::string> get_all_tcp_obscured_peer_ips() const;
  std::set<std::string> get_all_ucpe_hop_ips() const;
  std::set<int> get_all_routing_ids() const;
  // The addresses of the other hops that have a routing id and with which this node may talk.
  std::set<std::string> get_bgp_peers() const;
  // The metadata of the first hop of that name, empty without one.
  std::string get_metadata_by_fqdn_map(const std::string& fqdn) const;

  // Tells the firewall the addresses of the other nodes: those of all hops but this node's own.
  void update_other_zol_ips_ipset() const;
  // The set "other_zol_ips". Not owned; null, the default, as long as the node keeps no ipsets.
  void set_other_zol_ips(IIPSetSink* sink) { other_zol_ips_ = sink; }

  const ZOLNetworks* network;
  std::string my_hop_id;
  std::string out_mode = "unlimited";
  bool clustered = false;                       // this node's hop is in a cluster
  std::map<std::string, HopData> hops;          // by hop_id
  std::map<std::string, ClusterData> clusters;  // by internal_site_id
  bool parsed = false;
  std::set<std::string> my_ips;  // this node's own addresses, set before each parse

 private:
  const HopData* my_hop() const;
  template <typename Wanted>
  std::set<std::string> zol_ips_of(Wanted wanted) const;

  void collect_peer_ips();
  void parse_outs_mode();
  bool parse_hops();
  bool parse_hop(const std::string& path);
  bool parse_clusters();
  bool parse_cluster(const std::string& path);
  bool parse_cluster_hop(const std::string& path, ClusterData& cluster) const;

  std::set<std::string> peer_ips_;                // get_all_peer_ips(false)
  std::set<std::string> communicating_peer_ips_;  // get_all_peer_ips(true)
  IIPSetSink* other_zol_ips_ = nullptr;
};

}  // namespace zol
