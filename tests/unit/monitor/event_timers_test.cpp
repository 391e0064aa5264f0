// The timers of the event queue, on a loop.
#include "core/zol_event_timers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "reporting/zol_event_types.h"
#include "reporting/zol_events.h"
#include "sup_logger.h"
#include "tests/unit/monitor/monitor_fixture.h"
#include "zol_helper.h"

namespace {

using testing::IsEmpty;
using testing::SizeIs;
using zol_monitor::charge_send_events;
using zol_monitor::FailopenEvent;
using zol_monitor::NextHopEvent;
using zol_monitor::zol_events;
using zol_test::monitor_config;

constexpr const char* started = "send_events: send event ";

class EventTimers : public zol_test::MonitorFixture {
 protected:
  EventTimers() { set("polling_rate_ms = 1; event_suppression_ms = 3600000; "); }
  ~EventTimers() override { zol_monitor::drop_events(); }

  void set(const std::string& monitoring) { config_.set(monitor_config(monitoring)); }
};

// Verifies that an empty queue charges nothing.
TEST_F(EventTimers, EmptyQueue) {
  charge_send_events();
  EXPECT_TRUE(log_.contains(log_level::debug, "charge_send_events: not charged"));
}

// Verifies that an immediate event is started by the loop's next passes, and one that waits isn't.
TEST_F(EventTimers, ImmediateEvent) {
  zol_events().invoke(new NextHopEvent);
  zol_events().invoke(new FailopenEvent(true));
  charge_send_events();
  EXPECT_FALSE(log_.contains(log_level::debug, "charge_send_events: not charged"));
  EXPECT_TRUE(run_until([&] { return log_.contains(started); }));
  EXPECT_EQ(log_.count(started), 1);
  EXPECT_FALSE(zol_events().queue[0]->in_progress);
}

// Verifies that an event that is held back is started when its time has come.
TEST_F(EventTimers, HeldBackEvent) {
  set("polling_rate_ms = 1; event_suppression_ms = 20; ");
  zol::Helper::get_clock(zol_events().last_sent);
  zol_events().invoke(new NextHopEvent);
  zol_monitor::send_events(-1, 0, nullptr);
  EXPECT_FALSE(log_.contains(started));
  EXPECT_TRUE(run_until([&] { return log_.contains(started); }));
}

// Verifies that a new charge takes the place of the last one, without a line about that, also when nothing is
// due any more.
TEST_F(EventTimers, ChargeIsReplaced) {
  zol_events().invoke(new FailopenEvent(true));
  charge_send_events();
  zol_events().clear();
  charge_send_events();
  EXPECT_FALSE(log_.contains("Event removed"));
  zol_events().invoke(new FailopenEvent(true));
  for (int pass = 0; pass < 20; ++pass)
    event_base_loop(zol::ZOLEventBase::base(), EVLOOP_NONBLOCK);
  EXPECT_FALSE(log_.contains(started));
}

// Verifies that an event whose transfer ended without an answer is started again by the timers alone.
TEST_F(EventTimers, WaitsAgain) {
  set("polling_rate_ms = 1; event_suppression_ms = 20; ");
  zol_events().invoke(new FailopenEvent(true));  // can't be signed here, so it never leaves
  charge_send_events();
  EXPECT_TRUE(run_until([&] { return log_.count(started) >= 3; }));
  EXPECT_THAT(zol_events().queue, SizeIs(1));
}

// Verifies that a missing polling rate leaves a running transfer unpolled, with its line.
TEST_F(EventTimers, MissingPollingRate) {
  set("");
  zol_monitor::charge_poll_send_events();
  EXPECT_TRUE(log_.contains(log_level::error, "charge_poll_send_events: failed to read polling_rate_ms"));
}

// Verifies that a transfer is polled until it has ended.
TEST_F(EventTimers, Polled) {
  class Running : public zol_monitor::IEvent {
   public:
    Running() : IEvent("RUNNING", false, false) {}
    libvariant::Variant event_body() const override { return {}; }
    bool is_async_running() override { return polls < 5; }
    bool continue_send() override { return ++polls > 0; }
    int polls = 0;
  };
  auto* event = new Running;
  event->in_progress = true;
  zol_events().invoke(event);
  zol_monitor::poll_send_events(-1, 0, nullptr);
  EXPECT_EQ(event->polls, 1);
  EXPECT_TRUE(run_until([] { return zol_events().queue.empty(); }));
  EXPECT_EQ(log_.count("is still running. Keep polling."), 4);
}

// Verifies that what holds the queue is dropped with its timers, also what is on its way.
TEST_F(EventTimers, Dropped) {
  zol_events().invoke(new FailopenEvent(true));
  charge_send_events();
  zol_monitor::drop_events();
  EXPECT_THAT(zol_events().queue, IsEmpty());
  zol_events().invoke(new FailopenEvent(true));
  for (int pass = 0; pass < 20; ++pass)
    event_base_loop(zol::ZOLEventBase::base(), EVLOOP_NONBLOCK);
  EXPECT_FALSE(log_.contains(started));
}

// Verifies that an event whose text can't be made ends the loop by its exception.
TEST_F(EventTimers, MissingAddressIsFatal) {
  config_.set(
      "General: { zol_id = \"unit\"; };\nMonitoring: { event_suppression_ms = 0; polling_rate_ms = 1; "
      "hqs_receiver_url = \"https://127.0.0.1:1\"; };");
  zol_events().invoke(new FailopenEvent(true));
  EXPECT_THROW(zol_monitor::send_events(-1, 0, nullptr), std::runtime_error);
  EXPECT_TRUE(log_.contains(log_level::error, "Couldn't read the ZOL-IP from configuration file "));
}

}  // namespace
