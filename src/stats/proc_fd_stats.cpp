#include "stats/proc_fd_stats.h"

#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>
#include <string>

#include "stats/proc_folder.h"
#include "sup_logger.h"

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("ProcFdStats");
  return instance;
}

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};

int cut_to_int(long long value) {
  return static_cast<int>(
      std::clamp<long long>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

// The number behind the name of the limit, which has three words; the hard limit follows it.
bool read_soft_limit(std::istream& limits, int& limit) {
  for (std::string line; std::getline(limits, line);) {
    if (!line.starts_with("Max open files"))
      continue;
    std::istringstream words(line);
    std::string word;
    words >> word >> word >> word;
    int value = 0;
    if (!(words >> value))
      return false;
    limit = value;
    return true;
  }
  return false;
}

}  // namespace

ProcFdStats::ProcFdStats(int process_id) : pid(process_id) {
  calculate_fd_count();
  calculate_fd_limit();
  calculate_fd_ratio();
}

void ProcFdStats::calculate_fd_count() {
  open_fds = 0;
  const std::unique_ptr<DIR, CloseFolder> folder(opendir(zol_monitor::proc_file(pid, "fd").c_str()));
  if (!folder) {
    SUP_LOG(logger(), log_level::warning) << "calculate_fd_count"
                                          << ": Failed to calculate FDs for process " << pid;
    return;
  }
  while (readdir(folder.get()) != nullptr)
    ++open_fds;
  zol_fds += open_fds;
}

void ProcFdStats::calculate_fd_limit() {
  fd_limit = 0;
  std::ifstream limits(zol_monitor::proc_file(pid, "limits"));
  if (!read_soft_limit(limits, fd_limit))
    SUP_LOG(logger(), log_level::warning) << "calculate_fd_limit"
                                          << ": failed to read FD limit of process " << pid;
}

void ProcFdStats::calculate_fd_ratio() {
  if (fd_limit <= 0 || open_fds < 0) {
    fd_ratio = 0;
    SUP_LOG(logger(), log_level::warning) << "calculate_fd_ratio"
                                          << ": failed to calculate FD ratio for process " << pid;
    return;
  }
  fd_ratio = static_cast<double>(open_fds) / static_cast<double>(fd_limit);
  max_fd_ratio = std::max(max_fd_ratio, fd_ratio);
  SUP_LOG(logger(), log_level::debug) << "calculate_fd_ratio"
                                      << ": Process " << pid << ": open fds: " << open_fds
                                      << ", limit: " << fd_limit << ", ratio: " << fd_ratio;
}

void ProcFdStats::update_system_fd_stats() {
  allocated_fds = 0;
  max_fds = 0;
  std::ifstream file(zol_monitor::proc_file("sys/fs/file-nr"));
  long long allocated = 0;
  long long free = 0;
  long long maximum = 0;
  if (!(file >> allocated >> free >> maximum)) {
    SUP_LOG(logger(), log_level::warning) << "update_system_fd_stats"
                                          << ": failed to read system file descriptors usage";
    fd_stat.update_counters(0, 0, 0);
    return;
  }
  allocated_fds = cut_to_int(allocated);
  max_fds = cut_to_int(maximum);
  SUP_LOG(logger(), log_level::debug) << "update_system_fd_stats"
                                      << ": read usage " << allocated_fds << ", limit " << max_fds;
  fd_stat.update_counters(max_fds, cut_to_int(static_cast<long long>(max_fds) - allocated_fds), zol_fds);
}
