// The dotted text of an IPv4 address.
#pragma once

#include <bit>
#include <cstdint>
#include <string>

namespace zol {

// `address` in network order, unmasked: for keys and reports. A log line takes Helper::make_log_addr. By
// hand, since a session's end and a connection of a dump make several, and inet_ntop goes through snprintf.
inline std::string address_text(std::uint32_t address) {
  static_assert(std::endian::native == std::endian::little);
  char text[sizeof "255.255.255.255"];
  char* end = text;
  for (int shift = 0; shift < 32; shift += 8) {
    const std::uint32_t octet = (address >> shift) & 0xff;
    if (octet >= 100)
      *end++ = static_cast<char>('0' + octet / 100);
    if (octet >= 10)
      *end++ = static_cast<char>('0' + octet / 10 % 10);
    *end++ = static_cast<char>('0' + octet % 10);
    *end++ = '.';
  }
  return std::string(text, static_cast<std::size_t>(end - 1 - text));
}

}  // namespace zol
