#include "loop_fixture.h"

#include <event2/event.h>

namespace zol_test {

namespace {

constexpr unsigned patience_ms = 20000;

}  // namespace

bool LoopTest::run_until(const std::function<bool()>& condition) {
  CallCounter given_up;
  zol::ZOLEventLibEventTimer guard(CallCounter::cb, &given_up, -1);
  guard.charge(patience_ms);
  bool holds = false;
  while (!(holds = condition()) && given_up.calls == 0)
    event_base_loop(zol::ZOLEventBase::base(), EVLOOP_ONCE);
  return holds;
}

void LoopTest::run_once() {
  event_base_loop(zol::ZOLEventBase::base(), EVLOOP_NONBLOCK);
}

void CallCounter::cb(int fd, short events, void* self) {
  auto* counter = static_cast<CallCounter*>(self);
  ++counter->calls;
  counter->last_fd = fd;
  counter->last_events = events;
}

}  // namespace zol_test
