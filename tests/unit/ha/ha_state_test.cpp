#include "ha/ha_state.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "sup_logger.h"
#include "tests/unit/ha/ha_fixture.h"
#include "zol_helper.h"

namespace zol {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using zol_test::output_of;
using zol_test::read_text;
using zol_test::write_text;
using zol_utils::VRRPRole;

constexpr const char* file = "/tmp/vrrp_state_site-1";
constexpr const char* old_file = "/tmp/vrrp_state";

class HAStateTest : public zol_test::HaTest {
 protected:
  void add_address(const std::string& address, const std::string& label = "eth0") {
    ASSERT_EQ(system(("ip addr add " + address + " dev eth0 label " + label).c_str()), 0);
  }
  static std::string on_eth0() { return output_of("ip -4 addr show dev eth0"); }

  HAState state_{"site-1", VRRPState("site-1")};
};

// --- the state files

// Verifies that a file with the word anywhere in it makes the node master, and any other backup.
TEST_F(HAStateTest, StateFile) {
  const std::pair<std::string, VRRPRole> cases[] = {{"MASTER", VRRPRole::master},
                                                    {"state=MASTER since 8:00\n", VRRPRole::master},
                                                    {"BACKUP", VRRPRole::backup},
                                                    {"FAULT\n", VRRPRole::backup},
                                                    {"", VRRPRole::backup},
                                                    {"master", VRRPRole::backup},
                                                    {std::string("\0\xff MASTER", 9), VRRPRole::master}};
  for (const auto& [content, role] : cases) {
    write_text(file, content);
    HAState state("site-1", VRRPState(VRRPRole::unknown, 0));
    EXPECT_TRUE(state.read_state_file(false));
    EXPECT_EQ(state.vrrp.role, role) << content;
  }
  EXPECT_TRUE(
      log_.contains(log_level::info, "read_state_file: Read MASTER from file, setting state to master"));
  EXPECT_TRUE(
      log_.contains(log_level::info, "read_state_file: Read BACKUP from file, setting state to backup"));
  EXPECT_TRUE(log_.contains("Read FAULT from file, setting state to backup")) << log_.all();
}

// Verifies that a long or strange text is one line of the log.
TEST_F(HAStateTest, StateFileInTheLog) {
  write_text(file, "one\ntwo\x1b" + std::string(100'000, 'x') + "MASTER");
  EXPECT_TRUE(state_.read_state_file(false));
  EXPECT_EQ(state_.vrrp.role, VRRPRole::master);
  EXPECT_TRUE(log_.contains("Read one?two?xxx"));
  for (const auto& record : log_.records())
    EXPECT_LT(record.text.size(), 300U);
}

// Verifies that instances of a trial have files of their own.
TEST_F(HAStateTest, TemporaryStateFile) {
  write_text(file, "BACKUP");
  write_text("/tmp/vrrp_state_site-1_temp", "MASTER");
  EXPECT_TRUE(state_.read_state_file(true));
  EXPECT_EQ(state_.vrrp.role, VRRPRole::master);
}

// Verifies that without any file there is no role, and both are told.
TEST_F(HAStateTest, NoStateFile) {
  EXPECT_FALSE(state_.read_state_file(false));
  EXPECT_EQ(state_.vrrp.role, VRRPRole::unknown);
  EXPECT_TRUE(log_.contains(log_level::warning,
                            "read_state_file: Could not get VRRP state from file /tmp/vrrp_state_site-1"));
  EXPECT_EQ(log_.records().back().text,
            "read_state_file: Could not get VRRP state from file /tmp/vrrp_state");
}

// Verifies that a folder and a pipe in the file's place count as none.
TEST_F(HAStateTest, NoRegularFile) {
  std::filesystem::create_directory(file);
  ASSERT_EQ(mkfifo(old_file, S_IRWXU), 0);
  EXPECT_FALSE(state_.read_state_file(false));
  EXPECT_EQ(log_.count("Could not get VRRP state from file"), 2);
}

// Verifies that the file of former versions gives the role and gets the new name, once.
TEST_F(HAStateTest, OldStateFile) {
  write_text(old_file, "MASTER");
  EXPECT_TRUE(state_.read_state_file(false));
  EXPECT_EQ(state_.vrrp.role, VRRPRole::master);
  EXPECT_TRUE(log_.contains(log_level::info,
                            "read_state_file: Found deprecated file /tmp/vrrp_state, changing its name"));
  EXPECT_TRUE(log_.contains("read_state_file: Read MASTER from file, setting state to master"));
  EXPECT_NE(access(old_file, F_OK), 0);
  EXPECT_EQ(read_text(file), "MASTER");
  log_.clear();
  EXPECT_TRUE(state_.read_state_file(false));
  EXPECT_FALSE(log_.contains("deprecated"));
}

// Verifies that with both files the one with the name counts and the old one stays.
TEST_F(HAStateTest, BothStateFiles) {
  write_text(file, "BACKUP");
  write_text(old_file, "MASTER");
  EXPECT_TRUE(state_.read_state_file(false));
  EXPECT_EQ(state_.vrrp.role, VRRPRole::backup);
  EXPECT_EQ(read_text(old_file), "MASTER");
}

// Verifies that an old file that can't get the new name gives its role all the same.
TEST_F(HAStateTest, OldStateFileThatStays) {
  HAState state("no/such", VRRPState(VRRPRole::unknown, 0));
  write_text(old_file, "MASTER");
  EXPECT_TRUE(state.read_state_file(false));
  EXPECT_EQ(state.vrrp.role, VRRPRole::master);
  EXPECT_TRUE(log_.contains(log_level::error, "can't get the name /tmp/vrrp_state_no/such"));
}

// --- an unknown role

// Verifies that a known role isn't looked for.
TEST_F(HAStateTest, KnownRole) {
  state_.vrrp.set_backup();
  write_text(file, "MASTER");
  EXPECT_TRUE(state_.reload_vrrp_state(false));
  EXPECT_EQ(state_.vrrp.role, VRRPRole::backup);
  EXPECT_FALSE(log_.contains("VRRP state is unknown"));
}

// Verifies that the file comes first.
TEST_F(HAStateTest, UnknownRoleWithFile) {
  add_address("203.0.113.1/32", "eth0:vrrp_0");
  state_.floating_ips = {"203.0.113.1"};
  write_text(file, "BACKUP");
  EXPECT_TRUE(state_.reload_vrrp_state(false));
  EXPECT_EQ(state_.vrrp.role, VRRPRole::backup);
  EXPECT_TRUE(log_.contains(log_level::info, "VRRP state is unknown, trying to read from file"));
}

// Verifies that without a file a floating address on the machine tells of a master.
TEST_F(HAStateTest, UnknownRoleWithAddress) {
  add_address("203.0.113.1/32", "eth0:vrrp_0");
  state_.floating_ips = {"203.0.113.1"};
  EXPECT_TRUE(state_.reload_vrrp_state(false));
  EXPECT_EQ(state_.vrrp.role, VRRPRole::master);
  EXPECT_TRUE(log_.contains(log_level::info,
                            "VRRP state was unknown but found floating ip assigned, assuming master"));
}

// Verifies that a node that doesn't have its floating address is backup, and that this is a guess.
TEST_F(HAStateTest, UnknownRoleWithoutAddress) {
  state_.floating_ips = {"203.0.113.1"};
  EXPECT_FALSE(state_.reload_vrrp_state(false));
  EXPECT_EQ(state_.vrrp.role, VRRPRole::backup);
  EXPECT_FALSE(log_.contains("assuming master"));
  EXPECT_FALSE(log_.contains("couldn't read state from file"));
}

// Verifies that without floating addresses those of the machine aren't looked at.
TEST_F(HAStateTest, UnknownRoleWithoutFloatingAddresses) {
  add_address("203.0.113.1/32", "eth0:vrrp_0");
  EXPECT_FALSE(state_.reload_vrrp_state(false));
  EXPECT_EQ(state_.vrrp.role, VRRPRole::backup);
  EXPECT_TRUE(log_.contains(log_level::info, "VRRP state was unknown, and we couldn't read state from file"));
}

// --- role messages

// Verifies that a message from the moment of the set-up or later is taken.
TEST_F(HAStateTest, RoleMessage) {
  EXPECT_TRUE(state_.process_vrrp_role_msg(1, state_.load_time_us));
  EXPECT_TRUE(state_.is_master());
  EXPECT_TRUE(log_.contains(log_level::debug, "process_vrrp_role_msg: VRRP role MASTER reported"));
  EXPECT_TRUE(state_.process_vrrp_role_msg(2, state_.load_time_us + 1));
  EXPECT_FALSE(state_.is_master());
  EXPECT_FALSE(state_.process_vrrp_role_msg(7, state_.load_time_us + 1));
  EXPECT_TRUE(log_.contains("VRRP role UKNOWN reported"));
  EXPECT_TRUE(log_.contains(log_level::error, "Got unexpected role 7"));
}

// Verifies that an older message changes nothing, and that its age is counted against the set-up.
TEST_F(HAStateTest, OldRoleMessage) {
  EXPECT_FALSE(state_.process_vrrp_role_msg(1, state_.load_time_us - 1500));
  EXPECT_EQ(state_.vrrp.role, VRRPRole::unknown);
  EXPECT_TRUE(log_.contains(log_level::debug,
                            "process_vrrp_role_msg: Ignoring old VRRP role MASTER. (old by 1.5 ms)"));
}

// Verifies that the set-up is told in microseconds of the wall clock.
TEST_F(HAStateTest, LoadTime) {
  const std::uint64_t before = Helper::get_timestamp_ms();
  const HAState state("site-2", VRRPState(VRRPRole::master, 4));
  EXPECT_GE(state.load_time_us, before * 1000);
  EXPECT_LE(state.load_time_us, (Helper::get_timestamp_ms() + 1) * 1000);
  EXPECT_EQ(state.last_role, 1);
  EXPECT_EQ(state.name, "site-2");
}

// --- the addresses

// Verifies that neighbours are grouped by the device that leads to them, with this node's address there.
TEST_F(HAStateTest, Neighbors) {
  state_.build_neighbors({"192.0.2.7", "192.0.2.9", "198.51.100.8", "8.8.8.8"});
  ASSERT_THAT(state_.neighbor_groups, testing::SizeIs(2));
  const vrrp_neighbor_group_t& first = state_.neighbor_groups.at("eth0");
  EXPECT_EQ(first.interface, "eth0");
  EXPECT_EQ(first.internal_ip, "192.0.2.1");
  EXPECT_THAT(first.neighbors, ElementsAre("192.0.2.7", "192.0.2.9", "8.8.8.8"));
  const vrrp_neighbor_group_t& second = state_.neighbor_groups.at("eth1");
  EXPECT_EQ(second.internal_ip, "198.51.100.1");
  EXPECT_THAT(second.neighbors, ElementsAre("198.51.100.8"));
}

// Verifies that a neighbour without a route, or that is no address, is in no group and told.
TEST_F(HAStateTest, NeighborWithoutRoute) {
  ASSERT_EQ(system("ip route del default"), 0);
  state_.build_neighbors({"203.0.113.77", "nobody"});
  EXPECT_THAT(state_.neighbor_groups, IsEmpty());
  EXPECT_TRUE(log_.contains(log_level::warning, "build_neighbors: No route to 203.0.113.77"));
  EXPECT_TRUE(log_.contains(log_level::warning, "build_neighbors: No route to nobody"));
}

// Verifies that in a cluster the floating addresses go, whatever their label, and nothing is added.
TEST_F(HAStateTest, AliasesOfACluster) {
  configure(zol_test::one_interface("192.0.2.33"));
  add_address("203.0.113.1/32", "eth0:0");
  add_address("203.0.113.2/32", "eth0:vrrp_1");
  state_.floating_ips = {"203.0.113.1", "203.0.113.2"};
  state_.handle_alias_ips(true);
  EXPECT_THAT(on_eth0(), Not(HasSubstr("203.0.113.")));
  EXPECT_THAT(on_eth0(), HasSubstr("192.0.2.1/24"));
  EXPECT_THAT(on_eth0(), Not(HasSubstr("192.0.2.33")));
  EXPECT_TRUE(log_.contains(log_level::info,
                            "handle_alias_ips: Executed commands:\n"
                            "ip addr del 203.0.113.1/32 dev eth0 ||:; "
                            "ip addr del 203.0.113.2/32 dev eth0 ||:; "))
      << log_.all();
}

// Verifies that without a cluster only addresses with the label of the pair go, and configured addresses that
// the machine lacks are put on the device.
TEST_F(HAStateTest, AliasesWithoutACluster) {
  configure(
      "Networking: { interfaces = ( "
      "{ interface = \"192.0.2.1\"; external_ip = \"192.0.2.1\"; is_private = false; }, "
      "{ interface = \"192.0.2.33\"; external_ip = \"192.0.2.33\"; is_private = false; }, "
      "{ interface = \"10.0.0.1\"; external_ip = \"10.0.0.1\"; is_private = true; }, "
      "{ interface = \"192.0.2.44\"; external_ip = \"192.0.2.44\"; is_private = false; } ); };");
  add_address("203.0.113.1/32", "eth0:vrrp_0");
  add_address("203.0.113.2/32", "eth0:vrrp_7");
  state_.floating_ips = {"203.0.113.1", "203.0.113.2"};
  state_.handle_alias_ips(false);
  EXPECT_TRUE(log_.contains(log_level::info,
                            "handle_alias_ips: Executed commands:\n"
                            "ip addr del 203.0.113.1/32 dev eth0 label eth0:vrrp_0 ||:; "
                            "ip addr del 203.0.113.2/32 dev eth0 label eth0:vrrp_1 ||:; "
                            "ip addr add 192.0.2.33 dev eth0 label eth0:0\n"
                            "ip addr add 192.0.2.44 dev eth0 label eth0:1\n"))
      << log_.all();
  EXPECT_THAT(on_eth0(), Not(HasSubstr("203.0.113.1/")));
  EXPECT_THAT(on_eth0(), HasSubstr("203.0.113.2/")) << "it bears another label";
  EXPECT_THAT(on_eth0(), HasSubstr("192.0.2.33/32 scope global eth0:0"));
  EXPECT_THAT(on_eth0(), HasSubstr("192.0.2.44/32 scope global eth0:1"));
  EXPECT_THAT(on_eth0(), Not(HasSubstr("10.0.0.1")));
}

// Verifies that without floating addresses only the configured ones are put on.
TEST_F(HAStateTest, AliasesWithoutFloatingAddresses) {
  configure(zol_test::one_interface("192.0.2.33"));
  state_.handle_alias_ips(false);
  EXPECT_TRUE(
      log_.contains("handle_alias_ips: Executed commands:\nip addr add 192.0.2.33 dev eth0 label eth0:0\n"));
  EXPECT_THAT(on_eth0(), HasSubstr("192.0.2.33/32"));
}

// Verifies that a text that is no address never reaches the shell, and the others do.
TEST_F(HAStateTest, AliasThatIsNoAddress) {
  configure(zol_test::one_interface("$(touch /tmp/interface)"));
  add_address("203.0.113.1/32", "eth0:0");
  state_.floating_ips = {"203.0.113.1", "; touch /tmp/floating;", "203.0.113.256"};
  state_.handle_alias_ips(false);
  state_.handle_alias_ips(true);
  EXPECT_NE(access("/tmp/floating", F_OK), 0);
  EXPECT_NE(access("/tmp/interface", F_OK), 0);
  EXPECT_TRUE(log_.contains(log_level::error, "handle_alias_ips: not an address: '; touch /tmp/floating;'"));
  EXPECT_TRUE(log_.contains(log_level::error, "handle_alias_ips: not an address: '203.0.113.256'"));
  EXPECT_TRUE(log_.contains(log_level::error, "handle_alias_ips: not an address: '$(touch /tmp/interface)'"));
  EXPECT_THAT(on_eth0(), Not(HasSubstr("203.0.113.1")));
}

// Verifies that without a default route there is no device, and nothing is run.
TEST_F(HAStateTest, AliasesWithoutDefaultRoute) {
  ASSERT_EQ(system("ip route del default"), 0);
  state_.floating_ips = {"203.0.113.1"};
  state_.handle_alias_ips(false);
  EXPECT_TRUE(log_.contains(log_level::error, "handle_alias_ips: No device for the addresses"));
  EXPECT_FALSE(log_.contains("Executed commands"));
}

// --- what a state remembers

// Verifies that a node counts as a new master for five seconds from the first look, and again after a loss.
TEST_F(HAStateTest, NewMaster) {
  state_.update_new_master(true);
  EXPECT_TRUE(state_.new_master);
  const std::uint64_t since = state_.new_master_since_ms;
  EXPECT_NEAR(static_cast<double>(since), static_cast<double>(Helper::get_timestamp_ms()), 60'000);
  state_.update_new_master(true);
  EXPECT_EQ(state_.new_master_since_ms, since);
  state_.new_master_since_ms = Helper::get_timestamp_ms() - 5000;
  state_.update_new_master(true);
  EXPECT_FALSE(state_.new_master);
  EXPECT_NE(state_.new_master_since_ms, 0U);
  state_.update_new_master(false);
  EXPECT_EQ(state_.new_master_since_ms, 0U);
  EXPECT_FALSE(state_.new_master);
  state_.update_new_master(true);
  EXPECT_TRUE(state_.new_master);
}

// Verifies that each change of role is seen once.
TEST_F(HAStateTest, WasChanged) {
  EXPECT_FALSE(state_.was_changed());
  state_.vrrp.set_master();
  EXPECT_TRUE(state_.was_changed());
  EXPECT_FALSE(state_.was_changed());
}

}  // namespace
}  // namespace zol
