#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "conntrack/conntrack_stats.h"
#include "dual_zol_helper.h"
#include "stats/proc_cpu_stats.h"
#include "stats/proc_fd_stats.h"
#include "stats/proc_mem_stats.h"
#include "stats/proc_stats_manager.h"
#include "sup_logger.h"
#include "zol_helper.h"
#include "zol_info_fixture.h"

namespace {

using libvariant::Variant;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using zol_monitor::ConntrackStats;
using zol_monitor::ZolInfo;
using zol_test::ZolInfoTest;

std::vector<std::string> keys_of(const Variant& map) {
  std::vector<std::string> keys;
  map.ForEach([&keys](std::string_view key, const Variant&) { keys.emplace_back(key); });
  return keys;
}

std::vector<std::pair<std::string, unsigned>> hops_of(const Variant& list) {
  std::vector<std::pair<std::string, unsigned>> hops;
  for (const Variant& entry : list.AsList()) {
    EXPECT_THAT(keys_of(entry), UnorderedElementsAre("ip", "count"));
    EXPECT_EQ(entry.At("count").kind(), Variant::Kind::Unsigned);
    hops.emplace_back(entry.At("ip").AsString(), static_cast<unsigned>(entry.At("count").AsUnsigned()));
  }
  return hops;
}

// --- the object

TEST_F(ZolInfoTest, keys_and_kinds) {
  // Verifies that the object has its keys and no other, each of the kind that the server expects.
  const Variant report = info_.generate_zol_info_report();
  EXPECT_THAT(
      keys_of(report),
      UnorderedElementsAre("id", "version", "state", "cpu", "ram", "fd-max-ratio", "netlink-drop-counters",
                           "icmp-flood-drop", "open-sessions-count", "session-error-counters",
                           "black-hole-counters", "write-waiting-time-ms", "failure-ratio",
                           "active-sessions-count", "open-session-count-per-next-hop",
                           "active-session-count-per-next-hop", "new-sessions", "processes_stats"));
  for (const char* key : {"id", "version", "state"})
    EXPECT_EQ(report.At(key).kind(), Variant::Kind::String) << key;
  for (const char* key : {"cpu", "ram", "fd-max-ratio", "failure-ratio"})
    EXPECT_EQ(report.At(key).kind(), Variant::Kind::Double) << key;
  for (const char* key :
       {"netlink-drop-counters", "icmp-flood-drop", "open-sessions-count", "active-sessions-count"})
    EXPECT_EQ(report.At(key).kind(), Variant::Kind::Unsigned) << key;
  for (const char* key :
       {"session-error-counters", "black-hole-counters", "write-waiting-time-ms", "new-sessions"})
    EXPECT_EQ(report.At(key).kind(), Variant::Kind::Map) << key;
  for (const char* key :
       {"open-session-count-per-next-hop", "active-session-count-per-next-hop", "processes_stats"})
    EXPECT_EQ(report.At(key).kind(), Variant::Kind::List) << key;
}

TEST_F(ZolInfoTest, identity) {
  // Verifies that the object tells the configured id and the installed version.
  const Variant report = info_.generate_zol_info_report();
  EXPECT_EQ(report.At("id").AsString(), "node-1");
  EXPECT_EQ(info_.id, "node-1");
  EXPECT_EQ(report.At("version").AsString(), zol_utils::DualZOLHelper::instance()->get_zol_version_num());
  config_.set("General: { zol_id = \"node-2\"; };");
  EXPECT_EQ(info_.generate_zol_info_report().At("id").AsString(), "node-2");
}

TEST_F(ZolInfoTest, missing_id) {
  // Verifies that a node without an id has no report, with an error line, and that the period goes on.
  config_.set("General: { };");
  set_new_connections(3);
  data_.sessions.recovered_period = 4;
  std::string text;
  try {
    info_.generate_zol_info_report();
  } catch (const std::runtime_error& error) {
    text = error.what();
  }
  EXPECT_EQ(text, "Couldn't find ZOLID configuration parameter.");
  EXPECT_TRUE(log_->contains(log_level::error, "Couldn't find ZOLID configuration parameter."));
  EXPECT_EQ(conntrack().new_tcp_connections, 3U);
  EXPECT_EQ(data_.sessions.recovered_period, 4U);
  EXPECT_EQ(aggregated().last, 0);
}

TEST_F(ZolInfoTest, load) {
  // Verifies that CPU and RAM are the node's share of the machine in percent, and the descriptors' ratio as
  // it was measured.
  ProcCpuStats::cpu_stat.total = 800;
  ProcCpuStats::cpu_stat.zol = 100;
  ProcCpuStats::cpu_stat.idle = 300;
  ProcMemStats::mem_stat.total = 4000;
  ProcMemStats::mem_stat.zol = 30;
  ProcFdStats::max_fd_ratio = 0.375;
  const Variant report = info_.generate_zol_info_report();
  EXPECT_DOUBLE_EQ(report.At("cpu").AsDouble(), 12.5);
  EXPECT_DOUBLE_EQ(report.At("ram").AsDouble(), 0.75);
  EXPECT_DOUBLE_EQ(report.At("fd-max-ratio").AsDouble(), 0.375);
}

TEST_F(ZolInfoTest, load_before_a_measurement) {
  // Verifies that totals of 0 give 0.
  ProcCpuStats::cpu_stat.zol = 100;
  ProcMemStats::mem_stat.zol = 100;
  const Variant report = info_.generate_zol_info_report();
  EXPECT_EQ(report.At("cpu").AsDouble(), 0.0);
  EXPECT_EQ(report.At("ram").AsDouble(), 0.0);
}

TEST_F(ZolInfoTest, processes) {
  // Verifies that the list of processes is the manager's.
  const Variant report = info_.generate_zol_info_report();
  EXPECT_EQ(report.At("processes_stats"), ProcessesManager::instance()->generate_procs_report());
  ASSERT_EQ(report.At("processes_stats").Size(), 2U);
  EXPECT_EQ(report.At("processes_stats").AsList()[0].At("process_name").AsString(), "other");
}

TEST_F(ZolInfoTest, new_sessions) {
  // Verifies that the new sessions are reported by protocol with their sum, and are 0 in the next period.
  set_new_connections(5, 2);
  Variant report = info_.generate_zol_info_report();
  EXPECT_EQ(report.At("new-sessions").At("traffic").AsUnsigned(), 7U);
  EXPECT_EQ(report.At("new-sessions").At("tcp").AsUnsigned(), 5U);
  EXPECT_EQ(report.At("new-sessions").At("udp").AsUnsigned(), 2U);
  EXPECT_EQ(conntrack().new_tcp_connections, 0U);
  EXPECT_EQ(conntrack().new_udp_connections, 0U);
  report = info_.generate_zol_info_report();
  EXPECT_EQ(report.At("new-sessions").At("traffic").AsUnsigned(), 0U);
}

TEST_F(ZolInfoTest, last_reading) {
  // Verifies that sessions and next hops are those of the last reading of the connection table.
  ConntrackStats::last_active_sessions = 4;
  ConntrackStats::last_open_sessions = 9;
  ConntrackStats::last_next_hop_open_sessions = {{"203.0.113.9", 6}, {"203.0.113.10", 3}};
  ConntrackStats::last_next_hop_active_sessions = {{"203.0.113.9", 4}};
  const Variant report = info_.generate_zol_info_report();
  EXPECT_EQ(report.At("active-sessions-count").AsUnsigned(), 4U);
  EXPECT_EQ(report.At("open-sessions-count").AsUnsigned(), 9U);
  EXPECT_THAT(hops_of(report.At("open-session-count-per-next-hop")),
              ElementsAre(std::pair("203.0.113.10", 3), std::pair("203.0.113.9", 6)));
  EXPECT_THAT(hops_of(report.At("active-session-count-per-next-hop")),
              ElementsAre(std::pair("203.0.113.9", 4)));
}

TEST_F(ZolInfoTest, list_of_hops) {
  // Verifies that the list has an object for each hop in the order of the map, and is an empty list of none.
  EXPECT_THAT(hops_of(zol_monitor::serialize_next_hop_connections({{"b", 2}, {"a", 1}, {"c", 4294967295}})),
              ElementsAre(std::pair("a", 1), std::pair("b", 2), std::pair("c", 4294967295)));
  EXPECT_TRUE(zol_monitor::serialize_next_hop_connections({}).IsList());
}

TEST_F(ZolInfoTest, the_period_ends) {
  // Verifies that all that counts by the period is 0 once the object is built, and the totals are kept.
  set_new_connections(1, 1);
  data_.sessions.error_counters.update_counters(zol::FR_PEER_TIMEOUT);
  data_.sessions.recovered_period = data_.sessions.recovered_total = 2;
  data_.sessions.failed_to_target_period = data_.sessions.failed_to_target_total = 3;
  data_.sessions.in_write_waiting_ms = 4;
  data_.sessions.out_write_waiting_ms = 5;
  info_.generate_zol_info_report();
  EXPECT_EQ(conntrack().new_tcp_connections + conntrack().new_udp_connections, 0U);
  EXPECT_TRUE(data_.sessions.error_counters.period.empty());
  EXPECT_EQ(data_.sessions.recovered_period, 0U);
  EXPECT_EQ(data_.sessions.failed_to_target_period, 0U);
  EXPECT_EQ(data_.sessions.in_write_waiting_ms, 0U);
  EXPECT_EQ(data_.sessions.out_write_waiting_ms, 0U);
  EXPECT_EQ(data_.sessions.recovered_total, 2U);
  EXPECT_EQ(data_.sessions.failed_to_target_total, 3U);
  EXPECT_EQ(data_.sessions.error_counters.total.at(zol::FR_PEER_TIMEOUT), 1U);
}

TEST_F(ZolInfoTest, row_of_the_same_period) {
  // Verifies that the row that the object leaves in the ring has the figures that were just reported.
  data_.sessions.recovered_period = 2;
  data_.sessions.error_counters.update_counters(zol::FR_INVALID_HOST);
  ConntrackStats::last_open_sessions = 9;
  info_.generate_zol_info_report();
  EXPECT_EQ(aggregated().last, 1);
  EXPECT_EQ(aggregated().rows[1].recovered, 2U);
  EXPECT_EQ(aggregated().rows[1].invalid_host, 1U);
  EXPECT_EQ(aggregated().rows[1].open_sessions, 9U);
}

TEST_F(ZolInfoTest, sockets_are_refreshed) {
  // Verifies that the socket table is asked anew: what an earlier picture held is gone.
  data_.tcp_diag.enabled = true;
  data_.tcp_diag.sockets[1] = {};
  info_.generate_zol_info_report();
  EXPECT_EQ(data_.tcp_diag.sockets.count(1), 0U);
}

// --- floods

TEST_F(ZolInfoTest, flood_drops) {
  // Verifies that the drops of both chains are reported when the SYN limit is set.
  configure("IPTables: { syn_flood_limit = 1; };");
  set_flood_counters("12\\n", "34\\n");
  const Variant report = info_.generate_zol_info_report();
  EXPECT_EQ(report.At("syn-flood-drop").kind(), Variant::Kind::Unsigned);
  EXPECT_EQ(report.At("syn-flood-drop").AsUnsigned(), 12U);
  EXPECT_EQ(report.At("icmp-flood-drop").AsUnsigned(), 34U);
  EXPECT_EQ(status().syn_flood_drop, 12U);
  EXPECT_EQ(status().icmp_flood_drop, 34U);
}

TEST_F(ZolInfoTest, no_syn_flood_limit) {
  // Verifies that without a positive limit the SYN chain isn't read and its key is absent, while the drops
  // that the record holds count in the ratio and in the row.
  set_flood_counters("12\\n", "34\\n");
  for (const char* limit :
       {"", "IPTables: { syn_flood_limit = 0; };", "IPTables: { syn_flood_limit = -1; };"}) {
    configure(limit);
    status().syn_flood_drop = 2;
    set_new_connections(10);
    const Variant report = info_.generate_zol_info_report();
    EXPECT_FALSE(report.Contains("syn-flood-drop")) << limit;
    EXPECT_EQ(report.At("icmp-flood-drop").AsUnsigned(), 34U);
    EXPECT_DOUBLE_EQ(report.At("failure-ratio").AsDouble(), 2.0 / 12);
    EXPECT_EQ(status().syn_flood_drop, 2U);
    EXPECT_EQ(aggregated().rows[static_cast<std::size_t>(aggregated().last)].syn_flood_drop, 2U);
  }
}

TEST_F(ZolInfoTest, flood_chains_missing) {
  // Verifies that chains that aren't there count 0, with an error line each.
  configure("IPTables: { syn_flood_limit = 1; };");
  status().syn_flood_drop = 9;
  const Variant report = info_.generate_zol_info_report();
  EXPECT_EQ(report.At("syn-flood-drop").AsUnsigned(), 0U);
  EXPECT_EQ(report.At("icmp-flood-drop").AsUnsigned(), 0U);
  EXPECT_EQ(status().syn_flood_drop, 0U);
  EXPECT_TRUE(log_->contains(log_level::error, "Failed to retrieve iptables SYN flood counters"));
  EXPECT_TRUE(log_->contains(log_level::error, "Failed to retrieve iptables ICMP counters"));
}

TEST_F(ZolInfoTest, garbled_flood_counters) {
  // Verifies that counters that are no numbers count 0, with an error line each, and the report is made.
  configure("IPTables: { syn_flood_limit = 1; };");
  set_flood_counters("pkts\\n", "99999999999999999999999\\n");
  set_new_connections(3);
  const Variant report = info_.generate_zol_info_report();
  EXPECT_EQ(report.At("syn-flood-drop").AsUnsigned(), 0U);
  EXPECT_EQ(report.At("icmp-flood-drop").AsUnsigned(), 0U);
  EXPECT_EQ(report.At("new-sessions").At("tcp").AsUnsigned(), 3U);
  EXPECT_TRUE(log_->contains(log_level::error, "serialize: no SYN flood drops: stoul"));
  EXPECT_TRUE(log_->contains(log_level::error, "serialize: no ICMP flood drops: stoul"));
}

// --- the state

TEST_F(ZolInfoTest, state) {
  // Verifies that the state follows the byte of the shared record.
  EXPECT_EQ(info_.get_zol_state(), "normal");
  status().failopen_active = 1;
  EXPECT_EQ(info_.get_zol_state(), "failopen");
  EXPECT_EQ(info_.generate_zol_info_report().At("state").AsString(), "failopen");
  status().failopen_active = 0x80;
  EXPECT_EQ(info_.get_zol_state(), "failopen");
  status().failopen_active = 0;
  status().failopen_suspended = status().black_hole_active = 1;
  EXPECT_EQ(info_.get_zol_state(), "normal");
}

TEST_F(ZolInfoTest, state_without_the_record) {
  // Verifies that the state is normal when the record can't be asked, with the log of each case.
  status().failopen_active = 1;
  zol_utils::shared_mem_enabled = false;
  EXPECT_EQ(info_.get_zol_state(), "normal");
  EXPECT_TRUE(log_->contains(log_level::debug, "Shared memory disabled for: N9zol_utils13ZolStatusDataE"));
  zol_utils::shared_mem_enabled = true;
  EXPECT_EQ(info_.get_zol_state(), "failopen");
  hold_status_lock();
  EXPECT_EQ(info_.get_zol_state(), "normal");
  EXPECT_TRUE(log_->contains(log_level::error, lock_failed("get_zol_state")));
  zol_utils::SharedObject<zol_utils::ZolStatusData>::drop_instance();
  status_.reset();
  EXPECT_EQ(info_.get_zol_state(), "normal");
  EXPECT_TRUE(log_->contains(log_level::error, "FATAL: Failed to open SharedObject shm"));
}

// --- the ratio of failures

TEST_F(ZolInfoTest, ratio_without_new_connections) {
  // Verifies that a period without new connections has the ratio 0 and doesn't touch the record.
  status().recovered_period = 5;
  hold_status_lock();
  EXPECT_EQ(info_.get_failure_ratio(), 0.0);
  EXPECT_THAT(log_->records(), IsEmpty());
}

TEST_F(ZolInfoTest, ratio) {
  // Verifies that the ratio is that of all failures by all attempts, drops of the SYN limit among both.
  set_new_connections(10);
  status().syn_flood_drop = 2;
  status().failed_to_target_period = 3;
  EXPECT_DOUBLE_EQ(info_.get_failure_ratio(), (3.0 + 2) / (10 + 2));
  set_new_connections(6, 14);
  status().recovered_period = 1;
  status().failopen_connections_period = 4;
  EXPECT_DOUBLE_EQ(info_.get_failure_ratio(), (3.0 + 1 + 4 + 2) / (20 + 2));
  EXPECT_FALSE(log_->contains("Failure ratio"));
}

TEST_F(ZolInfoTest, failures_that_do_not_count) {
  // Verifies that the other reasons and the totals stay out of the ratio.
  set_new_connections(10);
  status().resolution_failures_period = status().peer_timeouts_period = 7;
  status().conn_refused_period = status().invalid_host_period = 7;
  status().recovered_total = status().failed_to_target_total = status().failopen_connections_total = 7;
  status().icmp_flood_drop = 7;
  EXPECT_EQ(info_.get_failure_ratio(), 0.0);
}

TEST_F(ZolInfoTest, ratio_of_32_bits) {
  // Verifies that the low halves of the fields count, and that their sum may be beyond 32 bits.
  set_new_connections(4);
  status().recovered_period = 0x100000001;
  status().failed_to_target_period = 0x200000000;
  status().failopen_connections_period = 0x300000001;
  EXPECT_DOUBLE_EQ(info_.get_failure_ratio(), 2.0 / 4);
  set_new_connections(0xffffffff, 2);
  status().syn_flood_drop = 0xffffffff;
  EXPECT_DOUBLE_EQ(info_.get_failure_ratio(), (2.0 + 0xffffffff) / (1.0 + 0xffffffff));
  set_new_connections(0xffffffff, 1);
  EXPECT_EQ(info_.get_failure_ratio(), 0.0);
}

TEST_F(ZolInfoTest, ratio_beyond_one) {
  // Verifies that a ratio beyond 1 is returned as it is and logged at notice, and that 1 isn't.
  set_new_connections(2);
  status().recovered_period = 2;
  EXPECT_DOUBLE_EQ(info_.get_failure_ratio(), 1.0);
  EXPECT_FALSE(log_->contains("Failure ratio"));
  status().recovered_period = 5;
  EXPECT_DOUBLE_EQ(info_.get_failure_ratio(), 2.5);
  EXPECT_TRUE(log_->contains(log_level::notice, "Failure ratio is greater than 1: 2.5"));
}

TEST_F(ZolInfoTest, ratio_without_the_record) {
  // Verifies that the ratio is 0 without shared memory, without the record, and with its lock held.
  set_new_connections(2);
  status().recovered_period = 1;
  zol_utils::shared_mem_enabled = false;
  EXPECT_EQ(info_.get_failure_ratio(), 0.0);
  zol_utils::shared_mem_enabled = true;
  EXPECT_EQ(info_.get_failure_ratio(), 0.5);
  hold_status_lock();
  EXPECT_EQ(info_.get_failure_ratio(), 0.0);
  EXPECT_TRUE(log_->contains(log_level::error, lock_failed("get_failure_ratio")));
  zol_utils::SharedObject<zol_utils::ZolStatusData>::drop_instance();
  status_.reset();
  EXPECT_EQ(info_.get_failure_ratio(), 0.0);
}

TEST_F(ZolInfoTest, ratio_of_the_same_period) {
  // Verifies that the ratio of a report is made of the failures of its own period, and that they count once.
  set_new_connections(10);
  data_.sessions.recovered_period = 1;
  data_.sessions.failed_to_target_period = 2;
  data_.sessions.error_counters.update_counters(zol::FR_FAILOPEN_CONNECTION);
  EXPECT_DOUBLE_EQ(info_.generate_zol_info_report().At("failure-ratio").AsDouble(), 0.4);
  set_new_connections(10);
  EXPECT_EQ(info_.generate_zol_info_report().At("failure-ratio").AsDouble(), 0.0);
}

// --- the clock

TEST_F(ZolInfoTest, total_ticks) {
  // Verifies that the clock has 100 ticks a second.
  const std::uint64_t before = zol::Helper::get_timestamp_ms();
  const std::uint64_t ticks = ZolInfo::get_total_ticks();
  EXPECT_GE(ticks, before / 10);
  EXPECT_LE(ticks, zol::Helper::get_timestamp_ms() / 10);
}

}  // namespace
