// Has single calls to the system fail on demand, where nothing else makes them.
#pragma once

#include <cerrno>

namespace zol_test {

// setsockopt() of this option fails while the object lives. One at a time.
class FailingOption {
 public:
  FailingOption(int level, int option, int error = EPERM);
  ~FailingOption();
  FailingOption(const FailingOption&) = delete;
  FailingOption& operator=(const FailingOption&) = delete;
};

// clock_gettime(CLOCK_REALTIME) fails while the object lives. One at a time.
class FailingClock {
 public:
  FailingClock();
  ~FailingClock();
  FailingClock(const FailingClock&) = delete;
  FailingClock& operator=(const FailingClock&) = delete;
};

// The process does without CAP_NET_RAW and CAP_NET_ADMIN while the object lives; capabilities(7).
class NoNetworkRights {
 public:
  NoNetworkRights();
  ~NoNetworkRights();
  NoNetworkRights(const NoNetworkRights&) = delete;
  NoNetworkRights& operator=(const NoNetworkRights&) = delete;

 private:
  unsigned effective_;
};

}  // namespace zol_test
