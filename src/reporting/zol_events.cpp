#include "reporting/zol_events.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <utility>

#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"
#include "reporting/report_text.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

constexpr const char* target_path = "/zolEvent";
// Of a transfer when General.hqs_http_client_timeout_sec is missing: one without an end would keep its event,
// and the polling, for ever.
constexpr int default_timeout_sec = 30;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("ZOLEvents");
  return instance;
}

template <typename T>
bool lookup(const char* key, T& value) {
  return zol::TheConfigurator::get_configuration()->config.lookupValue(key, value);
}

std::string required_setting(const char* key, const char* failure) {
  std::string value;
  if (!lookup(key, value)) {
    SUP_LOG(logger(), log_level::error) << failure;
    throw std::runtime_error(failure);
  }
  return value;
}

bool is_metadata_wanted() {
  bool is_wanted = false;
  lookup(zol_conf_consts::monitoring_send_meta_data_on_events_key, is_wanted);
  if (!is_wanted)
    SUP_LOG(logger(), log_level::debug) << "Sending meta-data on ZOL-Event is disabled";
  return is_wanted;
}

void add_metadata(libvariant::Variant& event) {
  std::string text;
  if (lookup(zol_conf_consts::monitoring_hqs_meta_data_key, text))
    event.Assign("metadata", libvariant::Deserialize(text));
  else
    SUP_LOG(logger(), log_level::warning) << "serialize Could not find meta-data";
}

// Takes out of the queue what a pass has dropped, also when the pass ends by an exception.
class DroppedSweep {
 public:
  explicit DroppedSweep(std::vector<std::unique_ptr<IEvent>>& queue) : queue_(queue) {}
  ~DroppedSweep() { std::erase(queue_, nullptr); }
  DroppedSweep(const DroppedSweep&) = delete;
  DroppedSweep& operator=(const DroppedSweep&) = delete;

 private:
  std::vector<std::unique_ptr<IEvent>>& queue_;
};

}  // namespace

IEvent::IEvent(const std::string& type_in, bool resendable_in, bool immediate_in)
    : HQSHttpClient(Unopened(), zol::hqs_hmac_parameters(), false, zol::TheConfigurator::get_configuration(),
                    true, false),
      resendable(resendable_in),
      immediate(immediate_in),
      type(type_in) {}

std::string IEvent::serialize() const {
  const std::string id = required_setting(zol_conf_consts::general_zol_id_key,
                                          "Couldn't read the ZOLID from configuration file ");
  const bool has_metadata = is_metadata_wanted();
  const std::string ip = required_setting(zol_conf_consts::general_external_ip_key,
                                          "Couldn't read the ZOL-IP from configuration file ");
  libvariant::Variant event;
  if (has_metadata)
    add_metadata(event);
  event.Assign("timestamp", zol::Helper::get_timestamp_gmt_format());
  event.Assign("id", id);
  event.Assign("ip", ip);
  event.Assign("eventType", type);
  event.Assign("eventBody", event_body());
  return report_text(event);
}

bool IEvent::perform_update(ZOLEvents&, IEvent&) {
  return false;
}

bool IEvent::is_updateable(const IEvent&) const {
  return false;
}

bool IEvent::send() {
  std::string url;
  if (!lookup(zol_conf_consts::monitoring_hqs_receiver_url_key, url)) {
    SUP_LOG(logger(), log_level::error)
        << "Fail to send event " << type << ". Error reading hqs_receiver_url.";
    return false;
  }
  int timeout_sec = default_timeout_sec;
  std::string certificate;
  lookup(zol_conf_consts::general_hqs_http_client_timeout_sec_key, timeout_sec);
  lookup(zol_conf_consts::general_client_cert_path_key, certificate);
  const std::string text = serialize();
  SUP_LOG(logger(), log_level::info) << "Sending event " << this << " to HQS: " << text;
  open();
  if (!init_post_request_async_resolver(url, target_path, certificate, text, timeout_sec, "")) {
    SUP_LOG(logger(), log_level::error)
        << "Fail to send event " << type << ". Fail to initialize HTTP client.";
    return false;
  }
  send_complete();
  in_progress = true;
  return true;
}

void IEvent::resend() {
  close();
  in_progress = false;
  immediate = false;
}

bool IEvent::update(ZOLEvents& events, IEvent& other) {
  return is_updateable(other) && perform_update(events, other);
}

ZOLEvents::ZOLEvents() {
  zol::Helper::get_clock(last_sent);
}

bool ZOLEvents::invoke(IEvent* new_event) {
  std::unique_ptr<IEvent> owner(new_event);
  for (const std::unique_ptr<IEvent>& queued : queue) {
    if (!queued->in_progress && queued->update(*this, *new_event)) {
      SUP_LOG(logger(), log_level::debug) << "invoke: Event already exists. Updating.";
      return true;
    }
  }
  SUP_LOG(logger(), log_level::debug) << "invoke: Pushing new event " << new_event << " to queue.";
  queue.push_back(std::move(owner));
  return false;
}

int ZOLEvents::next_time_get_ms() {
  if (queue.empty())
    return -1;
  timespec now;
  if (!zol::Helper::get_clock(now)) {
    SUP_LOG(logger(), log_level::error) << "Unable to get next event time. Failed to read clock";
    return -1;
  }
  // One that is on its way is past waiting; counting it would turn the loop without a pause to its end.
  const auto is_waiting_immediate = [](const auto& event) { return event->immediate && !event->in_progress; };
  if (std::any_of(queue.begin(), queue.end(), is_waiting_immediate))
    return 0;
  int suppression_ms = 0;
  if (!time_suppression_get_ms(suppression_ms)) {
    SUP_LOG(logger(), log_level::error)
        << "Unable to get next event time. Failed to read event_suppression_ms";
    return -1;
  }
  const std::int64_t left_ms = suppression_ms - zol::Helper::get_clock_diff_ms(last_sent, now);
  return static_cast<int>(std::clamp<std::int64_t>(left_ms, 0, std::numeric_limits<int>::max()));
}

bool ZOLEvents::send_events() {
  if (queue.empty())
    return true;
  timespec now;
  int suppression_ms = 0;
  if (!zol::Helper::get_clock(now)) {
    SUP_LOG(logger(), log_level::error) << "Unable to send events. Failed to read clock";
    return true;
  }
  if (!time_suppression_get_ms(suppression_ms)) {
    SUP_LOG(logger(), log_level::error) << "Unable to send events. Failed to read event_suppression_ms";
    return true;
  }
  bool is_all_started = true;
  const DroppedSweep sweep(queue);
  for (std::unique_ptr<IEvent>& event : queue) {
    if (event->in_progress)
      continue;
    if (!event->immediate && zol::Helper::get_clock_diff_ms(last_sent, now) < suppression_ms) {
      is_all_started = false;
      continue;
    }
    SUP_LOG(logger(), log_level::debug) << "send_events: send event " << event.get();
    if (!event->send()) {
      SUP_LOG(logger(), log_level::debug)
          << "send_events: Failed to send. Remove event " << event.get() << " from queue";
      event.reset();
    } else if (!event->immediate) {
      last_sent = now;
    }
  }
  return is_all_started;
}

bool ZOLEvents::poll_send_events() {
  bool is_running = false;
  resend_waits = false;
  const DroppedSweep sweep(queue);
  for (std::unique_ptr<IEvent>& event : queue)
    is_running = poll_event(event) || is_running;
  return is_running;
}

// Whether the event is still running; empties the pointer of one that is done with.
bool ZOLEvents::poll_event(std::unique_ptr<IEvent>& event) {
  SUP_LOG(logger(), log_level::debug)
      << "poll_send_events: event " << event.get() << " was " << (event->in_progress ? "" : "not ")
      << "sent and is " << (event->is_async_running() ? "" : "not ") << "running";
  if (!event->in_progress)
    return false;
  if (!event->continue_send()) {
    SUP_LOG(logger(), log_level::error) << "Failed to send event: " << event->type << ". HTTP client error.";
    event.reset();
    return false;
  }
  if (event->is_async_running()) {
    SUP_LOG(logger(), log_level::debug)
        << "poll_send_events: event " << event.get() << " is still running. Keep polling.";
    return true;
  }
  if (!event->response_done && event->resendable) {
    event->resend();
    resend_waits = true;
    return false;
  }
  SUP_LOG(logger(), log_level::debug)
      << "poll_send_events: event " << event.get() << " was sent. Remove from queue.";
  event.reset();
  return false;
}

bool ZOLEvents::time_suppression_get_ms(int& suppression_ms) {
  return lookup(zol_conf_consts::monitoring_event_suppression_ms_key, suppression_ms);
}

void ZOLEvents::clear() {
  queue.clear();
}

}  // namespace zol_monitor
