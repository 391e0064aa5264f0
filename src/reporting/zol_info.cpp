#include "reporting/zol_info.h"

#include <ctime>
#include <exception>
#include <stdexcept>
#include <utility>

#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"
#include "dual_zol_helper.h"
#include "sessions/zol_monitor_data.h"
#include "shared_object.h"
#include "shared_records.h"
#include "stats/monitor_system.h"
#include "stats/proc_cpu_stats.h"
#include "stats/proc_fd_stats.h"
#include "stats/proc_mem_stats.h"
#include "stats/proc_stats_manager.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

using libvariant::Variant;
using zol_utils::ZolStatusData;

namespace {

constexpr unsigned ticks_a_second = 100;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("ZolInfo");
  return instance;
}

std::uint32_t low_half(std::uint64_t value) {
  return static_cast<std::uint32_t>(value);
}

const libconfig::Config& settings() {
  return zol::TheConfigurator::get_configuration()->config;
}

// A count whose source was garbled doesn't stop the report.
template <typename Read>
unsigned long count_or_zero(const char* what, Read read) {
  try {
    return read();
  } catch (const std::logic_error& failure) {
    SUP_LOG(logger(), log_level::error) << "serialize: no " << what << ": " << failure.what();
    return 0;
  }
}

Variant new_sessions_report(const ConntrackEvents& conntrack) {
  Variant report = Variant::make_map();
  report.Assign("traffic", conntrack.new_tcp_connections + conntrack.new_udp_connections);
  report.Assign("tcp", conntrack.new_tcp_connections);
  report.Assign("udp", conntrack.new_udp_connections);
  return report;
}

}  // namespace

Variant serialize_next_hop_connections(const std::map<std::string, unsigned>& hops) {
  Variant list = Variant::make_list();
  for (const auto& [ip, count] : hops) {
    Variant& entry = list.Append(Variant::make_map(2));
    entry.Assign("ip", ip);
    entry.Assign("count", count);
  }
  return list;
}

ZolInfo::ZolInfo(MonitorData* monitor_data) : data(monitor_data) {}

Variant ZolInfo::generate_zol_info_report() {
  if (!settings().lookupValue(zol_conf_consts::general_zol_id_key, id)) {
    const std::string text = "Couldn't find ZOLID configuration parameter.";
    SUP_LOG(logger(), log_level::error) << text;
    throw std::runtime_error(text);
  }
  Variant report = Variant::make_map();
  serialize(report);
  return report;
}

// The order counts: most steps clear what they report, and the ratio is worked out from what steps before it
// left in the shared record.
void ZolInfo::serialize(Variant& report) {
  status_.begin();
  int syn_flood_limit = 0;
  settings().lookupValue(zol_conf_consts::iptables_syn_flood_limit_key, syn_flood_limit);
  const unsigned long netlink_drops = netlink_drops_or_zero();
  data->tcp_diag.refresh();
  report.Assign("id", id);
  report.Assign("version", zol_utils::DualZOLHelper::instance()->get_zol_version_num());
  report.Assign("state", get_zol_state());
  add_load(report);
  add_flood_drops(report, syn_flood_limit, netlink_drops);
  add_sessions(report);
  report.Assign("new-sessions", new_sessions_report(data->conntrack));
  report.Assign("processes_stats", ProcessesManager::instance()->generate_procs_report());
  update_shm_last_prv_hop_sessions();
  data->conntrack.new_tcp_connections = 0;
  data->conntrack.new_udp_connections = 0;
  aggreagate_stats();
}

unsigned long ZolInfo::netlink_drops_or_zero() {
  return count_or_zero("netlink drops, a line without a port id",
                       [this] { return get_netlink_drop_counter(); });
}

void ZolInfo::add_load(Variant& report) const {
  report.Assign("cpu", ProcCpuStats::cpu_stat.percent(ProcCpuStats::cpu_stat.zol));
  report.Assign("ram", ProcMemStats::mem_stat.percent(ProcMemStats::mem_stat.zol));
  report.Assign("fd-max-ratio", ProcFdStats::max_fd_ratio);
}

void ZolInfo::add_flood_drops(Variant& report, int syn_flood_limit, unsigned long netlink_drops) const {
  if (syn_flood_limit > 0)
    report.Assign("syn-flood-drop", count_or_zero("SYN flood drops", get_syn_flood_drop));
  report.Assign("netlink-drop-counters", netlink_drops);
  report.Assign("icmp-flood-drop", count_or_zero("ICMP flood drops", get_icmp_flood_drop));
}

void ZolInfo::add_sessions(Variant& report) {
  report.Assign("open-sessions-count", get_last_open_sessions());
  report.Assign("session-error-counters", get_session_error_counters());
  report.Assign("black-hole-counters", get_bh_session_counters());
  report.Assign("write-waiting-time-ms", get_wc_time_counters());
  report.Assign("failure-ratio", get_failure_ratio());
  report.Assign("active-sessions-count", get_last_active_sessions());
  report.Assign("open-session-count-per-next-hop",
                serialize_next_hop_connections(get_last_next_hop_open_sessions()));
  report.Assign("active-session-count-per-next-hop",
                serialize_next_hop_connections(get_last_next_hop_active_sessions()));
}

std::string ZolInfo::get_zol_state() {
  bool failopen = false;
  status_.with("get_zol_state",
               [&failopen](const ZolStatusData& status) { failopen = status.failopen_active != 0; });
  return failopen ? "failopen" : "normal";
}

double ZolInfo::get_failure_ratio() {
  const std::uint32_t connections = data->conntrack.new_tcp_connections + data->conntrack.new_udp_connections;
  if (connections == 0)
    return 0.0;
  std::uint64_t syn_drops = 0;
  std::uint64_t failures = 0;
  const bool read = status_.with("get_failure_ratio", [&syn_drops, &failures](const ZolStatusData& status) {
    syn_drops = status.syn_flood_drop;
    failures = syn_drops + low_half(status.failed_to_target_period) + low_half(status.recovered_period) +
               low_half(status.failopen_connections_period);
  });
  if (!read)
    return 0.0;
  const double ratio = static_cast<double>(failures) / static_cast<double>(connections + syn_drops);
  if (ratio > 1)
    SUP_LOG(logger(), log_level::notice) << "Failure ratio is greater than 1: " << ratio;
  return ratio;
}

void ZolInfo::aggreagate_stats() {
  zol_utils::aggregated_row_t row{};
  row.timestamp = std::time(nullptr);
  status_.with("aggreagate_stats", [&row](const ZolStatusData& status) {
    row.recovered = low_half(status.recovered_period);
    row.failed_to_target = low_half(status.failed_to_target_period);
    row.syn_flood_drop = status.syn_flood_drop;
    row.open_sessions = status.last_open_sessions;
    row.active_sessions = status.last_active_sessions;
    row.resolution_failures = low_half(status.resolution_failures_period);
    row.peer_timeouts = low_half(status.peer_timeouts_period);
    row.conn_refused = low_half(status.conn_refused_period);
    row.invalid_host = low_half(status.invalid_host_period);
    row.failopen_connections = low_half(status.failopen_connections_period);
    row.total_packets = status.traffic_stats.total_packets;
    row.total_bytes = status.traffic_stats.total_bytes;
    row.new_sessions = status.traffic_stats.new_sessions;
    row.interval_s = status.traffic_stats.interval_s;
  });
  using zol_utils::AggregatedStats;
  zol_utils::with_locked_record<AggregatedStats>("aggreagate_stats", [&row](AggregatedStats& stats) {
    // Unsigned, so that whatever another process left there names a row.
    const auto next = [](std::int32_t index) {
      return static_cast<std::int32_t>((static_cast<std::uint32_t>(index) + 1) % AggregatedStats::max_rows);
    };
    stats.last = next(stats.last);
    stats.rows[static_cast<std::size_t>(stats.last)] = row;
    if (stats.last == stats.first)
      stats.first = next(stats.first);
  });
}

std::uint64_t ZolInfo::get_total_ticks() {
  return zol::Helper::get_timestamp_ms() * ticks_a_second / 1000;
}

}  // namespace zol_monitor
