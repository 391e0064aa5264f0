// With what priority this node stands for a site's VRRP instance.
#include <algorithm>
#include <limits>

#include "config/zol_networks.h"
#include "ha/ha_manager.h"
#include "sites/zol_vpn_sites.h"
#include "sup_logger.h"

namespace zol {

namespace {

constexpr int lowest_priority = 1;
constexpr int default_worst_tunnel = 2;
constexpr long long heavy = 10;  // the rank that decides first, against the other
constexpr long long light = 1;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("HAManager");
  return l;
}

const ZOLVPNSiteConf* find_site(const std::string& site) {
  for (const auto& [name, sites] : *ZOLVPNSitesConf::instance()) {
    if (const ZOLVPNSiteConf* found = sites->get_site(site))
      return found;
  }
  return nullptr;
}

// The ranks come from the configuration and may be anything.
int in_int_range(long long value) {
  return static_cast<int>(
      std::clamp<long long>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

}  // namespace

int HAManager::get_priority(const std::string& site, int tunnel_priority) const {
  const ZOLVPNSiteConf* conf = find_site(site);
  const HopMap& hop_map = ZOLNetworks::instance()->hop_map;
  const long long worst_tunnel = conf == nullptr ? default_worst_tunnel : conf->worst_priority;
  const long long this_hop = hop_map.get_hop_priority(site);
  const long long worst_hop = hop_map.get_worst_hop_priority(site);
  if (tunnel_priority == worst_tunnel) {
    SUP_LOG(logger(), log_level::warning) << "No VPN tunnels are up, setting lowest priority: 1";
    return lowest_priority;
  }
  const bool site_first = is_site_failover_first(site);
  SUP_LOG(logger(), log_level::debug)
      << "get_priority"
      << ": Setting Priority at " << (site_first ? "site" : "Vantorel")
      << " fails over first worst tunnel = " << worst_tunnel << ", this tunnel = " << tunnel_priority
      << ", worst hop = " << worst_hop << ", this hop = " << this_hop;
  return in_int_range((worst_hop - this_hop) * (site_first ? heavy : light) +
                      (worst_tunnel - tunnel_priority) * (site_first ? light : heavy));
}

bool HAManager::is_site_failover_first(const std::string& site) const {
  const ZOLVPNSiteConf* conf = find_site(site);
  return conf == nullptr || conf->failover_order == "site_first" || conf->failover_order == "active_active";
}

}  // namespace zol
