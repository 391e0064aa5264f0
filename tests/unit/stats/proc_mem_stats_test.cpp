#include "stats/proc_mem_stats.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>

#include <cstring>

#include "stats_fixture.h"
#include "sup_logger.h"

namespace {

using zol_test::Child;
using zol_test::FakeProc;

class ProcMemStatsTest : public zol_test::StatsFixture {};

const char* const meminfo =
    "MemTotal:        8000 kB\n"
    "MemFree:         1000 kB\n"
    "MemAvailable:    3000 kB\n"
    "MemTotal:        9999 kB\n";

TEST_F(ProcMemStatsTest, machine) {
  // Verifies that total and available RAM are read, and nothing behind the latter.
  FakeProc proc;
  proc.write("meminfo", meminfo);
  ProcMemStats::read_system_ram();
  EXPECT_EQ(ProcMemStats::total_ram, 8000U);
  EXPECT_EQ(ProcMemStats::idle_ram, 3000U);
  EXPECT_TRUE(log_.contains(log_level::debug, "read_system_ram: total RAM on machine: 8000 bytes"));
  EXPECT_TRUE(
      log_.contains(log_level::debug,
                    "read_system_ram: total idle RAM on machine: 3000 bytes (buffers and cached memory "
                    "included)"));
}

TEST_F(ProcMemStatsTest, machine_unknown) {
  // Verifies that missing and odd figures are 0.
  FakeProc proc;
  proc.write("meminfo", meminfo);
  ProcMemStats::read_system_ram();
  proc.write("meminfo", "MemTotal:        8000 kB\nMemFree: 1000 kB\n");
  ProcMemStats::read_system_ram();
  EXPECT_EQ(ProcMemStats::total_ram, 8000U);
  EXPECT_EQ(ProcMemStats::idle_ram, 0U);
  proc.write("meminfo", "MemTotal: many\nMemAvailable: 5\n");
  ProcMemStats::read_system_ram();
  EXPECT_EQ(ProcMemStats::total_ram, 0U);
  FakeProc nothing;
  ProcMemStats::total_ram = 5;
  ProcMemStats::read_system_ram();
  EXPECT_EQ(ProcMemStats::total_ram, 0U);
  EXPECT_TRUE(log_.contains(log_level::warning, "read_system_ram: failed to read the machine's RAM"));
}

TEST_F(ProcMemStatsTest, process) {
  // Verifies that the resident part is a percentage of the machine's RAM and enters the sum.
  FakeProc proc;
  proc.write("meminfo", meminfo);
  proc.write(7, "status", "Name:\tbird\nState:\tS (sleeping)\nVmHWM:\t  900 kB\nVmRSS:\t  200 kB\n");
  ProcMemStats::zol_ram = 11;
  const ProcMemStats stats(7);
  EXPECT_EQ(stats.status_path, proc.folder() + "/7/status");
  EXPECT_EQ(stats.pid, 7);
  EXPECT_EQ(stats.rss_kb, 200U);
  EXPECT_DOUBLE_EQ(stats.ram_percent, 2.5);
  EXPECT_EQ(ProcMemStats::zol_ram, 211U);
  EXPECT_TRUE(
      log_.contains(log_level::debug, "calculate_ram_usage: read RAM usage for proc 7: 200KB (2.5%)"));
}

TEST_F(ProcMemStatsTest, process_gone) {
  // Verifies that a process without a file has 0, with a warning.
  FakeProc proc;
  proc.write("meminfo", meminfo);
  const ProcMemStats stats(7);
  EXPECT_EQ(stats.ram_percent, 0.0);
  EXPECT_TRUE(log_.contains(log_level::warning, "calculate_ram_usage: failed to read RAM usage for PID 7"));
}

TEST_F(ProcMemStatsTest, no_rss) {
  // Verifies that a process without resident memory, as a kernel thread, has 0, with a warning.
  FakeProc proc;
  proc.write("meminfo", meminfo);
  for (const char* text :
       {"Name:\tkthreadd\nState:\tS (sleeping)\n", "State:", "VmRSS:\n", "VmRSS: x kB\n", ""}) {
    log_.clear();
    proc.write(7, "status", text);
    const ProcMemStats stats(7);
    EXPECT_EQ(stats.ram_percent, 0.0) << text;
    EXPECT_TRUE(log_.contains(log_level::warning, "calculate_ram_usage: Could not read process RAM usage"))
        << text;
  }
  EXPECT_EQ(ProcMemStats::zol_ram, 0U);
}

TEST_F(ProcMemStatsTest, no_total) {
  // Verifies that without the machine's total there is a warning in place of a division.
  FakeProc proc;
  proc.write(7, "status", "State:\tS (sleeping)\nVmRSS:\t  200 kB\n");
  const ProcMemStats stats(7);
  EXPECT_EQ(stats.ram_percent, 0.0);
  EXPECT_EQ(ProcMemStats::zol_ram, 0U);
  EXPECT_TRUE(log_.contains(log_level::warning,
                            "calculate_ram_usage: total RAM usage for process 7 is 0 - might be a bug"));
}

TEST_F(ProcMemStatsTest, zombie) {
  // Verifies that a real zombie has 0, with a warning, and adds nothing to the sum.
  Child child;
  child.turn_zombie();
  const ProcMemStats stats(child.pid());
  EXPECT_EQ(stats.ram_percent, 0.0);
  EXPECT_EQ(ProcMemStats::zol_ram, 0U);
  EXPECT_TRUE(log_.contains(log_level::warning, "calculate_ram_usage: process " +
                                                    std::to_string(child.pid()) + " is in zombie state"))
      << log_.all();
}

TEST_F(ProcMemStatsTest, zombie_with_rss) {
  // Verifies that the state alone decides.
  FakeProc proc;
  proc.write("meminfo", meminfo);
  proc.write(7, "status", "State:\tZ (zombie)\nVmRSS:\t  200 kB\n");
  EXPECT_EQ(ProcMemStats(7).ram_percent, 0.0);
  EXPECT_EQ(ProcMemStats::zol_ram, 0U);
}

TEST_F(ProcMemStatsTest, process_with_memory) {
  // Verifies that a real process that holds memory shows it, as a part of the machine's real RAM.
  constexpr std::size_t held = std::size_t{48} << 20;
  const Child child([] {
    void* memory =
        mmap(nullptr, held, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED)
      _exit(1);
    std::memset(memory, 1, held);
  });
  const ProcMemStats stats(child.pid());
  EXPECT_GE(stats.rss_kb, held / 1024);
  struct sysinfo machine {};
  ASSERT_EQ(sysinfo(&machine), 0);
  const double total_kb = static_cast<double>(machine.totalram) * machine.mem_unit / 1024;
  EXPECT_NEAR(static_cast<double>(ProcMemStats::total_ram), total_kb, 1);
  EXPECT_NEAR(stats.ram_percent, static_cast<double>(stats.rss_kb) * 100 / total_kb, 0.001);
  EXPECT_EQ(ProcMemStats::zol_ram, stats.rss_kb);
}

TEST_F(ProcMemStatsTest, kernel_thread) {
  // Verifies that a real kernel thread has 0, with a warning.
  if (access("/proc/2/exe", F_OK) == 0)
    GTEST_SKIP() << "process 2 is no kernel thread in this PID namespace";
  const ProcMemStats stats(2);
  EXPECT_EQ(stats.ram_percent, 0.0);
  EXPECT_TRUE(log_.contains(log_level::warning, "calculate_ram_usage: "));
}

TEST_F(ProcMemStatsTest, shares) {
  // Verifies that what is neither available nor the node's is others'.
  ProcMemStats::total_ram = 8000;
  ProcMemStats::idle_ram = 3000;
  ProcMemStats::zol_ram = 500;
  ProcMemStats::update_system_mem_stats();
  EXPECT_EQ(ProcMemStats::mem_stat.other, 4500);
  EXPECT_TRUE(log_.contains(log_level::info,
                            "update_counters: RAM: total: 8000, idle: 3000, vantorel: 500, other: 4500"));
}

TEST_F(ProcMemStatsTest, shares_beyond_total) {
  // Verifies that reclaimable memory beyond the total leaves nothing to others, with a warning.
  ProcMemStats::total_ram = 8000;
  ProcMemStats::idle_ram = 7900;
  ProcMemStats::zol_ram = 500;
  ProcMemStats::update_system_mem_stats();
  EXPECT_EQ(ProcMemStats::mem_stat.other, 0);
  EXPECT_TRUE(
      log_.contains(log_level::warning,
                    "update_counters: calculated negative value for other processes: 8000 - 7900 - 500 "
                    "= -400. setting value to zero"));
}

}  // namespace
