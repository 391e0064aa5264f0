#include "config/zol_file_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace {

class FileLockTest : public testing::Test {
 protected:
  FileLockTest() {
    std::string name = (std::filesystem::temp_directory_path() / "file_lock_XXXXXX").string();
    folder = mkdtemp(name.data());
    path = folder / "zol.conf.lock";
  }
  ~FileLockTest() override { std::filesystem::remove_all(folder); }

  // Whether another holder could take the lock now.
  bool is_free_for(int operation) const {
    const int other = open(path.c_str(), O_RDWR);
    const bool taken = flock(other, operation | LOCK_NB) == 0;
    close(other);
    return taken;
  }

  std::filesystem::path folder;
  std::filesystem::path path;
};

// Closes every descriptor of this process that refers to the file, as a stray close() would.
void close_descriptors_of(const std::filesystem::path& path) {
  for (int fd = 3; fd < 256; ++fd) {
    std::error_code missing;
    const auto target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), missing);
    if (!missing && target == path)
      close(fd);
  }
}

// Verifies that a read lock admits other readers and no writer.
TEST_F(FileLockTest, ReadLockIsShared) {
  zol::FileLock lock(path);
  lock.read_lock();
  EXPECT_TRUE(is_free_for(LOCK_SH));
  EXPECT_FALSE(is_free_for(LOCK_EX));
}

// Verifies that a write lock admits nobody.
TEST_F(FileLockTest, WriteLockIsExclusive) {
  zol::FileLock lock(path);
  lock.write_lock();
  EXPECT_FALSE(is_free_for(LOCK_SH));
}

// Verifies that an unlock frees the lock, leaves the file on disk, and that the next lock opens it again.
TEST_F(FileLockTest, UnlockKeepsTheFile) {
  zol::FileLock lock(path);
  lock.write_lock();
  lock.unlock();
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_TRUE(is_free_for(LOCK_EX));
  lock.write_lock();
  EXPECT_FALSE(is_free_for(LOCK_EX));
}

// Verifies that the lock file is created with mode 0666, as far as the process's mask lets it.
TEST_F(FileLockTest, CreationMode) {
  const mode_t mask = umask(0);
  zol::FileLock lock(path);
  lock.read_lock();
  umask(mask);
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0666U);
}

// Verifies that a second lock on an open file is taken on the same descriptor.
TEST_F(FileLockTest, LockAgainConverts) {
  zol::FileLock lock(path);
  lock.read_lock();
  lock.write_lock();
  EXPECT_FALSE(is_free_for(LOCK_SH));
}

// Verifies that a lock file that can't be opened switches locking off: an error line, then a warning for each
// further lock, and no exception.
TEST_F(FileLockTest, UnopenableFileDisablesLocking) {
  const std::string missing = folder / "nowhere" / "zol.conf.lock";
  zol::FileLock lock(missing);
  zol_test::LogCapture log;
  lock.read_lock();
  EXPECT_TRUE(
      log.contains(log_level::error, "Failed to open lock file: " + missing + ", disabling ZOLFileLock."))
      << log.all();
  EXPECT_FALSE(log.contains("Locking is disabled"));
  lock.read_lock();
  lock.write_lock();
  EXPECT_EQ(log.count("Locking is disabled"), 2) << log.all();
  EXPECT_TRUE(log.contains(log_level::warning, "Locking is disabled"));
  EXPECT_NO_THROW(lock.unlock());
}

// Verifies that each further lock tries the file again, so that locking comes back when it can be opened.
TEST_F(FileLockTest, LockingComesBack) {
  const std::filesystem::path later = folder / "later";
  path = later / "zol.conf.lock";
  zol::FileLock lock(path);
  lock.write_lock();
  std::filesystem::create_directory(later);
  zol_test::LogCapture log;
  lock.write_lock();
  EXPECT_FALSE(is_free_for(LOCK_SH));
  EXPECT_FALSE(log.contains("Locking is disabled")) << log.all();
}

// Verifies that a failing flock is logged and thrown in the same words.
TEST_F(FileLockTest, FailingLockThrows) {
  zol::FileLock holder(path);
  holder.write_lock();
  zol::FileLock lock(path);
  zol_test::LogCapture log;
  const std::string text = "Failed to obtain lock for file: " + path.string();
  try {
    lock.lock(LOCK_EX | LOCK_NB);
    FAIL() << "no exception";
  } catch (const FileLockFailure& failure) {
    EXPECT_EQ(failure.what(), text);
  }
  EXPECT_TRUE(log.contains(log_level::error, text)) << log.all();
}

// Verifies that a failing unlock is logged and thrown in the same words, and that the destructor swallows it.
TEST_F(FileLockTest, FailingUnlockThrows) {
  const std::string text = "Failed to unlock file: " + path.string();
  zol_test::LogCapture log;
  {
    zol::FileLock lock(path);
    lock.read_lock();
    close_descriptors_of(path);
    try {
      lock.unlock();
      ADD_FAILURE() << "no exception";
    } catch (const FileLockFailure& failure) {
      EXPECT_EQ(failure.what(), text);
    }
  }
  EXPECT_TRUE(log.contains(log_level::error, text)) << log.all();
}

// Verifies that the destructor gives the lock up.
TEST_F(FileLockTest, DestructorUnlocks) {
  { zol::FileLock(path).write_lock(); }
  EXPECT_TRUE(is_free_for(LOCK_EX));
}

}  // namespace
