// Who this machine is, and how busy its CPU and full its RAM are: the `machine-info` object of the reports.
//
// Follows the configuration: id and address are read anew at each reload.
//
// Logs under "MachineInfo". Main thread only.
#pragma once

#include <string>

#include "config/zol_configurator.h"
#include "stats/machine_cpu_info.h"
#include "stats/machine_ram_info.h"
#include "variant.h"

namespace zol_monitor {

class MachineInfo : public zol::IReconfigure {
 public:
  // With `is_kpa` the identity is that of the KPA role of the node, else that of the ZOL. `sampler_wanted`
  // starts a thread for the figures of `cpu-stats`, see MachineCpuInfo: for who reports them.
  explicit MachineInfo(bool is_kpa, bool sampler_wanted = false);
  ~MachineInfo() override;
  MachineInfo(const MachineInfo&) = delete;
  MachineInfo& operator=(const MachineInfo&) = delete;

  // Reads id and address; without them both are "N/A", with one error line.
  void update_params();
  void reconfigure() override;
  bool need_reconf(bool& enabled) override;

  // `id` and `ip_address`.
  libvariant::Variant generate_machine_info_id_report() const;
  // The same with `cpu` and `ram`, which are measured now; logs the memory of TCP too.
  libvariant::Variant generate_machine_info_report();
  // Logs what TCP's buffers take. Runs a shell command; throws what std::stol does when the kernel tells no
  // number.
  static void print_process_cpu_and_ram();

  std::string id;
  std::string external_ip;
  MachineCpuInfo cpu_info;
  MachineRamInfo ram_info;
  bool is_kpa;
};

}  // namespace zol_monitor
