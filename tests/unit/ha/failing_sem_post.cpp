#include "tests/unit/ha/failing_sem_post.h"

#include <semaphore.h>

#include <cerrno>

namespace {

bool fails = false;

}  // namespace

// The names are the linker's: what --wrap makes of the symbol.
extern "C" {
int __real_sem_post(sem_t* semaphore);

int __wrap_sem_post(sem_t* semaphore) {
  if (!fails)
    return __real_sem_post(semaphore);
  errno = EOVERFLOW;
  return -1;
}
}

namespace zol_test {

FailingSemPost::FailingSemPost() {
  fails = true;
}

FailingSemPost::~FailingSemPost() {
  fails = false;
}

}  // namespace zol_test
