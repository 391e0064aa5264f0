#include "sites/gre_status_parser.h"

#include <algorithm>
#include <ctime>

#include "zol_helper.h"

namespace zol {

namespace {

constexpr const char* blanks = " \t\r\n";

// The first word without its colon.
std::string connection_name(const std::string& line) {
  const std::size_t begin = line.find_first_not_of(blanks);
  if (begin == std::string::npos)
    return "";
  const std::size_t end = std::min(line.find_first_of(blanks, begin), line.size());
  return line.substr(begin, end - begin - 1);
}

VPNConnState connection_state(const std::string& line) {
  const std::string text = Helper::extract_token(line, "State: ", line.substr(line.size() - 1), false);
  if (text == "Established")
    return Established;
  return text == "Connecting" ? Connecting : Disconnected;
}

}  // namespace

GREStatusParser::GREStatusParser() {
  parse();
}

std::string GREStatusParser::vpn_status_command() {
  return "/opt/gred/gred.sh status";
}

VPNStatusParser::ExpectedEntries::iterator GREStatusParser::find(ExpectedEntries& expected,
                                                                 VPNConnInfo conn) {
  return std::find_if(expected.begin(), expected.end(), [&conn](const auto& entry) {
    return entry.second.conn->vti_interface == conn.vti_interface;
  });
}

bool GREStatusParser::parse_line(const std::string& line) {
  const std::string name = connection_name(line);
  if (name.empty())
    return false;
  if (name == "GRED")
    return true;
  const std::string resolved = Helper::extract_token(line, "ResolvedIP: ", " State:", false);
  VPNConnInfo record(name, "gre", connection_state(line), static_cast<unsigned>(time(nullptr)), resolved, "",
                     "");
  record.insert_established_tunnel(name);
  store(name, record);
  return true;
}

}  // namespace zol
