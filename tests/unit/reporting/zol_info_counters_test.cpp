#include <gmock/gmock.h>

#include <cstdio>
#include <stdexcept>

#include "sup_logger.h"
#include "zol_info_fixture.h"

namespace {

using libvariant::Variant;
using testing::IsEmpty;
using zol_test::ZolInfoTest;

// --- failures by reason

class ErrorCountersTest : public ZolInfoTest {
 protected:
  // One failure of reason 1, two of reason 2 and so on.
  void fail_each() {
    for (int reason = zol::FR_RESOLUTION_FAILURE; reason <= zol::FR_FAILOPEN_CONNECTION; ++reason) {
      for (int i = 0; i < reason; ++i)
        data_.sessions.error_counters.update_counters(static_cast<zol::failure_reason_t>(reason));
    }
  }
  static void expect_counts(const Variant& report, std::array<unsigned, 5> counts) {
    EXPECT_EQ(report.Size(), 5U);
    EXPECT_EQ(report.At("resolution-failure-counter").AsUnsigned(), counts[0]);
    EXPECT_EQ(report.At("peer-timeout-counter").AsUnsigned(), counts[1]);
    EXPECT_EQ(report.At("conn-refused-counter").AsUnsigned(), counts[2]);
    EXPECT_EQ(report.At("invalid-host-counter").AsUnsigned(), counts[3]);
    EXPECT_EQ(report.At("failopen-connection-counter").AsUnsigned(), counts[4]);
    report.ForEach([](std::string_view key, const Variant& value) {
      EXPECT_EQ(value.kind(), Variant::Kind::Unsigned) << key;
    });
  }
  void expect_totals(std::array<unsigned, 5> counts) {
    EXPECT_EQ(status().resolution_failures_total, counts[0]);
    EXPECT_EQ(status().peer_timeouts_total, counts[1]);
    EXPECT_EQ(status().conn_refused_total, counts[2]);
    EXPECT_EQ(status().invalid_host_total, counts[3]);
    EXPECT_EQ(status().failopen_connections_total, counts[4]);
  }
  void expect_period(std::array<unsigned, 5> counts) {
    EXPECT_EQ(status().resolution_failures_period, counts[0]);
    EXPECT_EQ(status().peer_timeouts_period, counts[1]);
    EXPECT_EQ(status().conn_refused_period, counts[2]);
    EXPECT_EQ(status().invalid_host_period, counts[3]);
    EXPECT_EQ(status().failopen_connections_period, counts[4]);
  }
};

TEST_F(ErrorCountersTest, by_reason) {
  // Verifies that each reason has its key and its two fields, and that a second reading has zeros and the
  // same totals.
  fail_each();
  expect_counts(info_.get_session_error_counters(), {1, 2, 3, 4, 5});
  expect_period({1, 2, 3, 4, 5});
  expect_totals({1, 2, 3, 4, 5});
  EXPECT_TRUE(data_.sessions.error_counters.period.empty());
  expect_counts(info_.get_session_error_counters(), {0, 0, 0, 0, 0});
  expect_period({0, 0, 0, 0, 0});
  expect_totals({1, 2, 3, 4, 5});
}

TEST_F(ErrorCountersTest, totals_go_on) {
  // Verifies that the totals grow from period to period.
  fail_each();
  info_.get_session_error_counters();
  data_.sessions.error_counters.update_counters(zol::FR_CONNECTION_REFUSED);
  expect_counts(info_.get_session_error_counters(), {0, 0, 1, 0, 0});
  expect_totals({1, 2, 4, 4, 5});
}

TEST_F(ErrorCountersTest, held_lock) {
  // Verifies that the counters are reported and cleared, with an error line, when the record can't be locked.
  fail_each();
  hold_status_lock();
  expect_counts(info_.get_session_error_counters(), {1, 2, 3, 4, 5});
  EXPECT_TRUE(log_->contains(log_level::error, lock_failed("get_session_error_counters")));
  EXPECT_TRUE(data_.sessions.error_counters.period.empty());
  expect_period({0, 0, 0, 0, 0});
}

TEST_F(ErrorCountersTest, shared_memory_off) {
  // Verifies that the counters are reported and cleared without shared memory.
  fail_each();
  zol_utils::shared_mem_enabled = false;
  expect_counts(info_.get_session_error_counters(), {1, 2, 3, 4, 5});
  expect_counts(info_.get_session_error_counters(), {0, 0, 0, 0, 0});
  expect_totals({0, 0, 0, 0, 0});
}

// --- black holes

TEST_F(ZolInfoTest, black_holes) {
  // Verifies that both counters are reported, cleared and shared with their totals.
  data_.sessions.recovered_period = 2;
  data_.sessions.recovered_total = 12;
  data_.sessions.failed_to_target_period = 3;
  data_.sessions.failed_to_target_total = 13;
  Variant report = info_.get_bh_session_counters();
  EXPECT_EQ(report.Size(), 2U);
  EXPECT_EQ(report.At("recovered").AsUnsigned(), 2U);
  EXPECT_EQ(report.At("failed-to-target").AsUnsigned(), 3U);
  EXPECT_EQ(status().recovered_period, 2U);
  EXPECT_EQ(status().failed_to_target_period, 3U);
  EXPECT_EQ(status().recovered_total, 12U);
  EXPECT_EQ(status().failed_to_target_total, 13U);
  report = info_.get_bh_session_counters();
  EXPECT_EQ(report.At("recovered").AsUnsigned() + report.At("failed-to-target").AsUnsigned(), 0U);
  EXPECT_EQ(status().recovered_period + status().failed_to_target_period, 0U);
  EXPECT_EQ(status().recovered_total, 12U);
}

TEST_F(ZolInfoTest, black_holes_with_a_held_lock) {
  // Verifies that both are reported and cleared, with an error line, when the record can't be locked.
  data_.sessions.recovered_period = 2;
  data_.sessions.failed_to_target_period = 3;
  hold_status_lock();
  const Variant report = info_.get_bh_session_counters();
  EXPECT_EQ(report.At("recovered").AsUnsigned(), 2U);
  EXPECT_EQ(report.At("failed-to-target").AsUnsigned(), 3U);
  EXPECT_EQ(data_.sessions.recovered_period + data_.sessions.failed_to_target_period, 0U);
  EXPECT_EQ(status().recovered_period, 0U);
  EXPECT_TRUE(log_->contains(log_level::error, lock_failed("get_bh_session_counters")));
}

// --- congestion

TEST_F(ZolInfoTest, write_waiting_times) {
  // Verifies that both sums are reported whole and cleared.
  data_.sessions.in_write_waiting_ms = 0x100000007;
  data_.sessions.out_write_waiting_ms = 8;
  Variant report = info_.get_wc_time_counters();
  EXPECT_EQ(report.Size(), 2U);
  EXPECT_EQ(report.At("in-write-waiting-ms").AsUnsigned(), 0x100000007U);
  EXPECT_EQ(report.At("out-write-waiting-ms").AsUnsigned(), 8U);
  report = info_.get_wc_time_counters();
  EXPECT_EQ(report.At("in-write-waiting-ms").AsUnsigned() + report.At("out-write-waiting-ms").AsUnsigned(),
            0U);
}

// --- drops of the netlink socket

TEST_F(ZolInfoTest, netlink_drops) {
  // Verifies that the drops are those of the first line with this process's pid, and are kept.
  set_netlink_lines(netlink_line(5, 4711) + "\n" + netlink_line(7) + netlink_line(9));
  EXPECT_EQ(info_.get_netlink_drop_counter(), 7U);
  EXPECT_EQ(status().netlink_drops, 7U);
  EXPECT_EQ(info_.generate_zol_info_report().At("netlink-drop-counters").AsUnsigned(), 7U);
}

TEST_F(ZolInfoTest, netlink_drops_do_not_fall_back) {
  // Verifies that a socket without drops, and a process without a socket, give the last number of drops.
  set_netlink_lines(netlink_line(7));
  EXPECT_EQ(info_.get_netlink_drop_counter(), 7U);
  set_netlink_lines(netlink_line(0));
  EXPECT_EQ(info_.get_netlink_drop_counter(), 7U);
  EXPECT_EQ(info_.generate_zol_info_report().At("netlink-drop-counters").AsUnsigned(), 7U);
  set_netlink_lines(netlink_line(5, 4711));
  EXPECT_EQ(info_.get_netlink_drop_counter(), 7U);
  set_netlink_lines(netlink_line(3));
  EXPECT_EQ(info_.get_netlink_drop_counter(), 3U);
  EXPECT_EQ(status().netlink_drops, 3U);
}

TEST_F(ZolInfoTest, heading_is_no_line) {
  // Verifies that the first line is passed over, whatever stands in it.
  proc_.write("net/netlink", netlink_line(7) + netlink_line(8));
  EXPECT_EQ(info_.get_netlink_drop_counter(), 8U);
}

TEST_F(ZolInfoTest, no_netlink_file) {
  // Verifies that a file that can't be opened gives 0, with a warning, even after drops.
  status().netlink_drops = 7;
  std::remove((proc_.folder() + "/net/netlink").c_str());
  EXPECT_EQ(info_.get_netlink_drop_counter(), 0U);
  EXPECT_TRUE(log_->contains(log_level::warning, "Failed to open file netlink file"));
  EXPECT_EQ(status().netlink_drops, 7U);
}

TEST_F(ZolInfoTest, netlink_line_without_a_pid) {
  // Verifies that a line without a number in its third column throws, and that the report is made without it.
  for (const char* line : {"0000 12\n", "0000 12 pid 0 0 0 0 0 9 1\n", " \n"}) {
    set_netlink_lines(line);
    EXPECT_THROW(info_.get_netlink_drop_counter(), std::invalid_argument) << line;
    EXPECT_EQ(info_.generate_zol_info_report().At("netlink-drop-counters").AsUnsigned(), 0U);
  }
  set_netlink_lines("0000 12 99999999999999999999 0 0 0 0 0 9 1\n");
  EXPECT_THROW(info_.get_netlink_drop_counter(), std::out_of_range);
  EXPECT_EQ(info_.generate_zol_info_report().At("netlink-drop-counters").AsUnsigned(), 0U);
  EXPECT_EQ(log_->count("serialize: no netlink drops"), 4);
}

TEST_F(ZolInfoTest, short_netlink_line) {
  // Verifies that a line that ends before the drops counts 0.
  set_netlink_lines("0000 12 " + std::to_string(getpid()) + " 1 2 3 4 5\n" + netlink_line(9));
  EXPECT_EQ(info_.get_netlink_drop_counter(), 0U);
}

TEST_F(ZolInfoTest, netlink_drops_without_the_record) {
  // Verifies that the number that was read is told as it is when the record can't be had.
  status().netlink_drops = 7;
  set_netlink_lines(netlink_line(0));
  zol_utils::shared_mem_enabled = false;
  EXPECT_EQ(info_.get_netlink_drop_counter(), 0U);
  zol_utils::shared_mem_enabled = true;
  hold_status_lock();
  EXPECT_EQ(info_.get_netlink_drop_counter(), 0U);
  EXPECT_TRUE(log_->contains(log_level::error, lock_failed("get_netlink_drop_counter")));
  set_netlink_lines(netlink_line(3));
  EXPECT_EQ(info_.get_netlink_drop_counter(), 3U);
  EXPECT_EQ(status().netlink_drops, 7U);
}

}  // namespace
