// One configured customer site with its VPN connections.
#pragma once

#include <list>
#include <memory>
#include <set>
#include <string>

#include "config/subnet.h"

namespace zol {

struct VPNConnInfo;

// A plain record, shared by shared_ptr so that it outlives a reconfiguration for those who still hold it.
struct SiteService {
  std::string name;
  std::string internal_id;
  bool accept_connections = false;
  std::string type;  // "site" or "remote_access"
  std::list<std::shared_ptr<VPNConnInfo>> entries;
  std::string vpn_group;
  bool bgp_enabled = false;
  std::string metadata;
  std::set<Subnet> subnets;
  bool primary = false;
  int total_tunnels = 0;
  std::string protocol = "ipsec";
};

}  // namespace zol
