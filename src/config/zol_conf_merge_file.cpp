// The merge of configuration files: reading, and writing so that the target is whole at every moment.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "config/zol_configurator.h"
#include "sup_logger.h"

namespace zol {

using libconfig::Config;
using libconfig::Setting;

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("TheConfigurator");
  return l;
}

// Only where others lock too: a merge leaves no lock file behind.
std::unique_ptr<FileLock> lock_of(const std::string& path) {
  const std::string lock_path = path + ".lock";
  return access(lock_path.c_str(), F_OK) == 0 ? std::make_unique<FileLock>(lock_path) : nullptr;
}

void require(bool done, const char* what) {
  if (!done)
    throw std::system_error(errno, std::generic_category(), what);
}

// A new file beside another, that goes unless it takes its place.
class Successor {
 public:
  // Of the same owner and mode as `old_path`, which must be writable. Throws std::system_error, as all here.
  explicit Successor(const std::string& old_path) : old_path_(old_path), path_(old_path + ".XXXXXX") {
    struct stat old {};
    require(stat(old_path.c_str(), &old) == 0 && access(old_path.c_str(), W_OK) == 0, "target");
    const int fd = mkostemp(path_.data(), O_CLOEXEC);
    require(fd != -1, path_.c_str());
    const bool same_owner = old.st_uid == geteuid() && old.st_gid == getegid();
    if ((same_owner || fchown(fd, old.st_uid, old.st_gid) == 0) && fchmod(fd, old.st_mode & 07777) == 0)
      file_ = fdopen(fd, "w");
    if (file_ != nullptr)
      return;
    const int reason = errno;
    close(fd);
    unlink(path_.c_str());
    throw std::system_error(reason, std::generic_category(), path_);
  }
  ~Successor() { drop(); }
  Successor(const Successor&) = delete;
  Successor& operator=(const Successor&) = delete;

  FILE* file() const { return file_; }
  void finish_writing() {
    require(fflush(file_) == 0 && ferror(file_) == 0 && fsync(fileno(file_)) == 0, path_.c_str());
  }
  void take_place() {
    require(rename(path_.c_str(), old_path_.c_str()) == 0, old_path_.c_str());
    has_place_ = true;
    // The new name outlives a power failure too; where a folder can't be synced the file system sees to it.
    const int folder =
        open(old_path_.substr(0, old_path_.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder != -1) {
      fsync(folder);
      close(folder);
    }
  }

 private:
  void drop() {
    if (file_ != nullptr)
      fclose(file_);
    file_ = nullptr;
    if (!has_place_)
      unlink(path_.c_str());
  }

  std::string old_path_;
  std::string path_;
  FILE* file_ = nullptr;
  bool has_place_ = false;
};

std::string real_path(const char* path) {
  const std::unique_ptr<char, void (*)(void*)> resolved(realpath(path, nullptr), std::free);
  require(resolved != nullptr, path);
  return resolved.get();
}

// The one value that libconfig reads, of a text such as 1e999, and writes as what it can't read again.
void require_finite_floats(const Setting& setting) {
  if (setting.getType() == Setting::TypeFloat && !std::isfinite(static_cast<double>(setting)))
    throw std::runtime_error(setting.getPath() + " is no finite number");
  for (int i = 0; setting.isAggregate() && i < setting.getLength(); ++i)
    require_finite_floats(setting[i]);
}

// Throws when the file can't be written as it is to be.
void replace_file(const Config& tree, const char* path) {
  require_finite_floats(tree.getRoot());
  const std::string target = real_path(path);  // behind a symbolic link is the file
  const std::unique_ptr<FileLock> lock = lock_of(path);
  if (lock != nullptr)
    lock->write_lock();
  Successor successor(target);
  tree.write(successor.file());
  successor.finish_writing();
  successor.take_place();
}

bool fail_write(const char* path, const std::string& reason) {
  SUP_LOG(logger(), log_level::error) << "Failed to write configuration file [" << path << "]";
  SUP_LOG(logger(), log_level::error) << "smart_merge: " << reason;
  return false;
}

bool write_cfg_file(const Config& tree, const char* path) {
  try {
    replace_file(tree, path);
    return true;
  } catch (const std::exception& failure) {
    return fail_write(path, failure.what());
  }
}

}  // namespace

bool TheConfigurator::open_cfg_file(Config& tree, const char* path) {
  try {
    const std::unique_ptr<FileLock> lock = lock_of(path);
    if (lock != nullptr)
      lock->read_lock();
    tree.readFile(path);
    return true;
  } catch (const libconfig::FileIOException&) {
    SUP_LOG(logger(), log_level::error) << "Failed to open configuration file [" << path << "]";
    return false;
  }
}

int TheConfigurator::smart_merge(const char* local_file, const char* base_file, const char* target_file) {
  Config local;
  Config base;
  Config target;
  if (!open_cfg_file(local, local_file) || !open_cfg_file(base, base_file) ||
      !open_cfg_file(target, target_file))
    return false;
  if (!merge_setting(local.getRoot(), base, target))
    return false;
  return write_cfg_file(target, target_file);
}

}  // namespace zol
