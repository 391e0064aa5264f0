// The clock in a test's hand: the test program is linked so that Helper::get_clock goes through here
// (-Wl,--wrap).
#pragma once

#include <time.h>

namespace zol_test {

// While it lives, the clock stands until it is moved. One at a time.
class EventClock {
 public:
  EventClock();
  ~EventClock();
  EventClock(const EventClock&) = delete;
  EventClock& operator=(const EventClock&) = delete;

  void advance_ms(long ms);

  timespec now = {1000, 0};
  bool is_broken = false;
};

}  // namespace zol_test
