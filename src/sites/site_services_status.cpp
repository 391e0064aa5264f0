// The status cycle: what the commands and the route tables show goes into the table of sites.
#include <cstring>
#include <sstream>

#include "ha/bgp_routes_services.h"
#include "sites/direct_status_parser.h"
#include "sites/gre_status_parser.h"
#include "sites/ipsec_status_parser.h"
#include "sites/site_service.h"
#include "sites/vpn_conn_data_agg.h"
#include "sites/vpn_sites_services.h"
#include "sup_logger.h"
#include "vpn_tunnel_records.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr unsigned cycle_pause_ms = 1000;
constexpr const char* remote_access = "remote_access";
constexpr const char* tunnel_interface = "vti";
constexpr ROUTE_STATE any_route = 3;

using zol_utils::vpn_tunnel_row_t;
using zol_utils::vpn_tunnel_states_t;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("SiteServices");
  return l;
}

const char* state_name(VPNConnState state) {
  switch (state) {
    case Established:
      return "Established";
    case Connecting:
      return "Connecting";
    default:
      return "Disconnected";
  }
}

std::string describe(const VPNConnInfo& info) {
  std::ostringstream text;
  text << "VPN connection info:\n"
       << "    Internal ID:         " << info.internal_id << "\n"
       << "    Enabled:             " << (info.enabled ? "true" : "false") << "\n"
       << "    Peer ID:             " << info.right_id << "\n"
       << "    Peer Hostname:       " << Helper::make_log_addr(info.right) << "\n"
       << "    Peer IP:             " << Helper::make_log_addr(info.peer_ip) << "\n"
       << "    Peer Name:           " << info.name << "\n"
       << "    Local IP:            " << Helper::make_log_addr(info.left) << "\n"
       << "    Peer Group:          " << info.group << "\n"
       << "    Peer internal IP:    " << Helper::make_log_addr(info.peer_internal_ip) << "\n"
       << "    Lease IP:            " << Helper::make_log_addr(info.lease_ip) << "\n"
       << "    VTI name:            " << info.vti_interface << "\n"
       << "    State:               " << state_name(info.state) << "\n"
       << "    Established tunnels: " << info.established_tunnels.size();
  return text.str();
}

void log_unexpected(const VPNConnInfo& info) {
  SUP_LOG(logger(), log_level::debug) << "update_entry"
                                      << " Found unexpected vpn connection: " << describe(info);
}

std::shared_ptr<VPNConnInfo> matching_connection(const SiteService& site, const VPNConnInfo& info) {
  for (const auto& conn : site.entries) {
    if (conn->is_matching_conn(info))
      return conn;
  }
  return nullptr;
}

void merge(const std::shared_ptr<SiteService>& site, const std::shared_ptr<VPNConnInfo>& conn,
           const VPNConnInfo& info, SiteServicesBase::RoutesByInterface& routes, SitesSubnetsMap& subnets) {
  const std::set<Subnet>& learned = routes[info.vti_interface];
  conn->update(info, learned);
  for (const Subnet& subnet : learned)
    subnets.add_subnet({site, conn, subnet});
}

template <typename Parser>
void append_status(SiteServicesBase* sites, std::vector<VPNConnInfo>& infos) {
  Parser parser;
  for (VPNConnInfo& info : parser.get_connections_info_status(sites))
    infos.push_back(std::move(info));
}

void add_row(vpn_tunnel_states_t& states, const std::string& name, bool established) {
  vpn_tunnel_row_t& row = states.rows[states.row_count++];
  std::memcpy(row.name, name.c_str(), name.size() + 1);
  row.established = established ? 1 : 0;
}

// False when the record hasn't room for all.
bool fill_rows(vpn_tunnel_states_t& states, const SiteServicesBase::SitesMap& sites) {
  states.row_count = 0;
  for (const auto& [internal_id, site] : sites) {
    if (!site->accept_connections)
      continue;
    for (const auto& conn : site->entries) {
      const std::string name = conn->get_connection_name();
      if (name.size() >= vpn_tunnel_row_t::name_size) {
        SUP_LOG(logger(), log_level::error) << "Connection name is too long ! : " << name;
        continue;
      }
      if (states.row_count == vpn_tunnel_states_t::max_rows)
        return false;
      add_row(states, name, conn->state == Established);
    }
  }
  return true;
}

}  // namespace

SiteServicesBase::RoutesByInterface SiteServicesBase::get_bgp_routes() {
  bgp_subnets.clear();
  RoutesByInterface routes;
  const RouteMap table = BGPRoutesServices::instance()->get_routing_table(routing_id * 2 + 1001);
  table.for_each(any_route, [&](const Route& route) {
    if (route.dev.starts_with(tunnel_interface))
      routes[route.dev].insert(route.subnet);
    else
      bgp_subnets.add_subnet({nullptr, nullptr, route.subnet});
  });
  return routes;
}

void SiteServicesBase::update_entry(VPNConnInfo& info, RoutesByInterface& routes) {
  if (info.internal_id.empty()) {
    for (const auto& [internal_id, site] : site_services) {
      if (const auto conn = matching_connection(*site, info))
        return merge(site, conn, info, routes, bgp_subnets);
    }
    return log_unexpected(info);
  }
  const auto named = site_services.find(info.internal_id);
  if (named == site_services.end())
    return log_unexpected(info);
  const std::shared_ptr<SiteService>& site = named->second;
  if (const auto conn = matching_connection(*site, info))
    merge(site, conn, info, routes, bgp_subnets);
  else if (site->type != remote_access && !info.is_matching_conn(info))
    log_unexpected(info);  // no later cycle would find it again, and only clients ever leave
  else
    site->entries.push_back(std::make_shared<VPNConnInfo>(info));
}

void SiteServicesBase::update_services_status(std::vector<VPNConnInfo>& infos, RoutesByInterface& routes) {
  for (VPNConnInfo& info : infos)
    update_entry(info, routes);
  for (const auto& [internal_id, site] : site_services) {
    if (site->type == remote_access)
      site->entries.remove_if([](const auto& conn) { return conn->state == Disconnected; });
  }
}

std::vector<VPNConnInfo> SiteServices::get_connections_info_status() {
  std::vector<VPNConnInfo> infos;
  append_status<IPsecStatusParser>(this, infos);
  append_status<GREStatusParser>(this, infos);
  append_status<DirectStatusParser>(this, infos);
  return infos;
}

void SiteServices::vpn_status() {
  for (const auto& [internal_id, site] : site_services) {
    for (const auto& conn : site->entries) {
      conn->state = Disconnected;
      conn->established_tunnels.clear();
    }
  }
  std::vector<VPNConnInfo> infos = get_connections_info_status();
  RoutesByInterface routes = get_bgp_routes();
  update_services_status(infos, routes);
  feed_conn_agg(infos);
  update_shm();
  vpn_status_timer.charge(cycle_pause_ms);
}

void SiteServices::feed_conn_agg(const std::vector<VPNConnInfo>& infos) {
  if (!conn_agg)
    return;
  conn_agg->clear_tick();
  for (const VPNConnInfo& info : infos)
    conn_agg->tick(info);
  conn_agg->set_conn_disconnected();
}

void SiteServices::update_shm() {
  const bool all_fit = fill_rows(*tunnel_states_, site_services);
  if (!all_fit && all_states_fit_)
    SUP_LOG(logger(), log_level::error) << "update_shm"
                                        << ": only " << vpn_tunnel_states_t::max_rows
                                        << " tunnel states can be published, the others are left out";
  all_states_fit_ = all_fit;
  zol_utils::VpnTunnelState::set_tunnel_states(*tunnel_states_);
}

}  // namespace zol
