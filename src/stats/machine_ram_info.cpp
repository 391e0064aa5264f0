#include "stats/machine_ram_info.h"

#include <exception>
#include <fstream>
#include <string>

#include "shared_object.h"
#include "shared_records.h"
#include "stats/proc_folder.h"
#include "sup_logger.h"

namespace zol_monitor {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("MachineRamInfo");
  return instance;
}

struct MemInfo {
  double total = 0;
  double free = 0;
  double cached = 0;
  double buffers = 0;

  double* find(const std::string& label) {
    if (label == "MemTotal:")
      return &total;
    if (label == "MemFree:")
      return &free;
    if (label == "Cached:")
      return &cached;
    if (label == "Buffers:")
      return &buffers;
    return nullptr;
  }
};

}  // namespace

libvariant::Variant MachineRamInfo::generate_ram_info_report() {
  libvariant::Variant report = libvariant::Variant::make_map();
  if (read_mem())
    serialize(report);
  else
    SUP_LOG(logger(), log_level::error) << "Couldn't read RAM information.";
  return report;
}

bool MachineRamInfo::read_parameter(std::istream& words, double& value) {
  std::string word;
  words >> word;
  try {
    value = std::stod(word);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool MachineRamInfo::read_mem() {
  std::ifstream file(proc_file("meminfo"));
  MemInfo info;
  for (std::string word; file >> word;) {
    double* value = info.find(word);
    if (value != nullptr && !read_parameter(file, *value))
      return false;
  }
  if (info.total == 0)
    return false;
  total = info.total;
  used = info.total - (info.free + info.cached + info.buffers);
  const double percent = used / total * 100;
  zol_utils::with_locked_record<zol_utils::ZolStatusData>(
      "read_mem", [percent](zol_utils::ZolStatusData& status) { status.ram_usage = percent; });
  SUP_LOG(logger(), log_level::debug) << "read_mem"
                                      << ": Total RAM used: " << percent;
  return true;
}

void MachineRamInfo::serialize(libvariant::Variant& report) const {
  report.Assign("total", total);
  report.Assign("used", used);
}

}  // namespace zol_monitor
