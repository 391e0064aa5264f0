#include "event_clock.h"

namespace zol_test {

namespace {

EventClock* current = nullptr;

}  // namespace

EventClock::EventClock() {
  current = this;
}

EventClock::~EventClock() {
  current = nullptr;
}

void EventClock::advance_ms(long ms) {
  const long nanoseconds = now.tv_nsec + ms % 1000 * 1000000;
  now.tv_sec += ms / 1000 + nanoseconds / 1000000000;
  now.tv_nsec = nanoseconds % 1000000000;
}

extern "C" bool __real__ZN3zol6Helper9get_clockEP8timespec(timespec* now);
extern "C" bool __wrap__ZN3zol6Helper9get_clockEP8timespec(timespec* now) {
  if (current == nullptr)
    return __real__ZN3zol6Helper9get_clockEP8timespec(now);
  if (current->is_broken)
    return false;
  *now = current->now;
  return true;
}

}  // namespace zol_test
