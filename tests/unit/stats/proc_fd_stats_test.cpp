#include "stats/proc_fd_stats.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <limits>

#include "stats_fixture.h"
#include "sup_logger.h"

namespace {

using zol_test::Child;
using zol_test::FakeProc;

class ProcFdStatsTest : public zol_test::StatsFixture {};

std::string limits_with(const std::string& soft, const std::string& hard) {
  return "Limit                     Soft Limit           Hard Limit           Units     \n"
         "Max processes             7                    8                    processes \n"
         "Max open files            " +
         soft + "                 " + hard +
         "                 files     \n"
         "Max open filesx           5                    6                    files     \n";
}

void set_limit(rlim_t soft, rlim_t hard) {
  const rlimit limit = {soft, hard};
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
    _exit(1);
}

// Beside those that every child of this test begins with.
void hold_descriptors(int number) {
  for (int i = 0; i < number; ++i) {
    if (open("/dev/null", O_RDONLY) < 0)
      _exit(1);
  }
}

TEST_F(ProcFdStatsTest, empty_process) {
  // Verifies that a process without descriptors counts the two entries of its empty folder.
  FakeProc proc;
  proc.write(7, "limits", limits_with("100", "200"));
  std::filesystem::create_directories(proc.folder() + "/7/fd");
  const ProcFdStats stats(7);
  EXPECT_EQ(stats.open_fds, 2);
  EXPECT_EQ(stats.fd_limit, 100);
  EXPECT_DOUBLE_EQ(stats.fd_ratio, 0.02);
}

TEST_F(ProcFdStatsTest, process) {
  // Verifies count, soft limit, ratio, and that sum and maximum follow.
  FakeProc proc;
  proc.write(7, "limits", limits_with("20", "200"));
  for (const char* fd : {"fd/0", "fd/1", "fd/2"})
    proc.write(7, fd, "");
  ProcFdStats::zol_fds = 10;
  const ProcFdStats stats(7);
  EXPECT_EQ(stats.open_fds, 5);
  EXPECT_EQ(stats.fd_limit, 20);
  EXPECT_DOUBLE_EQ(stats.fd_ratio, 0.25);
  EXPECT_EQ(ProcFdStats::zol_fds, 15);
  EXPECT_DOUBLE_EQ(ProcFdStats::max_fd_ratio, 0.25);
  EXPECT_TRUE(
      log_.contains(log_level::debug, "calculate_fd_ratio: Process 7: open fds: 5, limit: 20, ratio: 0.25"));
  ProcFdStats::max_fd_ratio = 0.5;
  const ProcFdStats again(7);
  EXPECT_DOUBLE_EQ(again.fd_ratio, 0.25);
  EXPECT_DOUBLE_EQ(ProcFdStats::max_fd_ratio, 0.5);
}

TEST_F(ProcFdStatsTest, no_folder) {
  // Verifies that a process whose descriptors can't be listed has none, with a warning.
  FakeProc proc;
  proc.write(7, "limits", limits_with("20", "200"));
  const ProcFdStats stats(7);
  EXPECT_EQ(stats.open_fds, 0);
  EXPECT_EQ(stats.fd_ratio, 0.0);
  EXPECT_EQ(ProcFdStats::zol_fds, 0);
  EXPECT_TRUE(log_.contains(log_level::warning, "calculate_fd_count: Failed to calculate FDs for process 7"));
}

TEST_F(ProcFdStatsTest, no_limit) {
  // Verifies that without a limit that is a number there is no ratio, with two warnings.
  FakeProc proc;
  proc.write(7, "fd/0", "");
  const auto expect_no_ratio = [this](const std::string& text) {
    log_.clear();
    const ProcFdStats stats(7);
    EXPECT_EQ(stats.fd_limit, 0) << text;
    EXPECT_EQ(stats.fd_ratio, 0.0) << text;
    EXPECT_EQ(stats.open_fds, 3) << text;
    EXPECT_TRUE(log_.contains(log_level::warning, "calculate_fd_limit: failed to read FD limit of process 7"))
        << text;
    EXPECT_TRUE(
        log_.contains(log_level::warning, "calculate_fd_ratio: failed to calculate FD ratio for process 7"))
        << text;
  };
  expect_no_ratio("no file");
  for (const std::string& text :
       {std::string(), std::string("Max open file 5 6 files\n"), std::string("Max open files"),
        limits_with("unlimited", "unlimited"), limits_with("99999999999", "99999999999")}) {
    proc.write(7, "limits", text);
    expect_no_ratio(text);
  }
  EXPECT_EQ(ProcFdStats::max_fd_ratio, 0.0);
}

TEST_F(ProcFdStatsTest, zero_limit) {
  // Verifies that a limit of 0 isn't divided by.
  FakeProc proc;
  proc.write(7, "fd/0", "");
  proc.write(7, "limits", limits_with("0", "200"));
  EXPECT_EQ(ProcFdStats(7).fd_ratio, 0.0);
  EXPECT_TRUE(
      log_.contains(log_level::warning, "calculate_fd_ratio: failed to calculate FD ratio for process 7"));
  EXPECT_FALSE(log_.contains("failed to read FD limit"));
}

TEST_F(ProcFdStatsTest, process_with_descriptors) {
  // Verifies that a real process shows what it holds and its soft limit.
  const Child few([] { set_limit(80, 160); });
  const Child many([] {
    set_limit(80, 160);
    hold_descriptors(20);
  });
  const Child more([] {
    set_limit(80, 160);
    hold_descriptors(40);
  });
  const ProcFdStats few_stats(few.pid());
  const ProcFdStats many_stats(many.pid());
  const ProcFdStats more_stats(more.pid());
  EXPECT_EQ(few_stats.fd_limit, 80);
  EXPECT_GE(few_stats.open_fds, 2 + 3);
  EXPECT_EQ(more_stats.open_fds - many_stats.open_fds, 20);
  EXPECT_DOUBLE_EQ(more_stats.fd_ratio, more_stats.open_fds / 80.0);
  EXPECT_DOUBLE_EQ(ProcFdStats::max_fd_ratio, more_stats.fd_ratio);
  EXPECT_EQ(ProcFdStats::zol_fds, few_stats.open_fds + many_stats.open_fds + more_stats.open_fds);
}

TEST_F(ProcFdStatsTest, shares) {
  // Verifies that idle is what the machine has left, and what the node doesn't hold is others'.
  FakeProc proc;
  proc.write("sys/fs/file-nr", "700\t5\t10000\n");
  ProcFdStats::zol_fds = 150;
  ProcFdStats::update_system_fd_stats();
  EXPECT_EQ(ProcFdStats::allocated_fds, 700);
  EXPECT_EQ(ProcFdStats::max_fds, 10000);
  EXPECT_EQ(ProcFdStats::fd_stat.total, 10000);
  EXPECT_EQ(ProcFdStats::fd_stat.idle, 9300);
  EXPECT_EQ(ProcFdStats::fd_stat.zol, 150);
  EXPECT_EQ(ProcFdStats::fd_stat.other, 550);
  EXPECT_TRUE(log_.contains(log_level::debug, "update_system_fd_stats: read usage 700, limit 10000"));
  EXPECT_TRUE(log_.contains(log_level::info,
                            "update_counters: FD: total: 10000, idle: 9300, vantorel: 150, other: 550"));
}

TEST_F(ProcFdStatsTest, shares_beyond_allocated) {
  // Verifies that the node's count beyond the machine's leaves nothing to others, with a warning.
  FakeProc proc;
  proc.write("sys/fs/file-nr", "100 0 10000\n");
  ProcFdStats::zol_fds = 150;
  ProcFdStats::update_system_fd_stats();
  EXPECT_EQ(ProcFdStats::fd_stat.other, 0);
  EXPECT_TRUE(
      log_.contains(log_level::warning,
                    "update_counters: calculated negative value for other processes: 10000 - 9900 - 150 "
                    "= -50. setting value to zero"));
}

TEST_F(ProcFdStatsTest, great_limit) {
  // Verifies that a machine's limit beyond an int, which newer kernels have, counts as the greatest int.
  FakeProc proc;
  proc.write("sys/fs/file-nr", "700 0 9223372036854775807\n");
  ProcFdStats::update_system_fd_stats();
  EXPECT_EQ(ProcFdStats::fd_stat.total, std::numeric_limits<int>::max());
  EXPECT_EQ(ProcFdStats::fd_stat.idle, std::numeric_limits<int>::max() - 700);
  EXPECT_EQ(ProcFdStats::fd_stat.other, 700);
}

TEST_F(ProcFdStatsTest, no_machine_figures) {
  // Verifies that without the machine's figures all shares are 0, with a warning.
  FakeProc proc;
  ProcFdStats::zol_fds = 150;
  for (const char* text : {"", "700 5", "a b c"}) {
    ProcFdStats::fd_stat = {.name = "FD", .total = 1, .other = 1, .idle = 1, .zol = 1};
    ProcFdStats::allocated_fds = ProcFdStats::max_fds = 9;
    log_.clear();
    if (*text != '\0')
      proc.write("sys/fs/file-nr", text);
    ProcFdStats::update_system_fd_stats();
    EXPECT_TRUE(log_.contains(log_level::warning,
                              "update_system_fd_stats: failed to read system file descriptors usage"));
    EXPECT_TRUE(
        log_.contains(log_level::info, "update_counters: FD: total: 0, idle: 0, vantorel: 0, other: 0"));
    EXPECT_EQ(ProcFdStats::fd_stat.total, 0);
    EXPECT_EQ(ProcFdStats::fd_stat.other, 0);
    EXPECT_EQ(ProcFdStats::fd_stat.idle, 0);
    EXPECT_EQ(ProcFdStats::fd_stat.zol, 0);
    EXPECT_EQ(ProcFdStats::allocated_fds, 0);
    EXPECT_EQ(ProcFdStats::max_fds, 0);
  }
}

TEST_F(ProcFdStatsTest, real_machine) {
  // Verifies that this machine's own figures are read.
  ProcFdStats::update_system_fd_stats();
  EXPECT_GT(ProcFdStats::fd_stat.total, 0);
  EXPECT_GT(ProcFdStats::allocated_fds, 0);
}

}  // namespace
