#include "tests/support/config_fixture.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "config/zol_configurator.h"

namespace zol_test {

namespace {

std::string make_folder() {
  std::string folder = (std::filesystem::temp_directory_path() / "zol_config_XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr)
    throw std::runtime_error("no folder for a test's configuration: " + folder);
  return folder;
}

std::string file_of(const std::string& folder) {
  return folder + "/zol.conf";
}

}  // namespace

ScopedConfig::ScopedConfig(const std::string& text) : folder_(make_folder()) {
  write_file(text);
  configurator_ = std::make_unique<zol::AConfigurator>(file_of(folder_).c_str(), false);
  zol::TheConfigurator::set_configurator(configurator_.get());
}

ScopedConfig::~ScopedConfig() {
  zol::TheConfigurator::set_configurator(nullptr);
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

void ScopedConfig::set(const std::string& text) {
  write_file(text);
  configurator_->read_file();
}

void ScopedConfig::write_file(const std::string& text) {
  std::ofstream file(file_of(folder_), std::ios::trunc);
  file << text;
  if (!file.flush())
    throw std::runtime_error("a test's configuration can't be written: " + file_of(folder_));
}

zol::AConfigurator& ScopedConfig::configurator() {
  return *configurator_;
}

}  // namespace zol_test
