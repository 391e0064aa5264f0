// How the libraries of the node read its configuration.
//
// The libraries know no configuration class. The program that links them names one source of settings,
// once, before it uses them; without a source every key is missing. Main thread only.
#pragma once

#include <string>

namespace zol_utils {

class ISettings {
 public:
  virtual ~ISettings() = default;

  // Each returns false, and leaves `value` alone, when the key is missing or of another type.
  virtual bool lookup(const char* key, std::string& value) const = 0;
  // The switches are asked for each session: `key` is a literal, which the source may remember.
  virtual bool lookup(const char* key, bool& value) const = 0;
  virtual bool lookup(const char* key, int& value) const = 0;
};

// The one source; not owned. Null until a program sets it.
inline const ISettings* settings_source = nullptr;

template <typename T>
bool lookup_setting(const char* key, T& value) {
  return settings_source != nullptr && settings_source->lookup(key, value);
}

}  // namespace zol_utils
