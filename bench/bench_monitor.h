// Messages to fill a monitor's table with.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "core/ipc_messages.h"
#include "tests/support/lone_monitor.h"

namespace zol_bench {

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

}  // namespace zol_bench
