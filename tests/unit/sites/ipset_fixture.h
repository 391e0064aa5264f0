// A process of its own for ipsets: a folder to work in, namespaces, and a program in the place of ipset.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "sites/ipset.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"

namespace zol_test {

inline const std::string zol_node_conf = "General: { zol_id = \"node-1\"; };";
inline const std::string agent_conf = "General: { kpa_id = \"agent-1\"; };";

// Moves the thread into new namespaces of those kinds (CLONE_NEW...), and back at its end.
class OwnSpaces {
 public:
  explicit OwnSpaces(int kinds) : kinds_(kinds) {
    net_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    mount_ = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
    entered_ = net_ >= 0 && mount_ >= 0 && unshare(kinds) == 0;
    if (entered_ && (kinds & CLONE_NEWNS) != 0)
      entered_ = mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  }
  ~OwnSpaces() {
    const std::string folder = std::filesystem::current_path();
    if (((kinds_ & CLONE_NEWNET) != 0 && setns(net_, CLONE_NEWNET) != 0) ||
        ((kinds_ & CLONE_NEWNS) != 0 && setns(mount_, CLONE_NEWNS) != 0) || chdir(folder.c_str()) != 0)
      std::abort();
    close(net_);
    close(mount_);
  }
  OwnSpaces(const OwnSpaces&) = delete;
  OwnSpaces& operator=(const OwnSpaces&) = delete;

  bool entered() const { return entered_; }

 private:
  const int kinds_;
  int net_ = -1;
  int mount_ = -1;
  bool entered_ = false;
};

inline std::string file_text(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

inline bool exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

// In a folder of its own, as a process that has just started on a ZOL's node.
class IpsetTest : public testing::Test {
 protected:
  IpsetTest() {
    zol::IPSetManager::forget();
    std::filesystem::current_path(config_.folder());
  }
  ~IpsetTest() override {
    zol::IPSetManager::forget();
    std::filesystem::current_path(former_folder_);
  }

  const std::string former_folder_ = std::filesystem::current_path();
  ScopedConfig config_{zol_node_conf};
};

// With a shell script that stands in for the program ipset. What it is called with goes to the file "calls".
class ScriptedIpsetTest : public IpsetTest {
 protected:
  void SetUp() override {
    if (!spaces_.entered() || !exists("/usr/sbin/ipset"))
      GTEST_SKIP() << "needs the right to make a mount namespace, and the program ipset";
    put_script("exit 0");
  }

  // The script ends so.
  void put_script(const std::string& ending) {
    const std::string path = config_.folder() + "/script" + std::to_string(++scripts_);
    std::ofstream(path) << "#!/bin/sh\necho \"$@\" >> " << config_.folder() << "/calls\n" << ending << "\n";
    chmod(path.c_str(), 0755);
    ASSERT_EQ(mount(path.c_str(), "/usr/sbin/ipset", nullptr, MS_BIND, nullptr), 0);
  }
  // What the script was called with since the last time, a line a call.
  std::string calls() {
    const std::string text = file_text("calls");
    std::remove("calls");
    return text;
  }

  OwnSpaces spaces_{CLONE_NEWNS};
  int scripts_ = 0;
};

}  // namespace zol_test
