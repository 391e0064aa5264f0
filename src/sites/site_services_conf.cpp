// The table of sites from the configuration.
#include <arpa/inet.h>

#include <stdexcept>

#include "config/zol_conf_consts.h"
#include "sites/site_service.h"
#include "sites/vpn_sites_services.h"
#include "sites/zol_vpn_sites.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr const char* remote_access = "remote_access";
constexpr const char* ipsec = "ipsec";
constexpr int host_length = 32;

// What total_tunnels of a site is computed from, once all sites stand.
struct site_to_other_sites_t {
  int* total_tunnels;  // the site's
  int subnet_count;
  std::set<std::string> other_sites;  // beginnings of internal_ids
  bool default_gateway;
  bool route_based_enabled;
};
using TunnelPlans = std::map<std::string, site_to_other_sites_t>;  // by internal_id

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("SiteServices");
  return l;
}

std::set<Subnet> subnets_of(const ZOLVPNSiteConf& conf) {
  std::set<Subnet> subnets;
  for (const std::string& text : conf.subnets) {
    try {
      if (!text.empty())
        subnets.insert(Subnet(text));
    } catch (const std::runtime_error& error) {
      SUP_LOG(logger(), log_level::error)
          << "read_conf"
          << ": subnet of site " << conf.internal_id << " is left out: " << error.what();
    }
  }
  return subnets;
}

std::shared_ptr<VPNConnInfo> make_connection(const SiteService& site, const SiteEntry& entry) {
  auto conn = std::make_shared<VPNConnInfo>();
  conn->enabled = entry.enabled;
  conn->internal_id = site.internal_id;
  conn->protocol = site.protocol;
  conn->name = site.name;
  conn->group = site.vpn_group;
  conn->right = entry.ip;
  conn->right_id = entry.id_as_text && site.protocol == ipsec ? "@" + entry.id : entry.id;
  conn->priority = entry.priority;
  conn->vti_interface = entry.vti;
  conn->peer_internal_ip = entry.primary ? entry.primary_site_ip : entry.secondary_site_ip;
  conn->gateway_ip = entry.primary ? entry.primary_gw_ip : entry.secondary_gw_ip;
  return conn;
}

std::shared_ptr<SiteService> make_site(const ZOLVPNSiteConf& conf) {
  auto site = std::make_shared<SiteService>();
  site->name = conf.name;
  site->internal_id = conf.internal_id;
  site->accept_connections = conf.accept_connections;
  site->type = conf.type;
  site->vpn_group = conf.vpn_group;
  site->bgp_enabled = conf.bgp_enabled;
  site->metadata = conf.metadata;
  site->subnets = subnets_of(conf);
  site->primary = conf.primary;
  if (!conf.protocol.empty())
    site->protocol = conf.protocol;
  if (conf.type == remote_access)
    return site;
  for (const SiteEntry& entry : conf.entries)
    site->entries.push_back(make_connection(*site, entry));
  return site;
}

int count_tunnels(const site_to_other_sites_t& site, const TunnelPlans& all) {
  if (site.route_based_enabled)
    return 1;
  if (site.default_gateway)
    return site.subnet_count;
  int tunnels = site.subnet_count * static_cast<int>(ZOLVPNSites::icmp_local_addresses.size());
  for (const std::string& beginning : site.other_sites) {
    for (auto other = all.lower_bound(beginning); other != all.end() && other->first.starts_with(beginning);
         ++other)
      tunnels += site.subnet_count * other->second.subnet_count;
  }
  return tunnels;
}

void add_host(SitesSubnetsMap& map, const std::string& text, const std::shared_ptr<SiteService>& site,
              const std::shared_ptr<VPNConnInfo>& conn) {
  if (text.empty())
    return;
  if (!Helper::is_valid_ip_address(text)) {
    SUP_LOG(logger(), log_level::error)
        << "set_new_site_services"
        << ": address " << text << " of site " << site->internal_id << " is left out";
    return;
  }
  in_addr address{};
  inet_aton(text.c_str(), &address);
  map.add_subnet({site, conn, Subnet(address.s_addr, host_length)});
}

void add_connection(SitesSubnetsMap& map, const std::shared_ptr<SiteService>& site,
                    const std::shared_ptr<VPNConnInfo>& conn) {
  add_host(map, conn->peer_internal_ip, site, conn);
  add_host(map, conn->lease_ip, site, conn);
  for (const Subnet& subnet : site->subnets)
    map.add_subnet({site, conn, subnet});
}

// What is alive of a site survives in the one that takes its place.
void hand_over(const SiteService& old_site, SiteService& new_site) {
  if (new_site.type == remote_access) {
    for (const auto& conn : old_site.entries) {
      if (conn->state != Disconnected)
        new_site.entries.push_back(conn);
    }
  }
  for (const auto& conn : new_site.entries) {
    for (const auto& old_conn : old_site.entries) {
      if (conn != old_conn && conn->right_id == old_conn->right_id && conn->right == old_conn->right)
        conn->reconf_enrich(*old_conn);
    }
  }
}

}  // namespace

void SiteServicesBase::read_conf() {
  if (!Helper::is_middle_mile_network())
    return;
  SUP_LOG(logger(), log_level::info) << "read_conf"
                                     << ": Reading configuration";
  const ZOLVPNSites& configured = ZOLVPNSitesConf::site_table();
  if (!ZOLVPNSites::icmp_local_addresses.empty())
    local_ips.insert(ZOLVPNSites::icmp_local_addresses.front());
  routing_id = 0;
  TheConfigurator::get_configuration()->config.lookupValue(zol_conf_consts::sharednetworkdata_routing_id_key,
                                                           routing_id);
  SitesMap sites;
  TunnelPlans plans;
  for (const ZOLVPNSiteConf* conf : configured.site_confs) {
    const auto site = make_site(*conf);
    sites.insert_or_assign(site->internal_id, site);
    plans.insert_or_assign(
        site->internal_id,
        site_to_other_sites_t{&site->total_tunnels, static_cast<int>(site->subnets.size()), conf->other_sites,
                              conf->default_gateway, conf->route_based_enabled});
  }
  for (const auto& [internal_id, plan] : plans)
    *plan.total_tunnels = count_tunnels(plan, plans);
  set_new_site_services(std::move(sites));
}

void SiteServicesBase::set_new_site_services(SitesMap new_services) {
  for (const auto& [internal_id, site] : new_services) {
    if (const auto old = site_services.find(internal_id); old != site_services.end())
      hand_over(*old->second, *site);
  }
  site_services = std::move(new_services);
  for (const auto& [internal_id, site] : site_services) {
    for (const auto& conn : site->entries)
      add_connection(conf_subnets, site, conn);
  }
}

}  // namespace zol
