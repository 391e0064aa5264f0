// The folders of the node that hold its helper programs and their logs, empty and only for this test.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

namespace zol_test {

inline std::string text_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// An executable text.
inline void write_program(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path) << text;
  chmod(path.c_str(), 0755);
}

// /opt and /var/log in a mount namespace of the process's own; needs root.
class NodeFolders {
 public:
  NodeFolders() {
    static const bool own_namespace =
        unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    mounted_ = own_namespace && mount("tmpfs", "/opt", "tmpfs", 0, nullptr) == 0 &&
               mount("tmpfs", "/var/log", "tmpfs", 0, nullptr) == 0;
    if (!mounted_)
      reason_ = strerror(errno);
  }
  ~NodeFolders() {
    if (!mounted_)
      return;
    umount2("/opt", MNT_DETACH);
    umount2("/var/log", MNT_DETACH);
  }
  NodeFolders(const NodeFolders&) = delete;
  NodeFolders& operator=(const NodeFolders&) = delete;

  bool mounted() const { return mounted_; }
  std::string reason() const { return "folders of its own need root: " + reason_; }

 private:
  bool mounted_;
  std::string reason_;
};

}  // namespace zol_test
