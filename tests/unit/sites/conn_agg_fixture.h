// A connection log in a folder of its own, with the loop that hears of ended children.
#pragma once

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/sigchild_handler.h"
#include "sites/vpn_conn_data_agg.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/unit/core/loop_fixture.h"
#include "tests/unit/libzolutils/temp_folder.h"
#include "tests/unit/sites/node_folders.h"
#include "zol_helper.h"

namespace zol_test {

inline std::vector<std::string> lines_of(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);)
    lines.push_back(line);
  return lines;
}

struct RunsLoop : LoopTest {
  using LoopTest::run_until;
};

// The loop is the program's own, since a site table that lives as long as the program has timers on it too.
class ConnAggTest : public testing::Test {
 protected:
  ConnAggTest() {
    if (zol::ZOLEventBase::base() == nullptr)
      zol::ZOLEventBase::init();
    signal_.add(SIGCHLD, -1);
    invoked_as(folder.file("zol_monitor"));
  }
  ~ConnAggTest() override {
    agg.reset();
    program_invocation_name = invoked_as_;
  }

  // By which name the program was called.
  void invoked_as(const std::string& path) {
    invocation_ = path;
    program_invocation_name = invocation_.data();
  }
  static bool run_until(const std::function<bool()>& condition) { return RunsLoop::run_until(condition); }
  void make_agg() { agg = std::make_unique<zol::VPNConnDataAgg>(); }

  TempFolder folder;
  ScopedConfig config{"General: { zol_id = \"node\"; };"};
  LogCapture log;
  std::unique_ptr<zol::VPNConnDataAgg> agg;

 private:
  char* const invoked_as_ = program_invocation_name;
  std::string invocation_;
  zol::ZOLEventLibEventSignal signal_{SIGCHLD, zol_monitor::sigchild_handler, nullptr};
};

}  // namespace zol_test
