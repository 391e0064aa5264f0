// Reads one site of the configuration with its entry points.
#include <algorithm>
#include <limits>

#include "config/zol_conf_consts.h"
#include "sites/string_list.h"
#include "sites/zol_vpn_sites.h"
#include "sup_logger.h"

namespace zol {

namespace {

constexpr const char* tunnel_script = "/opt/zol/vpn_tunnel_script";

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("ZOLVPNSiteConf");
  return l;
}

// The members of one group of the tree, of a site or of an entry point.
class GroupReader {
 public:
  GroupReader(const ZOLVPNSiteConf& site, const libconfig::Config& config, const std::string& path)
      : site_(site), config_(config), prefix_(path + ".") {}

  template <typename T>
  bool read(const char* key, T& value) const {
    return config_.lookupValue(prefix_ + key, value);
  }
  template <typename T>
  void require(const char* key, T& value) const {
    if (!read(key, value))
      throw ConfigFailure(site_.missing_msg(key));
  }
  // libconfig gives no integer for a float.
  double rate(const char* key) const {
    double value = ZOLVPNSites::rate_limit_mbps;
    if (int whole = 0; !read(key, value) && read(key, whole))
      value = whole;
    return value;
  }

 private:
  const ZOLVPNSiteConf& site_;
  const libconfig::Config& config_;
  std::string prefix_;
};

void read_primary_block(const GroupReader& group, SiteEntry& entry) {
  if (!group.read(zol_conf_consts::route_based_primary_gw_ip_key, entry.primary_gw_ip))
    return;
  group.read(zol_conf_consts::route_based_primary_site_ip_key, entry.primary_site_ip);
  group.read(zol_conf_consts::route_based_primary_netmask_key, entry.primary_netmask);
  group.read(zol_conf_consts::route_based_primary_internal_pingable_ip_key,
             entry.primary_internal_pingable_ip);
}

void read_secondary_block(const GroupReader& group, SiteEntry& entry) {
  if (!group.read(zol_conf_consts::route_based_secondary_gw_ip_key, entry.secondary_gw_ip))
    return;
  group.read(zol_conf_consts::route_based_secondary_site_ip_key, entry.secondary_site_ip);
  group.read(zol_conf_consts::route_based_secondary_internal_pingable_ip_key,
             entry.secondary_internal_pingable_ip);
  group.read(zol_conf_consts::route_based_secondary_netmask_key, entry.secondary_netmask);
}

// Throws ConfigFailure for the entry that lacks a key.
void read_entry(const GroupReader& group, SiteEntry& entry) {
  group.require(zol_conf_consts::enabled_key, entry.enabled);
  group.require(zol_conf_consts::monitored_key, entry.monitored);
  group.require(zol_conf_consts::id_key, entry.id);
  group.require(zol_conf_consts::ip_key, entry.ip);
  group.require(zol_conf_consts::psk_key, entry.psk);
  group.require(zol_conf_consts::id_as_text_key, entry.id_as_text);
  group.require(zol_conf_consts::zol_id_as_text_key, entry.zol_id_as_text);
  group.require(zol_conf_consts::priority_key, entry.priority);
  group.require(zol_conf_consts::mark_key, entry.mark);
  group.read(zol_conf_consts::vti_key, entry.vti);
  read_primary_block(group, entry);
  read_secondary_block(group, entry);
  entry.rate_limit_upload = group.rate(zol_conf_consts::rate_limit_upload_key);
  entry.rate_limit_download = group.rate(zol_conf_consts::rate_limit_download_key);
}

}  // namespace

SiteEntry::SiteEntry(bool primary_site)
    : primary(primary_site),
      up_script(tunnel_script),
      down_script(tunnel_script),
      rate_limit_download(ZOLVPNSites::rate_limit_mbps),
      rate_limit_upload(ZOLVPNSites::rate_limit_mbps) {}

void ZOLVPNSiteConf::configure(AConfigurator& conf, std::string site_path) {
  path = std::move(site_path);
  const int entry_count = conf.get_list_size(path + "." + zol_conf_consts::entry_points_key);
  read_site(conf);
  read_entries(conf, entry_count);
  if (worst_priority < std::numeric_limits<int>::max())
    ++worst_priority;
  const GroupReader group(*this, conf.config, path);
  group.read(zol_conf_consts::mtu_key, mtu);
  group.require(zol_conf_consts::default_gateway_key, default_gateway);
  for_each_text(
      conf, path + "." + zol_conf_consts::subnets_key,
      [this](const std::string& subnet) {
        SUP_LOG(logger(), log_level::debug) << " Adding subnet " << subnet;
        subnets.insert(subnet);
      },
      [](int index) {
        SUP_LOG(logger(), log_level::error) << " Failed to retrieve #" << index << " subnet value.";
      });
}

void ZOLVPNSiteConf::read_site(AConfigurator& conf) {
  const GroupReader group(*this, conf.config, path);
  group.read(zol_conf_consts::name_key, name);
  group.read(zol_conf_consts::protocol_key, protocol);
  group.read(zol_conf_consts::accept_connections_key, accept_connections);
  group.require(zol_conf_consts::bgp_enabled_key, bgp_enabled);
  group.read(zol_conf_consts::internal_id_key, internal_id);
  group.read(zol_conf_consts::vpn_group_key, vpn_group);
  group.require(zol_conf_consts::primary_key, primary);
  group.require(zol_conf_consts::route_based_enabled_key, route_based_enabled);
  group.require(zol_conf_consts::metadata_key, metadata);
  group.require(zol_conf_consts::failover_order_key, failover_order);
  for_each_text(
      conf, path + "." + zol_conf_consts::other_sites_key,
      [this](const std::string& site) { other_sites.insert(site); },
      [](int index) {
        SUP_LOG(logger(), log_level::error) << "Failed to retrieve #" << index << " other sites value.";
      });
  group.require(zol_conf_consts::type_key, type);
  remote_access = type == "remote_access";
}

void ZOLVPNSiteConf::read_entries(AConfigurator& conf, int count) {
  const std::string list_key = path + "." + zol_conf_consts::entry_points_key;
  for (int i = 0; i < count; ++i) {
    const std::string entry_path = conf.get_list_element_key(list_key, i);
    if (entry_path.empty())
      continue;
    SiteEntry entry(primary);
    try {
      read_entry(GroupReader(*this, conf.config, entry_path), entry);
    } catch (const ConfigFailure& failure) {
      SUP_LOG(logger(), log_level::error) << failure.what();
      continue;
    }
    worst_priority = std::max(worst_priority, entry.priority);
    entries.push_back(std::move(entry));
  }
}

bool ZOLVPNSiteConf::get_entry(const std::string& ip, const std::string& id, SiteEntry& out) const {
  const auto found = std::find_if(entries.begin(), entries.end(),
                                  [&](const SiteEntry& entry) { return entry.ip == ip && entry.id == id; });
  if (found == entries.end())
    return false;
  out = *found;
  return true;
}

std::string ZOLVPNSiteConf::missing_msg(const char* key) const {
  return " vpn site " + path + " is missing " + key + " key.";
}

void ZOLVPNSiteConf::destroy(ZOLVPNSiteConf*& site) {
  delete site;
  site = nullptr;
}

}  // namespace zol
