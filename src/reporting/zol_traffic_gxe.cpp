// The traffic of a middle-mile node: the links between sites and the world, and the tunnels to the sites.
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <utility>

#include "config/zol_networks.h"
#include "conntrack/conntrack_stats.h"
#include "conntrack/gxe_counters.h"
#include "reporting/zol_traffic.h"
#include "sessions/zol_monitor_data.h"
#include "shared_records.h"
#include "sites/vpn_sites_services.h"
#include "sup_logger.h"

namespace zol_monitor {

using libvariant::Variant;
using zol::ConnRecordType;
using zol::SiteConnRecord;
using zol_utils::TrafficStats;

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("ZolTraffic");
  return l;
}

bool has_moved(const conntrack_counters_t& counters) {
  return counters.rx_bytes != 0 || counters.tx_bytes != 0;
}

Variant metadata_of(const SiteConnRecord& record) {
  return record.metadata.empty() ? Variant() : libvariant::Deserialize(record.metadata);
}

void describe_site(Variant& object, const SiteConnRecord& record) {
  object.Add("internal_id", record.site_id);
  object.Add("site_name", record.site_name);
  object.Add("site_vpn_group", record.group);
  object.Add("metadata", metadata_of(record));
  object.Add("ip", record.ip);
  object.Add("id", record.peer_id);
}

// `active`: the connection was established when the link was first seen.
Variant link_end(const SiteConnRecord& record, bool active) {
  Variant end = Variant::make_map();
  switch (record.record_type) {
    case ConnRecordType::site:
      describe_site(end, record);
      end.Add("type", active ? "Site_Direct" : "Site_Indirect");
      break;
    case ConnRecordType::bgp_route:
      end.Add("type", "Site_Indirect");
      end.Add("site_vpn_group", record.group);
      break;
    default:
      end.Add("type", "WORLD");
      break;
  }
  return end;
}

std::uint64_t share_of(double factor, std::uint64_t bytes) {
  const double share = factor * static_cast<double>(bytes);
  // A number this large has no exact double; the largest would round up beyond the type.
  return share < std::ldexp(1.0, 64) ? static_cast<std::uint64_t>(share)
                                     : std::numeric_limits<std::uint64_t>::max();
}

void add_billed_share(Variant& end, double factor, std::uint64_t bytes) {
  end.Add("bytes_for_billing", share_of(factor, bytes));
  end.Add("bytes_not_for_billing", share_of(1.0 - factor, bytes));
}

// A link that leaves a site is seen from its far side, one that comes from elsewhere from this node.
void add_billing(Variant& source, Variant& destination, const ConntrackStats& stats,
                 const GxeLinkCounters& link) {
  const bool from_site = is_site_or_route(link.first);
  const bool site_to_site = from_site && is_site_or_route(link.second);
  const gxe_billing_counters_t& factors =
      site_to_site ? stats.site_to_site_billing : stats.site_to_internet_billing;
  add_billed_share(source, factors.get_rx_billing_factor(from_site), link.total.rx_bytes);
  add_billed_share(destination, factors.get_tx_billing_factor(from_site), link.total.tx_bytes);
}

Variant link_report(const ConntrackStats& stats, const GxeLinkCounters& link, bool is_ucpe) {
  Variant source = link_end(link.first, link.first_active);
  source.Add("bytes", link.total.rx_bytes);
  source.Add("packets", link.total.rx_packets);
  Variant destination = link_end(link.second, link.second_active);
  destination.Add("bytes", link.total.tx_bytes);
  destination.Add("packets", link.total.tx_packets);
  if (is_ucpe)
    add_billing(source, destination, stats, link);
  Variant report = Variant::make_map(2);
  report.Add("src", std::move(source));
  report.Add("dst", std::move(destination));
  return report;
}

// What a link received came through the tunnel of its first end, what it sent went to that of its second.
void feed_tunnels(ConntrackStats& stats, GxeLinkCounters& link) {
  if (GxeTunnelCounters* tunnel = stats.tunnel_counters_get(link.first))
    tunnel->add_counters(counters_zero_dir(link.total, true));
  if (GxeTunnelCounters* tunnel = stats.tunnel_counters_get(link.second))
    tunnel->add_counters(counters_zero_dir(link.total, false));
}

Variant tunnel_way(std::uint64_t bytes, std::uint64_t packets, std::int32_t interval_s) {
  Variant way = Variant::make_map(3);
  way.Add("total", bytes);
  way.Add("total_packets", packets);
  way.Add("throughput", bytes * 8 / static_cast<std::uint64_t>(interval_s));
  return way;
}

// `interval_s` is above 0.
Variant tunnel_report(const SiteConnRecord& record, const conntrack_counters_t& counters,
                      std::int32_t interval_s) {
  Variant report = Variant::make_map();
  describe_site(report, record);
  report.Add("is_primary", record.primary);
  report.Add("upload", tunnel_way(counters.rx_bytes, counters.rx_packets, interval_s));
  report.Add("download", tunnel_way(counters.tx_bytes, counters.tx_packets, interval_s));
  return report;
}

// All tunnels of the node, those without traffic too.
void report_tunnels(const ConntrackStats& stats, zol::SiteServicesBase& sites, std::int32_t interval_s,
                    std::vector<Variant>& tunnels) {
  std::map<std::string, SiteConnRecord> idle = sites.get_all_site_records();
  for (const auto& [key, tunnel] : stats.tunnel_counters) {
    if (!has_moved(tunnel.counters))
      continue;
    tunnels.push_back(tunnel_report(tunnel.record, tunnel.counters, interval_s));
    idle.erase(tunnel.record.key);
  }
  for (const auto& [key, record] : idle)
    tunnels.push_back(tunnel_report(record, {}, interval_s));
}

void log_billing_factors(const ConntrackStats& stats) {
  const gxe_billing_counters_t& internet = stats.site_to_internet_billing;
  const gxe_billing_counters_t& site = stats.site_to_site_billing;
  SUP_LOG(logger(), log_level::debug)
      << "Calculated S2I rx billing factor of: " << internet.get_rx_billing_factor(false);
  SUP_LOG(logger(), log_level::debug)
      << "Calculated S2I tx billing factor of: " << internet.get_tx_billing_factor(false);
  SUP_LOG(logger(), log_level::debug)
      << "Calculated S2S rx billing factor of: " << site.get_rx_billing_factor(false);
  SUP_LOG(logger(), log_level::debug)
      << "Calculated S2S tx billing factor of: " << site.get_tx_billing_factor(false);
}

}  // namespace

Variant ZolTraffic::generate_zol_traffic_report_gxe(ConntrackStats& stats, TrafficStats* totals,
                                                    std::vector<Variant>& tunnels) {
  const bool is_ucpe = zol::ZOLNetworks::instance()->is_ucpe("");
  Variant links = Variant::make_list();
  if (!is_enabled())
    return links;
  if (is_ucpe)
    log_billing_factors(stats);
  for (auto& [key, link] : stats.link_counters) {
    if (!has_moved(link.total))
      continue;
    totals->total_packets += link.total.tx_packets + link.total.rx_packets;
    totals->total_bytes += link.total.tx_bytes + link.total.rx_bytes;
    links.Append(link_report(stats, link, is_ucpe));
    feed_tunnels(stats, link);
  }
  // The counters of the first report reach back to before the process.
  if (tunnels_primed && totals->interval_s > 0)
    report_tunnels(stats, *data->site_services, totals->interval_s, tunnels);
  tunnels_primed = true;
  return links;
}

}  // namespace zol_monitor
