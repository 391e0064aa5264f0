#include "stats/proc_stats_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "stats/proc_mem_stats.h"
#include "stats_fixture.h"
#include "sup_logger.h"

namespace {

using libvariant::Variant;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using zol_test::burn_ticks;
using zol_test::Child;
using zol_test::FakeProc;

class ProcessesManagerTest : public zol_test::StatsFixture {};

std::vector<std::string> names_in(const Variant& report) {
  std::vector<std::string> names;
  for (const Variant& row : report.AsList())
    names.push_back(row.At("process_name").AsString());
  return names;
}

TEST_F(ProcessesManagerTest, allowed_processes) {
  // Verifies the names of the node's processes and of the measurement agent's.
  EXPECT_THAT(ProcessesManager::get_allowed_processes(false),
              UnorderedElementsAre("zol_monitor", "wanproxy0", "watchdog", "ydns1", "ydns2", "zol_ha_agent",
                                   "pluto", "bird", "keepalived"));
  EXPECT_THAT(ProcessesManager::get_allowed_processes(true),
              UnorderedElementsAre("pluto", "kpa_monitor", "owampd", "iperf3", "watchdog"));
}

TEST_F(ProcessesManagerTest, constructor) {
  // Verifies that a manager begins with the machine's RAM and no process, and that there is one for all.
  FakeProc proc;
  proc.write("meminfo", "MemTotal: 8000 kB\nMemAvailable: 3000 kB\n");
  const ProcessesManager manager;
  EXPECT_EQ(ProcMemStats::total_ram, 8000U);
  EXPECT_THAT(manager.processes, IsEmpty());
  EXPECT_EQ(ProcessesManager::instance(), ProcessesManager::instance());
}

TEST_F(ProcessesManagerTest, allowed_alone) {
  // Verifies that a process without an allowed name is passed over, and what is under it isn't.
  const Child child([] { static const Child below({}, "zt-allowed"); }, "zt-ignored");
  ProcessesManager manager;
  manager.calculate_processes_performance({"zt-allowed"});
  ASSERT_EQ(manager.processes.size(), 1U);
  const Process& process = manager.processes.at("zt-allowed");
  EXPECT_EQ(process.name, "zt-allowed");
  EXPECT_GT(process.ram, 0.0);
  EXPECT_GT(process.fd_ratio, 0.0);
  EXPECT_TRUE(
      log_.contains(log_level::debug, "calculate_processes_performance: ignoring process zt-ignored"));
  EXPECT_TRUE(log_.contains(log_level::info, "print_proc_status: zt-allowed("));
}

TEST_F(ProcessesManagerTest, parent_is_watchdog) {
  // Verifies that the parent of this process is measured under the watchdog's name.
  ProcessesManager manager;
  manager.calculate_processes_performance({"watchdog"});
  ASSERT_EQ(manager.processes.count("watchdog"), 1U);
  EXPECT_EQ(manager.processes.at("watchdog").pid, getppid());
  EXPECT_EQ(log_.count("print_proc_status: watchdog("), 1);
}

// What a process whose parent has ended measures as the watchdog, written to `out`.
[[noreturn]] void measure_as_orphan(pid_t former_parent, int out) {
  while (getppid() == former_parent)
    usleep(1000);
  ProcessesManager manager;
  manager.calculate_processes_performance({"watchdog"});
  const pid_t measured = manager.processes.count("watchdog") == 1 ? manager.processes.at("watchdog").pid : 0;
  _exit(write(out, &measured, sizeof measured) == sizeof measured ? 0 : 1);
}

TEST_F(ProcessesManagerTest, parent_gone) {
  // Verifies that whoever has taken the process over from a parent that ended is measured as the watchdog.
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t parent = fork();
  if (parent == 0) {
    const pid_t self = getpid();
    if (fork() == 0)
      measure_as_orphan(self, ends[1]);
    _exit(0);
  }
  close(ends[1]);
  pid_t measured = -1;
  EXPECT_EQ(read(ends[0], &measured, sizeof measured), static_cast<ssize_t>(sizeof measured));
  EXPECT_EQ(measured, getpid());
  close(ends[0]);
  while (wait(nullptr) > 0)
    continue;
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST_F(ProcessesManagerTest, measurement) {
  // Verifies that all resources are shared out, and that a second measurement counts from the first.
  const Child child([] { burn_ticks(5); }, "zt-worker");
  ProcessesManager manager;
  manager.calculate_processes_performance({"zt-worker"});
  const Process& process = manager.processes.at("zt-worker");
  const std::uint64_t ticks = process.cpu_stats.ticks.cur;
  EXPECT_EQ(process.cpu_stats.ticks_diff, ticks);
  EXPECT_GE(ticks, 5U);
  EXPECT_GT(process.cpu, 0.0);
  EXPECT_EQ(ProcCpuStats::zol_ticks.diff, ticks);
  EXPECT_EQ(ProcCpuStats::cpu_stat.zol, ticks);
  EXPECT_EQ(ProcCpuStats::cpu_stat.total, ProcCpuStats::total_ticks.cur);
  EXPECT_GT(ProcMemStats::mem_stat.zol, 0);
  EXPECT_GT(ProcMemStats::mem_stat.idle, 0);
  const std::uint64_t total = ProcCpuStats::total_ticks.cur;
  manager.calculate_processes_performance({"zt-worker"});
  EXPECT_EQ(process.cpu_stats.ticks.last, ticks);
  EXPECT_EQ(process.cpu_stats.ticks_diff, 0U);
  EXPECT_EQ(ProcCpuStats::zol_ticks.diff, 0U);
  EXPECT_EQ(ProcCpuStats::total_ticks.last, total);
  EXPECT_EQ(ProcMemStats::mem_stat.zol, static_cast<long long>(ProcMemStats::zol_ram));
}

TEST_F(ProcessesManagerTest, same_name) {
  // Verifies that processes with one name are one entry with the pid found last, and all of them are summed.
  const Child first([] { burn_ticks(3); }, "zt-twin");
  const Child second([] { burn_ticks(3); }, "zt-twin");
  ProcessesManager manager;
  manager.calculate_processes_performance({"zt-twin"});
  ASSERT_EQ(manager.processes.size(), 1U);
  EXPECT_EQ(manager.processes.at("zt-twin").pid, second.pid());
  EXPECT_EQ(ProcCpuStats::zol_ticks.cur,
            first.stat_field(14) + first.stat_field(15) + second.stat_field(14) + second.stat_field(15));
}

TEST_F(ProcessesManagerTest, ended_process) {
  // Verifies that a process that has ended leaves at the next reset, with its ticks, and others stay.
  ProcessesManager manager;
  const Child staying([] { burn_ticks(3); }, "zt-staying");
  Child ending([] { burn_ticks(4); }, "zt-ending");
  manager.calculate_processes_performance({"zt-staying", "zt-ending"});
  const std::uint64_t stays = manager.processes.at("zt-staying").cpu_stats.ticks.cur;
  const std::uint64_t goes = manager.processes.at("zt-ending").cpu_stats.ticks.cur;
  const std::string pid = std::to_string(ending.pid());
  ending.end();
  manager.reset();
  EXPECT_EQ(manager.processes.count("zt-ending"), 0U);
  EXPECT_EQ(manager.processes.count("zt-staying"), 1U);
  EXPECT_EQ(ProcCpuStats::zol_ticks.last, stays);
  EXPECT_EQ(ProcCpuStats::zol_ticks.cur, 0U);
  EXPECT_EQ(ProcCpuStats::zol_ticks.diff, std::uint64_t{0} - stays);
  EXPECT_TRUE(log_.contains(log_level::debug, "reset: Process zt-ending(" + pid +
                                                  ") is not running, removing from processes list"));
  EXPECT_TRUE(log_.contains(
      log_level::debug, "resetRemoving process zt-ending: removing ticks (" + std::to_string(goes) + ")"));
  EXPECT_TRUE(log_.contains(log_level::trace,
                            "reset: Process zt-staying(" + std::to_string(staying.pid()) + ") is running"));
}

TEST_F(ProcessesManagerTest, end_is_no_negative_use) {
  // Verifies that the node's share of the interval in which a process ended is that of the others.
  ProcessesManager manager;
  const Child staying([] { burn_ticks(3); }, "zt-staying");
  Child ending([] { burn_ticks(4); }, "zt-ending");
  manager.calculate_processes_performance({"zt-staying", "zt-ending"});
  ending.end();
  manager.calculate_processes_performance({"zt-staying", "zt-ending"});
  EXPECT_EQ(ProcCpuStats::zol_ticks.diff, 0U);
  EXPECT_EQ(ProcCpuStats::cpu_stat.zol, 0U);
}

TEST_F(ProcessesManagerTest, restarted_process) {
  // Verifies that a process that comes back under its name is measured from its own beginning.
  ProcessesManager manager;
  auto first = std::make_unique<Child>([] { burn_ticks(3); }, "zt-again");
  manager.calculate_processes_performance({"zt-again"});
  first.reset();
  const Child second([] { burn_ticks(2); }, "zt-again");
  manager.calculate_processes_performance({"zt-again"});
  const Process& process = manager.processes.at("zt-again");
  EXPECT_EQ(process.pid, second.pid());
  EXPECT_EQ(process.cpu_stats.ticks_diff, second.stat_field(14) + second.stat_field(15));
  EXPECT_EQ(ProcCpuStats::zol_ticks.diff, process.cpu_stats.ticks_diff);
}

TEST_F(ProcessesManagerTest, pid_with_two_names) {
  // Verifies that a pid that another name has taken over has two entries.
  ProcessesManager manager;
  const Child child({}, "zt-new-name");
  manager.processes.emplace("zt-old-name", Process("zt-old-name", child.pid()));
  manager.calculate_processes_performance({"zt-new-name"});
  ASSERT_EQ(manager.processes.size(), 2U);
  EXPECT_EQ(manager.processes.at("zt-new-name").pid, child.pid());
  EXPECT_EQ(manager.processes.at("zt-old-name").pid, child.pid());
}

TEST_F(ProcessesManagerTest, report) {
  // Verifies that the list has each process and then the two global rows.
  ProcessesManager manager;
  EXPECT_THAT(names_in(manager.generate_procs_report()), ElementsAre("other", "idle"));
  const Child one;
  manager.processes.emplace("b", Process("b", one.pid()));
  manager.processes.emplace("a", Process("a", one.pid()));
  manager.processes.at("a").cpu = 12.5;
  const Variant report = manager.generate_procs_report();
  EXPECT_THAT(names_in(report), ElementsAre("a", "b", "other", "idle"));
  EXPECT_EQ(report.AsList()[0].At("cpu").AsDouble(), 12.5);
}

TEST_F(ProcessesManagerTest, without_figures) {
  // Verifies that a measurement without any of the kernel's files leaves zeros and ends well.
  const Child child({}, "zt-worker");
  FakeProc nothing;
  ProcessesManager manager;
  manager.calculate_processes_performance({"zt-worker"});
  const Process& process = manager.processes.at("zt-worker");
  EXPECT_EQ(process.cpu, 0.0);
  EXPECT_EQ(process.ram, 0.0);
  EXPECT_EQ(process.fd_ratio, 0.0);
  const Variant report = manager.generate_procs_report();
  EXPECT_EQ(report.Size(), 3U);
  for (const Variant& row : report.AsList())
    EXPECT_EQ(row.At("ram").AsDouble() + row.At("cpu").AsDouble() + row.At("fd").AsDouble(), 0.0);
}

}  // namespace
