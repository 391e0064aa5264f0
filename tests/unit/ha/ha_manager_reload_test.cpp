// What a reload of the configuration does to the pair's roles.
#include <gmock/gmock.h>

#include "ha/ha_manager.h"
#include "sup_logger.h"
#include "tests/unit/ha/ha_manager_fixture.h"

namespace zol {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using zol_test::autonomous;
using zol_utils::VRRPRole;

constexpr unsigned master = 1;
constexpr unsigned backup = 2;

using HAManagerReloadTest = zol_test::HAManagerTest;

// Verifies that a reload takes the setting of the state files, which is off without its key.
TEST_F(HAManagerReloadTest, ReloadTakesTheSetting) {
  HAManager& manager = make();
  config_.set("General: { zol_id = \"n\"; use_temp_vrrp_instances = true; };");
  manager.reconfigure();
  EXPECT_TRUE(manager.use_temp_state_files);
  config_.set("General: { zol_id = \"n\"; };");
  manager.reconfigure();
  EXPECT_FALSE(manager.use_temp_state_files);
}

// Verifies that a node whose floating address moves enters its instance, with its addresses and neighbours.
TEST_F(HAManagerReloadTest, ReloadMakesTheDynamicInstance) {
  configure(zol_test::one_interface(zol_test::wan_address) + R"(HopData: { hops = (
    { hop_id = "a"; ha_mode = "autonomous"; floating_ips = ( "203.0.113.1" ); communication_groups = ( "g" ); },
    { hop_id = "b"; zol_ips = ( "192.0.2.7", "198.51.100.7" ); communication_groups = ( "g" ); } );
    clusters = ( { internal_site_id = "s"; virtual_router_id = 5; hops = (
      { hop_id = "a"; priority = 1; }, { hop_id = "b"; priority = 2; } ); } ); };)");
  HAManager& manager = make();
  manager.reconfigure();
  EXPECT_TRUE(log_.contains(log_level::info, "read_conf: Autonomous floating ip is found"));
  EXPECT_TRUE(log_.contains(log_level::info, "create_state: Creating new state for Autonomous floating ip"));
  EXPECT_TRUE(log_.contains(log_level::info, "read_conf: Adding 1 floating ips and 2 neighbor groups"));
  ASSERT_THAT(manager.states, SizeIs(1));
  const HAState& state = manager.states.at("dynamic");
  EXPECT_THAT(state.floating_ips, ElementsAre(zol_test::wan_address)) << "those that the machine has";
  EXPECT_THAT(state.neighbor_groups.at("eth1").neighbors, ElementsAre("198.51.100.7"));
  EXPECT_EQ(state.vrrp.shm_index, 0);
  EXPECT_EQ(record_.name_at(0), "dynamic");
}

// Verifies that an instance of another mode has the configured floating addresses, and what is logged of it.
TEST_F(HAManagerReloadTest, StateOfASite) {
  configure(hop(R"(ha_mode = "managed"; floating_ips = ( "203.0.113.1", "203.0.113.2" );)"));
  HAManager& manager = make();
  std::map<std::string, HAState> made;
  manager.create_state(made, "site-1", 4);
  EXPECT_TRUE(log_.contains(log_level::info, "create_state: Creating new state for Site site-1"));
  EXPECT_TRUE(log_.contains(log_level::info, "read_conf: Adding 2 floating ips and 0 neighbor groups"));
  EXPECT_THAT(made.at("site-1").floating_ips, ElementsAre("203.0.113.1", "203.0.113.2"));
  EXPECT_THAT(manager.states, IsEmpty());
}

// Verifies that a node without such an address makes no instance, and that the sites' stay in the record and
// are read again.
TEST_F(HAManagerReloadTest, ReloadWithoutDynamicInstance) {
  configure(hop(R"(ha_mode = "managed"; floating_ips = ( "203.0.113.1" );)"));
  record_.add("site-1", master, 4);
  HAManager& manager = make();
  manager.reconfigure();
  EXPECT_THAT(manager.states, IsEmpty());
  EXPECT_FALSE(log_.contains("Creating new state"));
  EXPECT_EQ(manager.get_ha_report().second.At("tunnels").AsList().size(), 1U);
  EXPECT_TRUE(manager.is_master("site-1"));
}

// Verifies that a reload loses neither role nor count nor slot, whoever has written them.
TEST_F(HAManagerReloadTest, ReloadKeepsTheRole) {
  configure(hop(autonomous));
  record_.add("site-1", backup, 1);
  record_.add("dynamic", master, 7);
  HAManager& manager = make();
  for (int i = 0; i < 3; ++i) {
    manager.reconfigure();
    const HAState& state = manager.states.at("dynamic");
    EXPECT_TRUE(state.is_master());
    EXPECT_EQ(state.vrrp.state_changes, 7U);
    EXPECT_EQ(state.vrrp.shm_index, 1);
    EXPECT_EQ(record_.name_at(1), "dynamic");
    EXPECT_EQ(record_.role_at(1), master);
    EXPECT_EQ(record_.at(1).state_changes, 7U);
    manager.load_states(true);
    EXPECT_EQ(state.vrrp.shm_index, 1) << "the state keeps its slot";
  }
}

// Verifies that a reload takes the role that the record has then.
TEST_F(HAManagerReloadTest, ReloadSyncsTheRole) {
  configure(hop(autonomous));
  HAManager& manager = make();
  manager.reconfigure();
  record_.at(0).role = VRRPRole::master;
  record_.at(0).state_changes = 1;
  manager.reconfigure();
  EXPECT_TRUE(manager.states.at("dynamic").is_master());
  EXPECT_EQ(manager.states.at("dynamic").vrrp.state_changes, 1U);
}

// Verifies that an instance that has left the configuration leaves the record.
TEST_F(HAManagerReloadTest, ReloadDropsTheDynamicInstance) {
  configure(hop(autonomous));
  record_.add("site-1", master, 1);
  HAManager& manager = make();
  manager.reconfigure();
  EXPECT_EQ(record_.name_at(1), "dynamic");
  configure(hop(R"(ha_mode = "managed";)"));
  manager.reconfigure();
  EXPECT_EQ(record_.name_at(0), "site-1");
  EXPECT_EQ(record_.name_at(1), "");
  EXPECT_TRUE(manager.get_ha_report().first.Empty());
}

// Verifies that the manager hears of a reload, behind those who registered before, and no longer after its
// end.
TEST_F(HAManagerReloadTest, ReloadOfTheConfiguration) {
  config_.configurator().register_reconfiguration_cb(&networks_);
  HAManager& manager = make();
  config_.write_file("General: { zol_id = \"" + node_.id() +
                     "\"; hop_id = \"a\"; use_temp_vrrp_instances = true; };\n" + hop(autonomous));
  config_.configurator().reload_configuration("", 0);
  EXPECT_TRUE(manager.use_temp_state_files);
  EXPECT_TRUE(manager.states.contains("dynamic"));
  EXPECT_FALSE(manager.is_running);
  manager_.reset();
  log_.clear();
  config_.configurator().reload_configuration("", 0);
  config_.configurator().unregister_reconfiguration_cb(&networks_);
  EXPECT_FALSE(log_.contains("Creating new state"));
}

// Verifies that a change before a reload, or before two in a row, is seen behind them, of the sites and of
// the floating address.
TEST_F(HAManagerReloadTest, ChangeBeforeAReload) {
  configure(hop(autonomous));
  record_.add("dynamic", master, 1);
  record_.add("site-1", master, 1);
  HAManager& manager = make();
  manager.reconfigure();
  EXPECT_FALSE(manager.was_ha_state_changed());
  for (std::size_t slot : {0, 1}) {
    for (const int reloads : {1, 2}) {
      VRRPRole& role = record_.at(slot).role;
      role = role == VRRPRole::master ? VRRPRole::backup : VRRPRole::master;
      for (int i = 0; i < reloads; ++i)
        manager.reconfigure();
      EXPECT_TRUE(manager.was_ha_state_changed()) << slot << ' ' << reloads;
      manager.reconfigure();
      EXPECT_FALSE(manager.was_ha_state_changed()) << slot << ' ' << reloads;
    }
  }
}

}  // namespace
}  // namespace zol
