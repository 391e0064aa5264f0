#include "stats/monitor_system.h"

#include <cstdint>
#include <string>

#include "shared_object.h"
#include "shared_records.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("MonitorSystem");
  return instance;
}

struct FloodCounter {
  const char* caller;
  const char* read_command;
  const char* clear_command;
  const char* failure;
  std::uint32_t zol_utils::ZolStatusData::*shared_field;
};

void run_or_warn(const std::string& command) {
  std::string output;
  if (zol::Helper::run_cmd_stderr(command, output) != 0)
    SUP_LOG(logger(), log_level::warning) << "An error occurred while running:" << command;
}

unsigned long take(const FloodCounter& counter) {
  unsigned long drops = 0;
  const std::string output = zol::Helper::run_cmd(counter.read_command);
  if (output.empty()) {
    SUP_LOG(logger(), log_level::error) << counter.failure;
  } else {
    drops = std::stoul(output);
    run_or_warn(counter.clear_command);
  }
  zol_utils::with_locked_record<zol_utils::ZolStatusData>(
      counter.caller, [&counter, drops](zol_utils::ZolStatusData& status) {
        status.*counter.shared_field = static_cast<std::uint32_t>(drops);
      });
  return drops;
}

}  // namespace

unsigned long get_syn_flood_drop() {
  return take({"get_syn_flood_drop", "iptables -L syn-rate-limit 2 -nvx | awk '{print $1}'",
               "iptables -Z syn-rate-limit", "Failed to retrieve iptables SYN flood counters",
               &zol_utils::ZolStatusData::syn_flood_drop});
}

unsigned long get_icmp_flood_drop() {
  return take({"get_icmp_flood_drop", "iptables -L ICMP_FLOOD 4 -nvx | awk '{print $1}'",
               "iptables -Z ICMP_FLOOD", "Failed to retrieve iptables ICMP counters",
               &zol_utils::ZolStatusData::icmp_flood_drop});
}

}  // namespace zol_monitor
