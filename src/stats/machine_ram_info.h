// How full the machine's RAM is: the `ram` object of the reports, and the node's shared figure.
//
// What the kernel uses for files and buffers counts as free; proc(5), /proc/meminfo.
//
// Logs under "MachineRamInfo". Main thread only.
#pragma once

#include <istream>

#include "variant.h"

namespace zol_monitor {

class MachineRamInfo {
 public:
  MachineRamInfo() = default;
  virtual ~MachineRamInfo() = default;

  // Measures and makes the map of `total` and `used`. An empty map, with an error line, without figures.
  libvariant::Variant generate_ram_info_report();
  // False when the kernel's figures can't be read; the last ones stay. Also leaves the percentage in the
  // shared status record.
  bool read_mem();
  // One number; false, with `value` left alone, when there is none.
  static bool read_parameter(std::istream& words, double& value);
  void serialize(libvariant::Variant& report) const;

  double total = 0;  // KB
  double used = 0;   // KB
};

}  // namespace zol_monitor
