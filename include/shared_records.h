// The records that the node's processes share, see shared_object.h. They are a format between programs:
// offsets and sizes are fixed, numbers are little-endian, and what is reserved belongs to other processes and
// is left alone. Offsets in comments count from behind the 48 bytes of header.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "shared_lock.h"

namespace zol_utils {

// One hop and its number of connections.
struct hop_sessions_t {
  std::uint32_t address;  // IPv4, network order
  std::uint32_t count;
};
static_assert(sizeof(hop_sessions_t) == 8);

inline constexpr std::size_t max_hop_sessions = 50;
using hop_table_t = std::array<hop_sessions_t, max_hop_sessions>;

// The totals of one interval of the traffic report.
struct TrafficStats {
  std::uint64_t total_packets;
  std::uint64_t total_bytes;
  std::uint64_t new_sessions;
  std::int32_t interval_s;
  std::uint32_t reserved;
};
static_assert(sizeof(TrafficStats) == 32);

// The state of the node: its load, its sessions, its failures.
struct ZolStatusData {
  shared_header_t header;
  double cpu_usage;                                //    0: percent
  double max_fd_ratio;                             //    8: 0 to 1
  double ram_usage;                                //   16: percent
  std::uint64_t failure_count;                     //   24: failures since fail-open began or ended
  std::uint8_t failopen_suspended;                 //   32
  std::uint8_t failopen_active;                    //   33
  std::uint8_t black_hole_active;                  //   34
  std::uint8_t reserved_35;                        //   35
  std::uint32_t suspension_time;                   //   36: seconds, 0 until it is resumed
  std::uint32_t syn_flood_drop;                    //   40
  std::uint32_t icmp_flood_drop;                   //   44
  std::uint32_t last_active_sessions;              //   48
  std::uint32_t last_open_sessions;                //   52
  hop_table_t next_hop_active;                     //   56
  std::int32_t next_hop_active_count;              //  456
  hop_table_t next_hop_open;                       //  460
  std::int32_t next_hop_open_count;                //  860
  std::array<std::int64_t, 2> suspension_start;    //  864: a timespec of CLOCK_BOOTTIME
  std::int64_t failopen_start;                     //  880: when fail-open began, seconds of CLOCK_BOOTTIME
  std::int64_t last_successful_report;             //  888: time_t
  std::uint64_t resolution_failures_period;        //  896
  std::uint64_t peer_timeouts_period;              //  904
  std::uint64_t conn_refused_period;               //  912
  std::uint64_t invalid_host_period;               //  920
  std::uint64_t failopen_connections_period;       //  928
  std::uint64_t resolution_failures_total;         //  936
  std::uint64_t peer_timeouts_total;               //  944
  std::uint64_t conn_refused_total;                //  952
  std::uint64_t invalid_host_total;                //  960
  std::uint64_t failopen_connections_total;        //  968
  std::uint64_t recovered_period;                  //  976
  std::uint64_t failed_to_target_period;           //  984
  std::uint64_t recovered_total;                   //  992
  std::uint64_t failed_to_target_total;            // 1000
  std::uint64_t netlink_drops;                     // 1008
  std::array<std::uint64_t, 6> tcp_pool_counters;  // 1016: running totals of the proxy's TCP pool
  hop_table_t prv_hop_open;                        // 1064
  std::int32_t prv_hop_open_count;                 // 1464
  hop_table_t prv_hop_active;                      // 1468
  std::int32_t prv_hop_active_count;               // 1868
  TrafficStats traffic_stats;                      // 1872: the last interval only
  std::uint32_t total_retransmissions;             // 1904
  std::uint32_t reserved_1908;                     // 1908
};

namespace detail {
// Whether a member stands at that place behind the header.
constexpr bool behind_header(std::size_t offset_in_record, std::size_t offset) {
  return offset_in_record == sizeof(shared_header_t) + offset;
}
}  // namespace detail

#define ZOL_STATUS_AT(member, offset) \
  static_assert(detail::behind_header(offsetof(ZolStatusData, member), offset), #member " moved")
ZOL_STATUS_AT(cpu_usage, 0);
ZOL_STATUS_AT(max_fd_ratio, 8);
ZOL_STATUS_AT(ram_usage, 16);
ZOL_STATUS_AT(failure_count, 24);
ZOL_STATUS_AT(failopen_suspended, 32);
ZOL_STATUS_AT(failopen_active, 33);
ZOL_STATUS_AT(black_hole_active, 34);
ZOL_STATUS_AT(suspension_time, 36);
ZOL_STATUS_AT(syn_flood_drop, 40);
ZOL_STATUS_AT(icmp_flood_drop, 44);
ZOL_STATUS_AT(last_active_sessions, 48);
ZOL_STATUS_AT(last_open_sessions, 52);
ZOL_STATUS_AT(next_hop_active, 56);
ZOL_STATUS_AT(next_hop_active_count, 456);
ZOL_STATUS_AT(next_hop_open, 460);
ZOL_STATUS_AT(next_hop_open_count, 860);
ZOL_STATUS_AT(suspension_start, 864);
ZOL_STATUS_AT(failopen_start, 880);
ZOL_STATUS_AT(last_successful_report, 888);
ZOL_STATUS_AT(resolution_failures_period, 896);
ZOL_STATUS_AT(peer_timeouts_period, 904);
ZOL_STATUS_AT(conn_refused_period, 912);
ZOL_STATUS_AT(invalid_host_period, 920);
ZOL_STATUS_AT(failopen_connections_period, 928);
ZOL_STATUS_AT(resolution_failures_total, 936);
ZOL_STATUS_AT(peer_timeouts_total, 944);
ZOL_STATUS_AT(conn_refused_total, 952);
ZOL_STATUS_AT(invalid_host_total, 960);
ZOL_STATUS_AT(failopen_connections_total, 968);
ZOL_STATUS_AT(recovered_period, 976);
ZOL_STATUS_AT(failed_to_target_period, 984);
ZOL_STATUS_AT(recovered_total, 992);
ZOL_STATUS_AT(failed_to_target_total, 1000);
ZOL_STATUS_AT(netlink_drops, 1008);
ZOL_STATUS_AT(tcp_pool_counters, 1016);
ZOL_STATUS_AT(prv_hop_open, 1064);
ZOL_STATUS_AT(prv_hop_open_count, 1464);
ZOL_STATUS_AT(prv_hop_active, 1468);
ZOL_STATUS_AT(prv_hop_active_count, 1868);
ZOL_STATUS_AT(traffic_stats, 1872);
ZOL_STATUS_AT(total_retransmissions, 1904);
#undef ZOL_STATUS_AT
static_assert(sizeof(ZolStatusData) == 1960);

// The text of the last periodic report, for the processes that show it.
struct ZolReportData {
  static constexpr std::size_t max_report = 12288;  // longer texts are cut

  shared_header_t header;
  char report[max_report];
  char terminator;  // always zero
};
static_assert(offsetof(ZolReportData, report) == 48);
static_assert(offsetof(ZolReportData, terminator) == 12336);

// The services that have left the configuration; the form of the block is told in config/services.h.
struct ZolHistoricServices {
  static constexpr std::size_t block_size = 4096;

  shared_header_t header;
  unsigned char block[block_size];
};
static_assert(offsetof(ZolHistoricServices, block) == 48);
static_assert(sizeof(ZolHistoricServices) == 48 + ZolHistoricServices::block_size);

// What one open connection had counted at the last reading. The directions are the kernel's own, whatever the
// connection's mark says.
struct ConntrackEntry {
  char id[40];                 //  0: NUL-terminated, see conntrack/conntrack_states.h; free when id[0] is 0
  std::uint64_t orig_packets;  // 40: original direction
  std::uint64_t orig_bytes;    // 48
  std::uint64_t repl_packets;  // 56: reply direction
  std::uint64_t repl_bytes;    // 64
  std::uint8_t known;          // 72: 1 when the connection has been counted at least once
  std::uint8_t reserved[7];    // 73: zero
};
static_assert(offsetof(ConntrackEntry, orig_packets) == 40);
static_assert(offsetof(ConntrackEntry, orig_bytes) == 48);
static_assert(offsetof(ConntrackEntry, repl_packets) == 56);
static_assert(offsetof(ConntrackEntry, repl_bytes) == 64);
static_assert(offsetof(ConntrackEntry, known) == 72);
static_assert(sizeof(ConntrackEntry) == 80);

// The memory of connection counters.
struct ConntrackStates {
  static constexpr std::size_t max_connections = 100000;

  shared_header_t header;
  std::array<ConntrackEntry, max_connections> entries;
};
static_assert(offsetof(ConntrackStates, entries) == 48);
static_assert(sizeof(ConntrackStates) == 8000048);

// What the node reported for one period.
struct aggregated_row_t {
  std::int64_t timestamp;              //  0: seconds since the epoch, when the period ended
  std::uint32_t recovered;             //  8: of ZolStatusData's field of that name and _period
  std::uint32_t failed_to_target;      // 12: likewise
  std::uint32_t syn_flood_drop;        // 16
  std::uint32_t open_sessions;         // 20
  std::uint32_t active_sessions;       // 24
  std::uint32_t resolution_failures;   // 28: of ..._period, as the four behind it
  std::uint32_t peer_timeouts;         // 32
  std::uint32_t conn_refused;          // 36
  std::uint32_t invalid_host;          // 40
  std::uint32_t failopen_connections;  // 44
  std::uint64_t total_packets;         // 48: of the last traffic report, as the three behind it
  std::uint64_t total_bytes;           // 56
  std::uint64_t new_sessions;          // 64
  std::int32_t interval_s;             // 72
  std::uint32_t reserved;              // 76: zero
};
static_assert(offsetof(aggregated_row_t, recovered) == 8);
static_assert(offsetof(aggregated_row_t, failed_to_target) == 12);
static_assert(offsetof(aggregated_row_t, syn_flood_drop) == 16);
static_assert(offsetof(aggregated_row_t, open_sessions) == 20);
static_assert(offsetof(aggregated_row_t, active_sessions) == 24);
static_assert(offsetof(aggregated_row_t, resolution_failures) == 28);
static_assert(offsetof(aggregated_row_t, peer_timeouts) == 32);
static_assert(offsetof(aggregated_row_t, conn_refused) == 36);
static_assert(offsetof(aggregated_row_t, invalid_host) == 40);
static_assert(offsetof(aggregated_row_t, failopen_connections) == 44);
static_assert(offsetof(aggregated_row_t, total_packets) == 48);
static_assert(offsetof(aggregated_row_t, total_bytes) == 56);
static_assert(offsetof(aggregated_row_t, new_sessions) == 64);
static_assert(offsetof(aggregated_row_t, interval_s) == 72);
static_assert(sizeof(aggregated_row_t) == 80);

// The rows of the last periods, a ring. One place is always free, so it holds max_rows - 1 at most, and it is
// empty while `first` equals `last`: the first row of all goes to place 1.
struct AggregatedStats {
  static constexpr std::size_t max_rows = 2880;

  shared_header_t header;
  std::int32_t first;  // 0: index of the oldest row, which is all zero until the ring has come around
  std::int32_t last;   // 4: index of the newest row
  std::array<aggregated_row_t, max_rows> rows;
};
static_assert(detail::behind_header(offsetof(AggregatedStats, first), 0));
static_assert(detail::behind_header(offsetof(AggregatedStats, last), 4));
static_assert(detail::behind_header(offsetof(AggregatedStats, rows), 8));
static_assert(sizeof(AggregatedStats) == 230456);

}  // namespace zol_utils
