#include "sites/zol_vpn_sites.h"

#include <algorithm>
#include <stdexcept>

#include "config/zol_conf_consts.h"
#include "config/zol_networks.h"
#include "dual_zol_helper.h"
#include "sites/string_list.h"
#include "sup_logger.h"

namespace zol {

namespace {

constexpr const char* unknown_address = "0.0.0.0";

ZOLVPNSitesConf* the_sites_conf = nullptr;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("ZOLVPNSites");
  return l;
}

// Shared by all lists; a rate that is missing or no number stays as it was.
void read_shared_values(const libconfig::Config& config) {
  if (!config.lookupValue(zol_conf_consts::vpnipsec_enabled_key, ZOLVPNSites::vpn_enabled))
    ZOLVPNSites::vpn_enabled = false;
  if (int whole = 0;
      !config.lookupValue(zol_conf_consts::iptables_rate_limit_mbps_key, ZOLVPNSites::rate_limit_mbps) &&
      config.lookupValue(zol_conf_consts::iptables_rate_limit_mbps_key, whole))
    ZOLVPNSites::rate_limit_mbps = whole;
  if (!config.lookupValue(zol_conf_consts::sharednetworkdata_routing_id_key, ZOLVPNSites::routing_id))
    ZOLVPNSites::routing_id = 0;
  config.lookupValue(zol_conf_consts::vpnipsec_icmp_local_address_group_key,
                     ZOLVPNSites::icmp_local_address_group);
}

void read_icmp_local_addresses(AConfigurator& conf) {
  for_each_text(
      conf, zol_conf_consts::vpnipsec_icmp_local_addresses_key,
      [](const std::string& address) {
        ZOLVPNSites::icmp_local_addresses.push_back(address);
        ZOLVPNSites::icmp_local_subnets.push_back(address + "/32");
      },
      [](int index) {
        SUP_LOG(logger(), log_level::error)
            << "Failed to retrieve #" << index << " icmp_local_subnet_key value.";
      });
}

}  // namespace

ZOLVPNSites::~ZOLVPNSites() {
  drop_sites();
}

ZOLVPNSiteConf* ZOLVPNSites::create_site_conf() {
  return new ZOLVPNSiteConf;
}

ZOLVPNSiteConf* ZOLVPNSites::get_site(const std::string& internal_id) const {
  const auto found = sites.find(internal_id);
  return found == sites.end() ? nullptr : found->second;
}

void ZOLVPNSites::drop_sites() {
  sites.clear();
  for (ZOLVPNSiteConf*& site : site_confs)
    ZOLVPNSiteConf::destroy(site);
  site_confs.clear();
  site_count = 0;
}

void ZOLVPNSites::clear() {
  drop_sites();
  traffic_out_internal_ip = unknown_address;
  traffic_out_external_ip = unknown_address;
  icmp_local_addresses.clear();
  icmp_local_subnets.clear();
  icmp_local_address_group.clear();
}

void ZOLVPNSites::configure(AConfigurator& conf) {
  clear();
  traffic_out_internal_ip = ZOLNetworks::instance()->get_traffic_out_internal_ip();
  traffic_out_external_ip = ZOLNetworks::instance()->get_traffic_out_external_ip();
  read_shared_values(conf.config);
  if (traffic_out_internal_ip == unknown_address || traffic_out_external_ip == unknown_address) {
    SUP_LOG(logger(), log_level::warning) << "No available interface for VPN, not reading configuration";
    return;
  }
  if (!icmp_local_address_group.empty())
    read_icmp_local_addresses(conf);
  read_sites(conf);
}

void ZOLVPNSites::read_sites(AConfigurator& conf) {
  ConfigListIterator it(&conf, zol_conf_consts::vpnipsec_sites_key);
  site_count = std::max(it.size(), 0);
  for (int i = 0; i < site_count; ++i, ++it) {
    ZOLVPNSiteConf* site = create_site_conf();
    try {
      site->configure(conf, *it);
    } catch (const ConfigFailure& failure) {
      SUP_LOG(logger(), log_level::error) << failure.what();
      ZOLVPNSiteConf::destroy(site);
      continue;
    }
    site_confs.push_back(site);
    sites.try_emplace(site->internal_id, site);
  }
}

ZOLVPNSitesConf* ZOLVPNSitesConf::instance() {
  // Never deleted: the configurator that it would unregister from may be gone by then.
  if (the_sites_conf == nullptr)
    the_sites_conf = new ZOLVPNSitesConf;
  return the_sites_conf;
}

ZOLVPNSitesConf& ZOLVPNSitesConf::ref() {
  if (the_sites_conf == nullptr) {
    const char* const text = "Called ref without object";
    SUP_LOG(logger(), log_level::fatal) << text;
    throw std::runtime_error(text);
  }
  return *the_sites_conf;
}

const ZOLVPNSites& ZOLVPNSitesConf::site_table() {
  ZOLVPNSites*& sites = (*instance())[""];
  if (sites == nullptr) {
    sites = new ZOLVPNSites;
    sites->configure(*TheConfigurator::get_configuration());
  }
  return *sites;
}

ZOLVPNSitesConf::ZOLVPNSitesConf()
    : hears_reloads(zol_utils::DualZOLHelper::instance()->is_dual_installation()) {
  SUP_LOG(logger(), log_level::info) << "VPN site conf created";
  if (hears_reloads)
    TheConfigurator::get_configuration()->register_reconfiguration_cb(this);
}

ZOLVPNSitesConf::~ZOLVPNSitesConf() {
  try {
    TheConfigurator::get_configuration()->unregister_reconfiguration_cb(this);
  } catch (const std::exception&) {  // no configuration is left to unregister from
  }
  for (const auto& [name, sites] : *this)
    delete sites;
}

void ZOLVPNSitesConf::reconfigure() {
  AConfigurator& conf = *TheConfigurator::get_configuration();
  for (const auto& [name, sites] : *this) {
    if (sites != nullptr)
      sites->configure(conf);
  }
}

bool ZOLVPNSitesConf::need_reconf(bool&) {
  return true;
}

}  // namespace zol
