// Who this machine is: the `machine-info` object of the reports.
//
// Follows the configuration: id and address are read anew at each reload.
//
// Logs under "MachineInfo". Main thread only.
#pragma once

#include <string>

#include "config/zol_configurator.h"
#include "variant.h"

namespace zol_monitor {

class MachineInfo : public zol::IReconfigure {
 public:
  // With `is_kpa` the identity is that of the KPA role of the node, else that of the ZOL.
  explicit MachineInfo(bool is_kpa);
  ~MachineInfo() override;
  MachineInfo(const MachineInfo&) = delete;
  MachineInfo& operator=(const MachineInfo&) = delete;

  // Reads id and address; without them both are "N/A", with one error line.
  void update_params();
  void reconfigure() override;
  bool need_reconf(bool& enabled) override;

  // `id` and `ip_address`.
  libvariant::Variant generate_machine_info_id_report() const;
  libvariant::Variant generate_machine_info_report();

  std::string id;
  std::string external_ip;
  bool is_kpa;
};

}  // namespace zol_monitor
