// How one resource of the machine is shared out: the node's own processes, idle, and everything else.
#pragma once

#include <string>
#include <type_traits>

#include "sup_logger.h"

namespace zol_monitor::detail {

inline SupLogger& perf_stat_logger() {
  static SupLogger& instance = SupLogger::get_instance("SystemPerfStat");
  return instance;
}

}  // namespace zol_monitor::detail

// T is the resource's unit: clock ticks, KB, descriptors. `other` is total - idle - zol and never below zero.
//
// Logs under "SystemPerfStat". Main thread only.
template <typename T>
struct SystemPerfStat {
  std::string name;  // of the resource, for the log
  T total{};
  T other{};
  T idle{};
  T zol{};

  // Takes the three and works `other` out. The three are measured one after the other, so they may exceed the
  // total: that is told by a warning, and `other` is zero.
  void update_counters(T new_total, T new_idle, T new_zol);
  // One info line, opened by the name of the function that asks.
  void print(const char* caller) const;
  // A part of the total in percent; 0 of a total of 0.
  double percent(T part) const {
    return total == 0 ? 0.0 : static_cast<double>(part) / static_cast<double>(total) * 100;
  }
};

template <typename T>
void SystemPerfStat<T>::update_counters(T new_total, T new_idle, T new_zol) {
  total = new_total;
  idle = new_idle;
  zol = new_zol;
  other = total - idle - zol;
  if (idle > total || zol > total - idle) {
    SUP_LOG(zol_monitor::detail::perf_stat_logger(), log_level::warning)
        << "update_counters"
        << ": calculated negative value for other processes: " << total << " - " << idle << " - " << zol
        << " = " << static_cast<std::make_signed_t<T>>(other) << ". setting value to zero";
    other = 0;
  }
  print("update_counters");
}

template <typename T>
void SystemPerfStat<T>::print(const char* caller) const {
  SUP_LOG(zol_monitor::detail::perf_stat_logger(), log_level::info)
      << caller << ": " << name << ": "
      << "total: " << total << ", idle: " << idle << ", vantorel: " << zol << ", other: " << other;
}
