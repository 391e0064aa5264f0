#include <numeric>

#include "sessions/session_info.h"
#include "sup_logger.h"

namespace zol_monitor {

namespace {

constexpr std::size_t request_kinds = 3;  // the first ones; the others are responses

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("HTTPCounters");
  return instance;
}

}  // namespace

bool HTTPCounters::update(zol::http_notification_t kind) {
  const auto index = static_cast<std::size_t>(kind);
  if (index >= kinds) {
    SUP_LOG(logger(), log_level::error) << "update"
                                        << ": HTTP notification " << index << " is not supported";
    return false;
  }
  ++counters_[index];
  return true;
}

std::uint32_t HTTPCounters::get_counter(zol::http_notification_t kind) const {
  const auto index = static_cast<std::size_t>(kind);
  return index < kinds ? counters_[index] : 0;
}

std::uint32_t HTTPCounters::total_requests() const {
  return std::accumulate(counters_.begin(), counters_.begin() + request_kinds, std::uint32_t{0});
}

std::uint32_t HTTPCounters::total_responses() const {
  return std::accumulate(counters_.begin() + request_kinds, counters_.end(), std::uint32_t{0});
}

HTTPCounters& HTTPCounters::operator+=(const HTTPCounters& other) {
  for (std::size_t i = 0; i < kinds; ++i)
    counters_[i] += other.counters_[i];
  return *this;
}

}  // namespace zol_monitor
