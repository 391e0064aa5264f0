// The links of a middle-mile node, and how connections reach them.
#include <arpa/inet.h>

#include "config/address_text.h"
#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"
#include "config/zol_networks.h"
#include "conntrack/conntrack_stats.h"
#include "conntrack/nfconntrack.h"
#include "sessions/zol_monitor_data.h"
#include "sites/vpn_conn_info.h"
#include "sites/vpn_sites_services.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

using zol::ConnRecordType;
using zol::SiteConnRecord;

// Link traffic belongs to no customer's network.
constexpr const char* link_network = "dummy";
constexpr const char* customer_group = "Customer";

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("ConntrackStats");
  return l;
}

bool is_established(const SiteConnRecord& record) {
  return record.state == zol::Established;
}

bool is_customers(const SiteConnRecord& record) {
  return is_site_or_route(record) && record.group == customer_group;
}

// A customer's traffic that doesn't end on this node.
bool is_customer_traffic(const SiteConnRecord& a, const SiteConnRecord& b) {
  return (is_customers(a) || is_customers(b)) && a.record_type != ConnRecordType::local &&
         b.record_type != ConnRecordType::local;
}

// This node's own hop is no way out.
bool is_own_hop(const libconfig::Config& config, const std::string& hop) {
  std::string dc_id;
  return config.lookupValue(hop + "." + zol_conf_consts::dc_id_key, dc_id) &&
         dc_id == zol::ZOLNetworks::instance()->hop_map.my_hop_id;
}

void log_counted(const nf_conntrack* ct, const conntrack_counters_t& counters, std::uint32_t mark) {
  SUP_LOG(logger(), log_level::debug)
      << "ct_parser_non_tcp_gxe_dir"
      << ": Connection " << zol::Helper::make_log_addr(nfconntrack_get_orig_src(ct)) << ":"
      << nfconntrack_get_orig_port(ct) << " -> " << zol::Helper::make_log_addr(nfconntrack_get_dst(ct)) << ":"
      << nfconntrack_get_dst_port(ct) << " is counted for network " << link_network << " tx bytes "
      << counters.tx_bytes << " rx bytes " << counters.rx_bytes << " mark " << mark;
}

}  // namespace

void ConntrackStats::read_site_to_internet_ips() {
  site_to_internet_ips.clear();
  const libconfig::Config& config = zol::TheConfigurator::get_configuration()->config;
  zol::ConfigListIterator hop(zol_conf_consts::snddata_routing_hops_key);
  for (int i = 0, hops = hop.size(); i < hops; ++i, ++hop) {
    bool site_to_inet = false;
    if (is_own_hop(config, *hop) ||
        !config.lookupValue(*hop + "." + zol_conf_consts::site_to_inet_key, site_to_inet) || !site_to_inet)
      continue;
    zol::ConfigListIterator hop_ip(*hop + "." + zol_conf_consts::hop_ips_key);
    for (int j = 0, ips = hop_ip.size(); j < ips; ++j, ++hop_ip) {
      std::string ip;
      if (config.lookupValue(*hop_ip, ip))
        site_to_internet_ips.insert(ip);
    }
  }
}

GxeLinkCounters* ConntrackStats::link_counters_get(std::uint32_t src, std::uint32_t dst,
                                                   std::uint32_t first_override,
                                                   std::uint32_t second_override) {
  const SiteConnRecord first =
      data->site_services->get_site_record(zol::address_text(first_override != 0 ? first_override : src));
  const SiteConnRecord second =
      data->site_services->get_site_record(zol::address_text(second_override != 0 ? second_override : dst));
  if (!is_site_or_route(first) && !is_site_or_route(second))
    return nullptr;
  const auto [link, is_new] = link_counters.try_emplace(first.key + "#" + second.key, first, second,
                                                        is_established(first), is_established(second));
  return &link->second;
}

GxeTunnelCounters* ConntrackStats::tunnel_counters_get(SiteConnRecord& record) {
  if (record.record_type != ConnRecordType::site || !is_established(record))
    return nullptr;
  return &tunnel_counters.try_emplace(record.key, record).first->second;
}

void ConntrackStats::ct_parser_tcp_gxe(nf_conntrack* ct, std::uint8_t m) {
  const bool swap = ((m >> 3 ^ m >> 1) & 1) != 0;  // an Out leg
  conntrack_counters_t cnt;
  counters_dump_parser(&cnt, swap, ct);
  const std::uint8_t protonum = nfconntrack_get_protonum(ct);
  const std::uint32_t src = nfconntrack_get_orig_src(ct);
  const std::uint32_t dst = nfconntrack_get_dst(ct);
  if (is_ucpe) {
    // Seen from the proxy: the way to such a hop is between sites. Traffic that isn't TCP counts the other
    // way round.
    gxe_billing_counters_t& billing = site_to_internet_ips.contains(zol::address_text(dst))
                                          ? site_to_site_billing
                                          : site_to_internet_billing;
    billing.add_to_billing_ratio(protonum, cnt, nfconntrack_get_mark(ct), false);
  }
  std::uint32_t client = 0;
  std::uint32_t next_hop = 0;
  data->sessions.get_session_endpoints(ct, client, next_hop);
  if (GxeLinkCounters* forth = link_counters_get(src, dst, client, next_hop))
    forth->add_counters(protonum, counters_zero_dir(cnt, !swap));
  if (GxeLinkCounters* back = link_counters_get(dst, src, next_hop, client))
    back->add_counters(protonum, counters_zero_dir(cnt, swap));
}

void ConntrackStats::ct_parser_non_tcp_gxe(nf_conntrack* ct) {
  ct_parser_non_tcp_gxe_dir(ct);
  nfconntrack_reverse(ct);
  ct_parser_non_tcp_gxe_dir(ct);
  nfconntrack_reverse(ct);
}

void ConntrackStats::ct_parser_non_tcp_gxe_dir(nf_conntrack* ct) {
  const std::uint8_t protonum = nfconntrack_get_protonum(ct);
  const std::uint32_t src = nfconntrack_get_orig_src(ct);
  const std::uint32_t dst = nfconntrack_get_dst(ct);
  const std::uint32_t mark = nfconntrack_get_mark(ct);
  const std::string src_text = zol::address_text(src);
  const std::string dst_text = zol::address_text(dst);
  const SiteConnRecord source = data->site_services->get_site_record(src_text);
  const SiteConnRecord target = data->site_services->get_site_record(dst_text);
  conntrack_counters_t cnt;
  counters_dump_parser(&cnt, false, ct);
  if (is_ucpe) {
    gxe_billing_counters_t& billing =
        site_to_internet_ips.contains(dst_text) ? site_to_internet_billing : site_to_site_billing;
    billing.add_to_billing_ratio(protonum, cnt, mark, is_ucpe_to_ucpe(src_text, dst_text));
  }
  const std::uint32_t loopback = htonl(INADDR_LOOPBACK);
  if ((src == loopback && dst == loopback) || (!is_site_or_route(source) && !is_site_or_route(target)) ||
      (is_gxe && conntrack_mark::link_byte(mark) == 0))
    return;
  GxeLinkCounters* link = link_counters_get(src, dst, src, dst);
  if (link == nullptr)
    return;
  cnt.tx_packets = cnt.rx_packets;  // a pass counts one direction
  cnt.tx_bytes = cnt.rx_bytes;
  log_counted(ct, cnt, mark);
  link->add_counters(protonum, cnt);
  LogicalNetworkCounters& network = networks[link_network];
  if (is_customer_traffic(source, target))
    network.add_active_non_tcp_connection();
  data->sessions.update_non_tcp_traffic(protonum, src, dst, cnt.tx_bytes, 0, 0, true, "");
}

}  // namespace zol_monitor
