#include "libzolipc/instance_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "libzolipc/endpoint_files.h"
#include "sup_logger.h"

namespace zol_ipc {

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("IPCEndpoint");
  return l;
}

constexpr mode_t readable_by_all = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;
constexpr mode_t folder_mode = S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH;

}  // namespace

bool InstanceFile::open(const std::string& folder, const std::string& name, const std::string& version) {
  path_ = folder + "/" + name + "-" + version + ".pid";
  if (!make_folders(folder, folder_mode) || !open_and_lock()) {
    SUP_LOG(logger(), log_level::error)
        << "start_socket_zol: couldn't hold the pid file " << path_ << ": " << std::strerror(errno);
    fd_.reset();
    return false;
  }
  owner_ = ::getpid();
  const std::string text = std::to_string(owner_) + "\n";
  if (::ftruncate(fd_.get(), 0) == 0 &&
      ::pwrite(fd_.get(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()))
    return true;
  SUP_LOG(logger(), log_level::error)
      << "start_socket_zol: couldn't write the pid file " << path_ << ": " << std::strerror(errno);
  return false;
}

// A holder that ends removes the file between our open and our lock; then the lock is on a file without a
// name.
bool InstanceFile::open_and_lock() {
  constexpr int tries = 100;
  for (int i = 0; i < tries; ++i) {
    fd_.reset(::open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, readable_by_all));
    if (!fd_ || !lock_file(fd_.get(), LOCK_SH))
      return false;
    if (is_current_file())
      return true;
  }
  errno = EAGAIN;
  return false;
}

bool InstanceFile::is_current_file() const {
  struct stat held;
  struct stat named;
  return ::fstat(fd_.get(), &held) == 0 && ::lstat(path_.c_str(), &named) == 0 &&
         held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

InstanceFile::~InstanceFile() {
  if (!fd_ || owner_ != ::getpid())
    return;
  if (::flock(fd_.get(), LOCK_EX | LOCK_NB) == 0 && is_current_file())
    ::unlink(path_.c_str());
}

}  // namespace zol_ipc
