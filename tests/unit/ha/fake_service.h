// A command of the test's own in the place of one of the machine's.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace zol_test {

// Puts a command named "service" first in the path.
class FakeService {
 public:
  explicit FakeService(const std::string& status) : former_(getenv("PATH")) {
    folder_ = mkdtemp((std::filesystem::temp_directory_path() / "zol_service_XXXXXX").string().data());
    const std::string file = folder_ + "/service";
    std::ofstream(file) << "#!/bin/sh\n[ \"$*\" = 'keepalived status' ] || exit 1\n" << status << "\n";
    chmod(file.c_str(), S_IRWXU);
    setenv("PATH", (folder_ + ":" + former_).c_str(), 1);
  }
  ~FakeService() {
    setenv("PATH", former_.c_str(), 1);
    std::filesystem::remove_all(folder_);
  }
  FakeService(const FakeService&) = delete;
  FakeService& operator=(const FakeService&) = delete;

 private:
  std::string folder_;
  std::string former_;
};

}  // namespace zol_test
