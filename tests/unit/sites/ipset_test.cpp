#include "sites/ipset.h"

#include <gmock/gmock.h>

#include "ha/keepalive.h"
#include "ipc.h"
#include "libzolutils/helper_internal.h"
#include "sup_logger.h"
#include "tests/unit/core/ipc_fixture.h"
#include "tests/unit/sites/ipset_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using zol::ipset_run_cmd;
using zol::IPSetManager;
using zol_test::exists;
using zol_test::file_text;
using zol_test::LogCapture;

using IpsetTest = zol_test::IpsetTest;
using ScriptedIpsetTest = zol_test::ScriptedIpsetTest;

const std::string restore = "timeout 2 /usr/sbin/ipset restore -file ./ipset_set";

std::string rules_of(const std::string& name, const std::string& adds) {
  return "create " + name + "_tmp hash:net family inet -exist\nflush " + name + "_tmp\n" + adds + "swap " +
         name + "_tmp " + name + "\ndestroy " + name + "_tmp\n";
}

std::vector<std::string> names() {
  std::vector<std::string> result;
  for (const auto& [name, set] : IPSetManager::sets)
    result.push_back(set->name == name ? name : "wrong");
  return result;
}

TEST_F(IpsetTest, fresh_set) {
  // Verifies that a new set has its name and no address.
  const IPSet set("sites");
  EXPECT_EQ(set.name, "sites");
  EXPECT_THAT(set.ips, IsEmpty());
}

TEST_F(IpsetTest, commands) {
  // Verifies the commands that make a set and take it away.
  const IPSet set("sites");
  EXPECT_EQ(set.create_cmd(), "/usr/sbin/ipset create sites hash:net -exist");
  EXPECT_EQ(set.destroy_cmd(), "/usr/sbin/ipset destroy sites > /dev/null 2>&1 || true");
}

TEST_F(IpsetTest, create_command_elsewhere) {
  // Verifies that the command is a comment on a measurement agent.
  config_.set(zol_test::agent_conf);
  EXPECT_EQ(IPSet("sites").create_cmd(),
            "# --commenting for unittests -- #/usr/sbin/ipset create sites hash:net -exist");
}

TEST_F(IpsetTest, rules) {
  // Verifies the lines that replace a set's addresses, in their order, and those of a set without any.
  IPSet set("sites");
  EXPECT_EQ(set.reload_cmd(), rules_of("sites", ""));
  set.ips = {"192.0.2.7", "10.0.0.0/8"};
  EXPECT_EQ(set.reload_cmd(), rules_of("sites", "add sites_tmp 10.0.0.0/8\nadd sites_tmp 192.0.2.7\n"));
}

TEST_F(IpsetTest, what_no_set_can_hold) {
  // Verifies that text that isn't an address, or a prefix that a set refuses, is left out with an error line:
  // it would make ipset refuse all the rules, or smuggle other ones in.
  IPSet set("sites");
  set.ips = {"192.0.2.7",   "",          "example.org",       "10.0.0.1\nflush acl",
             "10.0.0.0/33", "0.0.0.0/0", "10.0.0.0/8 nomatch"};
  const LogCapture log;
  EXPECT_EQ(set.reload_cmd(), rules_of("sites", "add sites_tmp 192.0.2.7\n"));
  EXPECT_TRUE(log.contains(log_level::error, "reload_cmd: sites can't hold 'example.org'")) << log.all();
  EXPECT_EQ(log.count("reload_cmd: sites can't hold"), 6);
}

TEST_F(IpsetTest, one_element_in_two_words) {
  // Verifies that an element that is written in two ways stands once: ipset would refuse the second.
  IPSet set("sites");
  set.ips = {"10.0.0.0/8", "10.1.2.3/8", "192.0.2.7", "192.0.2.7/32"};
  EXPECT_EQ(set.reload_cmd(), rules_of("sites", "add sites_tmp 10.0.0.0/8\nadd sites_tmp 192.0.2.7\n"));
}

TEST_F(ScriptedIpsetTest, sets_of_a_node) {
  // Verifies the names of a node's sets, and that the kernel is asked for each in that order.
  IPSetManager::create();
  EXPECT_THAT(names(),
              ElementsAre("accept_local", "acl", "acl_ssh", "blocked_subnets", "direct_sites_subnets",
                          "monitored_stations", "other_zol_ips", "private_subnets", "public_ips",
                          "remote_sites_subnets", "sites", "sites_subnets", "ucpe_ips", "whitelist_apps"));
  std::string expected;
  for (const char* name : {"acl", "acl_ssh", "sites", "accept_local", "public_ips", "private_subnets",
                           "sites_subnets", "remote_sites_subnets", "direct_sites_subnets", "whitelist_apps",
                           "other_zol_ips", "blocked_subnets", "monitored_stations", "ucpe_ips"})
    expected += std::string("create ") + name + " hash:net -exist\n";
  EXPECT_EQ(calls(), expected);
}

TEST_F(ScriptedIpsetTest, sets_of_an_agent) {
  // Verifies the names of a measurement agent's sets, none of which reaches the kernel.
  config_.set(zol_test::agent_conf);
  IPSetManager::create_kpa();
  EXPECT_THAT(names(), ElementsAre("acl_ssh", "icmp_targets", "kpas"));
  EXPECT_EQ(calls(), "");
}

TEST_F(ScriptedIpsetTest, made_on_the_fly) {
  // Verifies that a set that isn't there is made, in the kernel too, and that it is the same one next time.
  const LogCapture log;
  const std::shared_ptr<IPSet> set = IPSetManager::get("fresh");
  EXPECT_EQ(set->name, "fresh");
  EXPECT_EQ(calls(), "create fresh hash:net -exist\n");
  EXPECT_TRUE(log.contains("IPSet fresh was not found - creating on the fly")) << log.all();
  EXPECT_EQ(IPSetManager::get("fresh"), set);
  EXPECT_EQ(log.count("creating on the fly"), 1);
  EXPECT_EQ(calls(), "");
}

TEST_F(ScriptedIpsetTest, change_is_applied) {
  // Verifies that new addresses are written, restored and told; the same ones again write nothing.
  const std::shared_ptr<IPSet> set = IPSetManager::get("sites");
  calls();
  {
    const LogCapture log;
    set->set_ips({"192.0.2.7", "10.0.0.1"});
    EXPECT_TRUE(log.contains("sites was set with ips '10.0.0.1 192.0.2.7' there is some change"))
        << log.all();
    EXPECT_TRUE(log.contains("Applying ipset changes"));
    EXPECT_TRUE(log.contains("About to execute '" + restore + "', sending heart beat"));
  }
  EXPECT_EQ(file_text("ipset_set"), rules_of("sites", "add sites_tmp 10.0.0.1\nadd sites_tmp 192.0.2.7\n"));
  EXPECT_FALSE(exists("ipset_set.new"));
  EXPECT_EQ(calls(), "restore -file ./ipset_set\n");
  std::filesystem::remove("ipset_set");
  const LogCapture log;
  set->set_ips({"10.0.0.1", "192.0.2.7"});
  EXPECT_TRUE(log.contains("sites was set with ips '10.0.0.1 192.0.2.7' there is no change")) << log.all();
  EXPECT_FALSE(exists("ipset_set"));
  EXPECT_EQ(calls(), "");
}

TEST_F(ScriptedIpsetTest, all_sets_are_written) {
  // Verifies that a change of one set writes the rules of all of them, by name.
  IPSetManager::get("b")->ips = {"192.0.2.2"};
  IPSetManager::get("a")->set_ips({"192.0.2.1"});
  EXPECT_EQ(file_text("ipset_set"),
            rules_of("a", "add a_tmp 192.0.2.1\n") + rules_of("b", "add b_tmp 192.0.2.2\n"));
}

TEST_F(ScriptedIpsetTest, former_rules_are_kept) {
  // Verifies that the rules before the last are kept beside them.
  IPSetManager::apply("one");
  EXPECT_FALSE(exists("ipset_set.bak"));
  IPSetManager::apply("two");
  EXPECT_EQ(file_text("ipset_set"), "two");
  EXPECT_EQ(file_text("ipset_set.bak"), "one");
}

TEST_F(ScriptedIpsetTest, unchanged_rules_are_not_restored) {
  // Verifies that the same rules are restored once a process, and other ones each time.
  IPSetManager::apply("one");
  EXPECT_EQ(calls(), "restore -file ./ipset_set\n");
  {
    const LogCapture log;
    IPSetManager::apply("one");
    EXPECT_TRUE(log.contains("Skipping ipset restore")) << log.all();
    EXPECT_EQ(calls(), "");
  }
  IPSetManager::apply("two");
  EXPECT_EQ(calls(), "restore -file ./ipset_set\n");
}

TEST_F(ScriptedIpsetTest, restart_restores_once) {
  // Verifies that after a restart unchanged rules are restored once more.
  IPSetManager::apply("one");
  calls();
  IPSetManager::forget();
  IPSetManager::apply("one");
  IPSetManager::apply("one");
  EXPECT_EQ(calls(), "restore -file ./ipset_set\n");
}

TEST_F(ScriptedIpsetTest, restart_without_addresses) {
  // Verifies that a set that has no address any more after a restart is put into force once, too: the kernel
  // may still hold those of before.
  IPSetManager::get("sites")->set_ips({"192.0.2.7"});
  IPSetManager::forget();
  const std::shared_ptr<IPSet> set = IPSetManager::get("sites");
  calls();
  set->set_ips({});
  EXPECT_EQ(file_text("ipset_set"), rules_of("sites", ""));
  EXPECT_EQ(calls(), "restore -file ./ipset_set\n");
  std::filesystem::remove("ipset_set");
  set->set_ips({});
  EXPECT_FALSE(exists("ipset_set"));
  EXPECT_EQ(calls(), "");
}

TEST_F(IpsetTest, is_restore_needed) {
  // Verifies that the first call says yes whatever the files are, and the next that they differ.
  std::ofstream("ipset_set") << "same";
  std::ofstream("ipset_set.bak") << "same";
  EXPECT_TRUE(IPSetManager::is_restore_needed());
  EXPECT_FALSE(IPSetManager::is_restore_needed());
  std::ofstream("ipset_set.bak") << "other";
  EXPECT_TRUE(IPSetManager::is_restore_needed());
  std::filesystem::remove("ipset_set.bak");
  EXPECT_TRUE(IPSetManager::is_restore_needed());
}

TEST_F(ScriptedIpsetTest, backup_fails) {
  // Verifies that former rules that can't be kept are an error line, and the new ones are applied.
  std::filesystem::create_directories("ipset_set.bak/full");
  std::ofstream("ipset_set") << "one";
  const LogCapture log;
  IPSetManager::apply("two");
  EXPECT_TRUE(log.contains(log_level::error, "Failed backing up the current ipset file.")) << log.all();
  EXPECT_EQ(file_text("ipset_set"), "two");
  EXPECT_EQ(calls(), "restore -file ./ipset_set\n");
}

TEST_F(ScriptedIpsetTest, no_former_rules) {
  // Verifies that the first rules of all have nothing to keep, which is no failure.
  const LogCapture log;
  IPSetManager::apply("one");
  EXPECT_FALSE(log.contains("Failed")) << log.all();
}

TEST_F(ScriptedIpsetTest, new_file_cannot_be_opened) {
  // Verifies that nothing is applied when the new rules can't be written, with an error line.
  std::filesystem::create_directory("ipset_set.new");
  const LogCapture log;
  IPSetManager::apply("two");
  EXPECT_TRUE(log.contains(log_level::error, "Failed to open file for writing: ./ipset_set.new"))
      << log.all();
  EXPECT_EQ(calls(), "");
}

TEST_F(ScriptedIpsetTest, disk_is_full) {
  // Verifies that rules that were written in part are never applied.
  std::filesystem::create_symlink("/dev/full", "ipset_set.new");
  const LogCapture log;
  IPSetManager::apply("two");
  EXPECT_TRUE(log.contains(log_level::error, "Failed to write the new rules file.")) << log.all();
  EXPECT_FALSE(exists("ipset_set"));
  EXPECT_EQ(calls(), "");
}

TEST_F(ScriptedIpsetTest, new_file_cannot_be_renamed) {
  // Verifies that nothing is applied when the new rules can't take their place, with an error line.
  std::filesystem::create_directories("ipset_set/full");
  std::ofstream("ipset_set.bak") << "zero";
  const LogCapture log;
  IPSetManager::apply("two");
  EXPECT_TRUE(log.contains(log_level::error, "Failed renaming the new rules file.")) << log.all();
  EXPECT_EQ(calls(), "");
}

TEST_F(ScriptedIpsetTest, command_fails_once) {
  // Verifies that a failed command is told and run once more.
  put_script("if [ -e failed ]; then exit 0; fi; touch failed; echo broken >&2; exit 3");
  const LogCapture log;
  ipset_run_cmd("/usr/sbin/ipset list", false);
  EXPECT_EQ(calls(), "list\nlist\n");
  EXPECT_TRUE(log.contains("About to execute '/usr/sbin/ipset list', sending heart beat")) << log.all();
  EXPECT_TRUE(
      log.contains("Executed: '/usr/sbin/ipset list' status : 3 response: 'broken\n', heart beat and "
                   "trying again"))
      << log.all();
  EXPECT_FALSE(log.contains("', Failed !"));
}

TEST_F(ScriptedIpsetTest, command_fails_twice) {
  // Verifies that a second failure is told, and that there is no third try.
  put_script("echo broken; exit 3");
  const LogCapture log;
  ipset_run_cmd("/usr/sbin/ipset list", false);
  EXPECT_EQ(calls(), "list\nlist\n");
  EXPECT_TRUE(log.contains("Executed: '/usr/sbin/ipset list' status : 3 response: 'broken\n', Failed !"))
      << log.all();
}

TEST_F(ScriptedIpsetTest, quiet_command) {
  // Verifies that a quiet command is tried twice, too, and tells nothing.
  put_script("exit 3");
  const LogCapture log;
  ipset_run_cmd("/usr/sbin/ipset list", true);
  EXPECT_EQ(calls(), "list\nlist\n");
  EXPECT_EQ(log.all(), "");
}

TEST_F(ScriptedIpsetTest, hanging_program) {
  // Verifies that an ipset that hangs is ended by the time limit, twice, and told as a failure.
  put_script("exec sleep 600");
  const LogCapture log;
  IPSetManager::apply("one");
  EXPECT_EQ(calls(), "restore -file ./ipset_set\nrestore -file ./ipset_set\n");
  EXPECT_TRUE(
      log.contains("Executed: '" + restore + "' status : 124 response: '', heart beat and trying again"))
      << log.all();
  EXPECT_TRUE(log.contains("Executed: '" + restore + "' status : 124 response: '', Failed !")) << log.all();
}

TEST_F(ScriptedIpsetTest, nothing_on_an_agent) {
  // Verifies that on a measurement agent no command runs, while the rules are written all the same.
  config_.set(zol_test::agent_conf);
  const LogCapture log;
  IPSetManager::get("kpas")->set_ips({"192.0.2.7"});
  ipset_run_cmd("/usr/sbin/ipset list", false);
  EXPECT_EQ(calls(), "");
  EXPECT_FALSE(log.contains("About to execute")) << log.all();
  EXPECT_TRUE(exists("ipset_set"));
}

TEST_F(ScriptedIpsetTest, role_is_looked_up_once) {
  // Verifies that whether the process may touch ipsets is settled with the first command.
  ipset_run_cmd("/usr/sbin/ipset one", true);
  config_.set(zol_test::agent_conf);
  ipset_run_cmd("/usr/sbin/ipset two", true);
  EXPECT_EQ(calls(), "one\ntwo\n");
}

TEST_F(ScriptedIpsetTest, another_version_does_the_work) {
  // Verifies that no command runs while another version of the node's programs is the active one.
  zol_utils::set_run_folder(config_.folder());
  std::ofstream("active_version") << "zol-0.0.1\n";
  ipset_run_cmd("/usr/sbin/ipset one", true);
  EXPECT_EQ(calls(), "");
  std::filesystem::remove("active_version");
  ipset_run_cmd("/usr/sbin/ipset two", true);
  EXPECT_EQ(calls(), "two\n");
  zol_utils::set_run_folder("/run/zol");
}

TEST_F(ScriptedIpsetTest, taken_away) {
  // Verifies that the end of a set asks the kernel to drop it, and the end of all drops them here too.
  IPSetManager::get("a");
  IPSetManager::get("b");
  EXPECT_EQ(IPSetManager::get_clean_str(),
            "/usr/sbin/ipset destroy a > /dev/null 2>&1 || true\n"
            "/usr/sbin/ipset destroy b > /dev/null 2>&1 || true\n");
  calls();
  IPSetManager::get("a")->destroy();
  EXPECT_EQ(calls(), "destroy a\n");
  IPSetManager::destroy();
  EXPECT_EQ(calls(), "destroy a\ndestroy b\n");
  EXPECT_THAT(names(), IsEmpty());
}

// The keep-alive of the process sends to a watchdog of the test's.
class IpsetBeatTest : public ScriptedIpsetTest {
 protected:
  IpsetBeatTest() {
    zol::KeepAlive* const keep_alive = zol::KeepAlive::instance();
    keep_alive->name = "ipset_user";
    keep_alive->socket = node_.open("ipset_user");
    keep_alive->ready = true;
  }
  ~IpsetBeatTest() override {
    zol::KeepAlive* const keep_alive = zol::KeepAlive::instance();
    keep_alive->ready = false;
    keep_alive->socket = 0;
  }
  int beats() {
    int count = 0;
    while (!zol_test::receive(watchdog_).empty())
      ++count;
    return count;
  }

  zol_test::TestNode node_;
  int watchdog_ = node_.open("watchdog");
};

TEST_F(IpsetBeatTest, before_each_attempt) {
  // Verifies that the watchdog hears a beat before each attempt, and from a quiet command before the second.
  ipset_run_cmd("/usr/sbin/ipset list", false);
  EXPECT_EQ(beats(), 1);
  ipset_run_cmd("/usr/sbin/ipset list", true);
  EXPECT_EQ(beats(), 0);
  put_script("exit 3");
  ipset_run_cmd("/usr/sbin/ipset list", false);
  EXPECT_EQ(beats(), 2);
  ipset_run_cmd("/usr/sbin/ipset list", true);
  EXPECT_EQ(beats(), 1);
}

}  // namespace
