#include "libzolipc/endpoint_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "sup_logger.h"

namespace zol_ipc {

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("IPCEndpoint");
  return l;
}

void log_failure(const std::string& what, const std::string& path, int error) {
  SUP_LOG(logger(), log_level::error)
      << "start_socket: " << what << " " << path << ": " << std::strerror(error);
}

// The folder, opened, when it belongs to the caller and is closed to all others.
UniqueFd open_own_folder(const std::string& path) {
  if (!make_folders(path, S_IRWXU)) {
    log_failure("couldn't make the folder", path, errno);
    return {};
  }
  UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (!folder || ::fstat(folder.get(), &status) != 0) {
    log_failure("couldn't open the folder", path, errno);
    return {};
  }
  if (status.st_uid != ::geteuid()) {
    SUP_LOG(logger(), log_level::error)
        << "start_socket: the folder " << path << " belongs to uid " << status.st_uid;
    return {};
  }
  if ((status.st_mode & ALLPERMS) != S_IRWXU && ::fchmod(folder.get(), S_IRWXU) != 0) {
    log_failure("couldn't close to others the folder", path, errno);
    return {};
  }
  return folder;
}

// Clears the way for a socket file: true when nothing stands there any more.
bool remove_stale_socket(const std::string& path) {
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0)
    return errno == ENOENT;
  if (!S_ISSOCK(status.st_mode)) {
    log_failure("not a socket:", path, EEXIST);
    return false;
  }
  const UniqueFd probe = make_seqpacket_socket();
  const int error = probe ? connect_socket(probe.get(), path) : errno;
  if (error == ECONNREFUSED && ::unlink(path.c_str()) == 0) {
    SUP_LOG(logger(), log_level::info) << "start_socket: took over the stale socket " << path;
    return true;
  }
  if (error == 0 || error == EAGAIN)
    SUP_LOG(logger(), log_level::error) << "start_socket: another process answers on " << path;
  else
    log_failure("can't take over", path, error);
  return false;
}

}  // namespace

bool make_folders(const std::string& path, mode_t mode) {
  for (std::size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
    if (::mkdir(path.substr(0, end).c_str(), S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH) != 0 &&
        errno != EEXIST)
      return false;
  }
  return ::mkdir(path.c_str(), mode) == 0 || errno == EEXIST;
}

bool lock_file(int fd, int operation) {
  constexpr int pause_ms = 5;
  constexpr int tries = 200;
  for (int i = 0; i < tries; ++i) {
    if (::flock(fd, operation | LOCK_NB) == 0)
      return true;
    if (errno != EWOULDBLOCK && errno != EINTR)
      return false;
    const timespec pause = {0, pause_ms * 1000000L};
    ::nanosleep(&pause, nullptr);
  }
  errno = EWOULDBLOCK;
  return false;
}

bool ListeningSocket::open(const std::string& folder, const std::string& name) {
  const UniqueFd lock = open_own_folder(folder);
  if (!lock)
    return false;
  // Two processes that start at once would both find the old file stale; under the lock one of them finds the
  // other listening.
  if (!lock_file(lock.get(), LOCK_EX)) {
    log_failure("couldn't lock the folder", folder, errno);
    return false;
  }
  path_ = folder + "/" + name;
  fd_ = make_seqpacket_socket();
  if (!fd_) {
    log_failure("couldn't make the socket", path_, errno);
    return false;
  }
  return remove_stale_socket(path_) && bind_and_listen();
}

bool ListeningSocket::bind_and_listen() {
  if (const int error = bind_socket(fd_.get(), path_); error != 0) {
    log_failure("couldn't bind", path_, error);
    return false;
  }
  remember_file();
  if (::listen(fd_.get(), SOMAXCONN) != 0) {
    log_failure("couldn't listen on", path_, errno);
    return false;
  }
  return true;
}

void ListeningSocket::remember_file() {
  struct stat status;
  if (::lstat(path_.c_str(), &status) != 0)
    return;
  device_ = status.st_dev;
  inode_ = status.st_ino;
  owner_ = ::getpid();
}

ListeningSocket::~ListeningSocket() {
  struct stat status;
  if (owner_ == 0 || owner_ != ::getpid() || ::lstat(path_.c_str(), &status) != 0)
    return;
  if (status.st_dev == device_ && status.st_ino == inode_)
    ::unlink(path_.c_str());
}

}  // namespace zol_ipc
