// Sets of a kernel, in a network namespace of the test's own, through the program ipset.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>

#include "config/zol_networks.h"
#include "tests/unit/sites/ipset_fixture.h"
#include "zol_helper.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using zol::IPSetManager;
using zol_test::LogCapture;

class IpsetKernelTest : public zol_test::IpsetTest {
 protected:
  void SetUp() override {
    if (!spaces_.entered() || std::system("/usr/sbin/ipset list >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "needs the right to make a network namespace, the program ipset and the kernel's sets";
  }

  // What a set of the kernel holds.
  static std::vector<std::string> members(const std::string& name) {
    return zol::Helper::deserialize_strings(
        zol::Helper::run_cmd("/usr/sbin/ipset list " + name + " 2>/dev/null | sed '1,/^Members:/d' | sort"),
        '\n');
  }
  static std::vector<std::string> set_names() {
    return zol::Helper::deserialize_strings(zol::Helper::run_cmd("/usr/sbin/ipset list -n | sort"), '\n');
  }

  zol_test::OwnSpaces spaces_{CLONE_NEWNET};
};

TEST_F(IpsetKernelTest, addresses_come_into_force) {
  // Verifies that the kernel's set holds what was set, then what was set next, and nothing of the swap is
  // left.
  const std::shared_ptr<IPSet> set = IPSetManager::get("other_zol_ips");
  EXPECT_THAT(members("other_zol_ips"), IsEmpty());
  set->set_ips({"192.0.2.7", "198.51.100.0/24"});
  EXPECT_THAT(members("other_zol_ips"), ElementsAre("192.0.2.7", "198.51.100.0/24"));
  set->set_ips({"192.0.2.8"});
  EXPECT_THAT(members("other_zol_ips"), ElementsAre("192.0.2.8"));
  set->set_ips({});
  EXPECT_THAT(members("other_zol_ips"), IsEmpty());
  EXPECT_THAT(set_names(), ElementsAre("other_zol_ips"));
}

TEST_F(IpsetKernelTest, restore_runs_once_more_after_a_restart) {
  // Verifies that a set that was emptied behind the process's back is full again after its restart.
  IPSetManager::get("sites")->set_ips({"192.0.2.7"});
  std::system("/usr/sbin/ipset flush sites");
  IPSetManager::reload();
  EXPECT_THAT(members("sites"), IsEmpty());  // the same rules aren't run again
  IPSetManager::forget();
  IPSetManager::get("sites")->set_ips({"192.0.2.7"});
  EXPECT_THAT(members("sites"), ElementsAre("192.0.2.7"));
}

TEST_F(IpsetKernelTest, all_sets) {
  // Verifies that every set of a node can be made, filled and taken away.
  IPSetManager::create();
  EXPECT_EQ(set_names().size(), 14U);
  for (const auto& [name, set] : IPSetManager::sets)
    set->ips = {"192.0.2.7"};
  IPSetManager::reload();
  for (const std::string& name : set_names())
    EXPECT_THAT(members(name), ElementsAre("192.0.2.7")) << name;
  IPSetManager::destroy();
  EXPECT_THAT(set_names(), IsEmpty());
}

TEST_F(IpsetKernelTest, what_an_interrupted_swap_left) {
  // Verifies that a half-filled second set from before doesn't get into force.
  std::system("/usr/sbin/ipset create sites_tmp hash:net && /usr/sbin/ipset add sites_tmp 203.0.113.9");
  IPSetManager::get("sites")->set_ips({"192.0.2.7"});
  EXPECT_THAT(members("sites"), ElementsAre("192.0.2.7"));
}

TEST_F(IpsetKernelTest, refused_rules_change_nothing) {
  // Verifies that a set of another kind stays as it is, with the failure told.
  std::system("/usr/sbin/ipset create sites hash:ip,port && /usr/sbin/ipset add sites 192.0.2.1,80");
  const LogCapture log;
  IPSetManager::get("sites")->set_ips({"192.0.2.7"});
  EXPECT_TRUE(log.contains("', Failed !")) << log.all();
  EXPECT_THAT(members("sites"), ElementsAre("192.0.2.1,tcp:80"));
}

TEST_F(IpsetKernelTest, bad_element_does_not_stop_the_others) {
  // Verifies that rules with text that is no address, and with one element in two words, still come into
  // force.
  IPSetManager::get("sites")->set_ips({"192.0.2.7", "192.0.2.7/32", "nonsense", "0.0.0.0/0"});
  EXPECT_THAT(members("sites"), ElementsAre("192.0.2.7"));
}

TEST_F(IpsetKernelTest, large_set) {
  // Verifies that ten thousand addresses come into force.
  std::set<std::string> addresses;
  for (int i = 0; i < 10000; ++i)
    addresses.insert("10.1." + std::to_string(i / 256) + "." + std::to_string(i % 256));
  IPSetManager::get("sites")->set_ips(addresses);
  EXPECT_EQ(members("sites").size(), addresses.size());
}

TEST_F(IpsetKernelTest, swap_is_atomic) {
  // Verifies that a reader that looks again and again while the addresses change never meets an empty set.
  const std::shared_ptr<IPSet> set = IPSetManager::get("sites");
  std::set<std::string> addresses;
  for (int i = 0; i < 500; ++i)
    addresses.insert("10.1." + std::to_string(i / 256) + "." + std::to_string(i % 256));
  set->set_ips(addresses);
  const pid_t reader = fork();
  if (reader == 0) {
    execl("/bin/sh", "sh", "-c",
          "while [ ! -e stop ]; do /usr/sbin/ipset list sites > seen; "
          "[ $(sed '1,/^Members:/d' seen | wc -l) -ge 500 ] && echo good >> looks || echo bad >> looks; done",
          nullptr);
    _exit(127);
  }
  const auto looks = [] { return zol::Helper::deserialize_strings(zol_test::file_text("looks"), '\n'); };
  int changes = 0;
  while (changes < 2000 && (changes < 40 || looks().size() < 100)) {
    addresses.insert("10.2." + std::to_string(changes / 256) + "." + std::to_string(changes % 256));
    set->set_ips(addresses);
    ++changes;
  }
  std::ofstream("stop").put('1');
  int status = -1;
  waitpid(reader, &status, 0);
  EXPECT_EQ(status, 0);
  const std::vector<std::string> all = looks();
  EXPECT_GE(all.size(), 20U);
  EXPECT_EQ(std::count(all.begin(), all.end(), "bad"), 0) << "of " << all.size() << " in " << changes;
  EXPECT_EQ(members("sites").size(), addresses.size());
}

TEST_F(IpsetKernelTest, addresses_of_the_hop_map) {
  // Verifies that the set of the other nodes holds the addresses of all hops but this node's own, follows a
  // reload, and stays as it is when the hop data is broken.
  const auto conf = [](const std::string& hops) {
    return "General: { zol_id = \"node-1\"; hop_id = \"a\"; };\n"
           "Networking: { interfaces = ( { interface = \"10.0.0.1\"; external_ip = \"198.51.100.1\"; "
           "is_private = false; } ); };\nHopData: { hops = ( " +
           hops + " ); };\n";
  };
  const std::string own = "{ hop_id = \"a\"; zol_ips = ( \"10.0.0.1\", \"198.51.100.1\" ); }";
  config_.set(conf(own + ", { hop_id = \"b\"; zol_ips = ( \"10.0.0.2\", \"192.0.2.9\" ); }"));
  zol::NamedIPSet sink("other_zol_ips");
  zol::ZOLNetworks networks;
  EXPECT_THAT(IPSetManager::sets, IsEmpty());
  networks.hop_map.set_other_zol_ips(&sink);
  networks.hop_map.update_other_zol_ips_ipset();
  EXPECT_THAT(members("other_zol_ips"), ElementsAre("10.0.0.2", "192.0.2.9"));
  config_.set(conf(own + ", { hop_id = \"c\"; zol_ips = ( \"10.0.0.3\" ); }"));
  networks.read_configuration();
  EXPECT_THAT(members("other_zol_ips"), ElementsAre("10.0.0.3"));
  config_.set(conf("{ zol_ips = ( \"10.0.0.4\" ); }"));
  networks.read_configuration();
  EXPECT_THAT(members("other_zol_ips"), ElementsAre("10.0.0.3"));
}

}  // namespace
