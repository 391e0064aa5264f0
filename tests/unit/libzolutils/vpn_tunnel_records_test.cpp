#include "vpn_tunnel_records.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>

#include "shared_object.h"
#include "tests/support/log_capture.h"

namespace {

using zol_utils::SharedObject;
using zol_utils::tunnel_med_results_t;
using zol_utils::TunnelMedResults;
using zol_utils::vpn_tunnel_states_t;
using zol_utils::VpnTunnelState;

class VpnTunnelRecordsTest : public testing::Test {
 protected:
  VpnTunnelRecordsTest() { zol_utils::shared_object_version = version_; }
  ~VpnTunnelRecordsTest() override {
    SharedObject<vpn_tunnel_states_t>::drop_instance();
    SharedObject<tunnel_med_results_t>::drop_instance();
    zol_utils::shared_object_version.clear();
  }

  const std::string version_ = "tunnels-test-" + std::to_string(getpid());
};

// Verifies that the rows of a table take the place of those that were there.
TEST_F(VpnTunnelRecordsTest, StatesArePublished) {
  const auto record = zol_utils::create_shared_record<vpn_tunnel_states_t>(version_);
  const auto states = std::make_unique<vpn_tunnel_states_t>();
  states->row_count = 2;
  std::strcpy(states->rows[0].name, "first");
  std::strcpy(states->rows[1].name, "second");
  states->rows[1].established = 1;
  VpnTunnelState::set_tunnel_states(*states);
  ASSERT_EQ(record->data->row_count, 2u);
  EXPECT_STREQ(record->data->rows[0].name, "first");
  EXPECT_EQ(record->data->rows[0].established, 0);
  EXPECT_STREQ(record->data->rows[1].name, "second");
  EXPECT_EQ(record->data->rows[1].established, 1);
  EXPECT_EQ(record->data->header.owner_pid, getpid());
  states->row_count = 0;
  VpnTunnelState::set_tunnel_states(*states);
  EXPECT_EQ(record->data->row_count, 0u);
}

// Verifies that a row count beyond the room is cut.
TEST_F(VpnTunnelRecordsTest, TooManyRows) {
  const auto record = zol_utils::create_shared_record<vpn_tunnel_states_t>(version_);
  const auto states = std::make_unique<vpn_tunnel_states_t>();
  states->row_count = 101;
  states->rows[99].established = 1;
  VpnTunnelState::set_tunnel_states(*states);
  EXPECT_EQ(record->data->row_count, 100u);
  EXPECT_EQ(record->data->rows[99].established, 1);
}

// Verifies that a record that isn't there costs an error line.
TEST_F(VpnTunnelRecordsTest, NoRecord) {
  const auto states = std::make_unique<vpn_tunnel_states_t>();
  const zol_test::LogCapture log;
  VpnTunnelState::set_tunnel_states(*states);
  EXPECT_EQ(TunnelMedResults::get_med(1), 0xffffffffu);
  EXPECT_EQ(log.count("FATAL: Failed to open SharedObject shm"), 2) << log.all();
}

// Verifies that a MED is found by its address in network order, also at the record's last row.
TEST_F(VpnTunnelRecordsTest, Med) {
  const auto record = zol_utils::create_shared_record<tunnel_med_results_t>(version_);
  EXPECT_EQ(TunnelMedResults::get_med(inet_addr("169.254.0.2")), 0xffffffffu);
  record->data->rows[0] = {inet_addr("169.254.0.1"), 5};
  record->data->rows[999] = {inet_addr("169.254.0.2"), 70};
  record->data->row_count = 1;
  EXPECT_EQ(TunnelMedResults::get_med(inet_addr("169.254.0.1")), 5u);
  EXPECT_EQ(TunnelMedResults::get_med(inet_addr("169.254.0.2")), 0xffffffffu);
  record->data->row_count = 0xffffffff;  // a count that nobody should trust
  EXPECT_EQ(TunnelMedResults::get_med(inet_addr("169.254.0.2")), 70u);
  EXPECT_EQ(TunnelMedResults::get_med(inet_addr("169.254.0.9")), 0xffffffffu);
}

// Verifies that a record that somebody sits on holds up the first of many questions only.
TEST_F(VpnTunnelRecordsTest, LockedRecord) {
  const auto record = zol_utils::create_shared_record<tunnel_med_results_t>(version_);
  record->data->rows[0] = {7, 5};
  record->data->row_count = 1;
  sem_wait(&record->data->header.lock);
  record->data->header.owner_pid = getppid();
  const auto before = std::chrono::steady_clock::now();
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(TunnelMedResults::get_med(7), 0xffffffffu);
  const auto waited = std::chrono::steady_clock::now() - before;
  EXPECT_LT(waited, std::chrono::milliseconds(100 * zol_utils::shared_lock_wait_ms / 4));
  sem_post(&record->data->header.lock);
  EXPECT_EQ(TunnelMedResults::get_med(7), 5u);
}

}  // namespace
