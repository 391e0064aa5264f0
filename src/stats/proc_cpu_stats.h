// CPU use of one process between two measurements, and the tick counters of the whole machine.
//
// All counters are clock ticks of proc(5), /proc/stat and /proc/<pid>/stat. Only ratios leave this file, so
// nothing is converted to seconds. Differences are taken modulo 2^64.
//
// One measurement: read_total_cpu_stats(true), calc_cpu_usage() of each process, re_read_system_cpu_stats(),
// update_system_cpu_stats().
//
// Logs under "ProcCpuStats". Main thread only.
#pragma once

#include <cstdint>

#include "stats/system_perf_stat.h"

// A running counter and what it grew by since the start of the interval.
struct CpuTicksDiff {
  // Takes a new reading. With `shift` a new interval begins at the last reading; without it the present
  // interval stretches to the new one.
  void update(unsigned long long value, bool shift);

  std::uint64_t last = 0;  // at the start of the interval
  std::uint64_t cur = 0;
  std::uint64_t diff = 0;
};

class ProcCpuStats {
 public:
  explicit ProcCpuStats(int process_id) : pid(process_id) {}
  // Follows another process from here on. The ticks are left as they stand.
  void reset(int process_id) { pid = process_id; }

  // Takes the process's ticks and adds them to the sum over all processes. The fields of the kernel's line
  // are counted by blanks, so a name with a blank shifts them by one. A line that can't be read is told by a
  // warning and changes nothing.
  void read_proc_cpu_stats();
  // Reads, and gives percent of one core: a process that fills two cores has 200. The first measurement of a
  // process counts its whole life. 0, with a warning, when the machine's ticks stand still.
  double calc_cpu_usage();

  // Takes the machine's ticks and counts its cores. The total is the sum of all ten columns, so what guests
  // use counts twice. Fewer columns, or no file, are told by a warning and change nothing.
  static void read_total_cpu_stats(bool shift);
  // Stretches the interval to now.
  static void re_read_system_cpu_stats() { read_total_cpu_stats(false); }
  // Shares the interval's ticks out.
  static void update_system_cpu_stats();

  int pid;
  double cpu_usage = 0;  // percent of one core
  CpuTicksDiff ticks;    // user and kernel time of the process
  std::uint64_t ticks_diff = 0;

  static inline int num_of_cores = 0;
  static inline CpuTicksDiff zol_ticks;  // the sum over the node's processes
  static inline CpuTicksDiff total_ticks;
  static inline CpuTicksDiff idle_ticks;
  static inline SystemPerfStat<unsigned long long> cpu_stat{.name = "CPU"};
};
