// A table of sites without commands: what the status commands would show is what a test puts in.
#pragma once

#include <event2/event.h>

#include <memory>
#include <string>
#include <vector>

#include "core/zol_libevent.h"
#include "ha/bgp_routes_services.h"
#include "sites/site_service.h"
#include "sites/vpn_sites_services.h"
#include "sites/zol_vpn_sites.h"
#include "tests/unit/sites/vpn_config.h"

namespace zol_test {

// The routes come from what a test puts into the copy of the kernel's tables.
inline void without_kernel() {
  if (zol::ZOLEventBase::base() == nullptr)
    zol::ZOLEventBase::init();
  zol::BGPRoutesServices::without_kernel = true;
}

inline zol::RouteMap& route_table(int number) {
  return zol::BGPRoutesServices::instance()->tables[number];
}

inline void add_route(int table, const std::string& subnet, const std::string& dev) {
  zol::Route route;
  route.subnet = zol::Subnet(subnet);
  route.via = "10.9.9.9";
  route.dev = dev;
  route.added = true;
  route.table = static_cast<std::uint16_t>(table);
  route.state = 1;
  route_table(table).add_route(route);
}

class SiteTable : public zol::SiteServicesBase {
 public:
  std::vector<zol::VPNConnInfo> get_connections_info_status() override { return infos; }
  std::shared_ptr<zol::SiteService> add_site(const std::string& internal_id,
                                             const std::string& type = "site") {
    auto site = std::make_shared<zol::SiteService>();
    site->internal_id = internal_id;
    site->name = "name of " + internal_id;
    site->type = type;
    site->accept_connections = true;
    site_services[internal_id] = site;
    return site;
  }
  // One pass of what the commands show and the routes.
  void merge(std::vector<zol::VPNConnInfo> seen) {
    RoutesByInterface routes = get_bgp_routes();
    update_services_status(seen, routes);
  }

  std::vector<zol::VPNConnInfo> infos;
};

inline std::shared_ptr<zol::VPNConnInfo> add_conn(zol::SiteService& site, const std::string& right_id,
                                                  const std::string& right,
                                                  zol::VPNConnState state = zol::Disconnected,
                                                  int priority = 0) {
  auto conn = std::make_shared<zol::VPNConnInfo>();
  conn->internal_id = site.internal_id;
  conn->right_id = right_id;
  conn->right = right;
  conn->state = state;
  conn->priority = priority;
  site.entries.push_back(conn);
  return conn;
}

inline zol::VPNConnInfo seen(const std::string& internal_id, const std::string& right_id,
                             const std::string& right, zol::VPNConnState state = zol::Established) {
  zol::VPNConnInfo info;
  info.internal_id = internal_id;
  info.right_id = right_id;
  info.right = right;
  info.state = state;
  return info;
}

inline void forget_site_lists() {
  zol::ZOLVPNSitesConf& lists = *zol::ZOLVPNSitesConf::instance();
  for (const auto& [name, sites] : lists)
    delete sites;
  lists.clear();
}

inline const char* middle_mile = "MiddleMileNetwork: { enabled = true; };\n";

// A middle-mile node with these sites, which the lists of the process hold.
class MiddleMileNode : public VpnNode {
 public:
  explicit MiddleMileNode(const std::vector<std::string>& sites, const std::string& vpn_members = "",
                          const std::string& rest = "")
      : VpnNode(sites, vpn_members, middle_mile + rest) {
    forget_site_lists();
  }
  ~MiddleMileNode() { forget_site_lists(); }
};

inline const char* local_address =
    R"(icmp_local_address_group = "g"; icmp_local_addresses = ( "10.0.0.1" );)";

}  // namespace zol_test
