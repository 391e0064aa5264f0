#include "ha/ha_manager.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <memory>
#include <stdexcept>

#include "sup_logger.h"
#include "tests/unit/ha/failing_sem_post.h"
#include "tests/unit/ha/ha_manager_fixture.h"
#include "zol_helper.h"

namespace zol {
namespace {

using libvariant::Variant;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using zol_test::autonomous;
using zol_test::HAManagerTest;
using zol_test::write_text;
using zol_utils::VRRPRole;

constexpr unsigned master = 1;
constexpr unsigned backup = 2;

std::vector<std::string> keys_of(const Variant& map) {
  std::vector<std::string> keys;
  map.ForEach([&keys](std::string_view key, const Variant&) { keys.emplace_back(key); });
  return keys;
}

// --- reading the record

// Verifies that a new manager has read the record, and that the roles found count as seen.
TEST_F(HAManagerTest, FirstReading) {
  record_.add("site-1", master, 4);
  record_.add("dynamic", backup, 2);
  HAManager& manager = make();
  ASSERT_THAT(manager.states, SizeIs(2));
  const HAState& site = manager.states.at("site-1");
  EXPECT_EQ(site.name, "site-1");
  EXPECT_EQ(site.vrrp.role, VRRPRole::master);
  EXPECT_EQ(site.vrrp.state_changes, 4U);
  EXPECT_EQ(site.vrrp.shm_index, -1);
  EXPECT_EQ(site.last_role, master);
  EXPECT_EQ(manager.states.at("dynamic").vrrp.role, VRRPRole::backup);
  EXPECT_FALSE(manager.was_ha_state_changed());
  EXPECT_EQ(manager.shm, zol_utils::SharedObject<zol_utils::vrrp_status_t>::instance());
  EXPECT_EQ(record_.status().header.owner_pid, getpid());
}

// Verifies what a manager begins with, and that it wants every reload.
TEST_F(HAManagerTest, FreshManager) {
  HAManager& manager = make();
  EXPECT_THAT(manager.states, IsEmpty());
  EXPECT_TRUE(manager.is_running);
  EXPECT_FALSE(manager.clear_all);
  EXPECT_FALSE(manager.use_temp_state_files);
  EXPECT_FALSE(manager.clear_cache_timer.is_pending());
  bool enabled = false;
  EXPECT_TRUE(manager.need_reconf(enabled));
  EXPECT_FALSE(enabled);
}

// Verifies that the one of the process is always the same.
TEST_F(HAManagerTest, Instance) {
  HAManager* const manager = HAManager::instance();
  EXPECT_EQ(HAManager::instance(), manager);
  configure("General2: {};");
  config_.set("General: { zol_id = \"n\"; use_temp_vrrp_instances = true; };");
  EXPECT_EQ(HAManager::instance(false)->use_temp_state_files, false);
  EXPECT_EQ(HAManager::instance(true)->use_temp_state_files, true);
}

// Verifies that each reading takes what has changed and what is new, and keeps what was remembered.
TEST_F(HAManagerTest, LaterReading) {
  record_.add("site-1", master, 4);
  HAManager& manager = make();
  record_.at(0).role = VRRPRole::backup;
  record_.at(0).state_changes = 5;
  record_.add("site-2", master, 1);
  manager.load_states(true);
  EXPECT_EQ(manager.states.at("site-1").vrrp.role, VRRPRole::backup);
  EXPECT_EQ(manager.states.at("site-1").vrrp.state_changes, 5U);
  EXPECT_EQ(manager.states.at("site-1").last_role, master);
  EXPECT_EQ(manager.states.at("site-2").last_role, master) << "its first role is no change";
  manager.load_states(false);
  EXPECT_EQ(manager.states.at("site-1").last_role, backup);
}

// Verifies that free slots, any count and unterminated names are read as far as they make sense.
TEST_F(HAManagerTest, StrangeRecord) {
  record_.add("", master, 1);
  record_.add(std::string(64, 'n'), 77, 1);
  record_.status().count = 0xffffffff;
  HAManager& manager = make();
  ASSERT_THAT(manager.states, SizeIs(1));
  EXPECT_FALSE(manager.states.at(std::string(64, 'n')).is_master());
}

// Verifies that a record that another process sits on leaves the states as they are.
TEST_F(HAManagerTest, LockedRecord) {
  record_.add("site-1", master, 4);
  HAManager& manager = make();
  record_.at(0).role = VRRPRole::backup;
  record_.hold_lock();
  manager.load_states(true);
  EXPECT_TRUE(manager.states.at("site-1").is_master());
  EXPECT_TRUE(log_.contains(
      log_level::error, "load_states: Failed locking shared memory for N9zol_utils13vrrp_status_tE object"));
}

// Verifies that without shared memory there are no states.
TEST_F(HAManagerTest, SharedMemorySwitchedOff) {
  record_.add("site-1", master, 4);
  zol_utils::shared_mem_enabled = false;
  HAManager& manager = make();
  EXPECT_THAT(manager.states, IsEmpty());
  EXPECT_EQ(manager.shm, nullptr);
  EXPECT_TRUE(log_.contains(log_level::debug, "Shared memory disabled for: N9zol_utils13vrrp_status_tE"));
}

class HAManagerWithoutRecord : public zol_test::LoopTest {
 protected:
  zol_test::ScopedConfig config_{"General: { zol_id = \"n\"; };"};
  zol_test::VrrpRecord record_{false};
  zol_test::LogCapture log_;
};

// Verifies that a record that comes late is found then.
TEST_F(HAManagerWithoutRecord, RecordThatComesLate) {
  HAManager manager;
  EXPECT_THAT(manager.states, IsEmpty());
  EXPECT_EQ(manager.shm, nullptr);
  EXPECT_TRUE(log_.contains(log_level::error, "FATAL: Failed to open SharedObject shm"));
  EXPECT_TRUE(log_.contains(log_level::debug, "Shared memory disabled for: N9zol_utils13vrrp_status_tE"));
  record_.create();
  record_.add("site-1", master, 1);
  manager.load_states(true);
  EXPECT_TRUE(manager.is_master("site-1"));
}

// Verifies that a lock that can't be given up is fatal.
TEST_F(HAManagerTest, LockThatCannotBeGivenUp) {
  HAManager& manager = make();
  const zol_test::FailingSemPost failing;
  EXPECT_THROW(manager.load_states(true), std::runtime_error);
  EXPECT_TRUE(log_.contains(log_level::fatal, "Shared memory out of sync"));
}

// --- the report

// Verifies the block of the node's own floating address, active and standby.
TEST_F(HAManagerTest, ReportOfTheDynamicAddress) {
  configure(hop(autonomous));
  record_.add("dynamic", master, 3);
  HAManager& manager = make();
  auto [dynamic, sites] = manager.get_ha_report();
  EXPECT_THAT(keys_of(dynamic), UnorderedElementsAre("ip", "state", "state_changes_amount"));
  EXPECT_EQ(dynamic.At("ip").AsString(), "203.0.113.1");
  EXPECT_EQ(dynamic.At("state").AsString(), "active");
  EXPECT_EQ(dynamic.At("state_changes_amount").AsUnsigned(), 3U);
  EXPECT_TRUE(sites.Empty());
  for (const unsigned role : {backup, 0U, 5U}) {
    record_.at(0).role = static_cast<VRRPRole>(role);
    EXPECT_EQ(manager.get_ha_report().first.At("state").AsString(), "standby") << role;
  }
}

// Verifies the block of the sites: a list in the order of their names, without the floating address.
TEST_F(HAManagerTest, ReportOfSites) {
  record_.add("site-2", master, 4);
  record_.add("site-1", backup, 0xffffffff);
  record_.add("a-site", 0, 0);
  auto [dynamic, sites] = make().get_ha_report();
  EXPECT_TRUE(dynamic.Empty());
  EXPECT_THAT(keys_of(sites), ElementsAre("tunnels"));
  const auto& tunnels = sites.At("tunnels").AsList();
  ASSERT_THAT(tunnels, SizeIs(3));
  EXPECT_THAT(keys_of(tunnels[0]), UnorderedElementsAre("site_id", "active_tunnel", "state_changes_amount"));
  EXPECT_EQ(tunnels[0].At("site_id").AsString(), "a-site");
  EXPECT_EQ(tunnels[0].At("active_tunnel").kind(), Variant::Kind::Bool);
  EXPECT_FALSE(tunnels[0].At("active_tunnel").AsBool());
  EXPECT_EQ(tunnels[1].At("site_id").AsString(), "site-1");
  EXPECT_FALSE(tunnels[1].At("active_tunnel").AsBool());
  EXPECT_EQ(tunnels[1].At("state_changes_amount").AsUnsigned(), 0xffffffffU);
  EXPECT_EQ(tunnels[2].At("site_id").AsString(), "site-2");
  EXPECT_TRUE(tunnels[2].At("active_tunnel").AsBool());
}

// Verifies that a report shows what the record says then, and both blocks are empty without instances.
TEST_F(HAManagerTest, ReportIsFresh) {
  HAManager& manager = make();
  auto [dynamic, sites] = manager.get_ha_report();
  EXPECT_TRUE(dynamic.Empty());
  EXPECT_TRUE(sites.Empty());
  record_.add("dynamic", master, 1);
  record_.add("site-1", master, 1);
  EXPECT_FALSE(manager.get_ha_report().first.Empty());
  EXPECT_FALSE(manager.get_ha_report().second.Empty());
}

// Verifies the list of all instances.
TEST_F(HAManagerTest, Info) {
  configure(hop(autonomous));
  HAManager& manager = make();
  EXPECT_TRUE(manager.get_ha_info().IsList());
  EXPECT_TRUE(manager.get_ha_info().Empty());
  record_.add("dynamic", master, 3);
  record_.add("site-1", backup, 1);
  const Variant info = manager.get_ha_info();
  ASSERT_THAT(info.AsList(), SizeIs(2));
  const Variant& dynamic = info.AsList()[0];
  EXPECT_THAT(keys_of(dynamic), UnorderedElementsAre("ip", "state", "state_changes_amount"));
  EXPECT_EQ(dynamic.At("ip").AsString(), "203.0.113.1");
  EXPECT_EQ(dynamic.At("state").AsString(), "active");
  const Variant& site = info.AsList()[1];
  EXPECT_THAT(keys_of(site), UnorderedElementsAre("site_id", "state", "state_changes_amount"));
  EXPECT_EQ(site.At("site_id").AsString(), "site-1");
  EXPECT_EQ(site.At("state").AsString(), "standby");
  EXPECT_EQ(site.At("state_changes_amount").AsUnsigned(), 1U);
}

// Verifies that the node holds the floating address when the instance "dynamic" is master, and only then.
TEST_F(HAManagerTest, DynamicFloatingIp) {
  EXPECT_FALSE(HAManager::has_dynamic_floating_ip());
  record_.add("site-1", master, 1);
  EXPECT_FALSE(HAManager::has_dynamic_floating_ip());
  record_.add("dynamic", backup, 1);
  EXPECT_FALSE(HAManager::has_dynamic_floating_ip());
  record_.at(1).role = VRRPRole::master;
  EXPECT_TRUE(HAManager::has_dynamic_floating_ip());
  record_.at(1).role = VRRPRole::unknown;
  EXPECT_FALSE(HAManager::has_dynamic_floating_ip());
}

// Verifies that the address through which traffic goes out is the floating one while the node is master.
TEST_F(HAManagerTest, OutgoingAddress) {
  record_.add("dynamic", backup, 1);
  configure(hop(autonomous));
  EXPECT_EQ(networks_.get_traffic_out_external_ip(), zol_test::wan_address);
  record_.at(0).role = VRRPRole::master;
  configure(hop(autonomous));
  EXPECT_EQ(networks_.get_traffic_out_external_ip(), "203.0.113.1");
  EXPECT_EQ(networks_.get_traffic_out_internal_ip(), "203.0.113.1");
}

// --- questions and messages

// Verifies that a role message reaches the instance of that name.
TEST_F(HAManagerTest, RoleMessage) {
  HAManager& manager = make();
  HAState& state = add_state("site-1");
  EXPECT_TRUE(manager.process_vrrp_role_msg("site-1", 1, state.load_time_us));
  EXPECT_TRUE(state.is_master());
  EXPECT_EQ(record_.role_at(0), master);
  EXPECT_FALSE(manager.process_vrrp_role_msg("site-1", 2, state.load_time_us - 1));
  EXPECT_TRUE(state.is_master());
  EXPECT_FALSE(manager.process_vrrp_role_msg("site-2", 1, state.load_time_us));
  EXPECT_TRUE(log_.contains(log_level::error, "No state exists for site site-2"));
}

// Verifies that unknown roles are found out in the files of the setting.
TEST_F(HAManagerTest, ReloadVrrpState) {
  HAManager& manager = make();
  HAState& first = add_state("site-1");
  HAState& second = add_state("site-2");
  write_text("/tmp/vrrp_state_site-1", "MASTER");
  write_text("/tmp/vrrp_state_site-2", "BACKUP");
  write_text("/tmp/vrrp_state_site-2_temp", "MASTER");
  manager.use_temp_state_files = true;
  manager.reload_vrrp_state();
  EXPECT_FALSE(first.is_master());
  EXPECT_TRUE(second.is_master());
}

// Verifies that the addresses of every instance are handled.
TEST_F(HAManagerTest, HandleAliasIps) {
  HAManager& manager = make();
  add_state("site-1").floating_ips = {"203.0.113.1"};
  add_state("site-2").floating_ips = {"203.0.113.2"};
  manager.handle_alias_ips(true);
  EXPECT_TRUE(log_.contains("ip addr del 203.0.113.1/32 dev eth0 ||:; "));
  EXPECT_TRUE(log_.contains("ip addr del 203.0.113.2/32 dev eth0 ||:; "));
}

// Verifies who is master, and what is said when there is no instance.
TEST_F(HAManagerTest, IsMaster) {
  HAManager& manager = make();
  EXPECT_FALSE(manager.is_master());
  EXPECT_FALSE(manager.is_new_master());
  EXPECT_EQ(log_.count("No HA state exists"), 2);
  EXPECT_FALSE(manager.is_master("site-1"));
  EXPECT_TRUE(log_.contains("Site site-1 is not part of a cluster"));
  add_state("site-1");
  HAState& second = add_state("site-2");
  EXPECT_FALSE(manager.is_master());
  second.vrrp.set_master();
  EXPECT_TRUE(manager.is_master());
  EXPECT_FALSE(manager.is_master("site-1"));
  EXPECT_TRUE(manager.is_master("site-2"));
  EXPECT_EQ(log_.count("No HA state exists"), 2);
}

// Verifies that a node is a new master for five seconds after one of its instances has become it.
TEST_F(HAManagerTest, IsNewMaster) {
  HAManager& manager = make();
  add_state("site-1");
  HAState& second = add_state("site-2");
  EXPECT_FALSE(manager.is_new_master());
  second.vrrp.set_master();
  EXPECT_TRUE(manager.is_new_master());
  second.new_master_since_ms -= 5000;
  EXPECT_FALSE(manager.is_new_master());
  second.vrrp.set_backup();
  EXPECT_FALSE(manager.is_new_master());
  EXPECT_EQ(second.new_master_since_ms, 0U);
}

// Verifies that a change of any role is seen once, also one that only the record tells of.
TEST_F(HAManagerTest, WasHaStateChanged) {
  record_.add("site-1", master, 1);
  record_.add("site-2", master, 1);
  HAManager& manager = make();
  EXPECT_FALSE(manager.was_ha_state_changed());
  record_.at(1).role = VRRPRole::backup;
  EXPECT_TRUE(manager.was_ha_state_changed());
  EXPECT_FALSE(manager.was_ha_state_changed());
}

}  // namespace
}  // namespace zol
