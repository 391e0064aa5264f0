// Puts a configuration text in place of zol.conf while it lives.
#pragma once

#include <memory>
#include <string>

namespace zol {
class AConfigurator;
}

namespace zol_test {

class ScopedConfig {
 public:
  // libconfig text, such as "Monitoring: { polling_rate_ms = 50; };". It is written to a file of its own in a
  // new folder, so that a reload can be tested; the folder goes with the object.
  explicit ScopedConfig(const std::string& text);
  ~ScopedConfig();
  ScopedConfig(const ScopedConfig&) = delete;
  ScopedConfig& operator=(const ScopedConfig&) = delete;

  // Replaces the text on disk and in the tree, without telling any listener.
  void set(const std::string& text);
  // Replaces the text on disk only.
  void write_file(const std::string& text);
  zol::AConfigurator& configurator();
  const std::string& folder() const { return folder_; }

 private:
  std::string folder_;
  std::unique_ptr<zol::AConfigurator> configurator_;
};

}  // namespace zol_test
