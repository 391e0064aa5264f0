// Clearing the proxy's caches and the kernel's fast path.
#include <event2/event.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "ha/ha_manager.h"
#include "sup_logger.h"
#include "tests/unit/ha/ha_fixture.h"

namespace zol {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using zol_test::Bytes;
using zol_test::read_text;
using zol_test::write_text;
using zol_utils::VRRPRole;

constexpr const char* fast_path = "/proc/xt_udp_tunnel/reset_fastpath";

// A folder in the place of /proc with the fast path's file, "-" in it.
class FastPathFile {
 public:
  FastPathFile() {
    std::filesystem::create_directory("/proc/xt_udp_tunnel");
    write_text(fast_path, "-\n");
  }
  std::string text() const { return read_text(fast_path); }

 private:
  zol_test::EmptyMount proc_{"/proc"};
};

class HACachesTest : public zol_test::HaTest {
 protected:
  HACachesTest() {
    if (zol_test::on_own_machine())
      fast_path_ = std::make_unique<FastPathFile>();
    IDispatch::setup(node_.open("zol_monitor"), "");
    log_.clear();
  }
  // Runs the timer out; the messages to the watchdog.
  std::vector<Bytes> flushed() {
    EXPECT_TRUE(manager_.clear_cache_timer.is_pending());
    EXPECT_TRUE(run_until([this] { return !manager_.clear_cache_timer.is_pending(); }));
    return messages(watchdog_);
  }
  static unsigned char scope(const Bytes& message) { return message[112]; }

  std::unique_ptr<FastPathFile> fast_path_;
  const int watchdog_ = node_.open("watchdog");
  HAManager manager_;
};

// Verifies the message of a total flush, and that it resets the fast path.
TEST_F(HACachesTest, All) {
  manager_.clear_caches();
  EXPECT_TRUE(manager_.clear_all);
  EXPECT_THAT(messages(watchdog_), IsEmpty());
  const auto sent = flushed();
  ASSERT_THAT(sent, SizeIs(1));
  const Bytes& message = sent[0];
  ASSERT_THAT(message, SizeIs(113));
  EXPECT_EQ(zol_test::value_at<std::uint16_t>(message, 0), 40);   // outer: type
  EXPECT_EQ(zol_test::text_at(message, 2), "zol_monitor");        // outer: source
  EXPECT_EQ(zol_test::text_at(message, 31), "watchdog");          // outer: destination
  EXPECT_EQ(zol_test::value_at<std::uint16_t>(message, 56), 40);  // inner: type
  EXPECT_EQ(zol_test::text_at(message, 56 + 2), "zol_monitor");   // inner: source
  EXPECT_EQ(zol_test::value_at<std::int32_t>(message, 56 + 27), getpid());
  EXPECT_EQ(zol_test::text_at(message, 56 + 31), "wanproxy0");  // inner: destination
  EXPECT_EQ(scope(message), 1);
  EXPECT_TRUE(log_.contains(log_level::info, "Clearing caches  !"));
  EXPECT_FALSE(log_.contains("Dispatch failed"));
  EXPECT_FALSE(manager_.clear_all);
  EXPECT_EQ(fast_path_->text(), "1\n");
}

// Verifies the message of single addresses: their number, then each in network order; the fast path stays.
TEST_F(HACachesTest, Addresses) {
  manager_.clear_caches_for_ips({"203.0.113.5", "10.0.0.1"});
  const auto sent = flushed();
  ASSERT_THAT(sent, SizeIs(1));
  const Bytes& message = sent[0];
  ASSERT_THAT(message, SizeIs(121 + 8));
  EXPECT_EQ(scope(message), 2);
  EXPECT_THAT(Bytes(message.begin() + 113, message.end()), ElementsAre(2, 0, 0, 0, 0, 0, 0, 0,  // count
                                                                       10, 0, 0, 1,             //
                                                                       203, 0, 113, 5));
  EXPECT_TRUE(log_.contains(log_level::info, "Clearing caches 10.0.0.1,203.0.113.5 !"));
  EXPECT_THAT(manager_.ips_to_clear, IsEmpty());
  EXPECT_EQ(fast_path_->text(), "-\n");
}

// Verifies that what is no address is left out of the message.
TEST_F(HACachesTest, AddressThatIsNone) {
  manager_.clear_caches_for_ips({"10.0.0.1", "nobody", "10.0.0.256", ""});
  const auto sent = flushed();
  ASSERT_THAT(sent, SizeIs(1));
  ASSERT_THAT(sent[0], SizeIs(121 + 4));
  EXPECT_EQ(zol_test::value_at<std::uint64_t>(sent[0], 113), 1U);
}

// Verifies that what is asked for while the timer runs goes with it, a total flush before all.
TEST_F(HACachesTest, Together) {
  manager_.clear_caches_for_ips({"10.0.0.1"});
  manager_.clear_caches_for_ips({"10.0.0.2"});
  auto sent = flushed();
  ASSERT_THAT(sent, SizeIs(1));
  EXPECT_THAT(sent[0], SizeIs(121 + 8));
  manager_.clear_caches_for_ips({"10.0.0.1"});
  manager_.clear_caches();
  sent = flushed();
  ASSERT_THAT(sent, SizeIs(1));
  EXPECT_EQ(scope(sent[0]), 1);
  EXPECT_TRUE(log_.contains("Clearing caches 10.0.0.1 !"));
  EXPECT_THAT(manager_.ips_to_clear, IsEmpty());
}

// Verifies that further requests don't put the flush off.
TEST_F(HACachesTest, TimerIsNotPutOff) {
  manager_.clear_caches();
  timeval first{};
  ASSERT_TRUE(evtimer_pending(&manager_.clear_cache_timer.ev, &first));
  manager_.clear_caches();
  manager_.clear_caches_for_ips({"10.0.0.1"});
  timeval second{};
  ASSERT_TRUE(evtimer_pending(&manager_.clear_cache_timer.ev, &second));
  EXPECT_TRUE(timercmp(&first, &second, ==));
}

// Verifies that a message that can't be sent is told, and the fast path is reset all the same.
TEST_F(HACachesTest, NotSent) {
  IDispatch::setup(-1, "");
  manager_.clear_caches();
  flushed();
  EXPECT_TRUE(log_.contains(log_level::error, "Dispatch failed"));
  EXPECT_EQ(fast_path_->text(), "1\n");
}

// Verifies that a kernel without the fast path stops nothing.
TEST_F(HACachesTest, NoFastPath) {
  fast_path_.reset();
  HAManager::reset_fastpath();
  EXPECT_TRUE(log_.contains(log_level::debug, "reset_fastpath: ended with status"));
}

// --- after a reload

class HAReloadTest : public HACachesTest {
 protected:
  // The versions that are installed on the node.
  static void install(const std::vector<std::string>& versions) {
    std::filesystem::create_directories("/run/zol/instances");
    for (const std::string& version : versions)
      write_text("/run/zol/instances/zol_monitor-" + version + ".pid", "");
  }
  void change_role() {
    if (record_.status().count == 0)
      record_.add("site-1", 1, 1);
    manager_.was_ha_state_changed();
    record_.at(0).role = record_.role_at(0) == 1 ? VRRPRole::backup : VRRPRole::master;
  }
};

// Verifies that on a dual installation a reload after a change of role clears all caches, once.
TEST_F(HAReloadTest, DualInstallation) {
  install({"1.0.0", "2.0.0"});
  change_role();
  config_.configurator().reload_configuration("", 0);
  EXPECT_TRUE(log_.contains(log_level::info, "High availability state changed! flushing caches"));
  EXPECT_TRUE(manager_.clear_all);
  EXPECT_THAT(flushed(), SizeIs(1));
  EXPECT_EQ(fast_path_->text(), "1\n");
  log_.clear();
  config_.configurator().reload_configuration("", 0);
  EXPECT_FALSE(log_.contains("flushing caches"));
  EXPECT_FALSE(manager_.clear_cache_timer.is_pending());
}

// Verifies that with a single version nothing is cleared.
TEST_F(HAReloadTest, SingleInstallation) {
  install({"1.0.0"});
  change_role();
  manager_.post_reconfigure();
  EXPECT_FALSE(manager_.clear_all);
  EXPECT_FALSE(manager_.clear_cache_timer.is_pending());
}

// Verifies that without a change nothing is cleared.
TEST_F(HAReloadTest, NoChange) {
  install({"1.0.0", "2.0.0"});
  record_.add("site-1", 1, 1);
  manager_.reconfigure();
  manager_.post_reconfigure();
  EXPECT_FALSE(manager_.clear_cache_timer.is_pending());
}

}  // namespace
}  // namespace zol
