// The configuration that the fuzz targets run with.
#pragma once

#include "tests/support/config_fixture.h"

namespace zol_fuzz {

inline constexpr const char* config_text = R"(
General: { zol_id = "fuzz"; external_ip = "192.0.2.1"; network_id = "net"; };
Monitoring: {
  report_resolution_ms = 60000; traffic_report_resolution_ms = 60000; session_report_resolution_ms = 60000;
  polling_rate_ms = 100; reporter_total_retries = 0; session_report_is_enabled = true;
  session_report_max_sessions = 100; unmarked_target = "none";
};
IPTables: { internal_port_range_start = 9000; internal_port_range_end = 9100; };
MultipleTargets: { services = (
  { service_id = 1; logical_network_id = "net-1"; public_host = "a"; host = "b"; aux_host = "c";
    external_port_in = 80; internal_port = 8080; external_port_out = 80; is_port_owned = true; is_tcp = true; });
};
)";

// Lives as long as the process.
inline zol_test::ScopedConfig& config() {
  static zol_test::ScopedConfig instance(config_text);
  return instance;
}

}  // namespace zol_fuzz
