// One configured customer site with its VPN connections.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <set>
#include <string>

#include "config/subnet.h"

namespace zol {

struct VPNConnInfo;

// A record, shared by shared_ptr so that it outlives a reconfiguration for those who still hold it.
struct SiteService {
  // The connection that an address, as dotted text, belongs to: first one whose own address it is (this
  // side's or the peer's of the tunnel, or the leased one) or that has learned a route to it by BGP, in the
  // order of the list; then, for an address in one of the site's subnets, the best one. A remote access
  // site has no order among its clients: such a guess is logged as an error. Null when the site doesn't have
  // the address, has no connection, or the text is empty.
  std::shared_ptr<VPNConnInfo> get_entry_for_ip(const std::string& ip) const;
  // The same for who knows the address in network order, and perhaps that one of the subnets has it.
  std::shared_ptr<VPNConnInfo> get_entry_for_ip(const std::string& ip, std::uint32_t address,
                                                bool in_subnets) const;
  // Of the established connections the one with the lowest priority number, or without any of all
  // connections; the earlier one of equals. Null without connections.
  std::shared_ptr<VPNConnInfo> get_best_entry() const;

  std::string name;
  std::string internal_id;
  bool accept_connections = false;
  std::string type;  // "site" or "remote_access"
  // In the order of the configuration; behind them those that only the status commands know, such as the
  // clients of a remote access site.
  std::list<std::shared_ptr<VPNConnInfo>> entries;
  std::string vpn_group;
  bool bgp_enabled = false;
  std::string metadata;
  std::set<Subnet> subnets;
  bool primary = false;
  int total_tunnels = 0;  // how many tunnels the site has when everything is up
  std::string protocol = "ipsec";
};

}  // namespace zol
