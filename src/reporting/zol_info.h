// The object `zol-info` of the periodic report: the node's state, its load, its sessions and its failures.
//
// A period is what lies between two reports. It ends when the report is built, whether that arrives or not:
// what counts by the period is cleared as it is read. The figures also go to the shared ZolStatusData, and a
// row of them to the ring AggregatedStats, for the node's other processes. A record that can't be had costs
// the copy, with an error line, never the report.
//
// Logs under "ZolInfo". Main thread only; a report reads the socket table and runs iptables(8).
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "conntrack/conntrack_stats.h"
#include "reporting/status_access.h"
#include "variant.h"

namespace zol_monitor {

class MonitorData;

// A list with `ip` and `count` of each hop, in the order of the map.
libvariant::Variant serialize_next_hop_connections(const std::map<std::string, unsigned>& hops);

class ZolInfo {
 public:
  // Not owned; outlives the object.
  explicit ZolInfo(MonitorData* monitor_data);
  virtual ~ZolInfo() = default;

  // Ends the period. Throws std::runtime_error without General.zol_id, before anything is cleared.
  libvariant::Variant generate_zol_info_report();
  // Ends the period and fills `report`, a map.
  void serialize(libvariant::Variant& report);

  // "failopen" or "normal", as the shared record says; "normal" without it.
  std::string get_zol_state();
  // Sessions that failed in the period by its new connections, those that the flood limit dropped among both.
  // The failures are those of the shared record, so that get_session_error_counters(),
  // get_bh_session_counters() and get_syn_flood_drop() come before. 0 without new connections or without the
  // record. May exceed 1, which is logged at notice.
  double get_failure_ratio();
  // Messages that the kernel dropped since this process opened its netlink socket, from /proc/net/netlink;
  // while that is 0, the last number that wasn't, which the shared record keeps. Throws what std::stoul does
  // when the file has a line without a port id.
  unsigned long get_netlink_drop_counter();

  // --- counters of the period, which are cleared; the totals since start go to the shared record alone
  libvariant::Variant get_session_error_counters();
  libvariant::Variant get_bh_session_counters();
  libvariant::Variant get_wc_time_counters();

  // --- of the last reading of the connection table; these leave a copy in the shared record
  std::uint32_t get_last_active_sessions();
  std::uint32_t get_last_open_sessions();
  // A hop table of the shared record takes max_hop_sessions hops, in the order of the map. Of more hops the
  // count beside it says one less than the table holds.
  const ConntrackStats::HopConnections& get_last_next_hop_active_sessions();
  const ConntrackStats::HopConnections& get_last_next_hop_open_sessions();
  void update_shm_last_prv_hop_sessions();

  // Adds a row of what the shared record says now; of zeros, with the time, when that can't be had. A full
  // ring drops its oldest row.
  void aggreagate_stats();

  // The wall clock in hundredths of a second.
  static std::uint64_t get_total_ticks();

  std::string id;  // General.zol_id, of the last report
  MonitorData* data;

 private:
  unsigned long netlink_drops_or_zero();
  void add_load(libvariant::Variant& report) const;
  void add_flood_drops(libvariant::Variant& report, int syn_flood_limit, unsigned long netlink_drops) const;
  void add_sessions(libvariant::Variant& report);

  StatusAccess status_;
};

}  // namespace zol_monitor
