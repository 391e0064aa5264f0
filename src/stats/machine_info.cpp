#include "stats/machine_info.h"

#include <exception>

#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

const char* const not_available = "N/A";

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("MachineInfo");
  return instance;
}

}  // namespace

MachineInfo::MachineInfo(bool is_kpa_in, bool sampler_wanted) : cpu_info(sampler_wanted), is_kpa(is_kpa_in) {
  zol::TheConfigurator::get_configuration()->register_reconfiguration_cb(this);
  update_params();
}

MachineInfo::~MachineInfo() {
  zol::TheConfigurator::get_configuration()->unregister_reconfiguration_cb(this);
}

void MachineInfo::update_params() {
  try {
    id = zol::Helper::get_my_id(is_kpa);
    external_ip = zol::Helper::get_external_ip(is_kpa);
  } catch (const std::exception& failure) {
    SUP_LOG(logger(), log_level::error) << "Failed to reload configuration: " << failure.what();
    id = not_available;
    external_ip = not_available;
  }
  SUP_LOG(logger(), log_level::debug) << "Updated params: id = " << id << ", external ip = " << external_ip;
}

void MachineInfo::reconfigure() {
  update_params();
}

bool MachineInfo::need_reconf(bool&) {
  return true;
}

libvariant::Variant MachineInfo::generate_machine_info_id_report() const {
  libvariant::Variant report = libvariant::Variant::make_map();
  report.Assign("id", id);
  report.Assign("ip_address", external_ip);
  return report;
}

libvariant::Variant MachineInfo::generate_machine_info_report() {
  libvariant::Variant report = generate_machine_info_id_report();
  report.Assign("cpu", cpu_info.generate_cpu_info_report());
  report.Assign("ram", ram_info.generate_ram_info_report());
  print_process_cpu_and_ram();
  return report;
}

void MachineInfo::print_process_cpu_and_ram() {
  const std::string output =
      zol::Helper::run_cmd("cat /proc/net/sockstat | grep \"TCP\"  | awk ' { print $11} ' ");
  const long memory = std::stol(output);
  SUP_LOG(logger(), log_level::info) << "print_process_cpu_and_ram"
                                     << ": TCP memory consumption is : " << memory << " bytes";
}

}  // namespace zol_monitor
