#include "tunnel_monitoring_results.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "shared_object.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace zol_utils {
namespace {

using zol_test::LogCapture;
using Record = SharedObject<tunnel_monitoring_results_t>;

class TunnelResults : public testing::Test {
 protected:
  TunnelResults() {
    shared_object_version = "latencies-" + std::to_string(getpid());
    shared_mem_enabled = true;
    shared_lock_wait_ms = 10;
    tunnel_monitoring_next_try = {};
    make_record();
  }
  ~TunnelResults() override {
    Record::drop_instance();
    record.reset();
    shared_object_version.clear();
    shared_lock_wait_ms = 200;
    tunnel_monitoring_next_try = {};
  }
  void make_record() { record = create_shared_record<tunnel_monitoring_results_t>(shared_object_version); }
  tunnel_monitoring_results_t& data() { return *record->data; }

  LogCapture log;
  std::unique_ptr<Record> record;
};

// Verifies that samples add up in the row of their address, good and lost ones.
TEST_F(TunnelResults, Samples) {
  const std::time_t before = std::time(nullptr);
  for (const long latency : {1000L, -1L, 1500L})
    TunnelMonitoringResults::add_latency(inet_addr("10.0.0.1"), latency);
  TunnelMonitoringResults::add_latency(inet_addr("10.0.0.2"), 0);
  ASSERT_EQ(data().row_count, 2u);
  const tunnel_latency_row_t& one = data().rows[0];
  EXPECT_EQ(one.address, inet_addr("10.0.0.1"));
  EXPECT_EQ(one.sample_count, 3u);
  EXPECT_EQ(one.lost_count, 1u);
  EXPECT_EQ(one.latency_sum_us, 2500u);
  EXPECT_EQ(one.last_latency_us, 1500);
  EXPECT_GE(one.last_update, before);
  EXPECT_LE(one.last_update, std::time(nullptr));
  const tunnel_latency_row_t& other = data().rows[1];
  EXPECT_EQ(other.sample_count, 1u);
  EXPECT_EQ(other.lost_count, 1u);
  EXPECT_EQ(other.latency_sum_us, 0u);
  EXPECT_EQ(other.last_latency_us, -1);
}

// Verifies that in a full table a new address takes the row that has been still for longest.
TEST_F(TunnelResults, FullTable) {
  constexpr auto most = static_cast<unsigned>(tunnel_monitoring_results_t::max_rows);
  for (unsigned i = 0; i < most; ++i)
    TunnelMonitoringResults::add_latency(htonl(i + 1), 5);
  EXPECT_EQ(data().row_count, most);
  data().rows[700].last_update = 3;
  data().rows[701].last_update = 4;
  TunnelMonitoringResults::add_latency(htonl(5000), 7);
  EXPECT_EQ(data().row_count, most);
  EXPECT_EQ(data().rows[700].address, htonl(5000));
  EXPECT_EQ(data().rows[700].sample_count, 1u);
  EXPECT_EQ(data().rows[700].latency_sum_us, 7u);
  EXPECT_EQ(data().rows[701].address, htonl(702));
}

// Verifies that a count of rows that another process has spoilt leads nowhere outside the table.
TEST_F(TunnelResults, SpoiltCount) {
  data().row_count = 0xffffffff;
  TunnelMonitoringResults::add_latency(inet_addr("10.0.0.1"), 5);
  EXPECT_EQ(data().rows[0].address, inet_addr("10.0.0.1"));
}

// Verifies that a record that isn't there costs one line, nothing for the time behind it, and is found later.
TEST_F(TunnelResults, NoRecord) {
  record.reset();
  Record::drop_instance();
  TunnelMonitoringResults::add_latency(inet_addr("10.0.0.1"), 5);
  EXPECT_EQ(log.count("FATAL: Failed to open SharedObject shm"), 1);
  make_record();
  TunnelMonitoringResults::add_latency(inet_addr("10.0.0.1"), 5);
  EXPECT_EQ(log.count("FATAL: Failed to open SharedObject shm"), 1);
  EXPECT_EQ(data().row_count, 0u);
  tunnel_monitoring_next_try = {};  // the time is over
  TunnelMonitoringResults::add_latency(inet_addr("10.0.0.1"), 5);
  EXPECT_EQ(data().row_count, 1u);
}

}  // namespace
}  // namespace zol_utils
