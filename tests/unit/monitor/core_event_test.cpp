// What an event tells of its cores, and how it marks them.
#include <gtest/gtest.h>

#include <utility>

#include "dual_zol_helper.h"
#include "tests/unit/monitor/core_fixture.h"
#include "zol_libcrypto.h"

namespace {

using libvariant::Variant;
using testing::IsEmpty;
using testing::SizeIs;
using zol_monitor::core_t;
using zol_monitor::CoreEvent;
using zol_monitor::find_new_cores;
using zol_monitor::zol_events;

class CoreEvents : public zol_test::CoreFixture {
 protected:
  void set_ssh_ports(const std::string& ports) {
    config_.set(ports.empty() ? "" : "IPTables: { ssh_ports = " + ports + "; };");
  }
};

// Verifies name, second sending and urgency of the event, and that two are never one.
TEST_F(CoreEvents, Kind) {
  const CoreEvent event({{"core", 1, "/var/log/core"}});
  EXPECT_EQ(event.type, "ZOL_CORES");
  EXPECT_TRUE(event.resendable);
  EXPECT_FALSE(event.immediate);
  CoreEvent other({{"core", 1, "/var/log/core"}});
  EXPECT_FALSE(event.is_updateable(other));
  EXPECT_FALSE(other.update(zol_events(), other));
}

// Verifies the body: one entry a core with all that is known of it.
TEST_F(CoreEvents, Body) {
  set_ssh_ports("(2022)");
  const CoreEvent event({{"core.7", 1795251723, "/var/log/core.7"}, {"vmcore", 0, "/var/crash/zol/vmcore"}});
  const Variant tree = event.event_body();
  EXPECT_EQ(tree.Size(), 1U);
  const Variant::List& crashes = tree.At("crashes").AsList();
  ASSERT_THAT(crashes, SizeIs(2));
  EXPECT_EQ(crashes[0].Size(), 5U);
  EXPECT_EQ(crashes[0].At("timestamp").AsString(), "2026-11-21T09:02:03Z");
  EXPECT_EQ(crashes[0].At("filename").AsString(), "core.7");
  EXPECT_EQ(crashes[0].At("dirname").AsString(), "/var/log");
  EXPECT_EQ(crashes[0].At("version").AsString(), zol_utils::DualZOLHelper::instance()->get_zol_version_num());
  EXPECT_EQ(crashes[0].At("sshPort").kind(), Variant::Kind::Signed);
  EXPECT_EQ(crashes[0].At("sshPort").AsInt(), 2022);
  EXPECT_EQ(crashes[1].At("timestamp").AsString(), "1970-01-01T00:00:00Z");
  EXPECT_EQ(crashes[1].At("filename").AsString(), "vmcore");
  EXPECT_EQ(crashes[1].At("dirname").AsString(), "/var/crash/zol");
  EXPECT_TRUE(log_.contains(log_level::debug, "CoreEvent /var/log/core.7 1795251723"));
}

// Verifies which entry of the list is the ssh port: the first that holds an integer.
TEST_F(CoreEvents, SshPort) {
  const std::pair<const char*, int> cases[] = {
      {"(22, 23)", 22},
      {"(\"ssh\", true, 2.5, 2022)", 2022},
      {"({ port = 2200; }, 22)", 2200},
      {"({ name = \"a\"; port = 2201; })", 2201},
      {"({ name = \"a\"; }, (), { port = 2202; })", 2202},
      {"()", 0},
      {"(\"22\")", 0},
      {"22", 0},
      {"", 0},
  };
  for (const auto& [ports, expected] : cases) {
    set_ssh_ports(ports);
    EXPECT_EQ(CoreEvent::get_ssh_port(), expected) << ports;
  }
}

// Verifies that the mark is the setuid bit and takes all other bits away, and that the file is old from then
// on.
TEST_F(CoreEvents, Mark) {
  const std::string first = put("core.1", 0644);
  const std::string second = put("core.2", 0777);
  const std::string other = put("core.not-listed", 0644);
  std::vector<core_t> cores = find_new_cores(plain_place());
  std::erase_if(cores, [](const core_t& core) { return core.filename == "core.not-listed"; });
  CoreEvent(cores).send_complete();
  EXPECT_EQ(mode_of(first), 04000U);
  EXPECT_EQ(mode_of(second), 04000U);
  EXPECT_EQ(mode_of(other), 0644U);
  EXPECT_THAT(paths_of(find_new_cores(plain_place())), testing::ElementsAre(other));
}

// Verifies that a file that can't be marked gets its line, and the next one is marked.
TEST_F(CoreEvents, FileThatIsGone) {
  const std::string path = put("core.1");
  CoreEvent({{"core.0", 1, folder_ + "/core.0"}, {"core.1", 1, path}}).send_complete();
  EXPECT_EQ(log_.count("CoreEvent::send_complete: Failed setting S_ISUID : No such file or directory"), 1);
  EXPECT_EQ(mode_of(path), 04000U);
}

// A port of 127.0.0.1 that refuses, and a configuration that signs.
class RefusedCoreEvents : public CoreEvents {
 protected:
  RefusedCoreEvents() : before_(std::filesystem::current_path()) {
    std::filesystem::current_path(folder_);
    std::string error;
    zol_libcrypto::make_key_file("zol.key", error);
    const auto key = zol_libcrypto::read_key_file("zol.key", error).value();
    const std::string secret = zol_libcrypto::to_base64(zol_libcrypto::encipher(key, "secret").value());
    config_.set(
        zol_test::monitor_config("polling_rate_ms = 1; event_suppression_ms = 20; hmac_timeout = 60000; "
                                 "hmac_secret = \"" +
                                 secret + "\"; "));
  }
  ~RefusedCoreEvents() override { std::filesystem::current_path(before_); }

 private:
  std::filesystem::path before_;
};

// Verifies that an event whose server refuses is posted again and again by the timers, while its files are
// marked since the first post and no run finds them again.
TEST_F(RefusedCoreEvents, PostedAgain) {
  const std::string path = put("core.1");
  zol_monitor::report_new_cores({plain_place()});
  const std::string posts = "Sending event ";
  ASSERT_TRUE(run_until([&] { return log_.count(posts) >= 3; })) << log_.all();
  EXPECT_GE(log_.count("Server replied with reset."), 2);
  EXPECT_THAT(zol_events().queue, SizeIs(1));
  EXPECT_EQ(mode_of(path), 04000U);
  EXPECT_THAT(find_new_cores(plain_place()), IsEmpty());
  EXPECT_EQ(log_.count("invoke: Pushing new event "), 1);
}

}  // namespace
