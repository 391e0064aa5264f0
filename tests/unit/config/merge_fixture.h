// Three configuration texts, merged in memory or as files of a folder.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "config/zol_configurator.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace zol_test {

class Merge : public testing::Test {
 protected:
  // Whether the merge was done; the result is in `target`.
  bool merge(const char* local_text, const char* base_text, const char* target_text) {
    local.readString(local_text);
    base.readString(base_text);
    target.readString(target_text);
    return zol::TheConfigurator::merge_setting(local.getRoot(), base, target);
  }
  template <typename T>
  T value(const char* path) {
    T found{};
    EXPECT_TRUE(target.lookupValue(path, found)) << path;
    return found;
  }
  // "80-90 443-443", of a list of ranges.
  std::string ranges(const char* path) {
    std::string text;
    const libconfig::Setting& list = target.lookup(path);
    for (int i = 0; i < list.getLength(); ++i)
      text += (text.empty() ? "" : " ") + std::to_string(static_cast<int>(list[i][0])) + "-" +
              std::to_string(static_cast<int>(list[i][1]));
    return text;
  }

  libconfig::Config local;
  libconfig::Config base;
  libconfig::Config target;
  LogCapture log;
};

class MergeFiles : public testing::Test {
 protected:
  MergeFiles() {
    char name[] = "/tmp/zol_merge_XXXXXX";
    folder = mkdtemp(name);
    write("local", "G: { a = 2; };\n");
    write("base", "G: { a = 1; };\n");
    write("target", old_target);
  }
  ~MergeFiles() override { std::filesystem::remove_all(folder); }

  std::string path(const std::string& name) const { return folder + "/" + name; }
  void write(const std::string& name, const std::string& text) const { std::ofstream(path(name)) << text; }
  std::string read(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(path(name)).rdbuf();
    return text.str();
  }
  int merge() const {
    return zol::TheConfigurator::smart_merge(path("local").c_str(), path("base").c_str(),
                                             path("target").c_str());
  }
  int files() const {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator(folder), {}));
  }

  static constexpr const char* old_target = "G: { a = 1; b = \"new\"; };\n";
  std::string folder;
  LogCapture log;
};

}  // namespace zol_test
