#include "stats/proc_stats_manager.h"

#include <unistd.h>

#include <utility>
#include <vector>

#include "stats/proc_cpu_stats.h"
#include "stats/proc_mem_stats.h"
#include "sup_logger.h"

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("ProcessesManager");
  return instance;
}

std::vector<std::pair<int, std::string>> find_processes() {
  // The daemons aren't the watchdog's children.
  const std::vector<std::string> services = {"pluto", "bird", "keepalived"};
  std::vector<std::pair<int, std::string>> found;
  Process::get_running_processes(getppid(), "watchdog", found);
  Process::get_running_services(services, found);
  return found;
}

// Takes a process that ended out of the sum's base, so that it doesn't look like a negative use.
void remove_ticks(std::uint64_t ticks) {
  CpuTicksDiff& sum = ProcCpuStats::zol_ticks;
  sum.diff = ticks + sum.cur - sum.last;
  sum.last -= ticks;
}

}  // namespace

ProcessesManager::ProcessesManager() {
  ProcMemStats::read_system_ram();
}

ProcessesManager* ProcessesManager::instance() {
  static ProcessesManager manager;
  return &manager;
}

std::set<std::string> ProcessesManager::get_allowed_processes(bool kpa) {
  if (kpa)
    return {"pluto", "kpa_monitor", "owampd", "iperf3", "watchdog"};
  return {"zol_monitor",  "wanproxy0", "watchdog", "ydns1",     "ydns2",
          "zol_ha_agent", "pluto",     "bird",     "keepalived"};
}

void ProcessesManager::calculate_processes_performance(const std::set<std::string>& allowed) {
  const std::vector<std::pair<int, std::string>> found = find_processes();
  reset();
  ProcCpuStats::read_total_cpu_stats(true);
  for (const auto& [pid, name] : found) {
    if (allowed.count(name) == 0) {
      SUP_LOG(logger(), log_level::debug) << "calculate_processes_performance"
                                          << ": ignoring process " << name;
      continue;
    }
    const auto known = processes.find(name);
    if (known != processes.end())
      known->second.read_stats(pid);
    else
      processes.emplace(name, Process(name, pid));
  }
  ProcCpuStats::re_read_system_cpu_stats();
  Process::update_system_stats();
  print_processes_information();
}

void ProcessesManager::reset() {
  Process::reset_globals();
  for (auto at = processes.begin(); at != processes.end();) {
    const auto& [name, process] = *at;
    if (process.is_alive()) {
      SUP_LOG(logger(), log_level::trace) << "reset"
                                          << ": Process " << name << "(" << process.pid << ") is running";
      ++at;
      continue;
    }
    const std::uint64_t ticks = process.cpu_stats.ticks.cur;
    SUP_LOG(logger(), log_level::debug)
        << "reset"
        << ": Process " << name << "(" << process.pid << ") is not running, removing from processes list";
    SUP_LOG(logger(), log_level::debug)
        << "reset"
        << "Removing process " << name << ": removing ticks (" << ticks << ")";
    remove_ticks(ticks);
    at = processes.erase(at);
  }
}

void ProcessesManager::print_processes_information() const {
  for (const auto& [name, process] : processes)
    process.print_proc_status();
  Process::print_system_stats();
}

libvariant::Variant ProcessesManager::generate_procs_report() const {
  std::vector<libvariant::Variant> reports;
  for (const auto& [name, process] : processes)
    reports.push_back(process.generate_proc_report());
  Process::add_global_stats_to_report(reports);
  libvariant::Variant list = libvariant::Variant::make_list();
  for (libvariant::Variant& report : reports)
    list.Append(std::move(report));
  return list;
}
