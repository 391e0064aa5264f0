#include "ha/zol_hop_map.h"

#include <algorithm>

#include "config/zol_networks.h"
#include "ha/ip_set_sink.h"
#include "sup_logger.h"

namespace zol {

namespace {

constexpr int default_hop_priority = 1;
constexpr int default_worst_hop_priority = 2;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("HopMap");
  return l;
}

}  // namespace

const int* ClusterData::priority_of(const std::string& hop_id) const {
  const auto found =
      std::find_if(hops.begin(), hops.end(), [&](const auto& hop) { return hop.first == hop_id; });
  return found == hops.end() ? nullptr : &found->second;
}

HopMap::HopMap(const ZOLNetworks* networks) : network(networks) {}

const HopData* HopMap::my_hop() const {
  const auto found = hops.find(my_hop_id);
  return found == hops.end() ? nullptr : &found->second;
}

template <typename Wanted>
std::set<std::string> HopMap::zol_ips_of(Wanted wanted) const {
  std::set<std::string> addresses;
  for (const auto& [hop_id, hop] : hops) {
    if (wanted(hop_id, hop))
      addresses.insert(hop.zol_ips.begin(), hop.zol_ips.end());
  }
  return addresses;
}

void HopMap::collect_peer_ips() {
  const auto is_peer = [&](const std::string& hop_id) { return hop_id != my_hop_id; };
  peer_ips_ = zol_ips_of([&](const std::string& hop_id, const HopData&) { return is_peer(hop_id); });
  communicating_peer_ips_ = zol_ips_of([&](const std::string& hop_id, const HopData& hop) {
    return is_peer(hop_id) && can_communicate_with_hop(hop);
  });
}

bool HopMap::is_clustered(const std::string& site) const {
  const auto found = clusters.find(site);
  return found != clusters.end() && found->second.priority_of(my_hop_id) != nullptr;
}

ha_mode_t HopMap::get_ha_mode() const {
  const HopData* hop = my_hop();
  if (hop == nullptr)
    return ha_mode_t::none;
  if (hop->ha_mode != ha_mode_t::autonomous)
    return hop->ha_mode;
  const std::vector<std::string> own = network->get_preallocated_interfaces();
  const bool fixed = std::all_of(
      hop->floating_ips.begin(), hop->floating_ips.end(),
      [&](const auto& address) { return std::find(own.begin(), own.end(), address) != own.end(); });
  if (!fixed)
    return ha_mode_t::autonomous;
  SUP_LOG(logger(), log_level::debug) << "get_ha_mode"
                                      << ": Detected managed mode according to configurations!";
  return ha_mode_t::managed;
}

std::set<std::string> HopMap::get_floating_ips() const {
  const HopData* hop = my_hop();
  return hop == nullptr ? std::set<std::string>() : hop->floating_ips;
}

std::set<std::string> HopMap::get_communication_groups() const {
  const HopData* hop = my_hop();
  return hop == nullptr ? std::set<std::string>() : hop->communication_groups;
}

std::set<std::string> HopMap::get_vrrp_neighbors() const {
  if (my_hop() == nullptr || get_ha_mode() != ha_mode_t::autonomous)
    return {};
  std::set<std::string> hop_ids;
  for (const auto& [site, cluster] : clusters) {
    if (cluster.priority_of(my_hop_id) == nullptr)
      continue;
    for (const auto& [hop_id, priority] : cluster.hops)
      hop_ids.insert(hop_id);
  }
  hop_ids.erase(my_hop_id);
  return zol_ips_of([&](const std::string& hop_id, const HopData& hop) {
    return hop_ids.contains(hop_id) && can_communicate_with_hop(hop);
  });
}

int HopMap::get_hop_priority(const std::string& site) const {
  const auto found = clusters.find(site);
  const int* priority = found == clusters.end() ? nullptr : found->second.priority_of(my_hop_id);
  return priority == nullptr ? default_hop_priority : *priority;
}

int HopMap::get_worst_hop_priority(const std::string& site) const {
  const auto found = clusters.find(site);
  if (found == clusters.end() || found->second.hops.empty())
    return default_worst_hop_priority;
  const auto& ranked = found->second.hops;
  return std::max_element(ranked.begin(), ranked.end(),
                          [](const auto& one, const auto& other) { return one.second < other.second; })
             ->second +
         1;
}

bool HopMap::is_direct_hop() const {
  const HopData* hop = my_hop();
  return parsed && hop != nullptr && hop->is_direct;
}

bool HopMap::zol_is_being_removed() const {
  const HopData* hop = my_hop();
  return parsed && hop != nullptr && hop->is_being_removed;
}

bool HopMap::zol_is_infra() const {
  const auto is_edge = [&](const auto& member) {
    const auto hop = hops.find(member.first);
    return hop != hops.end() && hop->second.is_ucpe;
  };
  for (const auto& [site, cluster] : clusters) {
    if (cluster.priority_of(my_hop_id) != nullptr &&
        std::any_of(cluster.hops.begin(), cluster.hops.end(), is_edge))
      return false;
  }
  return !is_direct_hop();
}

bool HopMap::is_ucpe_hop(const std::string& hop_id) const {
  const auto found = hops.find(hop_id.empty() ? my_hop_id : hop_id);
  return found != hops.end() && found->second.is_ucpe;
}

bool HopMap::can_communicate_with_hop(const HopData& hop) const {
  const HopData* own = my_hop();
  if (own == nullptr || hop.is_being_removed)
    return false;
  return std::any_of(own->communication_groups.begin(), own->communication_groups.end(),
                     [&](const std::string& group) { return hop.communication_groups.contains(group); });
}

std::set<std::string> HopMap::get_all_zol_ips() const {
  return zol_ips_of([](const std::string&, const HopData&) { return true; });
}

const std::set<std::string>& HopMap::get_all_peer_ips(bool communicating_only) const {
  return communicating_only ? communicating_peer_ips_ : peer_ips_;
}

std::set<std::string> HopMap::get_all_tcp_obscured_peer_ips() const {
  return zol_ips_of(
      [&](const std::string& hop_id, const HopData& hop) { return hop_id != my_hop_id && hop.tcp_obscured; });
}

std::set<std::string> HopMap::get_all_ucpe_hop_ips() const {
  return zol_ips_of([](const std::string&, const HopData& hop) { return hop.is_ucpe; });
}

std::set<int> HopMap::get_all_routing_ids() const {
  std::set<int> ids;
  for (const auto& [hop_id, hop] : hops) {
    if (hop.routing_id != 0)
      ids.insert(hop.routing_id);
  }
  return ids;
}

std::set<std::string> HopMap::get_bgp_peers() const {
  return zol_ips_of([&](const std::string& hop_id, const HopData& hop) {
    return hop_id != my_hop_id && hop.routing_id != 0 && can_communicate_with_hop(hop);
  });
}

std::string HopMap::get_metadata_by_fqdn_map(const std::string& fqdn) const {
  const auto found =
      std::find_if(hops.begin(), hops.end(), [&](const auto& entry) { return entry.second.fqdn == fqdn; });
  return found == hops.end() ? std::string() : found->second.metadata;
}

void HopMap::update_other_zol_ips_ipset() const {
  if (other_zol_ips_ == nullptr)
    return;
  std::set<std::string> addresses = get_all_zol_ips();
  for (const std::string& own : my_ips)
    addresses.erase(own);
  other_zol_ips_->set_ips(addresses);
}

}  // namespace zol
