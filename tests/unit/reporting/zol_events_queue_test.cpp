// What waits in the queue and for how long.
#include <memory>

#include "zol_events_fixture.h"

namespace {

using testing::IsEmpty;
using testing::SizeIs;
using zol_monitor::ZOLEvents;
using zol_test::PlainEvent;
using zol_test::ZOLEventsTest;

// --- invoke ---

TEST_F(ZOLEventsTest, start_state) {
  // Verifies that a new queue is empty and counts the suppression time from its making.
  EXPECT_THAT(events_.queue, IsEmpty());
  EXPECT_EQ(events_.last_sent.tv_sec, clock_.now.tv_sec);
  clock_.advance_ms(1500);
  const ZOLEvents later;
  EXPECT_EQ(later.last_sent.tv_sec, 1001);
  EXPECT_EQ(later.last_sent.tv_nsec, 500000000);
}

TEST_F(ZOLEventsTest, queues_an_event) {
  // Verifies that an event that nobody takes in is queued behind the others.
  auto* first = new PlainEvent;
  auto* second = new PlainEvent;
  EXPECT_FALSE(events_.invoke(first));
  EXPECT_FALSE(events_.invoke(second));
  ASSERT_THAT(events_.queue, SizeIs(2));
  EXPECT_EQ(events_.queue[0].get(), first);
  EXPECT_EQ(events_.queue[1].get(), second);
  EXPECT_TRUE(
      log_.contains(log_level::debug, "invoke: Pushing new event " + pointer_text(second) + " to queue."));
  EXPECT_FALSE(log_.contains("invoke: Event already exists. Updating."));
}

TEST_F(ZOLEventsTest, merges_into_the_first_that_takes) {
  // Verifies that the first waiting event that can takes the new one in, and that the new one is deleted.
  PlainEvent& deaf = add(new PlainEvent);
  PlainEvent& taker = add(new PlainEvent);
  PlainEvent& behind = add(new PlainEvent);
  taker.takes_in = behind.takes_in = true;
  int deleted = 0;
  auto* newcomer = new PlainEvent;
  newcomer->deleted = &deleted;
  EXPECT_TRUE(events_.invoke(newcomer));
  EXPECT_EQ(deleted, 1);
  EXPECT_THAT(events_.queue, SizeIs(3));
  EXPECT_EQ(deaf.updates, 0);
  EXPECT_EQ(taker.updates, 1);
  EXPECT_EQ(behind.updates, 0);
  EXPECT_TRUE(log_.contains(log_level::debug, "invoke: Event already exists. Updating."));
}

TEST_F(ZOLEventsTest, refused_update_goes_on) {
  // Verifies that an event whose update says no leaves the new one to the next, or to the queue.
  PlainEvent& refuser = add(new PlainEvent);
  refuser.takes_in = true;
  refuser.update_result = false;
  EXPECT_FALSE(events_.invoke(new PlainEvent));
  EXPECT_EQ(refuser.updates, 1);
  EXPECT_THAT(events_.queue, SizeIs(2));
}

TEST_F(ZOLEventsTest, event_in_progress_takes_nothing) {
  // Verifies that an event that is on its way isn't asked.
  PlainEvent& sent = add(new PlainEvent);
  sent.takes_in = true;
  sent.in_progress = true;
  EXPECT_FALSE(events_.invoke(new PlainEvent));
  EXPECT_EQ(sent.updates, 0);
  EXPECT_THAT(events_.queue, SizeIs(2));
}

TEST_F(ZOLEventsTest, queue_owns_its_events) {
  // Verifies that events go with their queue and with clear(), also those that are on their way.
  int deleted = 0;
  {
    ZOLEvents events;
    for (const bool in_progress : {false, true}) {
      auto* event = new PlainEvent;
      event->deleted = &deleted;
      event->in_progress = in_progress;
      events.invoke(event);
    }
    events.clear();
    EXPECT_EQ(deleted, 2);
    auto* event = new PlainEvent;
    event->deleted = &deleted;
    events.invoke(event);
  }
  EXPECT_EQ(deleted, 3);
}

// --- next_time_get_ms ---

TEST_F(ZOLEventsTest, no_time_for_an_empty_queue) {
  // Verifies that an empty queue has no next time, without a line.
  clock_.is_broken = true;
  EXPECT_EQ(events_.next_time_get_ms(), -1);
  EXPECT_FALSE(log_.contains("Unable to get next event time"));
}

TEST_F(ZOLEventsTest, time_left_of_the_suppression) {
  // Verifies that the next time is what is left of the suppression time, and never below 0.
  add(new PlainEvent);
  EXPECT_EQ(events_.next_time_get_ms(), suppression_ms);
  clock_.advance_ms(400);
  EXPECT_EQ(events_.next_time_get_ms(), 600);
  clock_.advance_ms(600);
  EXPECT_EQ(events_.next_time_get_ms(), 0);
  clock_.advance_ms(100000);
  EXPECT_EQ(events_.next_time_get_ms(), 0);
}

TEST_F(ZOLEventsTest, immediate_event_is_due) {
  // Verifies that an immediate event is due at once, wherever it stands, without the suppression time.
  set_url(server_.url(), "");
  add(new PlainEvent);
  add(new PlainEvent(false, true));
  EXPECT_EQ(events_.next_time_get_ms(), 0);
  EXPECT_FALSE(log_.contains("Unable to get next event time"));
}

TEST_F(ZOLEventsTest, immediate_event_on_its_way_is_no_reason) {
  // Verifies that an immediate event that was started doesn't make the held back ones due.
  add(new PlainEvent(false, true)).in_progress = true;
  add(new PlainEvent);
  EXPECT_EQ(events_.next_time_get_ms(), suppression_ms);
}

TEST_F(ZOLEventsTest, next_time_without_a_clock) {
  // Verifies that without a clock there is no next time, and an error line, even for an immediate event.
  add(new PlainEvent(false, true));
  clock_.is_broken = true;
  EXPECT_EQ(events_.next_time_get_ms(), -1);
  EXPECT_TRUE(log_.contains(log_level::error, "Unable to get next event time. Failed to read clock"));
}

TEST_F(ZOLEventsTest, next_time_without_the_setting) {
  // Verifies that without the suppression time there is no next time, and an error line.
  set_url(server_.url(), "");
  add(new PlainEvent);
  EXPECT_EQ(events_.next_time_get_ms(), -1);
  EXPECT_TRUE(
      log_.contains(log_level::error, "Unable to get next event time. Failed to read event_suppression_ms"));
}

TEST_F(ZOLEventsTest, suppression_setting) {
  // Verifies that the suppression time is read at each use, and stays alone when it is missing.
  int value = 5;
  EXPECT_TRUE(events_.time_suppression_get_ms(value));
  EXPECT_EQ(value, suppression_ms);
  set_url(server_.url(), "event_suppression_ms = 7; ");
  EXPECT_TRUE(events_.time_suppression_get_ms(value));
  EXPECT_EQ(value, 7);
  set_url(server_.url(), "");
  EXPECT_FALSE(events_.time_suppression_get_ms(value));
  EXPECT_EQ(value, 7);
}

}  // namespace
