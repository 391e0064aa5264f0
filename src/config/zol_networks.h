// This node's addresses: its configured interfaces, its floating addresses, and its place in the overlay.
//
// Addresses are dotted text unless they are given as a number, which is in network order. Main thread only.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "config/zol_configurator.h"
#include "ha/zol_hop_map.h"

namespace zol {

// One row of Networking.interfaces, or one floating address.
struct interface_info_t {
  std::string interface;     // the interface's address; rows name no devices
  std::string external_ip;   // its public address
  bool is_private = false;   // faces the inside
  bool is_floating = false;  // not from the list, but added for a floating address
};

// A row as get_interfaces gives it, ordered by interface, then external_ip.
struct interface_t {
  std::string interface;
  std::string external_ip;
  bool is_private = false;

  bool operator<(const interface_t& other) const;
};

class ZOLNetworks : public IReconfigure {
 public:
  // The one of the process, built, and so read, at first use.
  static ZOLNetworks* instance();

  // Reads the configuration, then registers for reloads.
  ZOLNetworks();
  ~ZOLNetworks() override;

  // A row that lacks a member is logged at error level and left out (without `interface` it stays, with an
  // empty one). The last row that isn't private gives the pair through which traffic goes out.
  void read_configuration();
  void reconfigure() override { read_configuration(); }
  bool need_reconf(bool& enabled) override;

  // "0.0.0.0" as long as there is no interface that isn't private.
  const std::string& get_traffic_out_internal_ip() const { return traffic_out_internal_ip; }
  const std::string& get_traffic_out_external_ip() const { return traffic_out_external_ip; }

  // The `interface` of any row, whatever the row's flags.
  bool is_my_private_ip(unsigned int ip) const;
  // A private address (RFC 1918) that another hop of the overlay has.
  bool is_private_network(unsigned int ip) const;
  // Whether a hop is a customer's edge; an empty id is this node's hop.
  bool is_ucpe(const std::string& hop_id) const { return hop_map.is_ucpe_hop(hop_id); }
  std::set<int> get_all_routing_ids() const { return hop_map.get_all_routing_ids(); }
  bool was_hop_map_parsed() const { return hop_map.parsed; }
  // Whether a floating address that is left on this machine as an alias ought to go. May run a command.
  bool should_remove_vrrp_alias() const;
  // The node itself has floating addresses that move.
  bool has_dynamic_floating_ips() const;
  // The lowest text of the floating addresses in force, empty when there are none.
  std::string get_my_hop_floating_ip() const;

  std::set<std::string> get_private_interfaces() const;
  // Both addresses of the rows that don't float.
  std::set<std::string> get_my_static_ips() const;
  // The one or the other address of the rows that are neither private nor floating.
  std::set<std::string> get_static_external_ips() const;
  std::set<std::string> get_static_internal_ips() const;
  std::vector<std::string> get_preallocated_interfaces() const;
  std::set<interface_t> get_interfaces(bool with_floating) const;

  std::vector<interface_info_t> interfaces;
  HopMap hop_map;
  std::string traffic_out_internal_ip = "0.0.0.0";
  std::string traffic_out_external_ip = "0.0.0.0";
  std::set<std::string> floating_ips;           // in force
  std::set<std::string> my_ips;                 // both addresses of every configured row
  std::set<std::string> possible_floating_ips;  // SharedNetworkData.possible_floating_ips

 private:
  void read_interfaces(std::string& internal, std::string& external);
  void read_possible_floating_ips();
  void parse_hop_map(const std::string& hop_id);
  void merge_hop_map_info(std::string& internal, std::string& external);
  void merge_floatings(const std::set<std::string>& addresses);
};

}  // namespace zol
