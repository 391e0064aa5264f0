#include "stats/proc_stats.h"

#include <signal.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <sstream>

#include "shared_object.h"
#include "shared_records.h"
#include "stats/proc_fd_stats.h"
#include "stats/proc_mem_stats.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace {

using libvariant::Variant;

constexpr int pgrep_found_none = 1;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Process");
  return instance;
}

Variant usage_map(const std::string& name, double ram, double cpu, double fd) {
  Variant usage = Variant::make_map(4);
  usage.Assign("process_name", name);
  usage.Assign("ram", ram);
  usage.Assign("cpu", cpu);
  usage.Assign("fd", fd);
  return usage;
}

bool is_blank(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isspace(c) != 0; });
}

}  // namespace

Process::Process(std::string process_name, int process_id)
    : name(std::move(process_name)), pid(process_id), cpu_stats(process_id) {
  read_stats(process_id);
}

bool Process::is_alive() const {
  if (kill(pid, 0) >= 0)
    return true;
  SUP_LOG(logger(), log_level::debug) << "is_alive"
                                      << ": Process " << pid << " is not running";
  return false;
}

void Process::read_stats(int process_id) {
  if (process_id != pid) {
    SUP_LOG(logger(), log_level::info) << "read_stats"
                                       << ": process " << name << " changed PID to " << process_id;
    pid = process_id;
    cpu_stats = ProcCpuStats(process_id);
  }
  if (!is_alive()) {
    SUP_LOG(logger(), log_level::warning)
        << "read_stats"
        << ": PID " << pid << "(" << name << ") is not running, not collecting stats";
    ram = 0;
    fd_ratio = 0;
    cpu = 0;
    return;
  }
  cpu = cpu_stats.calc_cpu_usage();
  ram = ProcMemStats(pid).ram_percent;
  fd_ratio = ProcFdStats(pid).fd_ratio;
}

void Process::print_proc_status() const {
  SUP_LOG(logger(), log_level::info) << "print_proc_status"
                                     << ": " << name << "(" << pid << "): cpu: " << cpu << "%, ram: " << ram
                                     << "%, fd ratio: " << fd_ratio;
}

Variant Process::generate_proc_report() const {
  return usage_map(name, ram, cpu, fd_ratio);
}

void Process::reset_globals() {
  CpuTicksDiff& sum = ProcCpuStats::zol_ticks;
  sum.last = sum.cur;
  sum.cur = 0;
  sum.diff = 0 - sum.last;
  ProcFdStats::max_fd_ratio = 0;
  ProcFdStats::zol_fds = 0;
  ProcMemStats::zol_ram = 0;
  ProcMemStats::idle_ram = 0;
}

void Process::update_system_stats() {
  ProcFdStats::update_system_fd_stats();
  ProcMemStats::update_system_mem_stats();
  ProcCpuStats::update_system_cpu_stats();
  const double max_fd_ratio = ProcFdStats::max_fd_ratio;
  SUP_LOG(logger(), log_level::info) << "update_system_stats"
                                     << ": max fd ratio of vantorel processes: " << max_fd_ratio;
  zol_utils::with_locked_record<zol_utils::ZolStatusData>(
      "update_system_stats",
      [max_fd_ratio](zol_utils::ZolStatusData& status) { status.max_fd_ratio = max_fd_ratio; });
}

void Process::print_system_stats() {
  ProcCpuStats::cpu_stat.print("print_system_stats");
  ProcMemStats::mem_stat.print("print_system_stats");
  ProcFdStats::fd_stat.print("print_system_stats");
}

void Process::add_global_stats_to_report(std::vector<Variant>& reports) {
  const auto& ram = ProcMemStats::mem_stat;
  const auto& cpu = ProcCpuStats::cpu_stat;
  const auto& fd = ProcFdStats::fd_stat;
  reports.push_back(usage_map("other", ram.percent(ram.other), cpu.percent(cpu.other), fd.percent(fd.other)));
  reports.push_back(usage_map("idle", ram.percent(ram.idle), cpu.percent(cpu.idle), fd.percent(fd.idle)));
}

bool Process::get_running_processes(int pid, const std::string& name,
                                    std::vector<std::pair<int, std::string>>& found) {
  if (!is_blank(name))
    found.emplace_back(pid, name);
  const std::string command = "/usr/bin/pgrep -P " + std::to_string(pid) + " -l";
  std::string output;
  const int status = zol::Helper::run_cmd_stderr(command, output);
  if (status == pgrep_found_none)
    return true;
  if (status != 0) {
    SUP_LOG(logger(), log_level::error) << "get_running_processes"
                                        << ": Syntax error while running " << command << " (return code "
                                        << status << "). command output: " << output;
    return false;
  }
  for (const std::string& line : zol::Helper::deserialize_strings(output, '\n')) {
    std::istringstream words(line);
    int child = 0;
    std::string child_name;
    if (!(words >> child >> child_name)) {
      SUP_LOG(logger(), log_level::warning) << "get_running_processes"
                                            << ": failed to read process name and pid from line: " << line;
      continue;
    }
    if (!get_running_processes(child, child_name, found))
      return false;
  }
  return true;
}

void Process::get_running_services(const std::vector<std::string>& services,
                                   std::vector<std::pair<int, std::string>>& found) {
  for (const std::string& service : services) {
    const std::string output = zol::Helper::run_cmd("/usr/bin/pgrep " + service);
    for (const std::string& line : zol::Helper::deserialize_strings(output, '\n'))
      found.emplace_back(static_cast<int>(strtol(line.c_str(), nullptr, 10)), service);
  }
}
