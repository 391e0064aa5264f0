// A new folder that goes with the object.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace zol_test {

class TempFolder {
 public:
  TempFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zol_test_XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TempFolder() { std::filesystem::remove_all(path_); }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  std::string write(const std::string& name, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(file(name)).parent_path());
    std::ofstream(file(name), std::ios::binary) << text;
    return file(name);
  }

 private:
  std::string path_;
};

}  // namespace zol_test
