#include "tests/unit/probes/failing_calls.h"

#include <linux/capability.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>

namespace {

struct {
  int level = -1;
  int option = -1;
  int error = 0;
} failing_option;

bool clock_fails = false;

struct Capabilities {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};
};

Capabilities own_capabilities() {
  Capabilities own;
  syscall(SYS_capget, &own.header, own.data);
  return own;
}

void set_effective(unsigned effective) {
  Capabilities own = own_capabilities();
  own.data[0].effective = effective;
  syscall(SYS_capset, &own.header, own.data);
}

}  // namespace

// In place of the C library's, for the whole program.
extern "C" int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept {
  if (level == failing_option.level && option == failing_option.option) {
    errno = failing_option.error;
    return -1;
  }
  return static_cast<int>(syscall(SYS_setsockopt, fd, level, option, value, size));
}

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (clock == CLOCK_REALTIME && clock_fails) {
    errno = EINVAL;
    return -1;
  }
  return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
}

namespace zol_test {

FailingOption::FailingOption(int level, int option, int error) {
  failing_option = {level, option, error};
}

FailingOption::~FailingOption() {
  failing_option = {};
}

FailingClock::FailingClock() {
  clock_fails = true;
}

FailingClock::~FailingClock() {
  clock_fails = false;
}

NoNetworkRights::NoNetworkRights() : effective_(own_capabilities().data[0].effective) {
  set_effective(effective_ & ~(1U << CAP_NET_RAW | 1U << CAP_NET_ADMIN));
}

NoNetworkRights::~NoNetworkRights() {
  set_effective(effective_);
}

}  // namespace zol_test
