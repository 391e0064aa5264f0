// What a periodic report's measurement of processes and machine costs with 30 tracked processes: how long it
// holds the loop, how much of that is waiting for commands, and the processor time of these; medians of seven
// rounds. Then what the sampler's thread uses, by its processor time over a minute of sampling.
//
//   process_sampling [SECONDS]     of sampling, 60 when not given
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <log4cpp/Category.hh>
#include <set>
#include <string>
#include <vector>

#include "shared_object.h"
#include "stats/machine_cpu_stats.h"
#include "stats/machine_info.h"
#include "stats/proc_stats_manager.h"
#include "sup_logger.h"
#include "tests/support/config_fixture.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int tracked_processes = 30;
constexpr int rounds = 7;
constexpr double seconds_an_hour = 3600;

double milliseconds(Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

// Commands since the last look.
struct Commands {
  int number = 0;
  double ms = 0;
} commands;

// Counts a command for as long as it lives.
class TimedCommand {
 public:
  TimedCommand() = default;
  ~TimedCommand() {
    ++commands.number;
    commands.ms += milliseconds(Clock::now() - before_);
  }
  TimedCommand(const TimedCommand&) = delete;
  TimedCommand& operator=(const TimedCommand&) = delete;

 private:
  Clock::time_point before_ = Clock::now();
};

}  // namespace

// The linker puts these in front of Helper::run_cmd and Helper::run_cmd_stderr (-Wl,--wrap).
#define RUN_CMD "_ZN3zol6Helper7run_cmdERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"
#define RUN_CMD_STDERR \
  "_ZN3zol6Helper14run_cmd_stderrERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERS6_"

std::string real_run_cmd(const std::string& command) asm("__real_" RUN_CMD);
std::string wrap_run_cmd(const std::string& command) asm("__wrap_" RUN_CMD);
int real_run_cmd_stderr(const std::string& command, std::string& output) asm("__real_" RUN_CMD_STDERR);
int wrap_run_cmd_stderr(const std::string& command, std::string& output) asm("__wrap_" RUN_CMD_STDERR);

std::string wrap_run_cmd(const std::string& command) {
  const TimedCommand timed;
  return real_run_cmd(command);
}

int wrap_run_cmd_stderr(const std::string& command, std::string& output) {
  const TimedCommand timed;
  return real_run_cmd_stderr(command, output);
}

namespace {

// Of the processes that this one has waited for.
double children_cpu_ms() {
  rusage used{};
  getrusage(RUSAGE_CHILDREN, &used);
  const auto ms = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1000 + static_cast<double>(time.tv_usec) / 1000;
  };
  return ms(used.ru_utime) + ms(used.ru_stime);
}

struct Cost {
  double whole_ms;
  double commands_ms;
  double children_cpu_ms;
  int commands;
};

template <typename Work>
Cost cost_of(Work work) {
  std::vector<Cost> costs;
  for (int round = 0; round < rounds; ++round) {
    commands = {};
    const double cpu_before = children_cpu_ms();
    const Clock::time_point before = Clock::now();
    work();
    const double whole_ms = milliseconds(Clock::now() - before);
    costs.push_back({whole_ms, commands.ms, children_cpu_ms() - cpu_before, commands.number});
  }
  std::sort(costs.begin(), costs.end(), [](const Cost& a, const Cost& b) { return a.whole_ms < b.whole_ms; });
  return costs[rounds / 2];
}

void print(const char* what, const Cost& cost) {
  std::printf(
      "%-10s %8.1f ms on the loop, %.1f %% of it in %d commands, which use %.1f ms of processor time\n", what,
      cost.whole_ms, cost.commands_ms / cost.whole_ms * 100, cost.commands, cost.children_cpu_ms);
}

double thread_cpu_seconds(pthread_t thread) {
  clockid_t clock;
  timespec used{};
  if (pthread_getcpuclockid(thread, &clock) != 0 || clock_gettime(clock, &used) != 0) {
    std::perror("process_sampling: the thread's clock");
    std::exit(1);
  }
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

void print_sampler(unsigned seconds) {
  zol_monitor::CPUStatSampler sampler;
  const double before = thread_cpu_seconds(sampler.thread.thread);
  const Clock::time_point begin = Clock::now();
  sleep(seconds);
  const double elapsed = milliseconds(Clock::now() - begin) / 1000;
  const double share = (thread_cpu_seconds(sampler.thread.thread) - before) / elapsed;
  std::printf("sampler    %8.4f %% of a core: %.2f s an hour, from %.0f s\n", share * 100,
              share * seconds_an_hour, elapsed);
}

std::string name_of(int number) {
  return "zt-bench-" + std::to_string(number);
}

// A process of that name that does nothing until its parent has ended.
void start_process(const std::string& name) {
  if (fork() != 0)
    return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  prctl(PR_SET_NAME, name.c_str());
  for (;;)
    pause();
}

// In a process of its own, whose parent has the processes that are measured.
int measure(unsigned sampling_seconds) {
  const zol_test::ScopedConfig config(
      "General: { zol_id = \"bench\"; external_ip = \"192.0.2.1\"; max_thread_runtime_ms = 60000; };");
  std::set<std::string> names;
  for (int number = 0; number < tracked_processes; ++number)
    names.insert(name_of(number));
  ProcessesManager manager;
  zol_monitor::MachineInfo machine(false);
  std::printf("%d processes\n", tracked_processes);
  print("processes", cost_of([&] { manager.calculate_processes_performance(names); }));
  print("machine", cost_of([&] { machine.generate_machine_info_report(); }));
  if (manager.processes.size() != names.size()) {
    std::fprintf(stderr, "process_sampling: %zu processes were found\n", manager.processes.size());
    return 1;
  }
  print_sampler(sampling_seconds);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned seconds = argc > 1 ? static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)) : 60;
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  SupLogger::get_instance("bench");  // the first one sets the log up, at info level
  log4cpp::Category::getRoot().setPriority(log4cpp::Priority::ERROR);
  zol_utils::shared_mem_enabled = false;
  for (int number = 0; number < tracked_processes; ++number)
    start_process(name_of(number));
  const pid_t measuring = fork();
  if (measuring == 0)
    return measure(seconds);
  int status = 1;
  if (measuring < 0 || waitpid(measuring, &status, 0) != measuring || !WIFEXITED(status))
    return 1;
  return WEXITSTATUS(status);
}
