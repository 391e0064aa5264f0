#include "core/zol_libevent.h"

#include <event2/event.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <new>
#include <vector>

#include "loop_fixture.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

using zol::ZOLEventLibEvent;
using zol::ZOLEventLibEventPersistTimer;
using zol::ZOLEventLibEventSignal;
using zol::ZOLEventLibEventTimer;
using zol_test::CallCounter;
using zol_test::LogCapture;
using zol_test::LoopTest;

namespace {

constexpr unsigned never_ms = 3600 * 1000;
constexpr std::chrono::milliseconds held_up{200};

struct Pair {
  Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0); }
  ~Pair() {
    close(fds[0]);
    close(fds[1]);
  }
  int fds[2] = {-1, -1};
};

bool is_nonblocking(int fd) {
  return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

// Milliseconds until the event's time-out, -1 when it has none.
long remaining_ms(const ZOLEventLibEvent& event) {
  timeval due{};
  if (event_pending(&event.ev, EV_TIMEOUT, &due) == 0)
    return -1;
  timeval now{};
  event_base_gettimeofday_cached(zol::ZOLEventBase::base(), &now);
  return (due.tv_sec - now.tv_sec) * 1000 + (due.tv_usec - now.tv_usec) / 1000;
}

using ZolLibevent = LoopTest;

// Verifies that the classes carry the flags of their kind.
TEST_F(ZolLibevent, KindsHaveTheirFlags) {
  EXPECT_EQ(ZOLEventLibEventTimer(CallCounter::cb, nullptr, -1).flags, 1);
  EXPECT_EQ(ZOLEventLibEventTimer(CallCounter::cb, nullptr, -1).fd, -1);
  EXPECT_EQ(ZOLEventLibEventPersistTimer(CallCounter::cb, nullptr).flags, 17);
  const ZOLEventLibEventSignal signal_event(SIGUSR1, CallCounter::cb, nullptr);
  EXPECT_EQ(signal_event.flags, 24);
  EXPECT_EQ(signal_event.fd, SIGUSR1);
}

// Verifies that deleting an event that was never added succeeds, and that such an event isn't pending.
TEST_F(ZolLibevent, DelOfNeverAddedEventSucceeds) {
  ZOLEventLibEventTimer timer(CallCounter::cb, nullptr, -1);
  EXPECT_FALSE(timer.is_pending());
  EXPECT_TRUE(timer.del(true));
}

// Verifies that a timer fires once with its argument and is idle then.
TEST_F(ZolLibevent, TimerFiresOnce) {
  CallCounter counter;
  ZOLEventLibEventTimer timer(CallCounter::cb, &counter, -1);
  ASSERT_TRUE(timer.charge(1));
  EXPECT_TRUE(timer.is_pending());
  EXPECT_TRUE(run_until([&] { return counter.calls > 0; }));
  EXPECT_EQ(counter.last_fd, -1);
  EXPECT_EQ(counter.last_events, EV_TIMEOUT);
  EXPECT_FALSE(timer.is_pending());
  run_once();
  EXPECT_EQ(counter.calls, 1);
}

// Verifies that a delay of 0 fires at the loop's next pass.
TEST_F(ZolLibevent, ZeroDelayFiresAtNextPass) {
  CallCounter counter;
  ZOLEventLibEventTimer timer(CallCounter::cb, &counter, -1);
  ASSERT_TRUE(timer.charge(0));
  run_once();
  EXPECT_EQ(counter.calls, 1);
}

// Verifies that a delay is split into seconds and microseconds.
TEST_F(ZolLibevent, DelayIsInMilliseconds) {
  ZOLEventLibEventTimer timer(CallCounter::cb, nullptr, -1);
  ASSERT_TRUE(timer.charge(61250));
  EXPECT_GT(remaining_ms(timer), 60000);
  EXPECT_LE(remaining_ms(timer), 61250);
}

// Verifies that charging a pending timer with a longer delay moves it later: it doesn't fire at the old time.
TEST_F(ZolLibevent, RechargeMovesTimerLater) {
  CallCounter counter;
  CallCounter later;
  ZOLEventLibEventTimer timer(CallCounter::cb, &counter, -1);
  ZOLEventLibEventTimer after_old_time(CallCounter::cb, &later, -1);
  ASSERT_TRUE(timer.charge(1));
  LogCapture log;
  ASSERT_TRUE(timer.charge(never_ms));
  EXPECT_TRUE(log.contains(log_level::trace, "Event was recharged"));
  ASSERT_TRUE(after_old_time.charge(20));
  EXPECT_TRUE(run_until([&] { return later.calls > 0; }));
  EXPECT_EQ(counter.calls, 0);
  EXPECT_TRUE(timer.is_pending());
  EXPECT_GT(remaining_ms(timer), 60000);
}

// Verifies that a delay counts from the charge and not from the start of the loop's present pass.
TEST_F(ZolLibevent, DelayCountsFromCharge) {
  struct Late {
    static std::chrono::milliseconds wall_clock() {
      return std::chrono::duration_cast<std::chrono::milliseconds>(
          std::chrono::system_clock::now().time_since_epoch());
    }
    static void fire(int, short, void* self) {
      auto* late = static_cast<Late*>(self);
      const auto begin = std::chrono::steady_clock::now();
      while (std::chrono::steady_clock::now() - begin < held_up) {
      }
      const auto now = wall_clock();
      EXPECT_TRUE(late->timer->charge(never_ms));
      timeval due{};
      event_pending(&late->timer->ev, EV_TIMEOUT, &due);
      late->delay = std::chrono::seconds(due.tv_sec) + std::chrono::milliseconds(due.tv_usec / 1000) - now;
    }
    ZOLEventLibEventTimer* timer = nullptr;
    std::chrono::milliseconds delay{0};
  } late;
  ZOLEventLibEventTimer timer(Late::fire, &late, -1);
  late.timer = &timer;
  ASSERT_TRUE(timer.charge(0));
  EXPECT_TRUE(run_until([&] { return late.delay.count() != 0; }));
  EXPECT_GT(late.delay, std::chrono::milliseconds(never_ms) - held_up / 2);
}

// Verifies that a first charge isn't told as a recharge.
TEST_F(ZolLibevent, FirstChargeIsSilent) {
  ZOLEventLibEventTimer timer(CallCounter::cb, nullptr, -1);
  LogCapture log;
  ASSERT_TRUE(timer.charge(never_ms));
  EXPECT_EQ(log.records().size(), 0U) << log.all();
}

// Verifies that del takes a pending timer off the loop and tells it only when asked to.
TEST_F(ZolLibevent, DelRemovesPendingTimer) {
  CallCounter counter;
  ZOLEventLibEventTimer timer(CallCounter::cb, &counter, -1);
  LogCapture log;
  ASSERT_TRUE(timer.charge(0));
  EXPECT_TRUE(timer.del(false));
  EXPECT_FALSE(log.contains("Event removed"));
  ASSERT_TRUE(timer.charge(0));
  EXPECT_TRUE(timer.del(true));
  EXPECT_TRUE(log.contains(log_level::trace, "Event removed"));
  EXPECT_FALSE(timer.is_pending());
  run_once();
  EXPECT_EQ(counter.calls, 0);
}

// Verifies that the destructor takes a pending event off the loop.
TEST_F(ZolLibevent, DestructorRemovesPendingTimer) {
  CallCounter counter;
  {
    ZOLEventLibEventTimer timer(CallCounter::cb, &counter, -1);
    ASSERT_TRUE(timer.charge(0));
  }
  run_once();
  EXPECT_EQ(counter.calls, 0);
}

// Verifies that a timer can be charged anew inside its own callback, any number of times.
TEST_F(ZolLibevent, ChargesInsideOwnCallback) {
  struct Chain {
    Chain() : timer(step, this, -1) {}
    static void step(int, short, void* self) {
      auto* chain = static_cast<Chain*>(self);
      if (++chain->steps < 50)
        chain->timer.charge(0);
    }
    int steps = 0;
    ZOLEventLibEventTimer timer;
  } chain;
  ASSERT_TRUE(chain.timer.charge(0));
  EXPECT_TRUE(run_until([&] { return chain.steps == 50; }));
}

// Verifies that an event may be deleted inside its own callback, and that its memory can hold a new one.
TEST_F(ZolLibevent, DeletedInsideOwnCallback) {
  struct Suicide {
    static void fire(int, short, void* self) {
      static_cast<std::unique_ptr<ZOLEventLibEventTimer>*>(self)->reset();
    }
  };
  std::unique_ptr<ZOLEventLibEventTimer> timer;
  timer = std::make_unique<ZOLEventLibEventTimer>(Suicide::fire, &timer, -1);
  ASSERT_TRUE(timer->charge(0));
  EXPECT_TRUE(run_until([&] { return timer == nullptr; }));

  alignas(ZOLEventLibEventTimer) unsigned char place[sizeof(ZOLEventLibEventTimer)];
  for (int i = 0; i < 3; ++i) {
    auto* reborn = new (place) ZOLEventLibEventTimer(CallCounter::cb, nullptr, -1);
    EXPECT_TRUE(reborn->charge(never_ms));
    reborn->~ZOLEventLibEventTimer();
  }
}

// Verifies that a persistent timer fires again and again until it is deleted.
TEST_F(ZolLibevent, PersistTimerRepeats) {
  CallCounter counter;
  ZOLEventLibEventPersistTimer timer(CallCounter::cb, &counter);
  ASSERT_TRUE(timer.add(-1, 1, -1));
  EXPECT_TRUE(run_until([&] { return counter.calls >= 3; }));
  EXPECT_TRUE(timer.is_pending());
  EXPECT_TRUE(timer.del(false));
  EXPECT_FALSE(timer.is_pending());
}

// Verifies that a signal reaches its callback as an event of the loop, each time.
TEST_F(ZolLibevent, SignalArrives) {
  CallCounter counter;
  ZOLEventLibEventSignal event(SIGUSR1, CallCounter::cb, &counter);
  ASSERT_TRUE(event.add(SIGUSR1, -1));
  for (int i = 1; i <= 2; ++i) {
    ASSERT_EQ(raise(SIGUSR1), 0);
    EXPECT_TRUE(run_until([&] { return counter.calls == i; }));
    EXPECT_EQ(counter.last_fd, SIGUSR1);
    EXPECT_EQ(counter.last_events, EV_SIGNAL);
    EXPECT_TRUE(event.is_pending());
  }
}

// Verifies that a signal whose number is an open descriptor's too leaves that descriptor's blocking mode
// alone.
TEST_F(ZolLibevent, SignalLeavesDescriptorOfSameNumberAlone) {
  Pair pair;
  ASSERT_EQ(dup2(pair.fds[0], SIGUSR2), SIGUSR2);
  ASSERT_EQ(fcntl(SIGUSR2, F_SETFL, 0), 0);
  ZOLEventLibEventSignal event(SIGUSR2, CallCounter::cb, nullptr);
  EXPECT_TRUE(event.add(SIGUSR2, -1));
  EXPECT_FALSE(is_nonblocking(SIGUSR2));
  close(SIGUSR2);
}

// Verifies that a descriptor is made non-blocking and that its event tells of input.
TEST_F(ZolLibevent, DescriptorIsReadable) {
  Pair pair;
  CallCounter counter;
  ZOLEventLibEvent event(EV_READ, CallCounter::cb, &counter);
  ASSERT_FALSE(is_nonblocking(pair.fds[0]));
  ASSERT_TRUE(event.add(pair.fds[0], -1));
  EXPECT_TRUE(is_nonblocking(pair.fds[0]));
  EXPECT_EQ(remaining_ms(event), -1);
  ASSERT_EQ(write(pair.fds[1], "x", 1), 1);
  EXPECT_TRUE(run_until([&] { return counter.calls > 0; }));
  EXPECT_EQ(counter.last_fd, pair.fds[0]);
  EXPECT_EQ(counter.last_events, EV_READ);
}

// Verifies that a descriptor that isn't open is refused with an error line.
TEST_F(ZolLibevent, ClosedDescriptorIsRefused) {
  int fd = -1;
  {
    Pair pair;
    fd = pair.fds[0];
  }
  ZOLEventLibEvent event(EV_READ, CallCounter::cb, nullptr);
  LogCapture log;
  EXPECT_FALSE(event.add(fd, -1));
  EXPECT_TRUE(
      log.contains(log_level::error, "Failed to set socket as non-blocking. errno: " + std::to_string(EBADF)))
      << log.all();
}

// Verifies that an event that the loop refuses is told as such, with the word for a first charge.
TEST_F(ZolLibevent, FailedAddIsLogged) {
  char name[] = "/tmp/zol_event_XXXXXX";
  const int fd = mkstemp(name);  // epoll takes no plain files
  ASSERT_GE(fd, 0);
  unlink(name);
  ZOLEventLibEvent event(EV_READ, CallCounter::cb, nullptr);
  LogCapture log;
  EXPECT_FALSE(event.add(fd, -1));
  EXPECT_TRUE(log.contains(log_level::error, "Failed to add event. errno: " + std::to_string(EPERM)))
      << log.all();
  close(fd);
}

// Verifies that a failed charge of a pending event is told with the word for a recharge.
TEST_F(ZolLibevent, FailedRechargeIsLogged) {
  char name[] = "/tmp/zol_event_XXXXXX";
  const int fd = mkstemp(name);
  ASSERT_GE(fd, 0);
  unlink(name);
  Pair pair;
  ZOLEventLibEvent event(EV_READ, CallCounter::cb, nullptr);
  ASSERT_TRUE(event.add(pair.fds[0], -1));
  LogCapture log;
  EXPECT_FALSE(event.add(fd, -1));
  EXPECT_TRUE(log.contains(log_level::error, "Failed to recharged event. errno: ")) << log.all();
  close(fd);
}

// Verifies that a time-out reaches the callback of a descriptor that stays silent.
TEST_F(ZolLibevent, DescriptorTimesOut) {
  Pair pair;
  CallCounter counter;
  ZOLEventLibEvent event(EV_READ, CallCounter::cb, &counter);
  ASSERT_TRUE(event.add(pair.fds[0], 1, -1));
  EXPECT_TRUE(run_until([&] { return counter.calls > 0; }));
  EXPECT_EQ(counter.last_events, EV_TIMEOUT);
}

// Verifies that a descriptor's event whose time-out has passed, but whose callback hasn't run, can be charged
// anew and deleted by another callback of the same pass.
TEST_F(ZolLibevent, TimedOutDescriptorIsTakenBackByAnotherCallback) {
  struct Other {
    static void fire(int, short, void* self) {
      auto* other = static_cast<Other*>(self);
      EXPECT_FALSE(other->recharged->is_pending());  // but it waits for its callback
      EXPECT_TRUE(other->recharged->add(other->fd, never_ms, -1));
      other->deleted.reset();
      other->fired = true;
    }
    ZOLEventLibEvent* recharged = nullptr;
    std::unique_ptr<ZOLEventLibEvent> deleted;
    int fd = -1;
    bool fired = false;
  } other;
  Pair pair;
  Pair second;
  CallCounter counter;
  ZOLEventLibEvent event(EV_READ, CallCounter::cb, &counter);
  other.recharged = &event;
  other.fd = pair.fds[0];
  other.deleted = std::make_unique<ZOLEventLibEvent>(EV_READ, CallCounter::cb, &counter);
  ZOLEventLibEventTimer first(Other::fire, &other, -1);
  // All are due at the next pass, the timer first by its priority.
  zol::ZOLEventBase::set_event_base_priorities(2);
  ASSERT_TRUE(first.add(-1, 0U, 0));
  ASSERT_TRUE(event.add(pair.fds[0], 0U, 1));
  ASSERT_TRUE(other.deleted->add(second.fds[0], 0U, 1));
  EXPECT_TRUE(run_until([&] { return other.fired; }));
  run_once();
  EXPECT_EQ(counter.calls, 0);
  EXPECT_TRUE(event.is_pending());
}

// Verifies that a priority that the base has is taken, so that the graver event runs first.
TEST_F(ZolLibevent, PriorityOrdersCallbacks) {
  zol::ZOLEventBase::set_event_base_priorities(3);
  EXPECT_EQ(zol::ZOLEventBase::get_event_base_priorities(), 3);
  std::vector<int> order;
  struct Entry {
    std::vector<int>* order;
    int id;
    static void fire(int, short, void* self) {
      auto* entry = static_cast<Entry*>(self);
      entry->order->push_back(entry->id);
    }
  };
  Entry low{&order, 2};
  Entry high{&order, 0};
  ZOLEventLibEventTimer low_timer(Entry::fire, &low, -1);
  ZOLEventLibEventTimer high_timer(Entry::fire, &high, -1);
  ASSERT_TRUE(low_timer.add(-1, 0U, 2));
  ASSERT_TRUE(high_timer.add(-1, 0U, 0));
  EXPECT_TRUE(run_until([&] { return order.size() == 2; }));
  EXPECT_EQ(order, (std::vector<int>{0, 2}));
}

// Verifies that a priority above those of the base is passed over, and that the event still goes in.
TEST_F(ZolLibevent, PriorityOutOfRangeIsIgnored) {
  CallCounter counter;
  ZOLEventLibEventTimer timer(CallCounter::cb, &counter, -1);
  for (const int priority : {1, 2, 1000}) {
    counter.calls = 0;
    EXPECT_TRUE(timer.add(-1, 0U, priority));
    EXPECT_TRUE(timer.is_pending());
    run_once();
    EXPECT_EQ(counter.calls, 1) << priority;
  }
}

}  // namespace
