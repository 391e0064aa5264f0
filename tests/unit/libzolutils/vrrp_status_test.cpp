#include "vrrp_status.h"

#include <gmock/gmock.h>

#include <limits>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/support/vrrp_record.h"

namespace {

using zol_test::LogCapture;
using zol_test::VrrpRecord;
using zol_utils::vrrp_status_t;
using zol_utils::VRRPRole;
using zol_utils::VRRPStatus;

constexpr unsigned master = 1;
constexpr unsigned backup = 2;

class VRRPStatusTest : public testing::Test {
 protected:
  VrrpRecord record_;
  LogCapture log_;
};

// Verifies the record's name, which other programs derive by themselves.
TEST_F(VRRPStatusTest, name) {
  EXPECT_EQ(zol_utils::SharedObject<vrrp_status_t>::object_name("1.0.0"),
            "/PN9zol_utils12SharedObjectINS_13vrrp_status_tEEE-1.0.0_mem");
}

// Verifies the record's layout: what another program has written byte by byte is read.
TEST_F(VRRPStatusTest, layout) {
  const unsigned char second[] = {
      's', 'i', 't', 'e', '-', '7', 0,  // name
      'x',                              // behind its end
  };
  unsigned char* bytes = record_.bytes();
  bytes[48] = 2;  // count
  std::memcpy(bytes + 52, "dynamic", 7);
  bytes[52 + 64] = 1;      // role: master
  bytes[52 + 68] = 4;      // state_changes, little-endian
  bytes[52 + 68 + 1] = 1;  // 260
  std::memcpy(bytes + 52 + 72, second, sizeof second);
  bytes[52 + 72 + 64] = 2;  // backup
  const auto first = VRRPStatus::get_state(0);
  ASSERT_TRUE(first);
  EXPECT_EQ(zol_utils::instance_name(*first), "dynamic");
  EXPECT_EQ(first->role, VRRPRole::master);
  EXPECT_EQ(first->state_changes, 260U);
  const auto other = VRRPStatus::get_state(1);
  ASSERT_TRUE(other);
  EXPECT_EQ(zol_utils::instance_name(*other), "site-7");
  EXPECT_EQ(other->role, VRRPRole::backup);
  EXPECT_FALSE(VRRPStatus::get_state(2));
  EXPECT_FALSE(VRRPStatus::get_state(-1));
}

// Verifies that a name that fills its field needs no end.
TEST_F(VRRPStatusTest, unterminated_name) {
  std::memset(record_.at(0).name, 'n', 64);
  record_.at(0).role = VRRPRole::master;
  record_.status().count = 1;
  EXPECT_EQ(zol_utils::instance_name(*VRRPStatus::get_state(0)), std::string(64, 'n'));
}

// Verifies that whatever count stands in the record, no slot beyond the record is read or written.
TEST_F(VRRPStatusTest, any_count) {
  record_.status().count = std::numeric_limits<std::uint32_t>::max();
  const int last = vrrp_status_t::max_instances - 1;
  std::strcpy(record_.at(last).name, "last");
  EXPECT_TRUE(VRRPStatus::get_state(last));
  EXPECT_FALSE(VRRPStatus::get_state(last + 1));
  EXPECT_FALSE(VRRPStatus::get_state(std::numeric_limits<int>::max()));
  VRRPStatus::save_state_to_shm(last + 1, VRRPRole::master);
  EXPECT_FALSE(VRRPStatus::get_dynamic_floating_ip_state());
  EXPECT_EQ(VRRPStatus::add_state("new"), 0);
}

// Verifies that an instance is entered without a role, each in a slot of its own, and found again by name.
TEST_F(VRRPStatusTest, add_state) {
  EXPECT_EQ(VRRPStatus::add_state("site-1"), 0);
  EXPECT_EQ(VRRPStatus::add_state("site-10"), 1);
  EXPECT_EQ(VRRPStatus::add_state("site-1"), 0);
  EXPECT_EQ(record_.status().count, 2U);
  EXPECT_EQ(record_.name_at(1), "site-10");
  EXPECT_EQ(record_.role_at(1), 0U);
  EXPECT_EQ(record_.at(1).state_changes, 0U);
}

// Verifies that an instance that another process has entered keeps its slot, role and count.
TEST_F(VRRPStatusTest, add_state_of_another_process) {
  record_.add("site-1", backup, 1);
  record_.add("dynamic", master, 7);
  EXPECT_EQ(VRRPStatus::add_state("dynamic"), 1);
  EXPECT_EQ(record_.role_at(1), master);
  EXPECT_EQ(record_.at(1).state_changes, 7U);
}

// Verifies that a name has 1 to 63 characters.
TEST_F(VRRPStatusTest, names) {
  EXPECT_EQ(VRRPStatus::add_state(""), VRRPStatus::no_slot);
  EXPECT_EQ(VRRPStatus::add_state(std::string(64, 'n')), VRRPStatus::no_slot);
  EXPECT_TRUE(
      log_.contains(log_level::error, "add_state: not a name of an instance: '" + std::string(64, 'n')));
  EXPECT_EQ(VRRPStatus::add_state(std::string(63, 'n')), 0);
  EXPECT_EQ(record_.name_at(0), std::string(63, 'n'));
}

// Verifies that a full record takes no more instances, and says so.
TEST_F(VRRPStatusTest, full) {
  for (std::size_t i = 0; i < vrrp_status_t::max_instances; ++i)
    record_.add("s" + std::to_string(i), 0, 0);
  EXPECT_EQ(VRRPStatus::add_state("one-more"), VRRPStatus::no_slot);
  EXPECT_TRUE(log_.contains(log_level::error, "add_state: no slot is left for one-more"));
  EXPECT_EQ(VRRPStatus::add_state("s1023"), 1023);
}

// Verifies that a role that differs is written and counted, and the role that stands there isn't.
TEST_F(VRRPStatusTest, save) {
  const int slot = VRRPStatus::add_state("site-1");
  VRRPStatus::save_state_to_shm(slot, VRRPRole::master);
  EXPECT_EQ(record_.role_at(0), master);
  EXPECT_EQ(record_.at(0).state_changes, 1U);
  VRRPStatus::save_state_to_shm(slot, VRRPRole::master);
  EXPECT_EQ(record_.at(0).state_changes, 1U);
  VRRPStatus::save_state_to_shm(slot, VRRPRole::backup);
  EXPECT_EQ(record_.role_at(0), backup);
  EXPECT_EQ(record_.at(0).state_changes, 2U);
  VRRPStatus::save_state_to_shm(slot + 1, VRRPRole::master);
  VRRPStatus::save_state_to_shm(VRRPStatus::no_slot, VRRPRole::master);
  EXPECT_EQ(record_.role_at(1), 0U);
}

// Verifies that clearing takes out what this process asked for, but for what it keeps, and that the others
// keep their slots.
TEST_F(VRRPStatusTest, clear) {
  record_.add("theirs", master, 3);
  VRRPStatus::add_state("ours");
  VRRPStatus::add_state("kept");
  record_.add("later", backup, 1);
  VRRPStatus::save_state_to_shm(2, VRRPRole::master);
  VRRPStatus::clear_states({"kept"});
  EXPECT_EQ(record_.name_at(0), "theirs");
  EXPECT_EQ(record_.name_at(1), "");
  EXPECT_EQ(record_.name_at(2), "kept");
  EXPECT_EQ(record_.role_at(2), master);
  EXPECT_EQ(record_.name_at(3), "later");
  EXPECT_FALSE(VRRPStatus::get_state(1));
  EXPECT_EQ(VRRPStatus::add_state("next"), 1) << "the free slot comes first";
  VRRPStatus::clear_states();
  EXPECT_EQ(record_.name_at(1), "");
  EXPECT_EQ(record_.name_at(2), "");
  EXPECT_EQ(record_.name_at(3), "later");
}

// Verifies that a slot that has got another name since isn't cleared.
TEST_F(VRRPStatusTest, clear_after_a_change) {
  VRRPStatus::add_state("ours");
  std::strcpy(record_.at(0).name, "theirs");
  VRRPStatus::clear_states();
  EXPECT_EQ(record_.name_at(0), "theirs");
}

// Verifies that clearing while another process sits on the record is made up for by the next.
TEST_F(VRRPStatusTest, clear_of_a_locked_record) {
  VRRPStatus::add_state("ours");
  record_.hold_lock();
  VRRPStatus::clear_states();
  EXPECT_EQ(record_.name_at(0), "ours");
  record_.release_lock();
  VRRPStatus::clear_states();
  EXPECT_EQ(record_.name_at(0), "");
}

// Verifies that the node's own floating address is found by its whole name.
TEST_F(VRRPStatusTest, dynamic_state) {
  EXPECT_FALSE(VRRPStatus::get_dynamic_floating_ip_state());
  record_.add("dynamic-2", master, 1);
  record_.add("dyn", master, 1);
  EXPECT_FALSE(VRRPStatus::get_dynamic_floating_ip_state());
  record_.add("dynamic", backup, 9);
  const auto found = VRRPStatus::get_dynamic_floating_ip_state();
  ASSERT_TRUE(found);
  EXPECT_EQ(found->role, VRRPRole::backup);
  EXPECT_EQ(found->state_changes, 9U);
}

// Verifies that without shared memory nothing is found and nothing opened.
TEST_F(VRRPStatusTest, switched_off) {
  record_.add("dynamic", master, 1);
  zol_utils::shared_mem_enabled = false;
  EXPECT_EQ(VRRPStatus::add_state("site-1"), VRRPStatus::no_slot);
  EXPECT_FALSE(VRRPStatus::get_state(0));
  EXPECT_FALSE(VRRPStatus::get_dynamic_floating_ip_state());
  EXPECT_TRUE(log_.contains(log_level::debug, "Shared memory disabled for: N9zol_utils13vrrp_status_tE"));
  EXPECT_FALSE(log_.contains("Open shared memory object"));
}

// Verifies that a record that another process sits on is reported with the function that wanted it.
TEST_F(VRRPStatusTest, locked) {
  record_.add("dynamic", master, 1);
  record_.hold_lock();
  EXPECT_EQ(VRRPStatus::add_state("site-1"), VRRPStatus::no_slot);
  EXPECT_FALSE(VRRPStatus::get_state(0));
  VRRPStatus::save_state_to_shm(0, VRRPRole::backup);
  EXPECT_FALSE(VRRPStatus::get_dynamic_floating_ip_state());
  EXPECT_EQ(record_.role_at(0), master);
  for (const char* caller : {"add_state", "get_state", "save_state_to_shm", "get_dynamic_floating_ip_state"})
    EXPECT_TRUE(log_.contains(log_level::error, std::string(caller) + ": Failed locking shared memory for "
                                                                      "N9zol_utils13vrrp_status_tE object"));
}

}  // namespace
