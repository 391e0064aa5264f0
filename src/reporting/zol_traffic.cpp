#include "reporting/zol_traffic.h"

#include <algorithm>
#include <limits>

#include "config/cached_setting.h"
#include "config/zol_conf_consts.h"
#include "conntrack/conntrack_stats.h"
#include "ha/keepalive.h"
#include "sessions/zol_monitor_data.h"
#include "shared_object.h"
#include "shared_records.h"
#include "zol_helper.h"

namespace zol_monitor {

using libvariant::Variant;
using zol_utils::TrafficStats;
using zol_utils::ZolStatusData;

namespace {

Variant stream_report(const conntrack_counters_t& counters) {
  Variant stream = Variant::make_map(4);
  stream.Add("incoming-packets", counters.rx_packets);
  stream.Add("incoming-bytes", counters.rx_bytes);
  stream.Add("outgoing-packets", counters.tx_packets);
  stream.Add("outgoing-bytes", counters.tx_bytes);
  return stream;
}

// Whole seconds; negative when the wall clock was set back.
std::int32_t seconds_between(std::uint64_t from_ms, std::uint64_t to_ms) {
  using limits = std::numeric_limits<std::int32_t>;
  const auto seconds = static_cast<std::int64_t>(to_ms - from_ms) / 1000;
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(seconds, limits::min(), limits::max()));
}

}  // namespace

std::uint64_t ZolTraffic::last_report_ms = 0;
bool ZolTraffic::tunnels_primed = false;

ZolTraffic::ZolTraffic(MonitorData* monitor_data) : data(monitor_data) {
  last_report_ms = zol::Helper::get_timestamp_ms();
}

Variant ZolTraffic::generate_zol_traffic_report(bool is_gxe, std::vector<Variant>& tunnels) {
  zol::KeepAlive::instance()->send_keepalive();
  TrafficStats totals{};
  data->conntrack.get_detected_ip_start();
  data->tcp_diag.refresh();  // so that closing sessions find fresh figures of their sockets
  ConntrackStats stats(data, false, false);
  totals.interval_s = seconds_between(last_report_ms, zol::Helper::get_timestamp_ms());
  last_report_ms = zol::Helper::get_timestamp_ms();
  Variant report = is_gxe ? generate_zol_traffic_report_gxe(stats, &totals, tunnels)
                          : generate_zol_traffic_report_gxs(stats, &totals);
  data->conntrack.get_detected_ip_finished();
  publish(totals);
  zol::KeepAlive::instance()->send_keepalive();
  return report;
}

bool ZolTraffic::is_enabled() {
  static zol::CachedSetting<bool> setting(zol_conf_consts::trafficreport_enabled_key);
  bool enabled = false;
  setting.lookup(enabled);
  return enabled;
}

void ZolTraffic::publish(const TrafficStats& totals) {
  zol_utils::with_locked_record<ZolStatusData>(
      "generate_zol_traffic_report", [&totals](ZolStatusData& status) { status.traffic_stats = totals; });
}

Variant ZolTraffic::generate_traffic_report(const conntrack_counters_t& client_to_server,
                                            const conntrack_counters_t& server_to_client) {
  Variant report = Variant::make_map(2);
  report.Add("client-to-server", stream_report(client_to_server));
  report.Add("server-to-client", stream_report(server_to_client));
  return report;
}

void ZolTraffic::fill_sh_traffic_stats(TrafficStats* totals, const conntrack_counters_t& client_to_server,
                                       const conntrack_counters_t& server_to_client) {
  for (const conntrack_counters_t& stream : {client_to_server, server_to_client}) {
    totals->total_packets += stream.tx_packets + stream.rx_packets;
    totals->total_bytes += stream.tx_bytes + stream.rx_bytes;
  }
}

Variant ZolTraffic::get_traffic_count() {
  TrafficStats totals{};
  std::uint32_t retransmissions = 0;
  Variant count = Variant::make_map();
  const bool read = zol_utils::with_locked_record<ZolStatusData>(
      "get_traffic_count", [&totals, &retransmissions](ZolStatusData& status) {
        totals = status.traffic_stats;
        retransmissions = status.total_retransmissions;
        status.total_retransmissions = 0;
      });
  if (!read)
    return count;
  count.Add("total-packets", totals.total_packets);
  count.Add("total-bytes", totals.total_bytes);
  count.Add("total-retransmissions", retransmissions);
  if (totals.interval_s > 0)
    count.Add("total-throughput", static_cast<double>(totals.total_bytes) * 8 / totals.interval_s);
  return count;
}

}  // namespace zol_monitor
