// A monitor with a configuration for one service, an empty table and no ear for the kernel, made once a
// process: for benchmarks and fuzz targets, which feed it messages.
#pragma once

#include "config/services.h"
#include "core/zol_libevent.h"
#include "dual_zol_helper.h"
#include "sites/vpn_sites_services.h"
#include "tests/support/bare_monitor.h"
#include "tests/support/config_fixture.h"

namespace zol_test {

inline constexpr const char* lone_config_text = R"(
General: { zol_id = "lone"; external_ip = "192.0.2.1"; network_id = "net"; };
Monitoring: {
  report_resolution_ms = 60000; traffic_report_resolution_ms = 60000; session_report_resolution_ms = 60000;
  polling_rate_ms = 100; reporter_total_retries = 0; session_report_is_enabled = true; unmarked_target = "none";
};
IPTables: { internal_port_range_start = 9000; internal_port_range_end = 9100; };
MultipleTargets: { services = (
  { service_id = 1; logical_network_id = "net-1"; public_host = "a"; host = "target.example"; aux_host = "c";
    external_port_in = 80; internal_port = 8080; external_port_out = 80; is_port_owned = true; is_tcp = true; });
};
)";

inline ScopedConfig& lone_config() {
  static ScopedConfig instance(lone_config_text);
  return instance;
}

inline BareMonitor& lone_monitor() {
  zol_utils::shared_mem_enabled = false;
  lone_config();
  static zol::ZOLEventBase loop;
  static const bool ready = (zol::ZOLEventBase::init(), true);
  static_cast<void>(ready);
  static zol::Services services(false, true);
  static BareMonitor instance(&services, zol::SiteServices::instance(), nullptr, true);
  static const bool deaf = (instance.stop(), true);
  static_cast<void>(deaf);
  return instance;
}

inline void forget_sessions() {
  auto& sessions = lone_monitor().sessions;
  sessions.in_sessions.clear();
  sessions.out_sessions.clear();
  sessions.sessions_by_id.clear();
  sessions.non_tcp_sessions.clear();
  sessions.finished_sessions.clear();
}

}  // namespace zol_test
