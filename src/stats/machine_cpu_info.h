// How busy the machine's CPU is: the `cpu` object of the reports, and the node's shared figure.
//
// Usage is worked out from the idle ticks between two reports, whoever makes them; the first is 0.
//
// Logs under "MachineCpuInfo". Main thread only.
#pragma once

#include <cstdint>
#include <memory>

#include "stats/machine_cpu_stats.h"
#include "variant.h"

namespace zol_monitor {

class MachineCpuInfo {
 public:
  // With `sampler_wanted`, or where two versions of the node are installed, also samples what the hypervisor
  // takes. Throws std::runtime_error when the number of cores is unknown or the sampler can't start.
  explicit MachineCpuInfo(bool sampler_wanted);
  virtual ~MachineCpuInfo() = default;

  // Measures and makes the map; it is empty when the kernel's figures can't be read.
  libvariant::Variant generate_cpu_info_report();
  // False when the idle ticks can't be read; the last usage stays. Also leaves the usage in the shared status
  // record. The usage is negative, with an error line, when the CPUs were idle for longer than the clock
  // tells.
  bool read_cpu();
  // `total`, `num-of-cores`, `cores` and `cpu-stats`. Takes the sampler's samples.
  void serialize(libvariant::Variant& report);
  // The number itself; 0 throws.
  static unsigned long require_cores(unsigned long cores);

  double usage = 0;  // percent of the machine
  unsigned long num_of_cores;
  std::unique_ptr<CPUStatSampler> sampler;  // may be null

  // Of the last reading by any instance: the wall clock in hundredths of a second (0 before the first) and
  // the idle ticks.
  static inline double previous_ticks = 0;
  static inline std::uint64_t previous_idle = 0;

 private:
  void work_out_usage(double elapsed, std::uint64_t idle_diff);
  libvariant::Variant sampler_report();
};

// The idle column of the machine's line in /proc/stat; false, with `idle` left alone, when there is none.
bool read_cpu_idle_time(unsigned long long& idle);

}  // namespace zol_monitor
