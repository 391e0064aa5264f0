// Which files are found, and what a run makes of them.
#include <gtest/gtest.h>

#include "core/reporter_context.h"
#include "dual_zol_helper.h"
#include "tests/unit/monitor/core_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using zol_monitor::core_t;
using zol_monitor::CoreEvent;
using zol_monitor::CorePlace;
using zol_monitor::find_new_cores;
using zol_monitor::report_new_cores;
using zol_monitor::zol_events;

class CoreFiles : public zol_test::CoreFixture {};

// Verifies the places that are looked through and what a name has to hold there.
TEST_F(CoreFiles, Places) {
  const std::string version = zol_utils::DualZOLHelper::instance()->get_zol_version();
  EXPECT_THAT(
      zol_monitor::core_places(),
      ElementsAre(CorePlace{"/var/log", "core"}, CorePlace{"/opt/" + version + "/wanproxy/var/log", "core"},
                  CorePlace{"/var/crash", ""}));
}

// Verifies that files are cores by their name alone, and what is known of one.
TEST_F(CoreFiles, NamesThatHoldCore) {
  const std::string path = put("core.1234");
  const std::string other = put("wanproxy.core");
  put("Core");
  put("syslog");
  const std::vector<core_t> cores = find_new_cores(plain_place());
  ASSERT_THAT(paths_of(cores), UnorderedElementsAre(path, other));
  const core_t& core = cores[cores[0].path == path ? 0 : 1];
  struct stat status = {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(core.filename, "core.1234");
  EXPECT_EQ(core.time, status.st_ctime);
  EXPECT_TRUE(log_.contains(log_level::error, "New core file found at " + path + " !!"));
}

// Verifies that a file with the setuid bit was reported already, whatever its other bits are.
TEST_F(CoreFiles, MarkedFilesAreOld) {
  put("core.1", 04000);
  put("core.2", 04755);
  const std::string fresh = put("core.3", 02755);
  EXPECT_THAT(paths_of(find_new_cores(plain_place())), ElementsAre(fresh));
}

// Verifies that an entry whose status can't be read is passed over with its line, and the others are found.
TEST_F(CoreFiles, EntryWithoutStatus) {
  ASSERT_EQ(symlink("/no/such/file", (folder_ + "/core.gone").c_str()), 0);
  const std::string path = put("core.here");
  EXPECT_THAT(paths_of(find_new_cores(plain_place())), ElementsAre(path));
  EXPECT_TRUE(log_.contains(log_level::error, "failed to stat " + folder_ + "/core.gone"));
}

// Verifies that a folder that isn't there gets its line on every run, and the next place is looked through.
TEST_F(CoreFiles, MissingFolder) {
  const std::string path = put("cores/core.1");
  const std::string missing = folder_ + "/crash";
  for (int run = 1; run <= 2; ++run) {
    report_new_cores({{missing, ""}, {folder_ + "/cores", "core"}});
    EXPECT_EQ(log_.count("Failed to open folder " + missing + " : No such file or directory"), run);
    EXPECT_EQ(log_.count("New core file found at " + path + " !!"), run);
  }
}

// Verifies that a crash directory is named after one of the node's processes; all others are passed over,
// whatever they hold.
TEST_F(CoreFiles, CrashesOfTheNodesProcesses) {
  std::vector<std::string> expected;
  for (const char* name : {"zol_monitor.1", "ydns-2", "my-watchdog", "wanproxy"})
    expected.push_back(put(std::string(name) + "/core"));
  put("nginx/core");
  put("core/core");
  put("Wanproxy/core");
  ASSERT_EQ(symlink("/no/such/file", (folder_ + "/sshd").c_str()), 0);
  const std::vector<core_t> cores = find_new_cores(crash_place());
  EXPECT_THAT(paths_of(cores), testing::UnorderedElementsAreArray(expected));
  for (const core_t& core : cores)
    EXPECT_EQ(core.filename, "core");
  EXPECT_EQ(log_.count("failed to"), 0);
}

// Verifies that a crash's description isn't taken for its core.
TEST_F(CoreFiles, DescriptionsAreNoCores) {
  put("zol/core.txt");
  put("zol/txt-of-core");
  put("zol/dmesg");
  EXPECT_THAT(find_new_cores(crash_place()), IsEmpty());
  EXPECT_TRUE(log_.contains(log_level::error, "failed to find kernel core file in " + folder_ + "/zol"));
  const std::string path = put("zol/vmcore.202611210802");
  EXPECT_THAT(paths_of(find_new_cores(crash_place())), ElementsAre(path));
}

// Verifies that only one core of a crash is taken.
TEST_F(CoreFiles, OneCoreOfACrash) {
  put("zol/core.1");
  put("zol/core.2");
  EXPECT_THAT(find_new_cores(crash_place()), SizeIs(1));
}

// Verifies that in a crash directory the mark is the file's and not the directory's.
TEST_F(CoreFiles, MarkOfACrash) {
  const std::string path = put("zol/core", 04000);
  EXPECT_THAT(find_new_cores(crash_place()), IsEmpty());
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  ASSERT_EQ(chmod((folder_ + "/zol").c_str(), 04755), 0);
  EXPECT_THAT(paths_of(find_new_cores(crash_place())), ElementsAre(path));
}

// Verifies the lines about a crash directory that can't be looked into and a core whose status can't be read.
TEST_F(CoreFiles, BrokenCrashes) {
  put("zol.crash");
  std::filesystem::create_directory(folder_ + "/ydns");
  ASSERT_EQ(symlink("/no/such/file", (folder_ + "/ydns/core").c_str()), 0);
  ASSERT_EQ(symlink("/no/such/folder", (folder_ + "/watchdog").c_str()), 0);
  EXPECT_THAT(find_new_cores(crash_place()), IsEmpty());
  EXPECT_TRUE(
      log_.contains(log_level::error, "Failed to open folder " + folder_ + "/zol.crash : Not a directory"));
  EXPECT_TRUE(log_.contains(log_level::error, "failed to stat " + folder_ + "/ydns/core"));
  EXPECT_TRUE(log_.contains(log_level::error, "failed to stat " + folder_ + "/watchdog"));
  EXPECT_EQ(log_.count("failed to find kernel core file in "), 0);
}

// Verifies that a run puts all new cores of all places into one event, in the order of the places.
TEST_F(CoreFiles, OneEventARun) {
  const std::string crash = put("crash/zol/core");
  const std::string plain = put("log/core.1");
  report_new_cores({{folder_ + "/log", "core"}, {folder_ + "/crash", ""}});
  ASSERT_THAT(zol_events().queue, SizeIs(1));
  const auto* event = dynamic_cast<CoreEvent*>(zol_events().queue[0].get());
  ASSERT_NE(event, nullptr);
  EXPECT_THAT(paths_of(event->cores), ElementsAre(plain, crash));
  EXPECT_TRUE(
      log_.contains(log_level::debug, "core_check_send: Found new cores, creating JSON and sending alert"));
}

// Verifies that a run without new cores queues nothing.
TEST_F(CoreFiles, NothingNew) {
  put("core.1", 04000);
  report_new_cores({plain_place()});
  EXPECT_THAT(zol_events().queue, IsEmpty());
  EXPECT_FALSE(log_.contains("Found new cores"));
}

// Verifies that a core is found again by each run until a post of it was started.
TEST_F(CoreFiles, WaitingEventDoesNotHideItsCores) {
  put("core.1");
  report_new_cores({plain_place()});
  report_new_cores({plain_place()});
  ASSERT_THAT(zol_events().queue, SizeIs(2));
  zol_events().queue[0]->send_complete();
  report_new_cores({plain_place()});
  EXPECT_THAT(zol_events().queue, SizeIs(2));
}

// Verifies that nothing is looked at while reports are disabled, and that the timer is charged all the same.
TEST_F(CoreFiles, DisabledReports) {
  zol_monitor::reports_disabled = true;
  zol_monitor::core_check_send(-1, 0, nullptr);
  EXPECT_TRUE(log_.contains(log_level::debug, "core_check_send: reports are disabled, rescheduling"));
  EXPECT_FALSE(log_.contains("core_check_send: core check running"));
  EXPECT_TRUE(zol_monitor::is_core_check_charged());
  EXPECT_FALSE(log_.contains("Failed to open folder"));
}

// Verifies the lines around a run, and that the timer is charged again.
TEST_F(CoreFiles, RunOfTheTimer) {
  EXPECT_FALSE(zol_monitor::is_core_check_charged());
  zol_monitor::core_check_send(-1, 0, nullptr);
  EXPECT_TRUE(log_.contains(log_level::debug, "core_check_send: core check running"));
  EXPECT_TRUE(
      log_.contains(log_level::debug, "core_check_send: finished checking cores, rescheduling for 30000ms"));
  EXPECT_TRUE(zol_monitor::is_core_check_charged());
}

}  // namespace
