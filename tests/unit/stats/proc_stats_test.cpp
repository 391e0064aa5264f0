#include "stats/proc_stats.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "stats/proc_fd_stats.h"
#include "stats/proc_mem_stats.h"
#include "stats_fixture.h"
#include "sup_logger.h"

namespace {

using libvariant::Variant;
using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;
using zol_test::Child;
using zol_test::FakeProc;

class ProcessTest : public zol_test::StatsFixture {};

std::vector<std::string> keys_of(const Variant& map) {
  std::vector<std::string> keys;
  map.ForEach([&keys](std::string_view key, const Variant&) { keys.emplace_back(key); });
  return keys;
}

int pid_of_the_gone() {
  Child child;
  const int pid = child.pid();
  child.end();
  return pid;
}

// --- one process ---

TEST_F(ProcessTest, reading) {
  // Verifies that a new process has one reading of all three resources.
  ProcCpuStats::num_of_cores = 2;
  ProcCpuStats::total_ticks.diff = 1000;
  const Child child([] { zol_test::burn_ticks(4); });
  const Process process("worker", child.pid());
  EXPECT_EQ(process.name, "worker");
  EXPECT_EQ(process.pid, child.pid());
  EXPECT_GE(process.cpu_stats.ticks.cur, 4U);
  EXPECT_DOUBLE_EQ(process.cpu, static_cast<double>(process.cpu_stats.ticks.cur) * 0.2);
  EXPECT_GT(process.ram, 0.0);
  EXPECT_GT(process.fd_ratio, 0.0);
  EXPECT_DOUBLE_EQ(process.fd_ratio, ProcFdStats::max_fd_ratio);
  EXPECT_FALSE(log_.contains("changed PID"));
}

TEST_F(ProcessTest, history) {
  // Verifies that the second reading counts from the first.
  FakeProc proc;
  const int pid = getpid();
  proc.write(pid, "stat", "7 (x) S 1 7 7 0 -1 0 0 0 0 0 50 60 0 0\n");
  ProcCpuStats::num_of_cores = 1;
  ProcCpuStats::total_ticks.diff = 100;
  Process process("worker", pid);
  EXPECT_DOUBLE_EQ(process.cpu, 110.0);
  proc.write(pid, "stat", "7 (x) S 1 7 7 0 -1 0 0 0 0 0 70 65 0 0\n");
  process.read_stats(pid);
  EXPECT_DOUBLE_EQ(process.cpu, 25.0);
}

TEST_F(ProcessTest, changed_pid) {
  // Verifies that another pid is told, and its first difference is its whole life.
  const Child first([] { zol_test::burn_ticks(3); });
  const Child second([] { zol_test::burn_ticks(3); });
  Process process("worker", first.pid());
  process.read_stats(second.pid());
  EXPECT_TRUE(log_.contains("read_stats: process worker changed PID to " + std::to_string(second.pid())));
  EXPECT_EQ(process.pid, second.pid());
  EXPECT_EQ(process.cpu_stats.pid, second.pid());
  EXPECT_EQ(process.cpu_stats.ticks.last, 0U);
  EXPECT_EQ(process.cpu_stats.ticks.diff, second.stat_field(14) + second.stat_field(15));
}

TEST_F(ProcessTest, gone) {
  // Verifies that a process that is gone reads as zeros, with a warning.
  Child child;
  Process process("worker", child.pid());
  EXPECT_TRUE(process.is_alive());
  EXPECT_GT(process.ram, 0.0);
  process.cpu = 5;
  child.end();
  process.read_stats(process.pid);
  EXPECT_EQ(process.ram, 0.0);
  EXPECT_EQ(process.cpu, 0.0);
  EXPECT_EQ(process.fd_ratio, 0.0);
  const std::string pid = std::to_string(process.pid);
  EXPECT_TRUE(log_.contains(log_level::debug, "is_alive: Process " + pid + " is not running"));
  EXPECT_TRUE(log_.contains(log_level::warning,
                            "read_stats: PID " + pid + "(worker) is not running, not collecting stats"));
}

TEST_F(ProcessTest, zombie_is_alive) {
  // Verifies that a zombie still counts as a process, without memory.
  Child child;
  child.turn_zombie();
  const Process process("worker", child.pid());
  EXPECT_TRUE(process.is_alive());
  EXPECT_EQ(process.ram, 0.0);
  EXPECT_EQ(ProcMemStats::zol_ram, 0U);
}

TEST_F(ProcessTest, report) {
  // Verifies the map of one process, key by key.
  Process process("worker", pid_of_the_gone());
  process.ram = 1.5;
  process.cpu = 150.25;
  process.fd_ratio = 0.125;
  const Variant report = process.generate_proc_report();
  EXPECT_THAT(keys_of(report), UnorderedElementsAre("process_name", "ram", "cpu", "fd"));
  EXPECT_EQ(report.At("process_name").AsString(), "worker");
  EXPECT_EQ(report.At("ram").AsDouble(), 1.5);
  EXPECT_EQ(report.At("cpu").AsDouble(), 150.25);
  EXPECT_EQ(report.At("fd").AsDouble(), 0.125);
  process.print_proc_status();
  EXPECT_TRUE(log_.contains(log_level::info, "print_proc_status: worker(" + std::to_string(process.pid) +
                                                 "): cpu: 150.25%, ram: 1.5%, fd ratio: 0.125"));
}

// --- sums over the processes ---

TEST_F(ProcessTest, reset_globals) {
  // Verifies that the sum of ticks moves on and the other sums become nothing.
  ProcCpuStats::zol_ticks = {.last = 10, .cur = 300, .diff = 290};
  ProcFdStats::max_fd_ratio = 0.5;
  ProcFdStats::zol_fds = 5;
  ProcMemStats::zol_ram = 6;
  ProcMemStats::idle_ram = 7;
  Process::reset_globals();
  EXPECT_EQ(ProcCpuStats::zol_ticks.last, 300U);
  EXPECT_EQ(ProcCpuStats::zol_ticks.cur, 0U);
  EXPECT_EQ(ProcCpuStats::zol_ticks.diff, std::uint64_t{0} - 300);
  EXPECT_EQ(ProcFdStats::max_fd_ratio, 0.0);
  EXPECT_EQ(ProcFdStats::zol_fds, 0);
  EXPECT_EQ(ProcMemStats::zol_ram, 0U);
  EXPECT_EQ(ProcMemStats::idle_ram, 0U);
}

TEST_F(ProcessTest, update_system_stats) {
  // Verifies that all three resources are shared out, and the highest ratio is left in the shared record.
  zol_utils::ZolStatusData& status = status_record();
  FakeProc proc;
  proc.write("sys/fs/file-nr", "700 0 10000\n");
  ProcMemStats::total_ram = 8000;
  ProcCpuStats::total_ticks.diff = 1000;
  ProcFdStats::max_fd_ratio = 0.375;
  Process::update_system_stats();
  EXPECT_EQ(ProcFdStats::fd_stat.total, 10000);
  EXPECT_EQ(ProcMemStats::mem_stat.total, 8000);
  EXPECT_EQ(ProcCpuStats::cpu_stat.total, 1000U);
  EXPECT_EQ(status.max_fd_ratio, 0.375);
  EXPECT_TRUE(log_.contains("update_system_stats: max fd ratio of vantorel processes: 0.375"));
}

TEST_F(ProcessTest, update_system_stats_locked) {
  // Verifies that a record whose lock can't be had is told and left alone.
  hold_lock();
  ProcFdStats::max_fd_ratio = 0.375;
  Process::update_system_stats();
  EXPECT_TRUE(log_.contains(log_level::error,
                            "update_system_stats: Failed locking shared memory for "
                            "N9zol_utils13ZolStatusDataE object"))
      << log_.all();
}

TEST_F(ProcessTest, update_system_stats_without_shared_memory) {
  // Verifies that nothing is opened while shared memory is off.
  Process::update_system_stats();
  EXPECT_TRUE(log_.contains(log_level::debug, "Shared memory disabled for: "));
  EXPECT_FALSE(log_.contains(log_level::error, ""));
}

TEST_F(ProcessTest, global_rows) {
  // Verifies the rows "other" and "idle", in percent of the whole.
  ProcMemStats::mem_stat.update_counters(1000, 500, 100);
  ProcCpuStats::cpu_stat.update_counters(200, 50, 10);
  ProcFdStats::fd_stat.update_counters(100, 75, 5);
  std::vector<Variant> rows;
  Process::add_global_stats_to_report(rows);
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_THAT(keys_of(rows[0]), UnorderedElementsAre("process_name", "ram", "cpu", "fd"));
  EXPECT_EQ(rows[0].At("process_name").AsString(), "other");
  EXPECT_DOUBLE_EQ(rows[0].At("ram").AsDouble(), 40.0);
  EXPECT_DOUBLE_EQ(rows[0].At("cpu").AsDouble(), 70.0);
  EXPECT_DOUBLE_EQ(rows[0].At("fd").AsDouble(), 20.0);
  EXPECT_EQ(rows[1].At("process_name").AsString(), "idle");
  EXPECT_DOUBLE_EQ(rows[1].At("ram").AsDouble(), 50.0);
  EXPECT_DOUBLE_EQ(rows[1].At("cpu").AsDouble(), 25.0);
  EXPECT_DOUBLE_EQ(rows[1].At("fd").AsDouble(), 75.0);
}

TEST_F(ProcessTest, global_rows_of_nothing) {
  // Verifies that totals of 0 give shares of 0.
  std::vector<Variant> rows;
  Process::add_global_stats_to_report(rows);
  ASSERT_EQ(rows.size(), 2U);
  for (const Variant& row : rows) {
    for (const char* key : {"ram", "cpu", "fd"})
      EXPECT_EQ(row.At(key).AsDouble(), 0.0) << key;
  }
}

TEST_F(ProcessTest, print_system_stats) {
  // Verifies that each resource has its line.
  Process::print_system_stats();
  for (const char* name : {"CPU", "RAM", "FD"})
    EXPECT_TRUE(log_.contains(log_level::info, std::string("print_system_stats: ") + name +
                                                   ": total: 0, idle: 0, vantorel: 0, other: 0"));
}

// --- finding ---

using Found = std::vector<std::pair<int, std::string>>;

std::vector<std::string> names_of(const Found& found) {
  std::vector<std::string> names;
  for (const auto& [pid, name] : found)
    names.push_back(name);
  return names;
}

// A process with children, of whom the first has one of its own and the second has a blank name.
void raise_family() {
  static const Child first([] { static const Child leaf({}, "zt-leaf"); }, "zt two words");
  static const Child blank([] { static const Child unseen({}, "zt-unseen"); }, "  ");
  static const Child last({}, "zt-last");
}

TEST_F(ProcessTest, process_tree) {
  // Verifies that the tree is walked to its leaves, that a name ends at its first blank, and that a process
  // with a blank name is told and left out with all that is under it.
  const Child child(raise_family, "zt-parent");
  Found found;
  EXPECT_TRUE(Process::get_running_processes(child.pid(), "given", found));
  EXPECT_THAT(names_of(found), ElementsAre("given", "zt", "zt-leaf", "zt-last"));
  EXPECT_EQ(found[0].first, child.pid());
  EXPECT_TRUE(log_.contains("get_running_processes: failed to read process name and pid from line: "));
}

TEST_F(ProcessTest, process_tree_of_blank_name) {
  // Verifies that the first process is left out when its name is blank, and its children aren't.
  const Child child(raise_family, "zt-parent");
  for (const char* name : {"", " \t "}) {
    Found found;
    EXPECT_TRUE(Process::get_running_processes(child.pid(), name, found));
    EXPECT_THAT(names_of(found), ElementsAre("zt", "zt-leaf", "zt-last"));
  }
}

TEST_F(ProcessTest, process_without_children) {
  // Verifies that no children is a good answer, also of a process that is gone.
  const Child child;
  Found found;
  EXPECT_TRUE(Process::get_running_processes(child.pid(), "lonely", found));
  EXPECT_THAT(found, ElementsAre(Pair(child.pid(), "lonely")));
  found.clear();
  EXPECT_TRUE(Process::get_running_processes(pid_of_the_gone(), "gone", found));
  EXPECT_THAT(names_of(found), ElementsAre("gone"));
  EXPECT_FALSE(log_.contains("Syntax error"));
}

// Another program in place of pgrep, in a mount namespace of the test program's own.
class FakePgrep {
 public:
  explicit FakePgrep(const std::string& script) : file_(commands_.add("pgrep", script)) {
    static const bool is_apart =
        unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    is_in_place_ = is_apart && mount(file_.c_str(), target, nullptr, MS_BIND, nullptr) == 0;
  }
  ~FakePgrep() {
    if (is_in_place_)
      umount(target);
  }
  FakePgrep(const FakePgrep&) = delete;
  FakePgrep& operator=(const FakePgrep&) = delete;
  bool is_in_place() const { return is_in_place_; }

 private:
  static constexpr const char* target = "/usr/bin/pgrep";
  zol_test::FakeCommands commands_;
  std::string file_;
  bool is_in_place_ = false;
};

TEST_F(ProcessTest, pgrep_fails) {
  // Verifies that another exit status ends the walk, with command, status and output in the log.
  const FakePgrep pgrep("echo out; echo err >&2; exit 3");
  if (!pgrep.is_in_place())
    GTEST_SKIP() << "needs the right to mount";
  Found found;
  EXPECT_FALSE(Process::get_running_processes(77, "watchdog", found));
  EXPECT_THAT(found, ElementsAre(Pair(77, "watchdog")));
  EXPECT_TRUE(
      log_.contains(log_level::error,
                    "get_running_processes: Syntax error while running /usr/bin/pgrep -P 77 -l (return "
                    "code 3). command output: out\nerr\n"))
      << log_.all();
}

TEST_F(ProcessTest, pgrep_fails_below) {
  // Verifies that a failure below ends the whole walk, and what was found stays.
  const FakePgrep pgrep("test $2 = 1 && printf '2 two\\n3 three\\n' || exit 2");
  if (!pgrep.is_in_place())
    GTEST_SKIP() << "needs the right to mount";
  Found found;
  EXPECT_FALSE(Process::get_running_processes(1, "one", found));
  EXPECT_THAT(found, ElementsAre(Pair(1, "one"), Pair(2, "two")));
}

TEST_F(ProcessTest, pgrep_odd_lines) {
  // Verifies that each bad line is told and passed over.
  const FakePgrep pgrep(
      "test $2 = 1 || exit 1; printf 'x two\\n99999999999 three\\n4\\n\\n   \\n5 five\\n6 six and more'");
  if (!pgrep.is_in_place())
    GTEST_SKIP() << "needs the right to mount";
  Found found;
  EXPECT_TRUE(Process::get_running_processes(1, "one", found));
  EXPECT_THAT(found, ElementsAre(Pair(1, "one"), Pair(5, "five"), Pair(6, "six")));
  for (const char* line : {"x two", "99999999999 three", "4", "   "})
    EXPECT_TRUE(log_.contains(log_level::warning,
                              std::string("get_running_processes: failed to read process name and pid from "
                                          "line: ") +
                                  line))
        << line;
}

TEST_F(ProcessTest, services) {
  // Verifies that each process that bears a service's name is found under that name.
  const Child one({}, "zt-srv-one");
  const Child two({}, "zt-srv-two");
  const Child again({}, "zt-srv-two");
  Found found = {{1, "first"}};
  Process::get_running_services({"zt-srv-two", "zt-srv-none", "zt-srv-one"}, found);
  ASSERT_EQ(found.size(), 4U);
  EXPECT_THAT(found[0], Pair(1, "first"));
  EXPECT_THAT(std::vector(found.begin() + 1, found.begin() + 3),
              UnorderedElementsAre(Pair(two.pid(), "zt-srv-two"), Pair(again.pid(), "zt-srv-two")));
  EXPECT_EQ(found[3], std::make_pair(static_cast<int>(one.pid()), std::string("zt-srv-one")));
}

}  // namespace
