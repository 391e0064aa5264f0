#include "failure/zol_failure.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <exception>

#include "config/zol_conf_consts.h"
#include "failure/ha_agent_driver.h"
#include "failure/monitor_driver.h"
#include "shared_object.h"
#include "shared_records.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

using zol_utils::with_locked_record;
using zol_utils::ZolStatusData;

namespace {

constexpr unsigned check_period_ms = 5000;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("ZOLFailure");
  return l;
}

template <typename T>
bool lookup(const char* key, T& value) {
  return TheConfigurator::get_configuration()->config.lookupValue(key, value);
}

bool is_set(const char* key) {
  bool value = false;
  lookup(key, value);
  return value;
}

timespec clock_now() {
  timespec now{};
  Helper::get_clock(now);
  return now;
}

// A beginning that lies ahead can't be right: it counts as long ago, so that no state stays for good.
bool has_passed(std::int64_t began, std::int64_t seconds) {
  const std::int64_t now = clock_now().tv_sec;
  return began > now || now - began >= seconds;
}

bool is_suspension_over(const ZolStatusData& status) {
  return status.suspension_time != 0 && has_passed(status.suspension_start[0], status.suspension_time);
}

bool is_suspended(const ZolStatusData& status) {
  return status.failopen_suspended != 0 && !is_suspension_over(status);
}

template <typename T>
bool holds(const std::vector<T*>& listeners, const T* listener) {
  return std::find(listeners.begin(), listeners.end(), listener) != listeners.end();
}

template <typename T>
void add_once(std::vector<T*>& listeners, T* listener) {
  if (listener != nullptr && !holds(listeners, listener))
    listeners.push_back(listener);
}

template <typename T, typename Visit>
void for_each_listener(const std::vector<T*>& listeners, Visit&& visit) {
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): a visit may change the list
  const std::vector<T*> all = listeners;
  for (T* listener : all)
    if (holds(listeners, listener))
      visit(*listener);
}

}  // namespace

ZOLFailure& zol_failure() {
  static ZOLFailure failure;
  return failure;
}

ZOLFailure::ZOLFailure() : IDispatch("zol", "watchdog"), status_timer(check_failure_status, this, -1) {
  TheConfigurator::get_configuration()->register_reconfiguration_cb(this);
  arm_timer();
}

ZOLFailure::~ZOLFailure() {
  try {
    TheConfigurator::get_configuration()->unregister_reconfiguration_cb(this);
  } catch (const std::exception&) {  // no configuration is left to unregister from
  }
}

void ZOLFailure::arm_timer() {
  if (ZOLEventBase::base() != nullptr && !status_timer.is_pending())
    status_timer.charge(check_period_ms);
}

void ZOLFailure::add(IFailopen* listener) {
  add_once(failopen_listeners, listener);
}

void ZOLFailure::remove(IFailopen* listener) {
  std::erase(failopen_listeners, listener);
}

void ZOLFailure::bh_notify_register(IBlackHoleNotify* listener) {
  add_once(bh_listeners, listener);
}

void ZOLFailure::bh_notify_unregister(IBlackHoleNotify* listener) {
  std::erase(bh_listeners, listener);
}

void ZOLFailure::set_notifier(MonitorDriver* driver) {
  notifier = driver;
}

void ZOLFailure::set_ha_agent(HAAgentDriver* driver) {
  ha_agent = driver;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): as the other processes of the node call it
void ZOLFailure::notify(std::string address, unsigned short port, bool count, bool dns) {
  if (!TheConfigurator::is_adj_zol(port)) {
    SUP_LOG(logger(), log_level::notice) << "Failure notification on non adjacent ZOL. ignoring";
    return;
  }
  if (dns) {
    SUP_LOG(logger(), log_level::notice) << "Failure notification on DNS resolving - Will not be notified";
  } else {
    if (notifier != nullptr)
      notifier->dispatch_event_failure(address, port);
    if (ha_agent != nullptr && ha_agent->is_enabled())
      ha_agent->dispatch_event_failure(address, port);
  }
  if (count && count_failure() && !Helper::is_middle_mile_network())
    failopen(true, true);
}

// Whether the threshold is reached.
bool ZOLFailure::count_failure() {
  bool counted = false;
  std::uint64_t failures = 0;
  with_locked_record<ZolStatusData>("notify", [&](ZolStatusData& status) {
    if (is_suspended(status))
      return;
    failures = ++status.failure_count;
    counted = true;
  });
  if (!counted)
    return false;
  unsigned threshold = 0;
  if (!lookup(zol_conf_consts::failopen_threshold_key, threshold)) {
    SUP_LOG(logger(), log_level::error)
        << "notify: Couldn't retrieve configuration parameter " << zol_conf_consts::failopen_threshold_key;
    return false;
  }
  return failures >= threshold;
}

void ZOLFailure::failopen(bool active, bool notify) {
  bool was_active = false;
  const bool stored = with_locked_record<ZolStatusData>("failopen", [&](ZolStatusData& status) {
    was_active = status.failopen_active != 0;
    if (was_active == active)
      return;
    status.failopen_active = active ? 1 : 0;
    status.failopen_start = active ? clock_now().tv_sec : 0;
    status.failure_count = 0;
  });
  if (stored && was_active && active)
    SUP_LOG(logger(), log_level::notice) << "Failopen is already active";
  if (!stored || was_active == active || !notify)
    return;
  arm_timer();
  tell_listeners(active);
  if (notifier != nullptr)
    notifier->dispatch_event_failopen(active);
  reload_conf();
}

void ZOLFailure::tell_listeners(bool active) {
  told_ = active;
  for_each_listener(failopen_listeners,
                    [active](IFailopen& listener) { listener.failopen_notification(active); });
}

bool ZOLFailure::is_failopen_enabled() {
  bool active = false;
  with_locked_record<ZolStatusData>("is_failopen_enabled", [&active](const ZolStatusData& status) {
    active = status.failopen_active != 0;
  });
  return active;
}

void ZOLFailure::blackhole_notify(BHInfo info) {
  if (!is_set(zol_conf_consts::blackhole_enabled_key)) {
    SUP_LOG(logger(), log_level::info) << "blackhole_notify: Black hole feature is disabled, ignoring...";
    return;
  }
  if (is_set(zol_conf_consts::blackhole_close_service_ports_key)) {
    bh_active = true;
    shm_set_bh_state(true);
    info.handled = true;
  }
  for_each_listener(bh_listeners, [&info](IBlackHoleNotify& listener) { listener.bh_notification(info); });
}

void ZOLFailure::shm_set_bh_state(bool active) {
  with_locked_record<ZolStatusData>(
      "shm_set_bh_state", [active](ZolStatusData& status) { status.black_hole_active = active ? 1 : 0; });
}

void ZOLFailure::suspend_notifier(bool suspend, unsigned seconds) {
  const timespec now = clock_now();
  with_locked_record<ZolStatusData>("suspend_notifier", [&](ZolStatusData& status) {
    status.failopen_suspended = suspend ? 1 : 0;
    status.suspension_time = suspend ? seconds : 0;
    status.suspension_start = {suspend ? now.tv_sec : 0, suspend ? now.tv_nsec : 0};
  });
  suspended_here_ = suspend;
  arm_timer();
  if (ha_agent == nullptr)
    return;
  if (suspend)
    ha_agent->dispatch_event_suspend();
  else
    ha_agent->dispatch_event_resume();
}

void ZOLFailure::check_failure_status(int, short, void* self) {
  auto* failure = static_cast<ZOLFailure*>(self);
  failure->arm_timer();
  failure->end_failopen_in_time();
  failure->end_suspension_in_time();
}

void ZOLFailure::end_failopen_in_time() {
  bool active = false;
  std::int64_t began = 0;
  with_locked_record<ZolStatusData>("check_failure_status", [&](const ZolStatusData& status) {
    active = status.failopen_active != 0;
    began = status.failopen_start;
  });
  if (!active) {
    said_no_end_ = false;
    return;
  }
  int period_s = 0;
  if (!lookup(zol_conf_consts::failopen_return_wait_period_key, period_s)) {
    if (!said_no_end_)
      SUP_LOG(logger(), log_level::error)
          << "check_failure_status: Couldn't retrieve configuration parameter "
          << zol_conf_consts::failopen_return_wait_period_key;
    said_no_end_ = true;
    return;
  }
  if (!has_passed(began, period_s))
    return;
  SUP_LOG(logger(), log_level::info) << "Return wait period have passed, switching out from failopen mode";
  failopen(false, true);
}

void ZOLFailure::end_suspension_in_time() {
  if (!suspended_here_)
    return;
  bool over = false;
  with_locked_record<ZolStatusData>("check_failure_status", [&over](const ZolStatusData& status) {
    over = status.failopen_suspended != 0 && is_suspension_over(status);
  });
  if (over)
    suspend_notifier(false, 0);
}

void ZOLFailure::reconfigure() {
  SUP_LOG(logger(), log_level::info) << "Reconfiguration of ZOL failure handler";
  arm_timer();
  const bool active = is_failopen_enabled();
  if (active != told_)
    tell_listeners(active);
}

bool ZOLFailure::need_reconf(bool&) {
  return true;
}

}  // namespace zol
