// The counters of a period and the hop tables, each read-out with its copy in the shared record.
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <istream>
#include <sstream>
#include <utility>

#include "reporting/zol_info.h"
#include "sessions/zol_monitor_data.h"
#include "shared_records.h"
#include "stats/proc_folder.h"
#include "sup_logger.h"

namespace zol_monitor {

using libvariant::Variant;
using zol_utils::ZolStatusData;

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("ZolInfo");
  return instance;
}

// The columns of /proc/net/netlink that are told apart: sk Eth Pid Groups Rmem Wmem Dump Locks Drops Inode.
constexpr int columns_before_pid = 2;
constexpr int columns_between_pid_and_drops = 5;

std::string next_word(std::istream& words, int passed_over) {
  std::string word;
  for (int i = 0; i <= passed_over; ++i) {
    word.clear();
    words >> word;
  }
  return word;
}

// Of the first socket whose port id is that pid, which the kernel gives to a process's first socket of each
// kind; 0 without one.
unsigned long parse_netlink_drops(std::istream& table, unsigned long pid) {
  std::string line;
  std::getline(table, line);
  while (std::getline(table, line)) {
    if (line.empty())
      continue;
    std::istringstream words(line);
    if (std::stoul(next_word(words, columns_before_pid)) != pid)
      continue;
    return std::strtoull(next_word(words, columns_between_pid_and_drops).c_str(), nullptr, 10);
  }
  return 0;
}

struct ErrorCounters {
  unsigned long resolution_failures;
  unsigned long peer_timeouts;
  unsigned long conn_refused;
  unsigned long invalid_host;
  unsigned long failopen_connections;
};

ErrorCounters read_errors(const SessionsErrorCounter::Map& map) {
  const auto count = [&map](zol::failure_reason_t reason) {
    return SessionsErrorCounter::get_counter(map, reason);
  };
  return {count(zol::FR_RESOLUTION_FAILURE), count(zol::FR_PEER_TIMEOUT), count(zol::FR_CONNECTION_REFUSED),
          count(zol::FR_INVALID_HOST), count(zol::FR_FAILOPEN_CONNECTION)};
}

struct HopTable {
  zol_utils::hop_table_t hops{};
  std::int32_t count = 0;
};

HopTable make_hop_table(const ConntrackStats::HopConnections& connections) {
  HopTable table;
  std::size_t filled = 0;
  auto hop = connections.begin();
  for (; hop != connections.end() && filled < table.hops.size(); ++hop, ++filled) {
    inet_pton(AF_INET, hop->first.c_str(), &table.hops[filled].address);
    table.hops[filled].count = hop->second;
  }
  table.count = static_cast<std::int32_t>(filled);
  // The record's format: the number beside a table that overflowed is one less than it holds.
  if (hop != connections.end())
    --table.count;
  return table;
}

void share_hops(StatusAccess& access, const char* caller, const ConntrackStats::HopConnections& connections,
                zol_utils::hop_table_t ZolStatusData::*hops, std::int32_t ZolStatusData::*count) {
  const HopTable table = make_hop_table(connections);
  access.with(caller, [&table, hops, count](ZolStatusData& status) {
    status.*hops = table.hops;
    status.*count = table.count;
  });
}

}  // namespace

unsigned long ZolInfo::get_netlink_drop_counter() {
  std::ifstream table(proc_file("net/netlink"));
  if (!table) {
    SUP_LOG(logger(), log_level::warning) << "Failed to open file netlink file";
    return 0;
  }
  unsigned long drops = parse_netlink_drops(table, static_cast<unsigned long>(getpid()));
  status_.with("get_netlink_drop_counter", [&drops](ZolStatusData& status) {
    if (drops != 0)
      status.netlink_drops = drops;
    else
      drops = status.netlink_drops;
  });
  return drops;
}

Variant ZolInfo::get_session_error_counters() {
  SessionsErrorCounter& counters = data->sessions.error_counters;
  const ErrorCounters period = read_errors(counters.period);
  const ErrorCounters total = read_errors(counters.total);
  counters.period.clear();
  Variant report = Variant::make_map();
  report.Assign("resolution-failure-counter", period.resolution_failures);
  report.Assign("peer-timeout-counter", period.peer_timeouts);
  report.Assign("conn-refused-counter", period.conn_refused);
  report.Assign("invalid-host-counter", period.invalid_host);
  report.Assign("failopen-connection-counter", period.failopen_connections);
  status_.with("get_session_error_counters", [&period, &total](ZolStatusData& status) {
    status.resolution_failures_period = period.resolution_failures;
    status.peer_timeouts_period = period.peer_timeouts;
    status.conn_refused_period = period.conn_refused;
    status.invalid_host_period = period.invalid_host;
    status.failopen_connections_period = period.failopen_connections;
    status.resolution_failures_total = total.resolution_failures;
    status.peer_timeouts_total = total.peer_timeouts;
    status.conn_refused_total = total.conn_refused;
    status.invalid_host_total = total.invalid_host;
    status.failopen_connections_total = total.failopen_connections;
  });
  return report;
}

Variant ZolInfo::get_bh_session_counters() {
  ZOLSessions& sessions = data->sessions;
  const std::uint64_t recovered = std::exchange(sessions.recovered_period, 0);
  const std::uint64_t failed = std::exchange(sessions.failed_to_target_period, 0);
  Variant report = Variant::make_map();
  report.Assign("recovered", recovered);
  report.Assign("failed-to-target", failed);
  status_.with("get_bh_session_counters", [&sessions, recovered, failed](ZolStatusData& status) {
    status.recovered_period = recovered;
    status.failed_to_target_period = failed;
    status.recovered_total = sessions.recovered_total;
    status.failed_to_target_total = sessions.failed_to_target_total;
  });
  return report;
}

Variant ZolInfo::get_wc_time_counters() {
  Variant report = Variant::make_map();
  report.Assign("in-write-waiting-ms", std::exchange(data->sessions.in_write_waiting_ms, 0));
  report.Assign("out-write-waiting-ms", std::exchange(data->sessions.out_write_waiting_ms, 0));
  return report;
}

std::uint32_t ZolInfo::get_last_active_sessions() {
  status_.with("get_last_active_sessions", [](ZolStatusData& status) {
    status.last_active_sessions = ConntrackStats::last_active_sessions;
  });
  return ConntrackStats::last_active_sessions;
}

std::uint32_t ZolInfo::get_last_open_sessions() {
  status_.with("get_last_open_sessions",
               [](ZolStatusData& status) { status.last_open_sessions = ConntrackStats::last_open_sessions; });
  return ConntrackStats::last_open_sessions;
}

const ConntrackStats::HopConnections& ZolInfo::get_last_next_hop_active_sessions() {
  const auto& hops = ConntrackStats::last_next_hop_active_sessions;
  share_hops(status_, "get_last_next_hop_active_sessions", hops, &ZolStatusData::next_hop_active,
             &ZolStatusData::next_hop_active_count);
  return hops;
}

const ConntrackStats::HopConnections& ZolInfo::get_last_next_hop_open_sessions() {
  const auto& hops = ConntrackStats::last_next_hop_open_sessions;
  share_hops(status_, "get_last_next_hop_open_sessions", hops, &ZolStatusData::next_hop_open,
             &ZolStatusData::next_hop_open_count);
  return hops;
}

void ZolInfo::update_shm_last_prv_hop_sessions() {
  constexpr const char* caller = "update_shm_last_prv_hop_sessions";
  share_hops(status_, caller, ConntrackStats::last_prv_hop_active_sessions, &ZolStatusData::prv_hop_active,
             &ZolStatusData::prv_hop_active_count);
  share_hops(status_, caller, ConntrackStats::last_prv_hop_open_sessions, &ZolStatusData::prv_hop_open,
             &ZolStatusData::prv_hop_open_count);
}

}  // namespace zol_monitor
