// Messages to fill a monitor's table with.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>

#include "core/ipc_messages.h"
#include "sup_logger.h"
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

// Takes the configuration, and logs as a node in service does: a warning for each of 200,000 sessions would
// be measured too.
inline void log_errors_only(const std::string& configuration) {
  zol_test::ScopedConfig& config = zol_test::lone_config();
  const std::string path = config.folder() + "/log.properties";
  std::ofstream(path) << "log4cpp.rootCategory=ERROR, out\n"
                         "log4cpp.appender.out=FileAppender\n"
                         "log4cpp.appender.out.layout=BasicLayout\n"
                         "log4cpp.appender.out.fileName="
                      << config.folder() << "/log\n";
  config.set(configuration + "Log: { file = \"" + path + "\"; };");
  zol_logging_init_and_watch("Log.file");
}

}  // namespace zol_bench
