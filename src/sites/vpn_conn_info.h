// One VPN connection to a site, as the status parsers report it and the site table keeps it.
#pragma once

#include <set>
#include <string>

#include "config/subnet.h"

namespace zol {

// Ordered: of two reports on one connection the higher state counts.
enum VPNConnState {
  Disconnected = 0,
  Connecting = 1,
  Established = 2,
};

// "connecting", "connected", and "disconnected" for anything else.
const char* vpn_conn_state_str(int state);

// A plain value; an empty string means that the fact isn't known.
struct VPNConnInfo {
  VPNConnInfo() = default;
  // Enabled, with an empty gateway_ip. `timestamp`: seconds since the epoch, 0 unknown.
  VPNConnInfo(std::string internal_id, std::string protocol, std::string right_id, std::string right,
              std::string peer_ip, std::string name, std::string left, std::string group,
              std::string peer_internal_ip, std::string lease_ip, std::string vti_interface, int priority,
              VPNConnState state, long timestamp);
  // What the connection's name tells (zol_conn_name_parser.h), enabled, with the other arguments beside it.
  // On a ZOL a `right_id_override` that isn't empty comes before the name's. A name that can't be taken apart
  // is both the name and the right_id.
  VPNConnInfo(const std::string& conn_name, const std::string& protocol, VPNConnState state,
              unsigned timestamp, const std::string& peer_ip, const std::string& right_id_override,
              const std::string& lease_ip);

  // The same right_id and the same right, neither of them empty.
  bool is_matching_conn(const VPNConnInfo& other) const;

  // Merges the state: the higher one, since the earliest time that is known. `force`: these replace what was.
  void update(VPNConnState new_state, long timestamp, bool force);
  // Merges what another report on this connection knows. Of the strings right_id, right, peer_ip, left,
  // peer_internal_ip and lease_ip are taken; bgp_subnets is replaced unless the other's is empty.
  void update(const VPNConnInfo& other);
  // The same, and `routes` replaces bgp_subnets even when it is empty.
  void update(const VPNConnInfo& other, const std::set<Subnet>& routes);
  // What a newly configured connection takes from its predecessor: what was seen of it, and not what was
  // configured. Of the strings peer_ip, left and lease_ip.
  void reconf_enrich(const VPNConnInfo& other);
  // An empty identity is ignored.
  void insert_established_tunnel(const std::string& tunnel);

  // As the tunnel configuration names it, see ZolConnNameParser.
  std::string get_connection_name() const;

  bool enabled = true;           // by the entry's configuration; a parsed connection always is
  std::string internal_id;       // the site's
  std::string protocol;          // "ipsec", "gre" or "lan"
  std::string right_id;          // peer id, "@" in front of a textual identity
  std::string right;             // peer host name or address as configured
  std::string peer_ip;           // peer address as resolved
  std::string name;              // site name
  std::string left;              // local address of the tunnel
  std::string group;             // the site's vpn_group
  std::string peer_internal_ip;  // peer's address inside a route-based tunnel
  std::string lease_ip;          // address leased to a remote access client
  std::string gateway_ip;        // this side's address inside a route-based tunnel
  std::string vti_interface;     // name of the tunnel interface
  int priority = 0;              // lowest is best
  VPNConnState state = Disconnected;
  long state_timestamp = 0;                   // seconds since the epoch, 0 unknown
  std::set<std::string> established_tunnels;  // identities of the tunnels seen up in this cycle
  std::set<Subnet> bgp_subnets;               // routes learned by BGP over this connection

 private:
  bool unfold_zol_name(const std::string& conn_name, const std::string& right_id_override);
  bool unfold_kpa_name(const std::string& conn_name);
  void merge_seen(const VPNConnInfo& other);
};

}  // namespace zol
