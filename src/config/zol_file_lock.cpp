#include "config/zol_file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "sup_logger.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("FileLock");
  return l;
}

bool flock_through_signals(int fd, int operation) {
  int result;
  do
    result = flock(fd, operation);
  while (result != 0 && errno == EINTR);
  return result == 0;
}

[[noreturn]] void fail(const std::string& text) {
  SUP_LOG(logger(), log_level::error) << text;
  throw FileLockFailure(text);
}

}  // namespace

FileLock::FileLock(std::string lock_path) : path(std::move(lock_path)) {}

FileLock::~FileLock() {
  try {
    unlock();
  } catch (const FileLockFailure&) {  // logged; closing gives the lock up as well
  }
  if (fd != -1)
    close(fd);
}

void FileLock::read_lock() {
  lock(LOCK_SH);
}

void FileLock::write_lock() {
  lock(LOCK_EX);
}

void FileLock::lock(int operation) {
  if (fd == -1 && !open_file())
    return;
  if (!flock_through_signals(fd, operation))
    fail("Failed to obtain lock for file: " + path);
}

bool FileLock::open_file() {
  const bool was_disabled = disabled_;
  fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  disabled_ = fd == -1;
  if (!disabled_)
    return true;
  SUP_LOG(logger(), log_level::error) << "Failed to open lock file: " << path << ", disabling ZOLFileLock.";
  if (was_disabled) {
    SUP_LOG(logger(), log_level::warning) << "Locking is disabled";
  }
  return false;
}

void FileLock::unlock() {
  if (fd == -1)
    return;
  if (!flock_through_signals(fd, LOCK_UN))
    fail("Failed to unlock file: " + path);
  close(fd);
  fd = -1;
}

}  // namespace zol
