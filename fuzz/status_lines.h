// Gives a parser of a status command its lines as it would read them: cut at 1023 bytes, ended by a NUL.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <string>

#include "sites/vpn_status_parser.h"

namespace zol_fuzz {

inline void expect(bool holds) {
  if (!holds)
    std::abort();
}

inline void parse_lines(zol::VPNStatusParser& parser, const std::string& text) {
  constexpr std::size_t longest = 1023;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t feed = text.find('\n', begin);
    const std::size_t whole = feed == std::string::npos ? text.size() - begin : feed - begin + 1;
    const std::size_t size = std::min(whole, longest);
    parser.parse_line(text.substr(begin, size).c_str());
    begin += size;
  }
}

}  // namespace zol_fuzz
