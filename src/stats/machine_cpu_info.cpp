#include "stats/machine_cpu_info.h"

#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "dual_zol_helper.h"
#include "shared_object.h"
#include "shared_records.h"
#include "stats/proc_folder.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

constexpr double ticks_a_second = 100;
constexpr double ms_a_second = 1000.0;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("MachineCpuInfo");
  return instance;
}

bool is_dual_installation() {
  return zol_utils::DualZOLHelper::instance()->is_dual_installation();
}

}  // namespace

MachineCpuInfo::MachineCpuInfo(bool sampler_wanted)
    : num_of_cores(require_cores(zol::Helper::calc_number_of_cores())) {
  if (sampler_wanted || is_dual_installation())
    sampler = std::make_unique<CPUStatSampler>();
}

unsigned long MachineCpuInfo::require_cores(unsigned long cores) {
  if (cores == 0) {
    const char* const text = "Could not determine number of CPU cores. Aborting.";
    SUP_LOG(logger(), log_level::error) << text;
    throw std::runtime_error(text);
  }
  return cores;
}

libvariant::Variant MachineCpuInfo::generate_cpu_info_report() {
  libvariant::Variant report = libvariant::Variant::make_map();
  if (read_cpu())
    serialize(report);
  else if (is_dual_installation())
    SUP_LOG(logger(), log_level::error) << "Couldn't calculate CPU average usage.";
  return report;
}

bool MachineCpuInfo::read_cpu() {
  const double now = static_cast<double>(zol::Helper::get_timestamp_ms()) * ticks_a_second / ms_a_second;
  unsigned long long idle = 0;
  if (!read_cpu_idle_time(idle))
    return false;
  if (previous_ticks == 0) {
    usage = 0;
  } else {
    const double elapsed = std::round(now - previous_ticks);
    // Two readings within a tick say nothing about the time between them.
    if (elapsed == 0)
      return true;
    work_out_usage(elapsed, idle - previous_idle);
  }
  previous_ticks = now;
  previous_idle = idle;
  return true;
}

void MachineCpuInfo::work_out_usage(double elapsed, std::uint64_t idle_diff) {
  usage = zol::Helper::calc_usage_percentage(idle_diff, elapsed, num_of_cores);
  if (usage < 0)
    SUP_LOG(logger(), log_level::error)
        << "Negative total machine CPU usage: = " << usage << "Timestamp difference = " << elapsed
        << " CPU idle time difference = " << idle_diff;
  const double percent = usage;
  zol_utils::with_locked_record<zol_utils::ZolStatusData>(
      "read_cpu", [percent](zol_utils::ZolStatusData& status) { status.cpu_usage = percent; });
  SUP_LOG(logger(), log_level::debug) << "read_cpu"
                                      << ": Total CPU usage: " << usage;
}

libvariant::Variant MachineCpuInfo::sampler_report() {
  int clock_skew_ms = 0;
  double steal_average = 0;
  double steal_variance = 0;
  int num_of_samples = 0;
  if (sampler)
    sampler->get_stats(clock_skew_ms, steal_average, steal_variance, num_of_samples);
  libvariant::Variant report = libvariant::Variant::make_map();
  report.Assign("steal-average-pc", steal_average);
  report.Assign("steal-variance", steal_variance);
  report.Assign("clock-skew-ms", clock_skew_ms);
  report.Assign("num-of-samples", num_of_samples);
  return report;
}

void MachineCpuInfo::serialize(libvariant::Variant& report) {
  report.Assign("total", usage);
  report.Assign("num-of-cores", num_of_cores);
  report.Assign("cores", libvariant::Variant::make_list());
  report.Assign("cpu-stats", sampler_report());
}

bool read_cpu_idle_time(unsigned long long& idle) {
  FILE* file = std::fopen(proc_file("stat").c_str(), "re");
  if (file == nullptr)
    return false;
  // NOLINTNEXTLINE(cert-err34-c): the kernel's numbers fit
  const bool found = std::fscanf(file, "cpu %*d %*d %*d %llu", &idle) == 1;
  std::fclose(file);
  return found;
}

}  // namespace zol_monitor
