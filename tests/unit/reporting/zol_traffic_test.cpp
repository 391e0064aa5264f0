// What both shapes of the traffic report share: the reading, the interval's totals and their shared copy.
#include "reporting/zol_traffic.h"

#include <semaphore.h>
#include <unistd.h>

#include <limits>
#include <stdexcept>
#include <utility>

#include "ha/keepalive.h"
#include "sup_logger.h"
#include "tests/unit/conntrack/kernel_conntrack.h"
#include "tests/unit/core/ipc_fixture.h"
#include "zol_traffic_fixture.h"

namespace {

using libvariant::Variant;
using testing::IsEmpty;
using testing::SizeIs;
using testing::ThrowsMessage;
using zol_monitor::conntrack_counters_t;
using zol_monitor::ZolTraffic;
using zol_test::IsJson;
using zol_test::LogCapture;
using zol_utils::TrafficStats;

constexpr conntrack_counters_t to_server = {1, 20, 300, 4000};  // tx packets and bytes, rx packets and bytes
constexpr conntrack_counters_t to_client = {50000, 600000, 7000000, 80000000};

// --- the pieces

TEST(TrafficPieces, traffic_report) {
  // Verifies that of both streams rx shows as incoming and tx as outgoing.
  EXPECT_THAT(ZolTraffic::generate_traffic_report(to_server, to_client), IsJson(R"({
    "client-to-server": { "incoming-packets": 300, "incoming-bytes": 4000,
                          "outgoing-packets": 1, "outgoing-bytes": 20 },
    "server-to-client": { "incoming-packets": 7000000, "incoming-bytes": 80000000,
                          "outgoing-packets": 50000, "outgoing-bytes": 600000 } })"));
}

TEST(TrafficPieces, totals_grow) {
  // Verifies that the totals grow by both streams, in and out, and nothing else of them changes.
  TrafficStats totals{
      .total_packets = 1, .total_bytes = 2, .new_sessions = 3, .interval_s = 4, .reserved = 5};
  ZolTraffic::fill_sh_traffic_stats(&totals, to_server, to_client);
  EXPECT_EQ(totals.total_packets, 7050302U);
  EXPECT_EQ(totals.total_bytes, 80604022U);
  EXPECT_EQ(totals.new_sessions, 3U);
  EXPECT_EQ(totals.interval_s, 4);
  EXPECT_EQ(totals.reserved, 5U);
}

TEST(TrafficPieces, http_counters) {
  // Verifies that each kind of message has its key.
  zol_monitor::HTTPCounters counters;
  for (int kind = 0; kind < 7; ++kind)
    for (int i = 0; i <= kind; ++i)
      counters.update(static_cast<zol::http_notification_t>(kind));
  EXPECT_THAT(zol_monitor::http_counters_to_variant(counters),
              IsJson(R"({ "requests": { "get": 1, "post": 2, "other": 3 },
                          "responses": { "2xx": 4, "3xx": 5, "4xx": 6, "5xx": 7 } })"));
}

// --- one report

class TrafficReportTest : public zol_test::TrafficTest {
 protected:
  Variant generate(bool is_gxe = false) {
    const LogCapture quiet;
    return traffic_.generate_zol_traffic_report(is_gxe, tunnels_);
  }
  // Fails each lock of the record, which was used last at that time.
  void hold_lock(std::time_t last_update) {
    ASSERT_EQ(sem_wait(&record_->data->header.lock), 0);
    record_->data->header.owner_pid = getppid();
    record_->data->header.last_update = last_update;
  }

  std::vector<Variant> tunnels_;
};

TEST_F(TrafficReportTest, empty_node) {
  // Verifies that a node without traffic reports an empty list, and not null, in both shapes.
  EXPECT_THAT(generate(), IsJson("[]"));
  EXPECT_THAT(generate(true), IsJson("[]"));
  EXPECT_THAT(tunnels_, IsEmpty());
}

TEST_F(TrafficReportTest, reads_the_table) {
  // Verifies that the report reads the kernel's connection table: a connection that stands in it makes its
  // network appear.
  const zol_test::OwnNetwork network;
  zol_test::ConnectionTable table;
  if (!network.entered() || !table.create({.mark = 0x110, .tcp_state = zol_test::tcp_established}))
    GTEST_SKIP() << "this process may not write to the kernel's connection table";
  const Variant entry = only(generate());
  EXPECT_EQ(entry.At("logical-network-id").AsString(), "net-a");
  EXPECT_THAT(entry.At("domain-info"), IsJson("[]"));
}

TEST_F(TrafficReportTest, refreshes_the_sockets) {
  // Verifies that the picture of the sockets is taken anew.
  data_.tcp_diag.sockets[1] = {};
  generate();
  EXPECT_EQ(data_.tcp_diag.sockets.count(1), 0U);
}

TEST_F(TrafficReportTest, snapshot_comes_before_the_reading) {
  // Verifies that the clients are those of before the reading: where only accepted sessions are taken, one
  // that the reading finds out to be accepted is missing in this report and stands in the next one.
  configure({.monitoring = "DetectedIPsReport: { enabled = true; }; ", .session_report_resolution_ms = 0});
  const zol_monitor::SessionPtr session = add_session({.network = "", .accepted = false});
  const zol_test::OwnNetwork network;
  zol_test::ConnectionTable table;
  if (!network.entered() || !table.create({.source = {"198.51.100.20", session->client_port},
                                           .mark = 0x110,
                                           .tcp_state = zol_test::tcp_established}))
    GTEST_SKIP() << "this process may not write to the kernel's connection table";
  EXPECT_THAT(only(generate()).At("user-info"), IsJson(R"({ "direct": [], "indirect": [] })"));
  EXPECT_EQ(session->network_id, "net-a");
  EXPECT_TRUE(session->accepted_locally);
  EXPECT_THAT(only(generate()).At("user-info"),
              IsJson(R"({ "direct": [{ "ip": "198.51.100.20", "count": 1 }], "indirect": [] })"));
}

TEST_F(TrafficReportTest, lets_the_snapshot_go) {
  // Verifies that after the report nobody but the table holds a session.
  const zol_monitor::SessionPtr session = add_session();
  const long holders = session.use_count();
  generate();
  EXPECT_THAT(data_.conntrack.detected_sessions, IsEmpty());
  EXPECT_EQ(session.use_count(), holders);
}

TEST_F(TrafficReportTest, beats_around_the_work) {
  // Verifies that the watchdog gets a beat before and one after the work, which is missing when the work
  // fails at its end.
  zol_test::TestNode node;
  const int watchdog = node.open("watchdog");
  zol::KeepAlive& keep_alive = *zol::KeepAlive::instance();
  keep_alive.name = "worker";
  keep_alive.socket = node.open("worker");
  keep_alive.ready = true;
  generate();
  EXPECT_THAT(zol_test::receive(watchdog), SizeIs(sizeof(ipcmsg_t)));
  EXPECT_THAT(zol_test::receive(watchdog), SizeIs(sizeof(ipcmsg_t)));
  EXPECT_THAT(zol_test::receive(watchdog), IsEmpty());
  {
    const zol_test::PostFails no_post;
    EXPECT_THROW(generate(), std::runtime_error);
  }
  keep_alive.ready = false;
  keep_alive.socket = 0;
  EXPECT_THAT(zol_test::receive(watchdog), SizeIs(sizeof(ipcmsg_t)));
  EXPECT_THAT(zol_test::receive(watchdog), IsEmpty());
}

// --- the interval

TEST_F(TrafficReportTest, interval_begins_with_the_object) {
  // Verifies that a new object begins an interval.
  const zol_test::WallClock clock;
  ZolTraffic::last_report_ms = 0;
  const ZolTraffic traffic(&data_);
  EXPECT_EQ(ZolTraffic::last_report_ms, clock.now_ms);
}

TEST_F(TrafficReportTest, interval) {
  // Verifies that the interval is cut to whole seconds, and the next one begins with the report.
  zol_test::WallClock clock;
  ZolTraffic::last_report_ms = clock.now_ms - 90999;
  generate();
  EXPECT_EQ(record_->data->traffic_stats.interval_s, 90);
  EXPECT_EQ(ZolTraffic::last_report_ms, clock.now_ms);
  clock.now_ms += 1999;
  generate();
  EXPECT_EQ(record_->data->traffic_stats.interval_s, 1);
}

TEST_F(TrafficReportTest, clock_set_back) {
  // Verifies that an interval over a clock that was set back is negative, and one that is too long is cut.
  const zol_test::WallClock clock;
  ZolTraffic::last_report_ms = clock.now_ms + 3600999;
  generate();
  EXPECT_EQ(record_->data->traffic_stats.interval_s, -3600);
  ZolTraffic::last_report_ms = clock.now_ms + 3000ULL * std::numeric_limits<int>::max();
  generate();
  EXPECT_EQ(record_->data->traffic_stats.interval_s, std::numeric_limits<int>::min());
}

// --- the shared copy

TEST_F(TrafficReportTest, shared_block_is_replaced) {
  // Verifies that the shared block holds the last interval alone, stamped with this process, and that the
  // retransmissions behind it stay.
  record_->data->traffic_stats = {1, 2, 3, -4, 5};
  record_->data->total_retransmissions = 6;
  record_->data->header.owner_pid = 0;
  generate();
  EXPECT_EQ(record_->data->traffic_stats.total_packets, 0U);
  EXPECT_EQ(record_->data->traffic_stats.total_bytes, 0U);
  EXPECT_EQ(record_->data->traffic_stats.new_sessions, 0U);
  EXPECT_GE(record_->data->traffic_stats.interval_s, 0);
  EXPECT_EQ(record_->data->traffic_stats.reserved, 0U);
  EXPECT_EQ(record_->data->total_retransmissions, 6U);
  EXPECT_EQ(record_->data->header.owner_pid, getpid());
}

TEST_F(TrafficReportTest, shared_record_is_locked) {
  // Verifies that a lock that can't be had loses the shared copy with an error line, and the report goes on.
  record_->data->traffic_stats.total_bytes = 7;
  hold_lock(std::time(nullptr));
  const int wait_before = std::exchange(zol_utils::shared_lock_wait_ms, 1);
  LogCapture log;
  EXPECT_TRUE(traffic_.generate_zol_traffic_report(false, tunnels_).IsList());
  zol_utils::shared_lock_wait_ms = wait_before;
  EXPECT_TRUE(log.contains(log_level::error,
                           "generate_zol_traffic_report: Failed locking shared memory for "
                           "N9zol_utils13ZolStatusDataE object"));
  EXPECT_FALSE(log.contains("Shared memory out of sync"));
  EXPECT_EQ(record_->data->traffic_stats.total_bytes, 7U);
}

TEST_F(TrafficReportTest, shared_record_is_out_of_sync) {
  // Verifies that a record that was locked over a minute ago is called out of sync as well.
  hold_lock(std::time(nullptr) - 62);
  const int wait_before = std::exchange(zol_utils::shared_lock_wait_ms, 1);
  LogCapture log;
  traffic_.generate_zol_traffic_report(false, tunnels_);
  zol_utils::shared_lock_wait_ms = wait_before;
  EXPECT_TRUE(log.contains(log_level::fatal, "Shared memory out of sync"));
  EXPECT_TRUE(
      log.contains(log_level::error, "generate_zol_traffic_report: Failed locking shared memory for "));
}

TEST_F(TrafficReportTest, shared_memory_is_off) {
  // Verifies that without shared memory there is a debug line in the place of the copy and of the totals.
  record_->data->traffic_stats.total_bytes = 7;
  const bool was_enabled = std::exchange(zol_utils::shared_mem_enabled, false);
  LogCapture log;
  traffic_.generate_zol_traffic_report(false, tunnels_);
  EXPECT_EQ(log.count("Shared memory disabled for: N9zol_utils13ZolStatusDataE"), 1);
  log.clear();
  EXPECT_THAT(traffic_.get_traffic_count(), IsJson("{}"));
  EXPECT_TRUE(log.contains(log_level::debug, "Shared memory disabled for: N9zol_utils13ZolStatusDataE"));
  zol_utils::shared_mem_enabled = was_enabled;
  EXPECT_EQ(record_->data->traffic_stats.total_bytes, 7U);
}

TEST_F(TrafficReportTest, shared_record_cannot_be_unlocked) {
  // Verifies that a lock that can't be given back ends the report.
  const auto fault = ThrowsMessage<std::runtime_error>("Failed to unlock shared memory");
  const zol_test::PostFails no_post;
  const LogCapture quiet;
  EXPECT_THAT([this] { traffic_.generate_zol_traffic_report(false, tunnels_); }, fault);
}

// --- the totals

TEST_F(TrafficReportTest, traffic_count) {
  // Verifies that the totals are those of the record, with the throughput in bits a second.
  record_->data->traffic_stats = {11, 1001, 3, 16, 0};
  record_->data->total_retransmissions = 5;
  EXPECT_THAT(traffic_.get_traffic_count(), IsJson(R"({ "total-packets": 11, "total-bytes": 1001,
    "total-retransmissions": 5, "total-throughput": 500.5 })"));
}

TEST_F(TrafficReportTest, huge_traffic_count) {
  // Verifies that the throughput of more bytes than 61 bits hold doesn't wrap.
  record_->data->traffic_stats = {1, 1ULL << 62, 0, 1, 0};
  EXPECT_EQ(traffic_.get_traffic_count().At("total-throughput").AsDouble(), 36893488147419103232.0);
}

TEST_F(TrafficReportTest, traffic_count_without_interval) {
  // Verifies that an interval of no length, or less, gives no throughput.
  for (const int interval : {0, -1}) {
    record_->data->traffic_stats = {11, 1000, 3, interval, 0};
    EXPECT_THAT(traffic_.get_traffic_count(),
                IsJson(R"({ "total-packets": 11, "total-bytes": 1000, "total-retransmissions": 0 })"));
  }
}

TEST_F(TrafficReportTest, traffic_count_twice) {
  // Verifies that the retransmissions are told once, and the other totals stay.
  record_->data->traffic_stats = {11, 1000, 3, 16, 0};
  record_->data->total_retransmissions = 5;
  traffic_.get_traffic_count();
  EXPECT_EQ(record_->data->total_retransmissions, 0U);
  EXPECT_THAT(traffic_.get_traffic_count(), IsJson(R"({ "total-packets": 11, "total-bytes": 1000,
    "total-retransmissions": 0, "total-throughput": 500 })"));
}

TEST_F(TrafficReportTest, traffic_count_of_locked_record) {
  // Verifies that without the lock there are no totals, with an error line, and nothing is cleared.
  record_->data->total_retransmissions = 5;
  hold_lock(std::time(nullptr));
  const int wait_before = std::exchange(zol_utils::shared_lock_wait_ms, 1);
  LogCapture log;
  EXPECT_THAT(traffic_.get_traffic_count(), IsJson("{}"));
  zol_utils::shared_lock_wait_ms = wait_before;
  EXPECT_TRUE(log.contains(log_level::error,
                           "get_traffic_count: Failed locking shared memory for "
                           "N9zol_utils13ZolStatusDataE object"));
  EXPECT_EQ(record_->data->total_retransmissions, 5U);
}

TEST_F(TrafficReportTest, traffic_count_cannot_be_unlocked) {
  // Verifies that a lock that can't be given back is thrown there too.
  const zol_test::PostFails no_post;
  EXPECT_THAT([this] { traffic_.get_traffic_count(); },
              ThrowsMessage<std::runtime_error>("Failed to unlock shared memory"));
}

}  // namespace
