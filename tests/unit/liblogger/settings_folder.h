// A folder of its own with a settings file, a log file, and the key that names the former.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "zol_settings.h"

namespace zol_test {

inline constexpr char log_key[] = "Test.log_config_file";

class SettingsFolder : public zol_utils::ISettings {
 public:
  SettingsFolder() : before_(zol_utils::settings_source) {
    char name[] = "/tmp/zol_logging_XXXXXX";
    folder_ = mkdtemp(name);
    value = settings_path();
    zol_utils::settings_source = this;
  }
  ~SettingsFolder() override {
    zol_utils::settings_source = before_;
    std::filesystem::remove_all(folder_);
  }

  bool lookup(const char* key, std::string& out) const override {
    if (std::string(key) != log_key || value.empty())
      return false;
    out = value;
    return true;
  }
  bool lookup(const char*, bool&) const override { return false; }
  bool lookup(const char*, int&) const override { return false; }

  std::string path(const std::string& name) const { return folder_ + "/" + name; }
  std::string settings_path() const { return path("log.conf"); }
  std::string log_path() const { return path("out.log"); }
  void write(const std::string& name, const std::string& text) const { std::ofstream(path(name)) << text; }
  void write_settings(const std::string& text) const { write("log.conf", text); }
  std::string log() const {
    std::ostringstream text;
    text << std::ifstream(log_path()).rdbuf();
    return text.str();
  }
  void empty_log() const { std::filesystem::resize_file(log_path(), 0); }

  // Settings that write to the log file: the value of the root category, then further lines.
  std::string settings(const std::string& root, const std::string& more = "") const {
    return "log4cpp.rootCategory=" + root +
           ", F\nlog4cpp.appender.F=FileAppender\nlog4cpp.appender.F.fileName=" + log_path() +
           "\nlog4cpp.appender.F.layout=PatternLayout\n"
           "log4cpp.appender.F.layout.ConversionPattern=%-6p %c: %m%n\n" +
           more;
  }

  std::string value;  // of the key; empty is a missing key

 private:
  const zol_utils::ISettings* before_;
  std::string folder_;
};

inline int open_descriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++count;
  return count;
}

}  // namespace zol_test
