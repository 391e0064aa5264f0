// The lock that every record in shared memory carries in its first 48 bytes, see sem_overview(7).
//
//   offset  size
//        0    32  lock         process-shared semaphore, made with the value 1 by who creates the record
//       32     4  owner_pid    the process that last took the lock; it stays when the lock is given up
//       40     8  last_update  time_t of the last access that went well
//
// The lock is held for one copy. A holder that dies with it must not stop the node, so nobody waits for good:
// after `shared_lock_wait_ms` the lock of a holder that no longer exists is taken over, with one warning line
// (a record is good after any copy that was begun, each field stands for itself), and a holder that lives
// makes the access fail. A process killed between the semaphore and the store of its pid can't be told; the
// record then fails until it is created anew.
#pragma once

#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <string>

#include "sup_logger.h"

namespace zol_utils {

struct shared_header_t {
  sem_t lock;
  std::int32_t owner_pid;
  std::int64_t last_update;
};
static_assert(sizeof(sem_t) == 32);
static_assert(offsetof(shared_header_t, owner_pid) == 32);
static_assert(offsetof(shared_header_t, last_update) == 40);
static_assert(sizeof(shared_header_t) == 48);

// How long an access may hold up the event loop. A variable for tests that hold a lock on purpose.
inline int shared_lock_wait_ms = 200;
// After so long without an access a record that can't be locked is out of step with the node.
inline constexpr std::int64_t shared_lock_stale_s = 60;

namespace detail {

inline SupLogger& shared_object_logger() {
  static SupLogger& logger = SupLogger::get_instance("SharedObject");
  return logger;
}

// A zombie counts as gone: it will never post.
inline bool process_is_gone(std::int32_t pid) {
  if (pid <= 0)
    return false;
  if (kill(pid, 0) != 0 && errno == ESRCH)
    return true;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  const std::size_t name_end =
      line.rfind(')');  // proc(5): the state follows the name, which may hold anything
  return name_end != std::string::npos && name_end + 2 < line.size() &&
         (line[name_end + 2] == 'Z' || line[name_end + 2] == 'X');
}

// Of several waiters that see the same dead holder, one wins.
inline bool take_over_from_dead_owner(shared_header_t& header) {
  std::atomic_ref<std::int32_t> owner(header.owner_pid);
  std::int32_t dead = owner.load();
  // A holder with our own pid is a predecessor that had it: this process holds no lock when it asks for one.
  if (dead != getpid() && !process_is_gone(dead))
    return false;
  if (!owner.compare_exchange_strong(dead, getpid()))
    return false;
  SUP_LOG(shared_object_logger(), log_level::warning)
      << "Shared memory lock taken over from process " << dead << ", which is gone";
  return true;
}

inline timespec shared_lock_deadline(int wait_ms) {
  timespec until{};
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec += wait_ms / 1000;
  until.tv_nsec += wait_ms % 1000 * 1000000L;
  if (until.tv_nsec >= 1000000000L) {
    ++until.tv_sec;
    until.tv_nsec -= 1000000000L;
  }
  return until;
}

}  // namespace detail

// Takes the lock and writes owner_pid. False when it can't be had in time, with 0 ms at once; a record
// without an access for more than a minute is then logged at fatal level.
inline bool lock_shared_header(shared_header_t& header, int wait_ms = shared_lock_wait_ms) {
  const timespec until = detail::shared_lock_deadline(wait_ms);
  int failed;
  do
    failed = sem_clockwait(&header.lock, CLOCK_MONOTONIC, &until);
  while (failed != 0 && errno == EINTR);
  if (failed == 0) {
    std::atomic_ref<std::int32_t>(header.owner_pid).store(getpid());
    return true;
  }
  if (errno == ETIMEDOUT && detail::take_over_from_dead_owner(header))
    return true;
  if (std::time(nullptr) > header.last_update + shared_lock_stale_s) {
    SUP_LOG(detail::shared_object_logger(), log_level::fatal) << "Shared memory out of sync";
  }
  return false;
}

// A lock that can't be given up would hang every other process: throws std::runtime_error.
inline void unlock_shared_header(shared_header_t& header) {
  if (sem_post(&header.lock) != 0)
    throw std::runtime_error("Failed to unlock shared memory");
}

}  // namespace zol_utils
