// A loop for each test.
#pragma once

#include <gtest/gtest.h>

#include <functional>

#include "core/zol_libevent.h"

namespace zol_test {

class LoopTest : public testing::Test {
 protected:
  LoopTest() { loop_.init(); }

  // Runs the loop until the condition holds; false when it doesn't within a generous time.
  static bool run_until(const std::function<bool()>& condition);
  // One pass over what is ready, without waiting.
  static void run_once();

 private:
  zol::ZOLEventBase loop_;
};

// Counts its calls and keeps the last arguments.
struct CallCounter {
  int calls = 0;
  int last_fd = -2;
  short last_events = 0;

  static void cb(int fd, short events, void* self);
};

}  // namespace zol_test
