// The files of an endpoint: the node's folder, and the socket file in it.
#pragma once

#include <sys/types.h>

#include <string>

#include "libzolipc/unix_socket.h"

namespace zol_ipc {

// A listening socket and the file that names it. The file goes with the object, unless another process has
// put its own in that place since, or the object lives in a forked child.
class ListeningSocket {
 public:
  ListeningSocket() = default;
  ~ListeningSocket();
  ListeningSocket(const ListeningSocket&) = delete;
  ListeningSocket& operator=(const ListeningSocket&) = delete;

  // Makes `folder` (0700) when it lacks, binds `folder`/`name` (0600) and listens. A socket file that nobody
  // answers on is taken over. False, with one error line, when somebody does answer, when something else than
  // a socket stands there, or when the folder belongs to another user.
  bool open(const std::string& folder, const std::string& name);
  int fd() const { return fd_.get(); }

 private:
  bool bind_and_listen();
  void remember_file();

  UniqueFd fd_;
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  pid_t owner_ = 0;
};

// Makes a folder and those above it; the last one gets `mode`, the others 0755. False with errno.
bool make_folders(const std::string& path, mode_t mode);
// flock(2) with a limit: `operation` is LOCK_EX or LOCK_SH; tried for one second.
bool lock_file(int fd, int operation);

}  // namespace zol_ipc
