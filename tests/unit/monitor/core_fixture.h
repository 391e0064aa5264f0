// A folder of the test's own in place of the places where cores land, and a queue without events.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/zol_core_files.h"
#include "core/zol_event_timers.h"
#include "sup_logger.h"
#include "tests/unit/monitor/monitor_fixture.h"

namespace zol_test {

class CoreFixture : public MonitorFixture {
 protected:
  CoreFixture() {
    folder_ = (std::filesystem::temp_directory_path() / "zol_cores_XXXXXX").string();
    if (mkdtemp(folder_.data()) == nullptr)
      throw std::runtime_error("no folder for a test");
    config_.set(monitor_config(std::string(usual_periods) + "event_suppression_ms = 60000; "));
  }
  ~CoreFixture() override {
    zol_monitor::drop_events();
    zol_monitor::stop_core_check();
    std::filesystem::remove_all(folder_);
  }

  // Makes a file, and the folders on its way; its path.
  std::string put(const std::string& name, mode_t mode = 0644) {
    const std::string path = folder_ + "/" + name;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    if (fd < 0 || fchmod(fd, mode) != 0)
      throw std::runtime_error("no file for a test");
    close(fd);
    return path;
  }
  static mode_t mode_of(const std::string& path) {
    struct stat status = {};
    stat(path.c_str(), &status);
    return status.st_mode & 07777;
  }
  zol_monitor::CorePlace plain_place() const { return {folder_, "core"}; }
  zol_monitor::CorePlace crash_place() const { return {folder_, ""}; }

  static std::vector<std::string> paths_of(const std::vector<zol_monitor::core_t>& cores) {
    std::vector<std::string> paths;
    for (const zol_monitor::core_t& core : cores)
      paths.push_back(core.path);
    return paths;
  }

  std::string folder_;
};

}  // namespace zol_test
