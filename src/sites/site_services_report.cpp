// What the periodic report tells about the VPN connections.
#include <arpa/inet.h>

#include "config/zol_conf_consts.h"
#include "config/zol_networks.h"
#include "sites/site_service.h"
#include "sites/vpn_conn_data_agg.h"
#include "sites/vpn_sites_services.h"
#include "vpn_tunnel_records.h"
#include "zol_helper.h"

namespace zol {

using libvariant::Variant;

namespace {

constexpr const char* remote_access = "remote_access";

bool is_vpn_enabled() {
  bool enabled = false;
  TheConfigurator::get_configuration()->config.lookupValue(zol_conf_consts::vpnipsec_enabled_key, enabled);
  return enabled;
}

// Keys that are there already stay.
void merge_missing(Variant& map, const Variant& more) {
  more.ForEach(
      [&map](std::string_view key, const Variant& value) { map.Set(std::string(key), Variant(value)); });
}

void add_bgp(Variant& entry, const VPNConnInfo& conn) {
  in_addr peer{};
  inet_aton(conn.peer_internal_ip.c_str(), &peer);
  const std::uint32_t med = zol_utils::TunnelMedResults::get_med(peer.s_addr);
  if (med != zol_utils::TunnelMedResults::no_med)
    entry.Assign("bgp_med", med);
  Variant routes = Variant::make_list();
  for (const Subnet& subnet : conn.bgp_subnets)
    routes.Append(subnet.to_str());
  entry.Assign("bgp_routes", std::move(routes));
}

Variant site_info(const SiteService& site, const std::list<const ISiteAdditionalInfo*>& infos) {
  Variant added = Variant::make_map();
  for (const ISiteAdditionalInfo* info : infos)
    merge_missing(added, info->add_info(site.internal_id));
  return added;
}

}  // namespace

Variant SiteServicesBase::get_connections_info_variant(std::list<const ISiteAdditionalInfo*>* infos,
                                                       bool refresh) {
  if (!is_vpn_enabled() || !ZOLNetworks::instance()->hop_map.is_direct_hop())
    return {};
  std::list<const ISiteAdditionalInfo*> nobody;
  if (infos == nullptr)
    infos = &nobody;
  if (const VPNConnDataAgg* agg = get_conn_agg())
    infos->push_back(agg);
  if (refresh) {
    std::vector<Variant> fresh = serialize_services(*infos);
    connections_info.swap(fresh);
    vpn_clear_conn_pct();
  }
  Variant list = Variant::make_list();
  for (const Variant& connection : connections_info)
    list.Append(connection);
  return list;
}

std::vector<Variant> SiteServicesBase::serialize_services(
    const std::list<const ISiteAdditionalInfo*>& infos) {
  std::vector<Variant> connections;
  for (const auto& [internal_id, site] : site_services) {
    if (!site->accept_connections)
      continue;
    const Variant of_site = site_info(*site, infos);
    for (const auto& conn : site->entries) {
      if (!conn->enabled)
        continue;
      Variant entry = serialize_connection(*site, *conn);
      merge_missing(entry, of_site);
      for (const ISiteAdditionalInfo* info : infos)
        merge_missing(entry, info->add_info(site->internal_id, info->gen_entry_key(*conn)));
      connections.push_back(std::move(entry));
    }
  }
  return connections;
}

Variant SiteServicesBase::serialize_connection(const SiteService& site, const VPNConnInfo& conn) {
  Variant entry = Variant::make_map();
  if (site.bgp_enabled)
    add_bgp(entry, conn);
  entry.Assign("internal_id", site.internal_id);
  entry.Assign("type", site.type);
  entry.Assign("ip", site.type == remote_access ? conn.peer_ip : conn.right);
  entry.Assign("id", conn.right_id.at(0) == '@' ? conn.right_id.substr(1) : conn.right_id);
  entry.Assign("interface_ip", conn.left);
  entry.Assign("name", site.name);
  entry.Assign("vpn_group", site.vpn_group);
  entry.Assign("state", vpn_conn_state_str(conn.state));
  entry.Assign("state_timestamp", Helper::get_timestamp_gmt_format(&conn.state_timestamp));
  entry.Assign("primary", site.primary);
  if (!conn.lease_ip.empty())
    entry.Assign("lease_ip", conn.lease_ip);
  entry.Assign("total_tunnels", site.total_tunnels);
  entry.Assign("established_tunnels", conn.established_tunnels.size());
  vpn_set_conn_pct(entry, conn);
  return entry;
}

}  // namespace zol
