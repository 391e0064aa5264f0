// File descriptors of one process, and of the machine; proc(5).
//
// Built once a process and measurement; the figures are read by the constructor.
//
// Logs under "ProcFdStats". Main thread only.
#pragma once

#include "stats/system_perf_stat.h"

class ProcFdStats {
 public:
  explicit ProcFdStats(int process_id);

  // Shares the machine's descriptors out: `total` is what it could open, `idle` what it has left. All zero,
  // with a warning, when the kernel doesn't tell. A limit beyond an int counts as the greatest int.
  static void update_system_fd_stats();

  int pid;
  // Entries of the process's folder of descriptors, "." and ".." among them: two more than are open.
  int open_fds = 0;
  int fd_limit = 0;     // RLIMIT_NOFILE, the soft limit; 0 when there is none
  double fd_ratio = 0;  // 0 to 1; 0 without a limit

  static inline double max_fd_ratio = 0;  // of the node's processes
  static inline int zol_fds = 0;          // the sum over the node's processes
  static inline int allocated_fds = 0;
  static inline int max_fds = 0;
  static inline SystemPerfStat<int> fd_stat{.name = "FD"};

 private:
  void calculate_fd_count();
  void calculate_fd_limit();
  void calculate_fd_ratio();
};
