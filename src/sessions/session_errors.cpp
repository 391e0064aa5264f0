#include "sessions/session_info.h"
#include "sup_logger.h"

namespace zol_monitor {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("SessionsErrorCounter");
  return instance;
}

void log_unsupported(const char* function, zol::failure_reason_t reason) {
  SUP_LOG(logger(), log_level::error)
      << function << ":Failure-Reason:" << static_cast<unsigned>(reason) << " is not supported:";
}

}  // namespace

bool SessionsErrorCounter::verify_failure_reason(zol::failure_reason_t reason) {
  return reason >= zol::FR_RESOLUTION_FAILURE && reason <= zol::FR_FAILOPEN_CONNECTION;
}

void SessionsErrorCounter::update_counters(zol::failure_reason_t reason) {
  if (!verify_failure_reason(reason)) {
    log_unsupported("update_counters", reason);
    return;
  }
  ++total[reason];
  ++period[reason];
}

unsigned long SessionsErrorCounter::get_counter(const Map& map, zol::failure_reason_t reason) {
  if (!verify_failure_reason(reason)) {
    log_unsupported("get_counter", reason);
    return 0;
  }
  const auto found = map.find(reason);
  return found == map.end() ? 0 : found->second;
}

}  // namespace zol_monitor
