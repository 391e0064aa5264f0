// The traffic report's content: what moved in the interval since the last report.
//
// Each call of generate_zol_traffic_report() reads the kernel's connection table once, which closes the
// interval: what it returns is in no later report, whether it reaches the server or not. The interval's
// totals go to the shared ZolStatusData, for the node's other processes.
//
// An ordinary node (gxs) reports its logical networks with their domains and detected clients, a middle-mile
// node (gxe) the links between sites and the world, and its tunnels. Bytes that pass through the node count
// on the way in and on the way out. Throughputs are bits a second, round-trip times milliseconds.
//
// Logs under "ZolTraffic". Main thread only; a call holds up the loop and tells the watchdog before and
// after.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "conntrack/conntrack_counters.h"
#include "sessions/session_info.h"
#include "variant.h"

namespace zol_utils {
struct TrafficStats;
}

namespace zol_monitor {

class ConntrackStats;
class MonitorData;

// Messages by kind: a map of the maps `requests` and `responses`.
libvariant::Variant http_counters_to_variant(const HTTPCounters& counters);

class ZolTraffic {
 public:
  // Begins an interval. Not owned; outlives the object.
  explicit ZolTraffic(MonitorData* monitor_data);
  virtual ~ZolTraffic() = default;

  // The list of links or of logical networks. With `is_gxe` the tunnels are appended to `tunnels`; the first
  // such report of the process has none, since it has no interval before it. Throws std::runtime_error when
  // the shared record can't be unlocked.
  libvariant::Variant generate_zol_traffic_report(bool is_gxe, std::vector<libvariant::Variant>& tunnels);
  // Only networks with traffic. The figures that are reported leave `stats` and the sessions. What moved is
  // added to `totals`, which may be null.
  libvariant::Variant generate_zol_traffic_report_gxs(ConntrackStats& stats, zol_utils::TrafficStats* totals);
  // Empty unless TrafficReport.enabled. `totals` has the length of the interval; what moved is added.
  libvariant::Variant generate_zol_traffic_report_gxe(ConntrackStats& stats, zol_utils::TrafficStats* totals,
                                                      std::vector<libvariant::Variant>& tunnels);
  // Adds to `entry` the figures of the network as a whole. Without TrafficReport.enabled these are the
  // numbers of sessions alone. `totals` may be null.
  void generate_network_traffic_report(libvariant::Variant& entry, const std::string& network,
                                       ConntrackStats& stats, zol_utils::TrafficStats* totals);
  // TrafficReport.enabled: without it a report tells no bytes, but numbers of sessions, failures to reach the
  // target, HTTP messages, and detected clients.
  static bool is_enabled();
  // Both streams with what came in and what went out.
  static libvariant::Variant generate_traffic_report(const conntrack_counters_t& client_to_server,
                                                     const conntrack_counters_t& server_to_client);
  // Adds both streams, in and out, to the totals.
  static void fill_sh_traffic_stats(zol_utils::TrafficStats* totals,
                                    const conntrack_counters_t& client_to_server,
                                    const conntrack_counters_t& server_to_client);
  // The totals of the last interval from the shared record, and the retransmissions counted there since the
  // last call. An empty map when the record isn't to be had.
  libvariant::Variant get_traffic_count();

  MonitorData* data;

  static std::uint64_t last_report_ms;  // wall clock of the last reading
  static bool tunnels_primed;           // a report with links has been made

 private:
  void publish(const zol_utils::TrafficStats& totals);
};

}  // namespace zol_monitor
