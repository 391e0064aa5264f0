// A monitor with a configuration for one service and messages to fill its table with.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "config/services.h"
#include "core/ipc_messages.h"
#include "core/zol_libevent.h"
#include "dual_zol_helper.h"
#include "sites/vpn_sites_services.h"
#include "tests/support/bare_monitor.h"
#include "tests/support/config_fixture.h"

namespace zol_bench {

inline constexpr const char* config_text = R"(
General: { zol_id = "bench"; external_ip = "192.0.2.1"; network_id = "net"; };
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

// Made once, lives as long as the process.
inline zol_test::BareMonitor& monitor() {
  zol_utils::shared_mem_enabled = false;
  static zol_test::ScopedConfig config(config_text);
  static zol::ZOLEventBase loop;
  static const bool ready = (zol::ZOLEventBase::init(), true);
  static_cast<void>(ready);
  static zol::Services services(false, true);
  static zol_test::BareMonitor instance(&services, zol::SiteServices::instance(), nullptr, true);
  instance.stop();
  return instance;
}

// Session number `n`: its own client, port and id. Both legs as the proxy would name them.
inline ipc_session_identification_msg_t identification(std::uint32_t n, bool outbound) {
  ipc_session_identification_msg_t msg{};
  msg.header.type = msgtype_value(msgtype_e::session_identification);
  msg.outbound = outbound ? 1 : 0;
  const auto client_port = static_cast<std::uint16_t>(1024 + n % 60000);
  const std::uint32_t client = htonl(0x0a000000 + n / 60000);
  const std::uint32_t node = htonl(0xc0000201);
  msg.address1 = outbound ? node : client;
  msg.port1 = htons(outbound ? static_cast<std::uint16_t>(1024 + n % 60000) : client_port);
  if (outbound) {
    msg.address2 = htonl(0xc6336401 + n / 60000);
    msg.port2 = htons(443);
  }
  std::memcpy(msg.uuid, &n, sizeof n);
  msg.uuid[15] = 1;
  msg.client_address = client;
  msg.client_port = htons(client_port);
  msg.destination_address = htonl(0xc6336401);
  std::strcpy(msg.domain_name, "www.example.org");
  std::strcpy(msg.user_agent, "Mozilla/5.0 (X11; Linux x86_64) bench/1.0");
  msg.service_port = 80;
  msg.target_address = htonl(0xc6336401);
  msg.target_port = htons(443);
  return msg;
}

template <typename Record>
void handle(zol_test::BareMonitor& monitor, Record& msg) {
  monitor.handle_ipc_msg(reinterpret_cast<const unsigned char*>(&msg), sizeof msg);
}

inline void fill(zol_test::BareMonitor& monitor, std::uint32_t from, std::uint32_t to) {
  for (std::uint32_t n = from; n < to; ++n) {
    for (const bool outbound : {false, true}) {
      auto msg = identification(n, outbound);
      handle(monitor, msg);
    }
  }
}

inline void forget_sessions(zol_test::BareMonitor& monitor) {
  monitor.sessions.in_sessions.clear();
  monitor.sessions.out_sessions.clear();
  monitor.sessions.sessions_by_id.clear();
  monitor.sessions.finished_sessions.clear();
}

}  // namespace zol_bench
