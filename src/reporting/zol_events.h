// The alarms of the node: the queue in which they wait for the management server, and what an alarm is.
//
// An event has no schedule. It waits in the queue, takes a like event that arrives meanwhile into itself, and
// goes out as a signed POST to "/zolEvent". Two events that aren't immediate are at least
// Monitoring.event_suppression_ms apart, so that a storm of failures makes few posts. Nothing bounds the
// queue.
//
// Logs under "ZOLEvents". Main thread only. What drives the queue is core/zol_event_timers.h.
#pragma once

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "reporting/hqs_http_client.h"
#include "variant.h"

namespace zol_monitor {

class ZOLEvents;

// One event, with a client of its own, which is open while the event is in progress only: most events of a
// storm end in another one, and those that wait hold no descriptors. It is waiting, or in progress from the
// start of its request to the end of the transfer; then it is gone, or waiting again.
class IEvent : public zol::HQSHttpClient {
 public:
  // `type` is the server's name for the kind of event. A `resendable` event is posted again, without a limit,
  // when its transfer ended without an HTTP response; an answer of any status ends it. An `immediate` one
  // doesn't wait for the suppression time.
  IEvent(const std::string& type, bool resendable, bool immediate);

  // The text of the request: JSON. Throws std::runtime_error when General.zol_id or General.external_ip is
  // missing; nobody catches that on the loop, and the process ends.
  virtual std::string serialize() const;
  // Takes the other event into this one, of the same class; true when it needn't be sent itself.
  virtual bool perform_update(ZOLEvents& events, IEvent& other);
  // Whether the other event is one that this one could take in.
  virtual bool is_updateable(const IEvent& other) const;
  // What the event tells: a map.
  virtual libvariant::Variant event_body() const = 0;
  // The request is under way; no answer has come yet.
  virtual void send_complete() {}

  // Starts the request. False, with an error line, when it couldn't be started. Throws as serialize(), and
  // std::runtime_error when libcurl has no handle to give.
  bool send();
  // Puts the event back to waiting, its client closed; from here on it obeys the suppression time.
  void resend();
  // is_updateable and then perform_update; true when the other event isn't needed any more.
  bool update(ZOLEvents& events, IEvent& other);

  bool resendable;
  bool in_progress = false;
  bool immediate;
  std::string type;
};

class ZOLEvents {
 public:
  // Counts the suppression time from now.
  ZOLEvents();
  virtual ~ZOLEvents() = default;
  ZOLEvents(const ZOLEvents&) = delete;
  ZOLEvents& operator=(const ZOLEvents&) = delete;

  // Takes the event, which is deleted when one that waits has taken it in: true then, false when it was
  // queued itself.
  bool invoke(IEvent* new_event);
  // Milliseconds until a waiting event may go: 0 as soon as one is immediate. -1 when there is nothing to
  // wait for or, with an error line, the clock or Monitoring.event_suppression_ms can't be read.
  int next_time_get_ms();
  // Starts what is due. False when an event was held back, so that the caller has to come again. An event
  // whose request can't be started is dropped.
  bool send_events();
  // One step of each transfer; ended ones leave the queue, or wait again. Whether one is still running.
  bool poll_send_events();
  // Monitoring.event_suppression_ms; false when it is missing.
  bool time_suppression_get_ms(int& suppression_ms);
  // Drops all events, whatever their state.
  void clear();

  std::vector<std::unique_ptr<IEvent>> queue;  // in the order of arrival
  timespec last_sent{};                        // Helper::get_clock of the last start that wasn't immediate
  bool resend_waits = false;                   // the last poll put an event back to waiting

 private:
  bool poll_event(std::unique_ptr<IEvent>& event);
};

}  // namespace zol_monitor
