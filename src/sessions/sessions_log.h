// What the log lines about sessions share.
#pragma once

#include <cstdint>
#include <string>

#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

// The category of the session table.
inline SupLogger& sessions_logger() {
  static SupLogger& instance = SupLogger::get_instance("ZOLSessions");
  return instance;
}

// "address:port", the address masked as configured.
inline std::string log_peer(std::uint32_t address, std::uint16_t port) {
  return zol::Helper::make_anonymous_address(address) + ":" + std::to_string(port);
}

}  // namespace zol_monitor
