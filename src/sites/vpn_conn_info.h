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

// A plain value; an empty string means that the fact isn't known.
struct VPNConnInfo {
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
};

}  // namespace zol
