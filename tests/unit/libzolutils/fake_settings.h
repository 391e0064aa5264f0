// A source of settings that a test fills.
#pragma once

#include <map>
#include <string>

#include "zol_settings.h"

namespace zol_test {

class FakeSettings : public zol_utils::ISettings {
 public:
  FakeSettings() { zol_utils::settings_source = this; }
  ~FakeSettings() override { zol_utils::settings_source = nullptr; }
  FakeSettings(const FakeSettings&) = delete;
  FakeSettings& operator=(const FakeSettings&) = delete;

  std::map<std::string, std::string> texts;
  std::map<std::string, bool> flags;

  bool lookup(const char* key, std::string& value) const override { return find(texts, key, value); }
  bool lookup(const char* key, bool& value) const override { return find(flags, key, value); }
  bool lookup(const char*, int&) const override { return false; }

 private:
  template <typename T>
  static bool find(const std::map<std::string, T>& known, const char* key, T& value) {
    const auto found = known.find(key);
    if (found == known.end())
      return false;
    value = found->second;
    return true;
  }
};

}  // namespace zol_test
