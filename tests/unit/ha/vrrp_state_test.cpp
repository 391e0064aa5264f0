#include "ha/vrrp_state.h"

#include <gmock/gmock.h>

#include <string>

#include "sup_logger.h"
#include "tests/unit/ha/fake_service.h"
#include "tests/unit/ha/ha_fixture.h"

namespace zol {
namespace {

using testing::IsEmpty;
using testing::SizeIs;
using zol_test::FakeService;
using zol_utils::VRRPRole;

constexpr const char* running = "echo 'Loaded: x'; echo 'Active: active (running) since today'";
constexpr const char* dead = "echo 'Active: inactive (dead)'";

using VRRPStateTest = zol_test::HaTest;

// Verifies that the service runs when its status says so in the "Active:" line.
TEST(VRRPState, ServiceRuns) {
  const FakeService service(running);
  EXPECT_TRUE(VRRPState::is_service_running());
}

// Verifies that any other status, and another line with the word, is not running.
TEST(VRRPState, ServiceDoesNotRun) {
  for (const char* status : {dead, "echo 'Log: was (running)'", "exit 3", "echo 'Active: (running)' >&2"}) {
    const FakeService service(status);
    EXPECT_FALSE(VRRPState::is_service_running()) << status;
  }
}

// Verifies that on a node without a mode the alias goes unless the service runs.
TEST(VRRPState, AliasOfANodeWithoutMode) {
  const zol_test::Node node(zol_test::hop_config("hops = ( { hop_id = \"a\"; } );"));
  {
    const FakeService service(running);
    EXPECT_FALSE(node.networks.should_remove_vrrp_alias());
  }
  const FakeService service(dead);
  EXPECT_TRUE(node.networks.should_remove_vrrp_alias());
}

// Verifies the texts of the roles, and the one of every other number.
TEST(VRRPState, RoleTexts) {
  EXPECT_STREQ(VRRPState::role_str(1), "MASTER");
  EXPECT_STREQ(VRRPState::role_str(2), "BACKUP");
  for (const unsigned char other : {0, 3, 9, 255})
    EXPECT_STREQ(VRRPState::role_str(other), "UKNOWN");
}

// Verifies that on a node a named state begins without a role and with a slot of its own.
TEST_F(VRRPStateTest, Named) {
  const VRRPState first("site-1");
  const VRRPState second("site-2");
  EXPECT_EQ(first.role, VRRPRole::unknown);
  EXPECT_EQ(first.state_changes, 0U);
  EXPECT_EQ(first.shm_index, 0);
  EXPECT_EQ(second.shm_index, 1);
  EXPECT_EQ(record_.name_at(1), "site-2");
  EXPECT_EQ(first.destination, "zol");
}

// Verifies that what is no node has no slot.
TEST_F(VRRPStateTest, NoNode) {
  config_.set("General: { kpa_id = \"k\"; };");
  const VRRPState state("site-1");
  EXPECT_EQ(state.shm_index, -1);
  EXPECT_EQ(record_.status().count, 0U);
}

// Verifies that a state made from an older one has its role and its count, and the slot of the name.
TEST_F(VRRPStateTest, Continued) {
  VRRPState old("site-1");
  old.set_master();
  old.set_backup();
  const VRRPState state("site-1", old);
  EXPECT_EQ(state.role, VRRPRole::backup);
  EXPECT_EQ(state.state_changes, 2U);
  EXPECT_EQ(state.shm_index, old.shm_index);
  EXPECT_EQ(record_.role_at(0), 2U);
  EXPECT_EQ(record_.at(0).state_changes, 2U);
}

// Verifies that a state that was read has no slot, and that its changes reach no record.
TEST_F(VRRPStateTest, Detached) {
  record_.add("site-1", 2, 5);
  VRRPState state(VRRPRole::backup, 5);
  EXPECT_EQ(state.shm_index, -1);
  EXPECT_EQ(state.state_changes, 5U);
  state.set_master();
  EXPECT_TRUE(state.is_master());
  EXPECT_EQ(record_.role_at(0), 2U);
  state.sync();
  EXPECT_TRUE(state.is_master()) << "there is nothing to take a role from";
}

// Verifies that the role and the count of the record are taken over.
TEST_F(VRRPStateTest, Sync) {
  VRRPState state("site-1");
  record_.at(0).role = VRRPRole::master;
  record_.at(0).state_changes = 3;
  state.sync();
  EXPECT_EQ(state.role, VRRPRole::master);
  EXPECT_EQ(state.state_changes, 3U);
  record_.hold_lock();
  record_.at(0).role = VRRPRole::backup;
  state.sync();
  EXPECT_EQ(state.role, VRRPRole::master) << "a record that can't be read changes nothing";
}

// Verifies that another role goes to the record, to the log and, as message 9, to the main process.
TEST_F(VRRPStateTest, Change) {
  const int main_process = node_.open("zol");
  IDispatch::setup(node_.open("zol_monitor"), "");
  VRRPState state("site-1");
  state.set_master();
  EXPECT_EQ(record_.role_at(0), 1U);
  EXPECT_EQ(record_.at(0).state_changes, 1U);
  EXPECT_EQ(state.state_changes, 1U);
  EXPECT_TRUE(log_.contains(log_level::info, "VRRP State change detected! new state MASTER"));
  const auto sent = messages(main_process);
  ASSERT_THAT(sent, SizeIs(1));
  ASSERT_THAT(sent[0], SizeIs(56));
  EXPECT_EQ(zol_test::value_at<std::uint16_t>(sent[0], 0), 9);
  EXPECT_EQ(zol_test::text_at(sent[0], 2), "zol_monitor");
  EXPECT_EQ(zol_test::text_at(sent[0], 31), "zol");
  state.set_backup();
  EXPECT_TRUE(log_.contains("new state BACKUP"));
  state.set_unknown();
  EXPECT_TRUE(log_.contains("new state UKNOWN"));
  EXPECT_EQ(record_.role_at(0), 0U);
  EXPECT_EQ(record_.at(0).state_changes, 3U);
  EXPECT_THAT(messages(main_process), SizeIs(2));
}

// Verifies that the role that stands already sends nothing and writes nothing.
TEST_F(VRRPStateTest, NoChange) {
  const int main_process = node_.open("zol");
  IDispatch::setup(node_.open("zol_monitor"), "");
  VRRPState state("site-1");
  state.set_role(VRRPRole::unknown);
  EXPECT_EQ(record_.at(0).state_changes, 0U);
  state.set_backup();
  messages(main_process);
  log_.clear();
  record_.at(0).role = VRRPRole::master;  // of another process
  state.set_backup();
  EXPECT_EQ(record_.role_at(0), 1U);
  EXPECT_EQ(state.state_changes, 1U);
  EXPECT_THAT(messages(main_process), IsEmpty());
  EXPECT_FALSE(log_.contains("VRRP State change detected"));
}

// Verifies that a role message takes 1 and 2, and nothing else.
TEST_F(VRRPStateTest, RoleMessage) {
  VRRPState state("site-1");
  EXPECT_TRUE(state.process_vrrp_role_msg(1));
  EXPECT_EQ(state.role, VRRPRole::master);
  EXPECT_TRUE(state.process_vrrp_role_msg(2));
  EXPECT_EQ(state.role, VRRPRole::backup);
  for (const unsigned char other : {0, 3, 255}) {
    EXPECT_FALSE(state.process_vrrp_role_msg(other));
    EXPECT_TRUE(log_.contains(log_level::error, "Got unexpected role " + std::to_string(other)));
  }
  EXPECT_EQ(state.role, VRRPRole::backup);
}

}  // namespace
}  // namespace zol
