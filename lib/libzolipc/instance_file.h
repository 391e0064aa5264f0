// The mark of a running version: <base>/instances/<name>-<version>.pid.
#pragma once

#include <string>

#include "libzolipc/unix_socket.h"

namespace zol_ipc {

// Holds the file and a shared flock(2) on it, so that two processes of one name and version, of two nodes on
// one machine, may both hold it; who looks for a running version tries an exclusive one. The file holds the
// process id and a line feed. It goes with its last holder; after a crash it stays, without a lock.
class InstanceFile {
 public:
  InstanceFile() = default;
  ~InstanceFile();
  InstanceFile(const InstanceFile&) = delete;
  InstanceFile& operator=(const InstanceFile&) = delete;

  // False, with one error line, when the file can't be written or locked.
  bool open(const std::string& folder, const std::string& name, const std::string& version);

 private:
  bool open_and_lock();
  bool is_current_file() const;

  std::string path_;
  UniqueFd fd_;
  pid_t owner_ = 0;
};

}  // namespace zol_ipc
