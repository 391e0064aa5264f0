#include "stats/proc_cpu_stats.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

#include "stats_fixture.h"
#include "sup_logger.h"

namespace {

using zol_test::burn_ticks;
using zol_test::Child;
using zol_test::FakeProc;

class ProcCpuStatsTest : public zol_test::StatsFixture {};

// A machine of four cores: a total of 1055, 400 of it idle.
const char* const four_cores =
    "cpu  100 20 30 400 50 60 70 80 115 130\n"
    "cpu0 1 2 3 4 5 6 7 8 9 10\n"
    "cpu1 1 2 3 4 5 6 7 8 9 10\n"
    "cpu2 1 2 3 4 5 6 7 8 9 10\n"
    "cpu3 1 2 3 4 5 6 7 8 9 10\n"
    "intr 5 6 7\n"
    "cpu4 1 2 3 4 5 6 7 8 9 10\n";

// A process's line in the kernel's form with those times.
std::string process_line(const std::string& name, unsigned utime, unsigned stime) {
  return "7 (" + name + ") S 1 7 7 0 -1 4194560 100 200 300 400 " + std::to_string(utime) + " " +
         std::to_string(stime) + " 11 12 20 0 1 0 99 1000 10\n";
}

// --- differences ---

TEST_F(ProcCpuStatsTest, ticks_diff) {
  // Verifies that a shift begins a new interval, and that without one the interval stretches.
  CpuTicksDiff ticks;
  ticks.update(100, true);
  EXPECT_EQ(ticks.last, 0U);
  EXPECT_EQ(ticks.cur, 100U);
  EXPECT_EQ(ticks.diff, 100U);
  EXPECT_TRUE(log_.contains(log_level::trace, "updatenew cur: 100, last: 0, diff: 100"));
  ticks.update(130, true);
  EXPECT_EQ(ticks.last, 100U);
  EXPECT_EQ(ticks.diff, 30U);
  ticks.update(150, false);
  EXPECT_EQ(ticks.last, 100U);
  EXPECT_EQ(ticks.cur, 150U);
  EXPECT_EQ(ticks.diff, 50U);
}

// --- the machine ---

TEST_F(ProcCpuStatsTest, machine) {
  // Verifies that the total is the sum of ten columns, idle is the fourth, and the cores are counted up to
  // the first other line.
  FakeProc proc;
  proc.write("stat", four_cores);
  ProcCpuStats::read_total_cpu_stats(true);
  EXPECT_EQ(ProcCpuStats::num_of_cores, 4);
  EXPECT_EQ(ProcCpuStats::total_ticks.cur, 1055U);
  EXPECT_EQ(ProcCpuStats::total_ticks.diff, 1055U);
  EXPECT_EQ(ProcCpuStats::idle_ticks.cur, 400U);
  EXPECT_TRUE(
      log_.contains(log_level::debug, "read_total_cpu_stats: total CPU ticks: 1055, num of cores: 4"));
  EXPECT_TRUE(log_.contains(log_level::trace, "read_total_cpu_stats: read cpu id 3"));
  EXPECT_EQ(log_.count(": read cpu id "), 4);
}

TEST_F(ProcCpuStatsTest, machine_at_end_of_file) {
  // Verifies that a file that ends with the cores is read too.
  FakeProc proc;
  proc.write("stat", "cpu  1 2 3 4 5 6 7 8 9 10\ncpu0 1 2 3 4 5 6 7 8 9 10");
  ProcCpuStats::read_total_cpu_stats(true);
  EXPECT_EQ(ProcCpuStats::num_of_cores, 1);
  EXPECT_EQ(ProcCpuStats::total_ticks.cur, 55U);
}

TEST_F(ProcCpuStatsTest, machine_reread) {
  // Verifies that reading again stretches the interval of total and idle, and a shift begins another.
  FakeProc proc;
  proc.write("stat", "cpu  100 0 0 400 0 0 0 0 0 0\n");
  ProcCpuStats::read_total_cpu_stats(true);
  proc.write("stat", "cpu  110 0 0 440 0 0 0 0 0 0\n");
  ProcCpuStats::read_total_cpu_stats(true);
  EXPECT_EQ(ProcCpuStats::total_ticks.diff, 50U);
  proc.write("stat", "cpu  120 0 0 445 0 0 0 0 0 0\n");
  ProcCpuStats::re_read_system_cpu_stats();
  EXPECT_EQ(ProcCpuStats::total_ticks.last, 500U);
  EXPECT_EQ(ProcCpuStats::total_ticks.diff, 65U);
  EXPECT_EQ(ProcCpuStats::idle_ticks.last, 400U);
  EXPECT_EQ(ProcCpuStats::idle_ticks.diff, 45U);
  ProcCpuStats::read_total_cpu_stats(true);
  EXPECT_EQ(ProcCpuStats::total_ticks.diff, 0U);
}

TEST_F(ProcCpuStatsTest, machine_short_line) {
  // Verifies that each missing column is named by a warning and leaves all figures as they were.
  const std::array names = {"user", "nice",    "system", "idle",  "iowait",
                            "irq",  "softirq", "steal",  "guest", "guest_nice"};
  FakeProc proc;
  proc.write("stat", four_cores);
  ProcCpuStats::read_total_cpu_stats(true);
  std::string line = "cpu ";
  for (const char* name : names) {
    log_.clear();
    proc.write("stat", line + "\ncpu0 1 2 3 4 5 6 7 8 9 10\n");
    ProcCpuStats::read_total_cpu_stats(true);
    EXPECT_TRUE(log_.contains(
        log_level::warning, std::string("read_total_cpu_stats: failed to read CPU stats for '") + name + "'"))
        << log_.all();
    EXPECT_EQ(ProcCpuStats::num_of_cores, 4);
    EXPECT_EQ(ProcCpuStats::total_ticks.cur, 1055U);
    EXPECT_EQ(ProcCpuStats::total_ticks.last, 0U);
    EXPECT_EQ(ProcCpuStats::idle_ticks.cur, 400U);
    line += " 9";
  }
}

TEST_F(ProcCpuStatsTest, machine_odd_files) {
  // Verifies that no file and files without the machine's line or with a bad number leave all as it was.
  FakeProc proc;
  proc.write("stat", four_cores);
  ProcCpuStats::read_total_cpu_stats(true);
  for (const char* text : {"", "cpu0 1 2 3 4 5 6 7 8 9 10\n", "intr 4\n"}) {
    log_.clear();
    proc.write("stat", text);
    ProcCpuStats::read_total_cpu_stats(true);
    EXPECT_TRUE(log_.contains(log_level::warning, "read_total_cpu_stats: Failed to read /proc/stat file"))
        << text;
    EXPECT_EQ(ProcCpuStats::total_ticks.cur, 1055U) << text;
    EXPECT_EQ(ProcCpuStats::num_of_cores, 4) << text;
  }
  proc.write("stat", "cpu  1 2 x 4 5 6 7 8 9 10\n");
  ProcCpuStats::read_total_cpu_stats(true);
  EXPECT_TRUE(log_.contains(log_level::warning, ": failed to read CPU stats for 'system'"));
  EXPECT_EQ(ProcCpuStats::total_ticks.cur, 1055U);
}

TEST_F(ProcCpuStatsTest, no_stat_file) {
  // Verifies that a missing file is told and changes nothing.
  ProcCpuStats::num_of_cores = 3;
  FakeProc proc;
  ProcCpuStats::read_total_cpu_stats(true);
  EXPECT_TRUE(log_.contains(log_level::warning, "read_total_cpu_stats: Failed to read /proc/stat file"));
  EXPECT_EQ(ProcCpuStats::num_of_cores, 3);
}

TEST_F(ProcCpuStatsTest, real_machine) {
  // Verifies that this machine's own figures are read.
  ProcCpuStats::read_total_cpu_stats(true);
  EXPECT_GT(ProcCpuStats::num_of_cores, 0);
  EXPECT_GT(ProcCpuStats::total_ticks.cur, ProcCpuStats::idle_ticks.cur);
  EXPECT_GT(ProcCpuStats::idle_ticks.cur, 0U);
}

// --- a process ---

TEST_F(ProcCpuStatsTest, process) {
  // Verifies that user and kernel time are added, and both enter the sum over the processes.
  FakeProc proc;
  proc.write(7, "stat", process_line("bird", 50, 60));
  ProcCpuStats::zol_ticks = {.last = 1000, .cur = 5, .diff = 5 - std::uint64_t{1000}};
  ProcCpuStats stats(7);
  stats.read_proc_cpu_stats();
  EXPECT_EQ(stats.ticks.cur, 110U);
  EXPECT_EQ(stats.ticks.diff, 110U);
  EXPECT_EQ(ProcCpuStats::zol_ticks.cur, 115U);
  EXPECT_EQ(ProcCpuStats::zol_ticks.diff, 115 - std::uint64_t{1000});
  EXPECT_TRUE(
      log_.contains(log_level::trace, "read_proc_cpu_stats: Process 7: user time:50, kernel time:60"));
  proc.write(7, "stat", process_line("bird", 55, 62));
  stats.read_proc_cpu_stats();
  EXPECT_EQ(stats.ticks.last, 110U);
  EXPECT_EQ(stats.ticks.diff, 7U);
}

TEST_F(ProcCpuStatsTest, process_name_with_blank) {
  // Verifies that the fields are counted by blanks, so that a name with one shifts them.
  FakeProc proc;
  proc.write(7, "stat", process_line("two words", 50, 60));
  ProcCpuStats stats(7);
  stats.read_proc_cpu_stats();
  EXPECT_EQ(stats.ticks.cur, 400U + 50U);
}

TEST_F(ProcCpuStatsTest, process_gone) {
  // Verifies that a process without a file, or with a short or odd one, keeps its ticks and adds none.
  FakeProc proc;
  ProcCpuStats stats(7);
  stats.ticks = {.last = 1, .cur = 2, .diff = 1};
  const std::string warning = "read_proc_cpu_stats: Failed to read file " + proc.folder() + "/7/stat";
  stats.read_proc_cpu_stats();
  EXPECT_TRUE(log_.contains(log_level::warning, warning));
  for (const char* text : {"", "7 (bird) S 1 7 7 0 -1 4194560 100 200 300 400 50",
                           "7 (bird) S 1 7 7 0 -1 4194560 100 200 300 400 50 x 1 2"}) {
    log_.clear();
    proc.write(7, "stat", text);
    stats.read_proc_cpu_stats();
    EXPECT_TRUE(log_.contains(log_level::warning, warning)) << text;
  }
  EXPECT_EQ(stats.ticks.cur, 2U);
  EXPECT_EQ(stats.ticks.diff, 1U);
  EXPECT_EQ(ProcCpuStats::zol_ticks.cur, 0U);
}

TEST_F(ProcCpuStatsTest, busy_process) {
  // Verifies that the ticks are those of a real process that has worked.
  const Child child([] { burn_ticks(4); });
  ProcCpuStats stats(child.pid());
  stats.read_proc_cpu_stats();
  EXPECT_GE(stats.ticks.cur, 4U);
  EXPECT_EQ(stats.ticks.cur, child.stat_field(14) + child.stat_field(15));
}

TEST_F(ProcCpuStatsTest, busy_process_with_blank_in_name) {
  // Verifies that a real process whose name has a blank gives the field before the user time in place of it.
  const Child child([] { burn_ticks(4); }, "two words");
  ProcCpuStats stats(child.pid());
  stats.read_proc_cpu_stats();
  EXPECT_EQ(stats.ticks.cur, child.stat_field(13) + child.stat_field(14));
}

TEST_F(ProcCpuStatsTest, reset) {
  // Verifies that another process is followed with the ticks as they stand.
  ProcCpuStats stats(7);
  stats.ticks = {.last = 1, .cur = 2, .diff = 1};
  stats.reset(8);
  EXPECT_EQ(stats.pid, 8);
  EXPECT_EQ(stats.ticks.cur, 2U);
}

TEST_F(ProcCpuStatsTest, usage) {
  // Verifies that a process that fills one core of four has 100, and two cores 200.
  FakeProc proc;
  ProcCpuStats::num_of_cores = 4;
  ProcCpuStats::total_ticks.diff = 400;
  ProcCpuStats stats(7);
  proc.write(7, "stat", process_line("bird", 60, 40));
  EXPECT_DOUBLE_EQ(stats.calc_cpu_usage(), 100.0);
  EXPECT_DOUBLE_EQ(stats.cpu_usage, 100.0);
  EXPECT_EQ(stats.ticks_diff, 100U);
  proc.write(7, "stat", process_line("bird", 260, 40));
  EXPECT_DOUBLE_EQ(stats.calc_cpu_usage(), 200.0);
  EXPECT_EQ(stats.ticks_diff, 200U);
}

TEST_F(ProcCpuStatsTest, usage_of_no_time) {
  // Verifies that without a difference of the total the usage is 0, with a warning.
  FakeProc proc;
  proc.write(7, "stat", process_line("bird", 60, 40));
  ProcCpuStats::num_of_cores = 4;
  ProcCpuStats stats(7);
  stats.cpu_usage = 5;
  EXPECT_EQ(stats.calc_cpu_usage(), 0.0);
  EXPECT_EQ(stats.cpu_usage, 0.0);
  EXPECT_EQ(stats.ticks_diff, 100U);
  EXPECT_TRUE(
      log_.contains(log_level::warning, "calc_cpu_usage: Unable to calculate cpu usage for process 7"));
}

// --- shares of the machine ---

TEST_F(ProcCpuStatsTest, shares) {
  // Verifies that what is neither idle nor the node's is others'.
  ProcCpuStats::total_ticks.diff = 1000;
  ProcCpuStats::idle_ticks.diff = 600;
  ProcCpuStats::zol_ticks.diff = 150;
  ProcCpuStats::update_system_cpu_stats();
  EXPECT_EQ(ProcCpuStats::cpu_stat.total, 1000U);
  EXPECT_EQ(ProcCpuStats::cpu_stat.idle, 600U);
  EXPECT_EQ(ProcCpuStats::cpu_stat.zol, 150U);
  EXPECT_EQ(ProcCpuStats::cpu_stat.other, 250U);
  EXPECT_TRUE(log_.contains(log_level::info,
                            "update_counters: CPU: total: 1000, idle: 600, vantorel: 150, other: 250"));
  EXPECT_FALSE(log_.contains("calculated negative value"));
}

TEST_F(ProcCpuStatsTest, shares_beyond_total) {
  // Verifies that idle and the node's share beyond the total leave nothing to others, with a warning.
  ProcCpuStats::total_ticks.diff = 1000;
  ProcCpuStats::idle_ticks.diff = 900;
  ProcCpuStats::zol_ticks.diff = 150;
  ProcCpuStats::update_system_cpu_stats();
  EXPECT_EQ(ProcCpuStats::cpu_stat.other, 0U);
  EXPECT_TRUE(
      log_.contains(log_level::warning,
                    "update_counters: calculated negative value for other processes: 1000 - 900 - 150 "
                    "= -50. setting value to zero"));
  EXPECT_TRUE(log_.contains(log_level::info, "vantorel: 150, other: 0"));
  ProcCpuStats::idle_ticks.diff = 1001;
  ProcCpuStats::zol_ticks.diff = 0;
  ProcCpuStats::update_system_cpu_stats();
  EXPECT_EQ(ProcCpuStats::cpu_stat.other, 0U);
}

TEST_F(ProcCpuStatsTest, shrunk_sum) {
  // Verifies that a sum that has become smaller is no use at all, and no huge one.
  ProcCpuStats::total_ticks.diff = 1000;
  ProcCpuStats::idle_ticks.diff = 900;
  ProcCpuStats::zol_ticks.diff = std::uint64_t{0} - 5;
  ProcCpuStats::update_system_cpu_stats();
  EXPECT_EQ(ProcCpuStats::cpu_stat.zol, 0U);
  EXPECT_EQ(ProcCpuStats::cpu_stat.other, 100U);
}

TEST_F(ProcCpuStatsTest, percent) {
  // Verifies that a share is a percentage of the total, and 0 of nothing.
  const SystemPerfStat<int> stat{.name = "x", .total = 200, .other = 50, .idle = 100, .zol = 50};
  EXPECT_DOUBLE_EQ(stat.percent(stat.other), 25.0);
  EXPECT_DOUBLE_EQ(stat.percent(stat.idle), 50.0);
  EXPECT_EQ(SystemPerfStat<int>{}.percent(7), 0.0);
}

}  // namespace
