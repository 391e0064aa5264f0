// What the periodic report leaves in the shared records.
#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <cstring>
#include <ctime>
#include <functional>
#include <limits>

#include "conntrack/conntrack_stats.h"
#include "sup_logger.h"
#include "zol_helper.h"
#include "zol_info_fixture.h"

namespace {

using zol_monitor::ConntrackStats;
using zol_test::ZolInfoTest;
using zol_utils::aggregated_row_t;
using zol_utils::AggregatedStats;
using zol_utils::hop_table_t;
using HopConnections = ConntrackStats::HopConnections;

// --- numbers of sessions

TEST_F(ZolInfoTest, numbers_of_sessions) {
  // Verifies that both numbers are copied, and told also when they can't be.
  ConntrackStats::last_active_sessions = 4;
  ConntrackStats::last_open_sessions = 9;
  EXPECT_EQ(info_.get_last_active_sessions(), 4U);
  EXPECT_EQ(info_.get_last_open_sessions(), 9U);
  EXPECT_EQ(status().last_active_sessions, 4U);
  EXPECT_EQ(status().last_open_sessions, 9U);
  ConntrackStats::last_active_sessions = 5;
  ConntrackStats::last_open_sessions = 10;
  hold_status_lock();
  EXPECT_EQ(info_.get_last_active_sessions(), 5U);
  EXPECT_EQ(info_.get_last_open_sessions(), 10U);
  EXPECT_EQ(status().last_active_sessions, 4U);
  EXPECT_EQ(status().last_open_sessions, 9U);
  EXPECT_TRUE(log_->contains(log_level::error, lock_failed("get_last_active_sessions")));
  EXPECT_TRUE(log_->contains(log_level::error, lock_failed("get_last_open_sessions")));
}

// --- hop tables

// That many hops, 10.0.0.1 with 1 connection and so on, in the order of the map.
HopConnections hops(unsigned count) {
  HopConnections map;
  for (unsigned i = 1; i <= count; ++i)
    map["10.0.0." + std::to_string(100 + i)] = i;
  return map;
}

struct HopTableCase {
  const char* name;
  const char* caller;
  HopConnections* map;
  hop_table_t zol_utils::ZolStatusData::*table;
  std::int32_t zol_utils::ZolStatusData::*count;
  void (*share)(zol_monitor::ZolInfo&);
};

class HopTableTest : public ZolInfoTest, public testing::WithParamInterface<HopTableCase> {
 protected:
  void share(const HopConnections& map) {
    *GetParam().map = map;
    GetParam().share(info_);
  }
  hop_table_t& table() { return status().*GetParam().table; }
  std::int32_t& count() { return status().*GetParam().count; }
  void expect_hops(unsigned filled) {
    for (std::size_t i = 0; i < table().size(); ++i) {
      const std::string address = i < filled ? "10.0.0." + std::to_string(101 + i) : "0.0.0.0";
      EXPECT_EQ(table()[i].address, inet_addr(address.c_str())) << i;
      EXPECT_EQ(table()[i].count, i < filled ? i + 1 : 0U) << i;
    }
  }
};

TEST_P(HopTableTest, none) {
  // Verifies that without hops the table is zero, also behind what an earlier reading left.
  std::memset(&table(), 0xff, sizeof table());
  count() = 17;
  share({});
  expect_hops(0);
  EXPECT_EQ(count(), 0);
}

TEST_P(HopTableTest, some) {
  // Verifies that hops stand in the order of the map, as the kernel holds an address, and nothing behind
  // them.
  share(hops(20));
  share(hops(3));
  expect_hops(3);
  EXPECT_EQ(count(), 3);
  const unsigned char first[] = {10, 0, 0, 101, 1, 0, 0, 0};  // network order, then a little-endian count
  EXPECT_EQ(std::memcmp(&table()[0], first, sizeof first), 0);
}

TEST_P(HopTableTest, full) {
  // Verifies that a table that is just full says so.
  share(hops(50));
  expect_hops(50);
  EXPECT_EQ(count(), 50);
}

TEST_P(HopTableTest, too_many) {
  // Verifies that of more hops 50 are taken, and the count beside them is 49.
  for (const unsigned number : {51U, 99U}) {
    share(hops(number));
    expect_hops(50);
    EXPECT_EQ(count(), 49);
  }
}

TEST_P(HopTableTest, no_address) {
  // Verifies that a key that is no address gives an entry with address 0 and its count.
  share({{"hop.example", 8}});
  EXPECT_EQ(table()[0].address, 0U);
  EXPECT_EQ(table()[0].count, 8U);
  EXPECT_EQ(count(), 1);
}

TEST_P(HopTableTest, held_lock) {
  // Verifies that a record that can't be locked keeps its table, with an error line.
  share(hops(2));
  hold_status_lock();
  share(hops(3));
  expect_hops(2);
  EXPECT_EQ(count(), 2);
  EXPECT_TRUE(log_->contains(log_level::error, lock_failed(GetParam().caller)));
}

TEST_P(HopTableTest, others_are_left_alone) {
  // Verifies that sharing one map changes the record's other tables in no byte.
  const zol_utils::ZolStatusData before = status();
  share(hops(50));
  table() = {};
  count() = 0;
  const auto* behind = reinterpret_cast<const char*>(&status()) + sizeof(zol_utils::shared_header_t);
  EXPECT_EQ(std::memcmp(behind, reinterpret_cast<const char*>(&before) + sizeof(zol_utils::shared_header_t),
                        sizeof before - sizeof(zol_utils::shared_header_t)),
            0);
}

using Status = zol_utils::ZolStatusData;
const HopTableCase hop_table_cases[] = {
    {"next_active", "get_last_next_hop_active_sessions", &ConntrackStats::last_next_hop_active_sessions,
     &Status::next_hop_active, &Status::next_hop_active_count,
     [](zol_monitor::ZolInfo& info) { info.get_last_next_hop_active_sessions(); }},
    {"next_open", "get_last_next_hop_open_sessions", &ConntrackStats::last_next_hop_open_sessions,
     &Status::next_hop_open, &Status::next_hop_open_count,
     [](zol_monitor::ZolInfo& info) { info.get_last_next_hop_open_sessions(); }},
    {"prv_active", "update_shm_last_prv_hop_sessions", &ConntrackStats::last_prv_hop_active_sessions,
     &Status::prv_hop_active, &Status::prv_hop_active_count,
     [](zol_monitor::ZolInfo& info) { info.update_shm_last_prv_hop_sessions(); }},
    {"prv_open", "update_shm_last_prv_hop_sessions", &ConntrackStats::last_prv_hop_open_sessions,
     &Status::prv_hop_open, &Status::prv_hop_open_count,
     [](zol_monitor::ZolInfo& info) { info.update_shm_last_prv_hop_sessions(); }},
};
INSTANTIATE_TEST_SUITE_P(tables, HopTableTest, testing::ValuesIn(hop_table_cases),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(ZolInfoTest, next_hops_are_the_map_itself) {
  // Verifies that the read-outs give the maps of the last reading, with all their hops.
  ConntrackStats::last_next_hop_open_sessions = hops(51);
  ConntrackStats::last_next_hop_active_sessions = hops(1);
  EXPECT_EQ(&info_.get_last_next_hop_open_sessions(), &ConntrackStats::last_next_hop_open_sessions);
  EXPECT_EQ(&info_.get_last_next_hop_active_sessions(), &ConntrackStats::last_next_hop_active_sessions);
  const libvariant::Variant report = info_.generate_zol_info_report();
  EXPECT_EQ(report.At("open-session-count-per-next-hop").Size(), 51U);
  EXPECT_EQ(report.At("active-session-count-per-next-hop").Size(), 1U);
  EXPECT_EQ(status().next_hop_open_count, 49);
}

TEST_F(ZolInfoTest, previous_hops_are_shared_by_the_report) {
  // Verifies that the report leaves both maps of previous hops in the record, each in its own table.
  ConntrackStats::last_prv_hop_open_sessions = hops(3);
  ConntrackStats::last_prv_hop_active_sessions = hops(2);
  info_.generate_zol_info_report();
  EXPECT_EQ(status().prv_hop_open_count, 3);
  EXPECT_EQ(status().prv_hop_active_count, 2);
}

TEST_F(ZolInfoTest, report_while_the_record_is_locked) {
  // Verifies that a record that somebody sits on costs the copies alone: the report has all that the process
  // knows, and each of its steps says that it couldn't.
  set_new_connections(1);
  data_.sessions.recovered_period = 2;
  ConntrackStats::last_next_hop_open_sessions = hops(1);
  hold_status_lock();
  const libvariant::Variant report = info_.generate_zol_info_report();
  EXPECT_EQ(report.At("black-hole-counters").At("recovered").AsUnsigned(), 2U);
  EXPECT_EQ(report.At("open-session-count-per-next-hop").Size(), 1U);
  EXPECT_EQ(report.At("failure-ratio").AsDouble(), 0.0);
  for (const char* caller :
       {"get_netlink_drop_counter", "get_zol_state", "get_last_open_sessions", "get_session_error_counters",
        "get_bh_session_counters", "get_failure_ratio", "get_last_active_sessions",
        "get_last_next_hop_open_sessions", "get_last_next_hop_active_sessions", "aggreagate_stats"})
    EXPECT_EQ(log_->count(lock_failed(caller)), 1) << caller;
  EXPECT_EQ(log_->count(lock_failed("update_shm_last_prv_hop_sessions")), 2);
  EXPECT_EQ(aggregated().last, 1);
}

TEST_F(ZolInfoTest, a_locked_record_holds_up_once) {
  // Verifies that of a report's many accesses only the first waits for the record, beside the firewall's own,
  // and that a record that is free again is used at once.
  hold_status_lock();
  zol_utils::shared_lock_wait_ms = 500;
  const std::uint64_t before = zol::Helper::get_timestamp_ms();
  info_.generate_zol_info_report();
  EXPECT_GE(zol::Helper::get_timestamp_ms() - before, 500U);
  EXPECT_LT(zol::Helper::get_timestamp_ms() - before, 500U * 8);
  sem_post(&status().header.lock);
  ConntrackStats::last_open_sessions = 9;
  info_.get_last_open_sessions();
  EXPECT_EQ(status().last_open_sessions, 9U);
}

// --- the ring of periods

TEST_F(ZolInfoTest, row) {
  // Verifies that each field of a row is that of the status record, counters cut to their low halves.
  constexpr std::uint64_t high = 0x700000000;
  status().recovered_period = high + 1;
  status().failed_to_target_period = high + 2;
  status().syn_flood_drop = 3;
  status().last_open_sessions = 4;
  status().last_active_sessions = 5;
  status().resolution_failures_period = high + 6;
  status().peer_timeouts_period = high + 7;
  status().conn_refused_period = high + 8;
  status().invalid_host_period = high + 9;
  status().failopen_connections_period = high + 10;
  status().traffic_stats = {high + 11, high + 12, high + 13, -14, 15};
  const std::time_t before = std::time(nullptr);
  info_.aggreagate_stats();
  const aggregated_row_t& row = aggregated().rows[1];
  EXPECT_GE(row.timestamp, before);
  EXPECT_LE(row.timestamp, std::time(nullptr));
  EXPECT_EQ(row.recovered, 1U);
  EXPECT_EQ(row.failed_to_target, 2U);
  EXPECT_EQ(row.syn_flood_drop, 3U);
  EXPECT_EQ(row.open_sessions, 4U);
  EXPECT_EQ(row.active_sessions, 5U);
  EXPECT_EQ(row.resolution_failures, 6U);
  EXPECT_EQ(row.peer_timeouts, 7U);
  EXPECT_EQ(row.conn_refused, 8U);
  EXPECT_EQ(row.invalid_host, 9U);
  EXPECT_EQ(row.failopen_connections, 10U);
  EXPECT_EQ(row.total_packets, high + 11);
  EXPECT_EQ(row.total_bytes, high + 12);
  EXPECT_EQ(row.new_sessions, high + 13);
  EXPECT_EQ(row.interval_s, -14);
  EXPECT_EQ(row.reserved, 0U);
}

TEST_F(ZolInfoTest, first_rows) {
  // Verifies that an empty ring begins at place 1 and leaves place 0 alone.
  info_.aggreagate_stats();
  info_.aggreagate_stats();
  EXPECT_EQ(aggregated().first, 0);
  EXPECT_EQ(aggregated().last, 2);
  EXPECT_EQ(aggregated().rows[0].timestamp, 0);
  EXPECT_GT(aggregated().rows[1].timestamp, 0);
  EXPECT_GT(aggregated().rows[2].timestamp, 0);
  EXPECT_EQ(aggregated().rows[3].timestamp, 0);
}

TEST_F(ZolInfoTest, ring_comes_around) {
  // Verifies that the 2880th row takes the place of the oldest, which moves on, and so does each row behind
  // it.
  for (int i = 1; i <= 2879; ++i)
    info_.aggreagate_stats();
  EXPECT_EQ(aggregated().first, 0);
  EXPECT_EQ(aggregated().last, 2879);
  status().last_open_sessions = 42;
  info_.aggreagate_stats();
  EXPECT_EQ(aggregated().last, 0);
  EXPECT_EQ(aggregated().first, 1);
  EXPECT_EQ(aggregated().rows[0].open_sessions, 42U);
  EXPECT_EQ(aggregated().rows[1].open_sessions, 0U);
  info_.aggreagate_stats();
  EXPECT_EQ(aggregated().last, 1);
  EXPECT_EQ(aggregated().first, 2);
  aggregated().last = 2878;
  aggregated().first = 2879;
  info_.aggreagate_stats();
  EXPECT_EQ(aggregated().last, 2879);
  EXPECT_EQ(aggregated().first, 0);
}

TEST_F(ZolInfoTest, ring_with_bad_indexes) {
  // Verifies that whatever another process left as indexes, the row goes to a place of the ring.
  using limits = std::numeric_limits<std::int32_t>;
  for (const std::int32_t index : {-1, -5000, 2880, 100000, limits::max(), limits::min()}) {
    aggregated().first = aggregated().last = index;
    info_.aggreagate_stats();
    ASSERT_GE(aggregated().last, 0) << index;
    ASSERT_LT(aggregated().last, 2880) << index;
    EXPECT_GT(aggregated().rows[static_cast<std::size_t>(aggregated().last)].timestamp, 0) << index;
  }
}

TEST_F(ZolInfoTest, row_while_the_status_is_locked) {
  // Verifies that a status record that can't be locked makes a row of zeros with its time, and an error line.
  status().last_open_sessions = 4;
  hold_status_lock();
  info_.aggreagate_stats();
  aggregated_row_t row = aggregated().rows[1];
  EXPECT_GT(row.timestamp, 0);
  row.timestamp = 0;
  const aggregated_row_t zeros{};
  EXPECT_EQ(std::memcmp(&row, &zeros, sizeof row), 0);
  EXPECT_TRUE(log_->contains(log_level::error, lock_failed("aggreagate_stats")));
}

TEST_F(ZolInfoTest, ring_that_cannot_be_locked) {
  // Verifies that a ring whose lock is held is left alone, with an error line, and the report is made.
  hold_lock(*aggregated_);
  EXPECT_TRUE(info_.generate_zol_info_report().Contains("id"));
  EXPECT_EQ(aggregated().last, 0);
  EXPECT_TRUE(log_->contains(log_level::error, lock_failed("aggreagate_stats", "15AggregatedStats")));
}

TEST_F(ZolInfoTest, nothing_is_shared_when_that_is_off) {
  // Verifies that a node without shared memory has its report, and no record is touched.
  zol_utils::shared_mem_enabled = false;
  ConntrackStats::last_open_sessions = 9;
  ConntrackStats::last_next_hop_open_sessions = hops(3);
  EXPECT_EQ(info_.generate_zol_info_report().At("open-sessions-count").AsUnsigned(), 9U);
  EXPECT_EQ(status().last_open_sessions, 0U);
  EXPECT_EQ(status().next_hop_open_count, 0);
  EXPECT_EQ(aggregated().last, 0);
}

}  // namespace
