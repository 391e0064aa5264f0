// What the node's processes and the machine consume, measured once a report.
//
// The history of a process lasts from one measurement to the next; it goes when the process does. Failures
// are logged and leave zeros. A measurement blocks for one pgrep(1) a process of the node.
//
// Logs under "ProcessesManager". Main thread only.
#pragma once

#include <map>
#include <set>
#include <string>

#include "stats/proc_stats.h"
#include "variant.h"

class ProcessesManager {
 public:
  // Reads the machine's RAM.
  ProcessesManager();
  ProcessesManager(const ProcessesManager&) = delete;
  ProcessesManager& operator=(const ProcessesManager&) = delete;

  // The process's one manager, made at first use.
  static ProcessesManager* instance();
  // Names of the processes that are measured: the node's own, or with `kpa` the measurement agent's.
  static std::set<std::string> get_allowed_processes(bool kpa);

  // One measurement of those processes, among everything under this process's parent and the routing daemons,
  // that have an allowed name.
  void calculate_processes_performance(const std::set<std::string>& allowed);
  // Begins a measurement, and lets go who has ended.
  void reset();
  void print_processes_information() const;
  // A list: each process, then the shares of everything else and of what is idle.
  libvariant::Variant generate_procs_report() const;

  // By name. Of processes with the same name the one found last counts.
  std::map<std::string, Process> processes;
};
