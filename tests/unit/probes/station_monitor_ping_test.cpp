// Real pings, over the loopback of the test's own namespace.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "probes/raw_socket_manager.h"
#include "shared_object.h"
#include "sup_logger.h"
#include "tests/unit/probes/failing_calls.h"
#include "tests/unit/probes/station_monitor_fixture.h"
#include "tunnel_monitoring_results.h"

namespace zol_test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::Gt;
using zol_utils::tunnel_monitoring_results_t;

class PingTest : public testing::Test {
 protected:
  PingTest() { zol_utils::shared_mem_enabled = false; }
  ~PingTest() override { zol_utils::shared_mem_enabled = shared_mem_enabled_; }

  MonitorPingManager manager;

 private:
  const bool shared_mem_enabled_ = zol_utils::shared_mem_enabled;
};

// Verifies that a manager with a socket pings its targets again and again, and that one without an answer is
// lost.
TEST_F(PingTest, Loopback) {
  if (geteuid() != 0)
    GTEST_SKIP() << "raw sockets need root";
  const LogCapture quiet;
  ASSERT_TRUE(manager.init(40000, 65535, 255));
  EXPECT_TRUE(manager.handle_probes_timer.is_pending());
  manager.update_probes({{"1_general", "127.0.0.1", "127.0.0.2", 500}, {"2_general", "127.0.0.1", "", 500}});
  ASSERT_TRUE(run_loop_until([this] { return manager.probes.at("1_general").latencies.size() >= 2; }));
  EXPECT_THAT(manager.probes.at("1_general").latencies, Each(Gt(0)));
  EXPECT_EQ(manager.probes.at("2_general").read_and_reset().loss, 1);
  EXPECT_GT(manager.probes.at("1_general").last_start_ms, 0u);
}

// Verifies that a reply that waits in the socket when the tick comes isn't lost, however long the loop was
// held up.
TEST_F(PingTest, ReplyBehindBusyLoop) {
  if (geteuid() != 0)
    GTEST_SKIP() << "raw sockets need root";
  const LogCapture quiet;
  ASSERT_TRUE(manager.init(40000, 65535, 255));
  manager.update_probes({{"1_general", "127.0.0.1", "127.0.0.2", 60000}});
  manager.handle_probes();
  auto& entry = manager.probes.at("1_general");
  ASSERT_NE(entry.probe, nullptr);
  entry.probe->start_time.tv_sec -= 5;
  manager.handle_probes();  // the loop hasn't run
  EXPECT_THAT(entry.latencies, ElementsAre(Gt(5000000)));
}

// Verifies that a manager that gets no socket says so, has no tick, and keeps its entries, which report
// zeros.
TEST_F(PingTest, NoSocket) {
  const LogCapture log;
  {
    const NoNetworkRights without;
    EXPECT_FALSE(manager.init(40000, 65535, 255));
  }
  EXPECT_TRUE(log.contains(log_level::error, "ICMP ping raw socket initialization failed")) << log.all();
  EXPECT_FALSE(manager.handle_probes_timer.is_pending());
  EXPECT_NE(manager.manager, nullptr);
  manager.update_probes({{"1_general", "127.0.0.1", "127.0.0.2", 500}});
  const auto report = manager.read_and_restart("1", "general");
  EXPECT_EQ(report.At("latency_sample_count").AsUnsigned(), 0u);
  EXPECT_EQ(report.At("loss").AsDouble(), 0);
}

// Verifies that the socket has room for a unit of 2048 bytes for each probe, and the mark of probes.
TEST_F(PingTest, Socket) {
  if (geteuid() != 0)
    GTEST_SKIP() << "raw sockets need root";
  ASSERT_TRUE(manager.init(40000, 65535, 100));
  const int fd = manager.manager->socket->fd;
  int value = 0;
  socklen_t size = sizeof value;
  ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_MARK, &value, &size), 0);
  EXPECT_EQ(value, 0x40ff0000);
  ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &value, &size), 0);
  EXPECT_EQ(value, 2 * 100 * 2048);  // the kernel doubles what is asked for, see socket(7)
  EXPECT_EQ(manager.first_id, 40000u);
  EXPECT_EQ(manager.last_id, 65535u);
  EXPECT_EQ(manager.max_probes, 100u);
}

// Verifies that each sample goes to the shared record under its destination, lost ones too, and that a
// destination that is no address goes nowhere.
TEST_F(PingTest, SharedRecord) {
  const LogCapture quiet;
  zol_utils::shared_mem_enabled = true;
  zol_utils::shared_object_version = "probes-test-" + std::to_string(getpid());
  zol_utils::tunnel_monitoring_next_try = {};
  const auto record =
      zol_utils::create_shared_record<tunnel_monitoring_results_t>(zol_utils::shared_object_version);
  manager.update_probes({{"1_general", "127.0.0.1", "10.0.0.1", 60000},
                         {"2_general", "127.0.0.1", "10.0.0.2", 60000},
                         {"3_general", "127.0.0.1", "far.test", 60000}});
  for (auto& [key, entry] : manager.probes)
    entry.probe = replied_probe(1, 150);
  manager.probes.at("2_general").probe = waiting_probe(2000);
  manager.handle_probes();
  EXPECT_EQ(record->data->row_count, 2u);
  const auto& rows = record->data->rows;
  EXPECT_EQ(rows[0].address, inet_addr("10.0.0.1"));
  EXPECT_EQ(rows[0].last_latency_us, 150);
  EXPECT_EQ(rows[0].lost_count, 0u);
  EXPECT_EQ(rows[1].address, inet_addr("10.0.0.2"));
  EXPECT_EQ(rows[1].last_latency_us, -1);
  EXPECT_EQ(rows[1].lost_count, 1u);
  zol_utils::SharedObject<tunnel_monitoring_results_t>::drop_instance();
  zol_utils::shared_object_version.clear();
}

}  // namespace
}  // namespace zol_test
