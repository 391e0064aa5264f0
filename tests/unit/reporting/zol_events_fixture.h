// A queue of events with a server to post to and a clock that the test moves.
#pragma once

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "event_clock.h"
#include "hqs_fixture.h"
#include "https_server.h"
#include "reporting/zol_events.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace zol_test {

// An event whose answers are the test's.
class PlainEvent : public zol_monitor::IEvent {
 public:
  explicit PlainEvent(bool resendable_in = false, bool immediate_in = false)
      : IEvent("PLAIN", resendable_in, immediate_in) {}
  ~PlainEvent() override {
    if (deleted != nullptr)
      ++*deleted;
  }

  libvariant::Variant event_body() const override {
    libvariant::Variant map;
    map.Assign("number", number);
    return map;
  }
  bool is_updateable(const IEvent& other) const override {
    return takes_in && dynamic_cast<const PlainEvent*>(&other) != nullptr;
  }
  bool perform_update(zol_monitor::ZOLEvents&, IEvent&) override {
    ++updates;
    return update_result;
  }
  void send_complete() override {
    ++completions;
    was_in_progress = in_progress;
  }

  int number = 0;
  int* deleted = nullptr;
  bool takes_in = false;
  bool update_result = true;
  int updates = 0;
  int completions = 0;
  bool was_in_progress = false;  // when send_complete was called
};

class ZOLEventsTest : public HqsFixture {
 protected:
  static constexpr int suppression_ms = 1000;

  ZOLEventsTest() { set_url(server_.url()); }

  void set_url(const std::string& url, const std::string& more = "event_suppression_ms = 1000; ") {
    config_->set(good_config("hqs_receiver_url = \"" + url + "\"; " + more));
  }
  // Puts an event into the queue, which owns it.
  template <typename Event>
  Event& add(Event* event) {
    events_.invoke(event);
    return *event;
  }
  void poll_to_end() {
    while (events_.poll_send_events())
      curl_multi_poll(events_.queue.front()->multi.get(), nullptr, 0, 5, nullptr);
  }
  // The body of the only request so far.
  libvariant::Variant only_posted() {
    const auto requests = server_.requests();
    EXPECT_THAT(requests, testing::SizeIs(1));
    return requests.empty() ? libvariant::Variant() : libvariant::Deserialize(requests[0].body);
  }
  static std::string pointer_text(const void* pointer) {
    std::ostringstream text;
    text << pointer;
    return text.str();
  }

  HttpsServer server_;
  EventClock clock_;
  LogCapture log_;
  zol_monitor::ZOLEvents events_;
};

}  // namespace zol_test
