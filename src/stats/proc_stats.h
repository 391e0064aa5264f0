// One process of the node: its CPU, RAM and descriptors, and where the node's processes are found.
//
// Logs under "Process". Main thread only.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "stats/proc_cpu_stats.h"
#include "variant.h"

class Process {
 public:
  // Takes one reading.
  Process(std::string process_name, int process_id);

  // Takes one reading of the process that bears the name now. With another pid than before the CPU history
  // begins anew. A process that is gone reads as zeros, with a warning.
  void read_stats(int process_id);
  // Whether the pid exists; a zombie does.
  bool is_alive() const;
  void print_proc_status() const;
  // `process_name`, `ram`, `cpu` and `fd`.
  libvariant::Variant generate_proc_report() const;

  // Begins a measurement: the sums over the processes start at nothing, and the sum of their ticks moves on.
  static void reset_globals();
  // Ends a measurement: shares the machine's resources out, and leaves the highest descriptor ratio for the
  // node's other processes.
  static void update_system_stats();
  static void print_system_stats();
  // Appends two maps like those of the processes, "other" and "idle", with percent of the whole resource.
  static void add_global_stats_to_report(std::vector<libvariant::Variant>& reports);

  // Appends (pid, name) of the process, unless the name is blank, and of everything under it. Blocks for one
  // pgrep(1) a process. False, with an error line, when one couldn't be run; what was found until then stays.
  static bool get_running_processes(int pid, const std::string& name,
                                    std::vector<std::pair<int, std::string>>& found);
  // Appends (pid, service) of each process that pgrep(1) finds for each service. Blocks for one a service.
  static void get_running_services(const std::vector<std::string>& services,
                                   std::vector<std::pair<int, std::string>>& found);

  std::string name;     // as pgrep -l prints it
  int pid;              // the last seen
  double ram = 0;       // percent of the machine's RAM
  double fd_ratio = 0;  // open descriptors by their limit, 0 to 1
  double cpu = 0;       // percent of one core, so it may exceed 100
  ProcCpuStats cpu_stats;
};
