// A folder of its own that is the working directory while it lives.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace zol_test {

class KeyFolder {
 public:
  KeyFolder() : before_(std::filesystem::current_path()) {
    char name[] = "/tmp/zol_crypto_XXXXXX";
    folder_ = mkdtemp(name);
    std::filesystem::current_path(folder_);
  }
  ~KeyFolder() {
    std::filesystem::current_path(before_);
    std::filesystem::remove_all(folder_);
  }
  KeyFolder(const KeyFolder&) = delete;
  KeyFolder& operator=(const KeyFolder&) = delete;

  static void write_file(const std::string& name, const std::string& bytes, mode_t mode = 0600) {
    std::ofstream(name, std::ios::binary) << bytes;
    chmod(name.c_str(), mode);
  }
  static std::string read_file(const std::string& name) {
    std::ostringstream bytes;
    bytes << std::ifstream(name, std::ios::binary).rdbuf();
    return bytes.str();
  }

 private:
  std::filesystem::path before_;
  std::filesystem::path folder_;
};

}  // namespace zol_test
