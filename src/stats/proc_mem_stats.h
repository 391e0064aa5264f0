// Memory of one process, and of the machine. All figures are KB, as proc(5) gives them.
//
// Built once a process and measurement; the figures are read by the constructor.
//
// Logs under "ProcMemStats". Main thread only.
#pragma once

#include <cstdint>
#include <string>

#include "stats/system_perf_stat.h"

class ProcMemStats {
 public:
  explicit ProcMemStats(int process_id);

  // MemTotal and MemAvailable of /proc/meminfo. What is missing is 0.
  static void read_system_ram();
  // Shares the machine's RAM out.
  static void update_system_mem_stats();

  std::string status_path;
  int pid;
  std::uint64_t rss_kb = 0;
  // Resident part of the machine's RAM. 0, with a warning, for a process without figures: a zombie, a kernel
  // thread, one that has gone.
  double ram_percent = 0;

  static inline std::uint64_t total_ram = 0;
  static inline std::uint64_t idle_ram = 0;  // with what the kernel could reclaim
  static inline std::uint64_t zol_ram = 0;   // the sum over the node's processes
  static inline SystemPerfStat<long long> mem_stat{.name = "RAM"};

 private:
  void calculate_ram_usage();
  bool read_rss();
};
