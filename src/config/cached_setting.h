// A setting that a hot path reads: once for each connection, session or event.
#pragma once

#include <cstdint>

#include "config/zol_configurator.h"

namespace zol {

// Looks its key up again only after the tree may have changed (AConfigurator::generation), so that a use
// costs a compare. Give it static storage; `key` is not copied. Main thread only.
//
//   static CachedSetting<bool> enabled(zol_conf_consts::iptables_udp_enabled_key);
//   bool udp = false;
//   enabled.lookup(udp);
template <typename T>
class CachedSetting {
 public:
  explicit CachedSetting(const char* key) : key_(key) {}

  // As libconfig's lookupValue: false, and `value` stays, when the key is missing or of another type.
  bool lookup(T& value) {
    // First, since the first look reads the file.
    const libconfig::Config& config = TheConfigurator::get_configuration()->config;
    if (seen_ != AConfigurator::generation) {
      // libconfig finds a missing key out by an exception.
      found_ = config.exists(key_) && config.lookupValue(key_, value_);
      seen_ = AConfigurator::generation;
    }
    if (found_)
      value = value_;
    return found_;
  }

 private:
  const char* key_;
  std::uint64_t seen_ = 0;
  bool found_ = false;
  T value_{};
};

}  // namespace zol
