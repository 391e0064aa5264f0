// Settings that are read for each session.
#pragma once

#include "config/cached_setting.h"
#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"

namespace zol_monitor {

// False, and `value` stays, when the key is missing. Asked first whether it exists, since libconfig finds a
// missing key out by an exception, which costs more than the rest of a session's end.
template <typename T>
bool lookup_setting(const char* key, T& value) {
  const libconfig::Config& config = zol::TheConfigurator::get_configuration()->config;
  return config.exists(key) && config.lookupValue(key, value);
}

// The period of the session report; below 1 there is none.
inline int session_report_resolution_ms() {
  static zol::CachedSetting<int> setting(zol_conf_consts::monitoring_session_report_resolution_ms_key);
  int resolution = 0;
  setting.lookup(resolution);
  return resolution;
}

}  // namespace zol_monitor
