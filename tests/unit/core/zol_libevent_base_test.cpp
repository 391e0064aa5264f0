// The base itself: how it begins and ends, and what happens without it.
#include <event2/event.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "core/zol_buffer_event.h"
#include "core/zol_libevent.h"
#include "core/zol_random.h"
#include "loop_fixture.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

using testing::ThrowsMessage;
using zol::ZOLEventBase;
using zol::ZOLEventLibEvent;
using zol::ZOLEventLibEventTimer;
using zol_test::CallCounter;
using zol_test::LogCapture;

namespace {

void nothing(void*) {}
void no_event(short, void*) {}
void no_accept(int, sockaddr*, void*) {}

// Verifies that a second init throws and keeps the first base.
TEST(ZolEventBase, SecondInitThrowsAndKeepsBase) {
  ZOLEventBase loop;
  loop.init();
  event_base* first = ZOLEventBase::base();
  ASSERT_NE(first, nullptr);
  EXPECT_THAT([] { ZOLEventBase::init(); },
              ThrowsMessage<std::runtime_error>("Duplicate initialization of ZOLEventBase"));
  EXPECT_EQ(ZOLEventBase::base(), first);
}

// Verifies that the destructor frees the base, so that another can be made.
TEST(ZolEventBase, DestructorClearsBase) {
  {
    ZOLEventBase loop;
    loop.init();
  }
  EXPECT_EQ(ZOLEventBase::base(), nullptr);
  ZOLEventBase again;
  EXPECT_NO_THROW(again.init());
}

// Verifies that each operation that needs a base throws its own text without one.
TEST(ZolEventBase, OperationsWithoutBaseThrow) {
  ASSERT_EQ(ZOLEventBase::base(), nullptr);
  EXPECT_THAT([] { ZOLEventBase::dispatch(); },
              ThrowsMessage<std::runtime_error>("Exception in event_base_dispatch"));
  EXPECT_THAT([] { ZOLEventBase::get_event_base_priorities(); },
              ThrowsMessage<std::runtime_error>("Exception in get_event_base_priorities"));
  EXPECT_THAT([] { ZOLEventBase::set_event_base_priorities(2); },
              ThrowsMessage<std::runtime_error>("Exception in set_event_base_priorities"));
  EXPECT_THAT([] { ZOLEventBase::alloc_buffer_event(-1, nothing, nothing, no_event, nullptr); },
              ThrowsMessage<std::runtime_error>("Exception in alloc_buffer_event"));
  EXPECT_THAT([] { ZOLEventBase::alloc_conn_listener(0, 0, 0, no_accept, nullptr); },
              ThrowsMessage<std::runtime_error>("Exception in alloc_conn_listener"));
}

// Verifies that a number of priorities that libevent refuses throws.
TEST(ZolEventBase, BadPrioritiesThrow) {
  ZOLEventBase loop;
  loop.init();
  EXPECT_THAT([] { ZOLEventBase::set_event_base_priorities(0); },
              ThrowsMessage<std::runtime_error>("Exception in set_event_base_priorities"));
}

// Verifies that breaking the loop ends dispatch without an exception.
TEST(ZolEventBase, LoopbreakEndsDispatch) {
  ZOLEventBase loop;
  loop.init();
  ZOLEventLibEventTimer stop([](int, short, void*) { event_base_loopbreak(ZOLEventBase::base()); }, nullptr,
                             -1);
  ASSERT_TRUE(stop.charge(0));
  EXPECT_NO_THROW(loop.dispatch());
}

// Verifies that dispatch on a base with nothing to wait for throws, since it couldn't run.
TEST(ZolEventBase, DispatchOfIdleBaseThrows) {
  ZOLEventBase loop;
  loop.init();
  EXPECT_THAT([] { ZOLEventBase::dispatch(); },
              ThrowsMessage<std::runtime_error>("Exception in event_base_dispatch"));
}

// Verifies that a charge without a base fails and is told, and that nothing is pending then.
TEST(ZolEventBase, ChargeWithoutBaseFails) {
  ZOLEventLibEventTimer timer(CallCounter::cb, nullptr, -1);
  LogCapture log;
  EXPECT_FALSE(timer.charge(1));
  EXPECT_TRUE(log.contains(log_level::error, "Failed to add event. errno: ")) << log.all();
  EXPECT_FALSE(timer.is_pending());
}

// Verifies that an event that outlives its base is idle, and can be charged on the next base.
TEST(ZolEventBase, EventOutlivesBase) {
  CallCounter counter;
  ZOLEventLibEventTimer timer(CallCounter::cb, &counter, -1);
  {
    ZOLEventBase loop;
    loop.init();
    ASSERT_TRUE(timer.charge(100000));
  }
  EXPECT_FALSE(timer.is_pending());
  EXPECT_TRUE(timer.del(true));
  ZOLEventBase loop;
  loop.init();
  EXPECT_FALSE(timer.is_pending());
  ASSERT_TRUE(timer.charge(0));
  event_base_loop(ZOLEventBase::base(), EVLOOP_NONBLOCK);
  EXPECT_EQ(counter.calls, 1);
}

// Verifies that add with descriptor 0 leaves the descriptor's blocking mode alone.
TEST(ZolEventBase, DescriptorZeroKeepsBlockingMode) {
  const int kept = dup(STDIN_FILENO);
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  ASSERT_EQ(dup2(fds[0], STDIN_FILENO), STDIN_FILENO);
  {
    ZOLEventBase loop;
    loop.init();
    ZOLEventLibEvent event(EV_READ, CallCounter::cb, nullptr);
    EXPECT_TRUE(event.add(STDIN_FILENO, -1));
    EXPECT_TRUE(event.is_pending());
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFL) & O_NONBLOCK, 0);
  }
  dup2(kept, STDIN_FILENO);
  for (const int fd : {kept, fds[0], fds[1]})
    close(fd);
}

// Verifies that the random number isn't always the same.
TEST(ZolRandom, Differs) {
  const std::uint32_t first = zol::zol_random();
  bool differs = false;
  for (int i = 0; i < 8; ++i)
    differs = differs || zol::zol_random() != first;
  EXPECT_TRUE(differs);
}

}  // namespace
