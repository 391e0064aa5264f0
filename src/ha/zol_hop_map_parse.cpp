// How the hop map is read from the configuration.
#include "config/zol_conf_consts.h"
#include "config/zol_networks.h"
#include "ha/zol_hop_map.h"
#include "sup_logger.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("HopMap");
  return l;
}

const libconfig::Config& configuration() {
  return TheConfigurator::get_configuration()->config;
}

// Leaves the value alone when the member is missing.
template <typename T>
bool read_member(const std::string& path, const char* member, T& value) {
  return configuration().lookupValue(path + "." + member, value);
}

ha_mode_t ha_mode_of(const std::string& text) {
  if (text == "managed")
    return ha_mode_t::managed;
  return text == "autonomous" ? ha_mode_t::autonomous : ha_mode_t::none;
}

void read_strings(const std::string& path, const char* list, const std::string& hop_id,
                  std::set<std::string>& values) {
  ConfigListIterator it(path + "." + list);
  for (int i = 0, count = it.size(); i < count; ++i, ++it) {
    std::string value;
    if (!configuration().lookupValue(*it, value)) {
      SUP_LOG(logger(), log_level::error) << "parse_hop"
                                          << ": " << *it << " is no text";
      continue;
    }
    SUP_LOG(logger(), log_level::debug) << "parse_hop"
                                        << ": Added " << value << " to " << list << " of " << hop_id;
    values.insert(value);
  }
}

bool fail_cluster(const char* text) {
  SUP_LOG(logger(), log_level::error) << "parse_cluster" << text;
  return false;
}

}  // namespace

void HopMap::clear() {
  out_mode = "unlimited";
  clustered = false;
  hops.clear();
  clusters.clear();
  parsed = false;
  peer_ips_.clear();
  communicating_peer_ips_.clear();
}

bool HopMap::parse(const std::string& hop_id) {
  if (!TheConfigurator::get_configuration()->has_list_key(zol_conf_consts::hopdata_hops_key)) {
    SUP_LOG(logger(), log_level::info) << "parse"
                                       << ": Skipping since hop data hasn't been polled yet";
    return false;
  }
  if (!hop_id.empty()) {
    my_hop_id = hop_id;
    SUP_LOG(logger(), log_level::debug) << "parse"
                                        << ": Set self hop id " << hop_id;
  }
  clear();
  parse_outs_mode();
  if (!parse_hops() || !parse_clusters()) {
    clear();
    return false;
  }
  collect_peer_ips();
  parsed = true;
  return true;
}

void HopMap::parse_outs_mode() {
  configuration().lookupValue(zol_conf_consts::hopdata_out_mode_key, out_mode);
  SUP_LOG(logger(), log_level::debug) << "parse_outs_mode"
                                      << ": Parsed out mode is '" << out_mode << "'";
}

bool HopMap::parse_hops() {
  SUP_LOG(logger(), log_level::debug) << "parse_hops"
                                      << ": Started parsing hops data";
  ConfigListIterator it(zol_conf_consts::hopdata_hops_key);
  for (int i = 0, count = it.size(); i < count; ++i, ++it) {
    if (parse_hop(*it))
      continue;
    SUP_LOG(logger(), log_level::error) << "parse_hops"
                                        << ": Wiping hop map";
    hops.clear();
    return false;
  }
  return true;
}

bool HopMap::parse_hop(const std::string& path) {
  std::string hop_id;
  if (!read_member(path, "hop_id", hop_id)) {
    SUP_LOG(logger(), log_level::error) << "parse_hop"
                                        << ": Missing hop id in hops !";
    return false;
  }
  SUP_LOG(logger(), log_level::debug)
      << "parse_hop"
      << ": Parsing " << (hop_id == my_hop_id ? "my " : "") << "hop " << hop_id;
  HopData hop;
  std::string ha_mode;
  read_member(path, "ha_mode", ha_mode);
  hop.ha_mode = ha_mode_of(ha_mode);
  read_member(path, "secured", hop.secured);
  read_member(path, "is_ucpe", hop.is_ucpe);
  read_member(path, "tcp_obscured", hop.tcp_obscured);
  read_member(path, "is_being_removed", hop.is_being_removed);
  read_member(path, "is_direct", hop.is_direct);
  read_member(path, "routing_id", hop.routing_id);
  read_member(path, "metadata", hop.metadata);
  read_member(path, "fqdn", hop.fqdn);
  read_strings(path, "floating_ips", hop_id, hop.floating_ips);
  read_strings(path, "zol_ips", hop_id, hop.zol_ips);
  read_strings(path, "communication_groups", hop_id, hop.communication_groups);
  hops.insert_or_assign(hop_id, std::move(hop));
  return true;
}

bool HopMap::parse_clusters() {
  SUP_LOG(logger(), log_level::debug) << "parse_clusters"
                                      << ": Parsing clusters data";
  ConfigListIterator it(zol_conf_consts::hopdata_clusters_key);
  for (int i = 0, count = it.size(); i < count; ++i, ++it) {
    if (parse_cluster(*it))
      continue;
    SUP_LOG(logger(), log_level::error) << "parse_clusters"
                                        << ": Wiping cluster list";
    clusters.clear();
    clustered = false;
    return false;
  }
  return true;
}

bool HopMap::parse_cluster(const std::string& path) {
  std::string site;
  ClusterData cluster;
  if (!read_member(path, "internal_site_id", site))
    return fail_cluster(": Missing internal site id in clusters !");
  if (!read_member(path, "virtual_router_id", cluster.virtual_router_id))
    return fail_cluster(": Missing virtual router id in clusters !");
  const std::string list = path + ".hops";
  if (!TheConfigurator::get_configuration()->has_list_key(list))
    return fail_cluster(": There are missing fields in clusters !");
  SUP_LOG(logger(), log_level::debug) << "parse_cluster"
                                      << ": internal_site_id is " << site;
  SUP_LOG(logger(), log_level::debug) << "parse_cluster"
                                      << ": virtual router id is " << cluster.virtual_router_id;
  ConfigListIterator it(list);
  for (int i = 0, count = it.size(); i < count; ++i, ++it) {
    if (!parse_cluster_hop(*it, cluster))
      return false;
  }
  if (cluster.priority_of(my_hop_id) != nullptr)
    clustered = true;
  clusters.insert_or_assign(site, std::move(cluster));
  return true;
}

bool HopMap::parse_cluster_hop(const std::string& path, ClusterData& cluster) const {
  std::string hop_id;
  int priority = 0;
  if (!read_member(path, "hop_id", hop_id))
    return fail_cluster(": Missing hop id in cluster's hop!");
  if (!read_member(path, "priority", priority))
    return fail_cluster(": Missing priority in cluster's hop!");
  SUP_LOG(logger(), log_level::debug) << "parse_cluster"
                                      << ": Hop " << hop_id << " with priority " << priority;
  cluster.hops.emplace_back(hop_id, priority);
  return true;
}

}  // namespace zol
