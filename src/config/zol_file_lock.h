// An advisory lock between the node's processes, by flock(2) on a file of its own.
//
// Who reads zol.conf holds it shared, who writes it exclusive. Both calls block: a writer that keeps the lock
// holds up every reader. A lock file that can't be opened switches locking off, since a node that can't lock
// must still be able to read its settings: one error line, then a warning for each further lock.
#pragma once

#include <exception>
#include <string>

// flock itself failed; what() holds the same text as the error line.
class FileLockFailure : public std::exception {
 public:
  explicit FileLockFailure(std::string text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

namespace zol {

// Main thread only.
class FileLock {
 public:
  explicit FileLock(std::string path);
  // Gives the lock up and closes the file; never throws.
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  void read_lock();
  void write_lock();
  // Opens the file when needed (created with mode 0666) and takes the lock. `operation` as for flock(2).
  // Throws FileLockFailure.
  void lock(int operation);
  // Gives the lock up and closes the file; the file stays on disk. Does nothing without an open file. Throws
  // FileLockFailure, and then keeps the descriptor.
  void unlock();

 private:
  bool open_file();

  std::string path;
  int fd = -1;
  bool disabled_ = false;  // an open has failed before
};

}  // namespace zol
