// The rest of the node's state: suspension, black holes, and the record that holds all of it.
#include <semaphore.h>

#include <string>

#include "sup_logger.h"
#include "tests/unit/failure/failure_fixture.h"

namespace {

using zol_test::BlackHoleListener;
using zol_test::FailureTest;
using zol_test::neighbour;
using zol_test::neighbour_port;
using zol_test::Told;
using zol_test::Types;
using zol_test::value_at;
using zol_utils::ZolStatusData;

class NodeState : public FailureTest {};

// Verifies that the fields of the failure handling stand where the node's other processes look for them.
TEST_F(NodeState, PlaceInTheRecord) {
  failure_->failopen(true, false);
  notify_failure();
  failure_->suspend_notifier(true, 0x01020304);
  failure_->shm_set_bh_state(true);
  const auto* record = reinterpret_cast<const unsigned char*>(&status());
  const zol_test::Bytes bytes(record + 48, record + sizeof(ZolStatusData));
  EXPECT_EQ(bytes[32], 1);                                     // suspended
  EXPECT_EQ(bytes[33], 1);                                     // fail-open
  EXPECT_EQ(bytes[34], 1);                                     // black hole
  EXPECT_EQ(bytes[35], 0);                                     // reserved
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 36), 0x01020304U);  // suspended for
  EXPECT_EQ(value_at<std::uint64_t>(bytes, 24), 1U);           // failures
  const auto now = static_cast<double>(now_s());
  EXPECT_NEAR(static_cast<double>(value_at<std::int64_t>(bytes, 864)), now, 60);  // suspended since
  EXPECT_NEAR(static_cast<double>(value_at<std::int64_t>(bytes, 880)), now, 60);  // in fail-open since
}

// Verifies that nothing counts while suspended, until it is resumed; the agent hears of both.
TEST_F(NodeState, Suspension) {
  failure_->set_ha_agent(&agent_driver_);
  failure_->suspend_notifier(true, 0);
  EXPECT_EQ(types_at(agent_), Types{14});
  for (int i = 0; i < 5; ++i)
    failure_->notify(neighbour, neighbour_port, true, true);
  EXPECT_EQ(status().failure_count, 0U);
  EXPECT_EQ(status().failopen_active, 0);
  tick();
  EXPECT_EQ(status().failopen_suspended, 1);  // no time was given
  failure_->suspend_notifier(false, 0);
  EXPECT_EQ(types_at(agent_), Types{15});
  EXPECT_EQ(status().failopen_suspended, 0);
  EXPECT_EQ(status().suspension_start[0], 0);
  notify_failure();
  EXPECT_EQ(status().failure_count, 1U);
}

// Verifies that a suspension whose time is over holds nothing up, and is ended by who began it.
TEST_F(NodeState, SuspensionEnds) {
  failure_->set_ha_agent(&agent_driver_);
  failure_->suspend_notifier(true, 100);
  tick();
  EXPECT_EQ(status().failopen_suspended, 1);
  status().suspension_start[0] -= 100;
  failure_->notify(neighbour, neighbour_port, true, true);
  EXPECT_EQ(status().failure_count, 1U);
  tick();
  EXPECT_EQ(status().failopen_suspended, 0);
  EXPECT_EQ(types_at(agent_), (Types{14, 15}));
  tick();
  EXPECT_EQ(types_at(agent_), Types{});
}

// Verifies that a suspension that another process began is left to it.
TEST_F(NodeState, SuspensionOfAnother) {
  failure_->set_ha_agent(&agent_driver_);
  status().failopen_suspended = 1;
  status().suspension_time = 5;
  status().suspension_start = {now_s() - 100, 0};
  tick();
  EXPECT_EQ(status().failopen_suspended, 1);
  EXPECT_EQ(types_at(agent_), Types{});
}

// Verifies that a black hole is passed over while the feature is off or its setting missing.
TEST_F(NodeState, BlackHolesAreOff) {
  BlackHoleListener holes;
  failure_->bh_notify_register(&holes);
  for (const char* text : {"BlackHole: { enabled = false; close_service_ports = true; };", ""}) {
    config_.set(text);
    log_.clear();
    failure_->blackhole_notify({"target.example", false});
    EXPECT_TRUE(
        log_.contains(log_level::info, "blackhole_notify: Black hole feature is disabled, ignoring..."));
  }
  EXPECT_TRUE(holes.told.empty());
  EXPECT_FALSE(failure_->bh_active);
  EXPECT_EQ(status().black_hole_active, 0);
}

// Verifies that without the closing of ports a black hole is told as one that nobody has handled.
TEST_F(NodeState, BlackHoleIsTold) {
  BlackHoleListener holes;
  BlackHoleListener gone;
  failure_->bh_notify_register(&holes);
  failure_->bh_notify_register(&holes);
  failure_->bh_notify_register(&gone);
  failure_->bh_notify_unregister(&gone);
  failure_->blackhole_notify({"target.example", false});
  ASSERT_EQ(holes.told.size(), 1U);
  EXPECT_EQ(holes.told[0].target, "target.example");
  EXPECT_FALSE(holes.told[0].handled);
  EXPECT_TRUE(gone.told.empty());
  EXPECT_FALSE(failure_->bh_active);
  EXPECT_EQ(status().black_hole_active, 0);
}

// Verifies that with the closing of ports the state says so, here and in the record, and the target counts as
// handled.
TEST_F(NodeState, BlackHoleClosesPorts) {
  config_.set("BlackHole: { enabled = true; close_service_ports = true; };");
  BlackHoleListener holes;
  failure_->bh_notify_register(&holes);
  failure_->blackhole_notify({"target.example", false});
  ASSERT_EQ(holes.told.size(), 1U);
  EXPECT_TRUE(holes.told[0].handled);
  EXPECT_TRUE(failure_->bh_active);
  EXPECT_EQ(status().black_hole_active, 1);
  failure_->shm_set_bh_state(false);
  EXPECT_EQ(status().black_hole_active, 0);
}

// Verifies that without the record the state reads as not active, nothing is told or counted, and each access
// has its line.
TEST_F(NodeState, NoRecord) {
  drop_record();
  EXPECT_FALSE(failure_->is_failopen_enabled());
  failure_->failopen(true, true);
  for (int i = 0; i < 5; ++i)
    notify_failure();
  failure_->shm_set_bh_state(true);
  tick();
  EXPECT_GE(log_.count("FATAL: Failed to open SharedObject shm"), 9);
  EXPECT_EQ(listener_.told, Told{});
  EXPECT_EQ(types_at(watchdog_), Types{});
}

// Verifies that a record that another process sits on reads as not active, with the name of who asked.
TEST_F(NodeState, LockedRecord) {
  begin_failopen(100000);
  zol_utils::shared_lock_wait_ms = 1;
  sem_wait(&status().header.lock);
  status().header.owner_pid = getppid();
  EXPECT_FALSE(failure_->is_failopen_enabled());
  failure_->failopen(false, true);
  failure_->shm_set_bh_state(true);
  failure_->suspend_notifier(true, 1);
  notify_failure();
  tick();
  for (const char* caller : {"is_failopen_enabled", "failopen", "shm_set_bh_state", "suspend_notifier",
                             "notify", "check_failure_status"})
    EXPECT_TRUE(log_.contains(log_level::error, std::string(caller) + ": Failed locking shared memory for "))
        << caller;
  sem_post(&status().header.lock);
  EXPECT_TRUE(failure_->is_failopen_enabled());
  EXPECT_EQ(status().black_hole_active, 0);
  EXPECT_EQ(listener_.told, Told{});
}

// Verifies that with shared memory switched off nothing is opened and the state reads as not active.
TEST_F(NodeState, SharedMemoryIsOff) {
  begin_failopen(1);
  zol_utils::shared_mem_enabled = false;
  EXPECT_FALSE(failure_->is_failopen_enabled());
  EXPECT_TRUE(log_.contains(log_level::debug, "Shared memory disabled for: "));
}

}  // namespace
