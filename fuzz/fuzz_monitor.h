// A monitor with an empty table that hears no kernel, for targets that feed it bytes.
#pragma once

#include "config/services.h"
#include "core/zol_libevent.h"
#include "dual_zol_helper.h"
#include "fuzz/fuzz_config.h"
#include "sites/vpn_sites_services.h"
#include "tests/support/bare_monitor.h"

namespace zol_fuzz {

inline zol_test::BareMonitor& monitor() {
  zol_utils::shared_mem_enabled = false;
  config();
  static zol::ZOLEventBase loop;
  static const bool ready = (zol::ZOLEventBase::init(), true);
  static_cast<void>(ready);
  static zol::Services services(false, true);
  static zol_test::BareMonitor instance(&services, zol::SiteServices::instance(), nullptr, true);
  static const bool deaf = (instance.stop(), true);
  static_cast<void>(deaf);
  return instance;
}

// Each input meets an empty table.
inline void forget_sessions() {
  auto& sessions = monitor().sessions;
  sessions.in_sessions.clear();
  sessions.out_sessions.clear();
  sessions.sessions_by_id.clear();
  sessions.non_tcp_sessions.clear();
  sessions.finished_sessions.clear();
}

}  // namespace zol_fuzz
