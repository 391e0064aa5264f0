#include "stats/proc_cpu_stats.h"

#include <array>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "stats/proc_folder.h"
#include "sup_logger.h"

namespace {

constexpr std::array columns = {"user", "nice",    "system", "idle",  "iowait",
                                "irq",  "softirq", "steal",  "guest", "guest_nice"};
constexpr std::size_t idle_column = 3;
constexpr int fields_before_utime = 13;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("ProcCpuStats");
  return instance;
}

struct MachineTicks {
  std::uint64_t total = 0;
  std::uint64_t idle = 0;
};

// The line of the whole machine.
std::optional<MachineTicks> parse_machine_line(const std::string& line) {
  std::istringstream words(line);
  std::string label;
  words >> label;
  MachineTicks ticks;
  for (std::size_t column = 0; column < columns.size(); ++column) {
    std::uint64_t value = 0;
    if (!(words >> value)) {
      SUP_LOG(logger(), log_level::warning) << "read_total_cpu_stats"
                                            << ": failed to read CPU stats for '" << columns[column] << "'";
      return std::nullopt;
    }
    ticks.total += value;
    if (column == idle_column)
      ticks.idle = value;
  }
  return ticks;
}

}  // namespace

void CpuTicksDiff::update(unsigned long long value, bool shift) {
  if (shift)
    last = cur;
  diff = value - last;
  cur = value;
  SUP_LOG(logger(), log_level::trace) << "update"
                                      << "new cur: " << cur << ", last: " << last << ", diff: " << diff;
}

void ProcCpuStats::read_total_cpu_stats(bool shift) {
  std::ifstream file(zol_monitor::proc_file("stat"));
  std::optional<MachineTicks> machine;
  int cores = 0;
  for (std::string line; std::getline(file, line) && line.starts_with("cpu");) {
    if (line.starts_with("cpu ")) {
      machine = parse_machine_line(line);
      if (!machine)
        return;
    } else {
      ++cores;
      SUP_LOG(logger(), log_level::trace) << "read_total_cpu_stats"
                                          << ": read cpu id " << line.substr(3, line.find(' ') - 3);
    }
  }
  if (!machine) {
    SUP_LOG(logger(), log_level::warning) << "read_total_cpu_stats"
                                          << ": Failed to read /proc/stat file";
    return;
  }
  num_of_cores = cores;
  idle_ticks.update(machine->idle, shift);
  total_ticks.update(machine->total, shift);
  SUP_LOG(logger(), log_level::debug)
      << "read_total_cpu_stats"
      << ": total CPU ticks: " << machine->total << ", num of cores: " << num_of_cores;
}

void ProcCpuStats::read_proc_cpu_stats() {
  const std::string path = zol_monitor::proc_file(pid, "stat");
  std::ifstream file(path);
  std::string ignored;
  for (int field = 0; field < fields_before_utime; ++field)
    file >> ignored;
  std::uint64_t user_time = 0;
  std::uint64_t kernel_time = 0;
  if (!(file >> user_time >> kernel_time)) {
    SUP_LOG(logger(), log_level::warning) << "read_proc_cpu_stats"
                                          << ": Failed to read file " << path;
    return;
  }
  SUP_LOG(logger(), log_level::trace)
      << "read_proc_cpu_stats"
      << ": Process " << pid << ": user time:" << user_time << ", kernel time:" << kernel_time;
  ticks.update(user_time + kernel_time, true);
  // At the start of a measurement `diff` is minus the last sum, so it ends as the sum's growth.
  zol_ticks.cur += ticks.cur;
  zol_ticks.diff += ticks.cur;
}

double ProcCpuStats::calc_cpu_usage() {
  read_proc_cpu_stats();
  ticks_diff = ticks.diff;
  if (total_ticks.diff == 0) {
    SUP_LOG(logger(), log_level::warning) << "calc_cpu_usage"
                                          << ": Unable to calculate cpu usage for process " << pid;
    cpu_usage = 0;
  } else {
    cpu_usage =
        num_of_cores * 100.0 * static_cast<double>(ticks.diff) / static_cast<double>(total_ticks.diff);
  }
  return cpu_usage;
}

void ProcCpuStats::update_system_cpu_stats() {
  // The sum shrinks when a process went whose last ticks nobody could take out: no use, not a negative one.
  const bool has_shrunk = static_cast<std::int64_t>(zol_ticks.diff) < 0;
  cpu_stat.update_counters(total_ticks.diff, idle_ticks.diff, has_shrunk ? 0 : zol_ticks.diff);
}
