// A semaphore that can't be given up: the test program is linked so that sem_post goes through here
// (-Wl,--wrap).
#pragma once

namespace zol_test {

// While one lives, sem_post(3) fails.
struct FailingSemPost {
  FailingSemPost();
  ~FailingSemPost();
  FailingSemPost(const FailingSemPost&) = delete;
  FailingSemPost& operator=(const FailingSemPost&) = delete;
};

}  // namespace zol_test
