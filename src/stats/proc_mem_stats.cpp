#include "stats/proc_mem_stats.h"

#include <fstream>

#include "stats/proc_folder.h"
#include "sup_logger.h"

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("ProcMemStats");
  return instance;
}

}  // namespace

ProcMemStats::ProcMemStats(int process_id)
    : status_path(zol_monitor::proc_file(process_id, "status")), pid(process_id) {
  read_system_ram();
  calculate_ram_usage();
}

void ProcMemStats::read_system_ram() {
  std::ifstream file(zol_monitor::proc_file("meminfo"));
  total_ram = 0;
  idle_ram = 0;
  if (!file)
    SUP_LOG(logger(), log_level::warning) << "read_system_ram"
                                          << ": failed to read the machine's RAM";
  for (std::string word; file >> word;) {
    if (word == "MemTotal:") {
      file >> total_ram;
      SUP_LOG(logger(), log_level::debug) << "read_system_ram"
                                          << ": total RAM on machine: " << total_ram << " bytes";
    } else if (word == "MemAvailable:") {
      file >> idle_ram;
      break;
    }
  }
  SUP_LOG(logger(), log_level::debug)
      << "read_system_ram"
      << ": total idle RAM on machine: " << idle_ram << " bytes (buffers and cached memory included)";
}

// False, with the reason logged, when the process has no such figure.
bool ProcMemStats::read_rss() {
  std::ifstream file(status_path);
  if (!file) {
    SUP_LOG(logger(), log_level::warning) << "calculate_ram_usage"
                                          << ": failed to read RAM usage for PID " << pid;
    return false;
  }
  for (std::string word; file >> word;) {
    if (word == "State:" && file >> word && word == "Z") {
      SUP_LOG(logger(), log_level::warning) << "calculate_ram_usage"
                                            << ": process " << pid << " is in zombie state";
      return false;
    }
    if (word == "VmRSS:" && file >> rss_kb)
      return true;
  }
  SUP_LOG(logger(), log_level::warning) << "calculate_ram_usage"
                                        << ": Could not read process RAM usage";
  return false;
}

void ProcMemStats::calculate_ram_usage() {
  ram_percent = 0;
  if (!read_rss())
    return;
  if (total_ram == 0) {
    SUP_LOG(logger(), log_level::warning)
        << "calculate_ram_usage"
        << ": total RAM usage for process " << pid << " is 0 - might be a bug";
    return;
  }
  ram_percent = static_cast<double>(static_cast<long double>(rss_kb) * 100 / total_ram);
  zol_ram += rss_kb;
  SUP_LOG(logger(), log_level::debug)
      << "calculate_ram_usage"
      << ": read RAM usage for proc " << pid << ": " << rss_kb << "KB (" << ram_percent << "%)";
}

void ProcMemStats::update_system_mem_stats() {
  mem_stat.update_counters(static_cast<long long>(total_ram), static_cast<long long>(idle_ram),
                           static_cast<long long>(zol_ram));
}
