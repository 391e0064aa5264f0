#include "core/zol_event_timers.h"

#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"
#include "core/zol_libevent.h"
#include "reporting/zol_events.h"
#include "sup_logger.h"

namespace zol_monitor {

namespace {

zol::ZOLEventLibEventTimer events_timer(send_events, nullptr, -1);
zol::ZOLEventLibEventTimer events_poll_timer(poll_send_events, nullptr, -1);
ZOLEvents events_queue;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Monitor");
  return instance;
}

}  // namespace

ZOLEvents& zol_events() {
  return events_queue;
}

void charge_send_events() {
  events_timer.del(false);
  const int delay_ms = events_queue.next_time_get_ms();
  if (delay_ms < 0) {
    SUP_LOG(logger(), log_level::debug) << "charge_send_events: not charged";
    return;
  }
  events_timer.charge(static_cast<unsigned>(delay_ms));
}

void charge_poll_send_events() {
  unsigned rate_ms = 0;
  if (!zol::TheConfigurator::get_configuration()->config.lookupValue(
          zol_conf_consts::monitoring_polling_rate_ms_key, rate_ms)) {
    SUP_LOG(logger(), log_level::error) << "charge_poll_send_events: failed to read polling_rate_ms";
    return;
  }
  events_poll_timer.charge(rate_ms);
}

void send_events(int, short, void*) {
  if (!events_queue.send_events())
    charge_send_events();
  poll_send_events(-1, 0, nullptr);
}

void poll_send_events(int, short, void*) {
  if (events_queue.poll_send_events())
    charge_poll_send_events();
  // Nobody else would come for an event that waits again.
  if (events_queue.resend_waits)
    charge_send_events();
}

void drop_events() {
  events_timer.del(false);
  events_poll_timer.del(false);
  events_queue.clear();
}

}  // namespace zol_monitor
