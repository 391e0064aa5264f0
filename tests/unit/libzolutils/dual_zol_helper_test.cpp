#include "dual_zol_helper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "common/unique_fd.h"
#include "libzolutils/helper_internal.h"
#include "temp_folder.h"

using zol_utils::DualZOLHelper;
using zol_utils::UniqueFd;

namespace {

class DualZOL : public testing::Test {
 protected:
  DualZOL() { zol_utils::set_run_folder(folder.path()); }
  ~DualZOL() override { zol_utils::set_run_folder("/run/zol"); }

  std::string write_instance(const std::string& program, const std::string& version) {
    return folder.write("instances/" + program + "-" + version + ".pid", "1\n");
  }
  static UniqueFd lock(const std::string& path, int operation) {
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(::flock(file.get(), operation), 0);
    return file;
  }
  static bool others_run() { return helper().check_for_other_running_zol_instances(1, 2); }
  static DualZOLHelper& helper() { return *DualZOLHelper::instance(); }

  zol_test::TempFolder folder;
  const std::string me = program_invocation_short_name;
};

// Verifies that the version is the project's, alone and with its prefix.
TEST_F(DualZOL, Version) {
  EXPECT_EQ(helper().get_zol_version_num(), ZOL_VERSION);
  EXPECT_EQ(helper().get_zol_version(), std::string("zol-") + ZOL_VERSION);
  EXPECT_EQ(&helper(), DualZOLHelper::instance());
}

// Verifies that this version does the work when no file, or an empty one, names another.
TEST_F(DualZOL, ActiveWithoutAFile) {
  EXPECT_TRUE(helper().zol_is_services_should_run());
  EXPECT_TRUE(helper().zol_is_running());
  folder.write("active_version", "\n");
  EXPECT_TRUE(helper().zol_is_services_should_run());
}

// Verifies that the file of the active version decides at each call, with the prefix or without.
TEST_F(DualZOL, ActiveByTheFile) {
  folder.write("active_version", "zol-99.0.0\n");
  EXPECT_FALSE(helper().zol_is_services_should_run());
  EXPECT_FALSE(helper().zol_is_running());
  folder.write("active_version", std::string("zol-") + ZOL_VERSION + "\n");
  EXPECT_TRUE(helper().zol_is_services_should_run());
  EXPECT_TRUE(helper().zol_is_running());
  folder.write("active_version", "99.0.0");
  EXPECT_FALSE(helper().zol_is_services_should_run());
  folder.write("active_version", std::string(" ") + ZOL_VERSION + " \r\nzol-99.0.0\n");
  EXPECT_TRUE(helper().zol_is_services_should_run());
}

// Verifies that nobody else runs when the folder is missing or empty.
TEST_F(DualZOL, NoInstances) {
  EXPECT_FALSE(others_run());
  EXPECT_FALSE(helper().is_dual_installation());
  folder.write("instances/unrelated", "");
  EXPECT_FALSE(others_run());
  EXPECT_FALSE(helper().is_dual_installation());
}

// Verifies that another version of this program runs while its lock is held, of either kind, and no longer.
TEST_F(DualZOL, OtherVersionRuns) {
  const std::string path = write_instance(me, "zol-99.0.0");
  EXPECT_FALSE(others_run()) << "a file without a lock is left from a crash";
  {
    const UniqueFd holder = lock(path, LOCK_SH);
    EXPECT_TRUE(others_run());
  }
  EXPECT_FALSE(others_run());
  const UniqueFd holder = lock(path, LOCK_EX);
  EXPECT_TRUE(others_run());
}

// Verifies that neither this version of this program nor another program counts.
TEST_F(DualZOL, OthersDoNotCount) {
  const UniqueFd own = lock(write_instance(me, helper().get_zol_version()), LOCK_EX);
  const UniqueFd own_number = lock(write_instance(me, helper().get_zol_version_num()), LOCK_EX);
  const UniqueFd other = lock(write_instance("another_program", "zol-99.0.0"), LOCK_EX);
  const UniqueFd longer = lock(write_instance(me + "-extra", "zol-99.0.0"), LOCK_EX);
  EXPECT_FALSE(others_run());
}

// Verifies that the first look that finds none ends the wait, and that all tries are used when one runs.
TEST_F(DualZOL, Tries) {
  using Clock = std::chrono::steady_clock;
  constexpr unsigned an_hour_us = 3'600'000'000U;
  EXPECT_FALSE(helper().check_for_other_running_zol_instances(an_hour_us, 2));
  EXPECT_FALSE(helper().check_for_other_running_zol_instances(an_hour_us, 0));
  const UniqueFd holder = lock(write_instance(me, "zol-99.0.0"), LOCK_SH);
  EXPECT_TRUE(helper().check_for_other_running_zol_instances(an_hour_us, 1));
  EXPECT_TRUE(helper().check_for_other_running_zol_instances(an_hour_us, 0));
  const auto start = Clock::now();
  EXPECT_TRUE(helper().check_for_other_running_zol_instances(10'000, 3));
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(20));
}

// Verifies that two versions in the folder make a dual installation, whatever programs they are of.
TEST_F(DualZOL, DualInstallation) {
  write_instance("zol_monitor", "zol-1.0.0");
  write_instance("zol_monitor", "1.0.0");
  write_instance("vpn-agent", "zol-1.0.0");
  EXPECT_FALSE(helper().is_dual_installation());
  write_instance("vpn-agent", "zol-1.1.0-rc1");
  EXPECT_TRUE(helper().is_dual_installation());
}

// Verifies that a version without a number is told from its program too.
TEST_F(DualZOL, VersionWithoutANumber) {
  const UniqueFd holder = lock(write_instance(me, "next"), LOCK_SH);
  EXPECT_TRUE(others_run());
}

// Verifies that the file "no_shared_memory" turns the shared records off.
TEST_F(DualZOL, SharedMemory) {
  EXPECT_TRUE(zol_utils::is_shared_memory_allowed());
  folder.write("no_shared_memory", "");
  EXPECT_FALSE(zol_utils::is_shared_memory_allowed());
}

// Verifies that the flag is set before static objects are built, from the real folder.
const bool shared_memory_at_static_start = zol_utils::shared_mem_enabled;
TEST(SharedMemoryFlag, SetAtStart) {
  const bool allowed = ::access("/run/zol/no_shared_memory", F_OK) != 0;
  EXPECT_EQ(zol_utils::shared_mem_enabled, allowed);
  EXPECT_EQ(shared_memory_at_static_start, allowed);
}

}  // namespace
