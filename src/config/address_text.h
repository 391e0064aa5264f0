// The dotted text of an IPv4 address.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <string>

namespace zol {

// `address` in network order, unmasked: for keys and reports. A log line takes Helper::make_log_addr.
inline std::string address_text(std::uint32_t address) {
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

}  // namespace zol
