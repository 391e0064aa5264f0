#include "sites/ipsec_status_parser.h"

#include <charconv>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr const char* output_log_path = "/var/log/zol/ipsec_output.log";
constexpr const char* old_output_log_path = "/var/log/zol/ipsec_output.log.1";
constexpr std::uintmax_t max_output_log_size = 0x1e00000;  // bytes

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("IPsecStatusParser");
  return instance;
}

bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

// The name stands between the line's first quote and this one.
std::size_t closing_quote(const std::string& line) {
  return line.find('"', 2);
}

bool is_tunnel_named(const std::string& line) {
  return line.find('/') < closing_quote(line);
}

}  // namespace

IPsecStatusParser::IPsecStatusParser() {
  open_output_log();
  parse();
}

void IPsecStatusParser::open_output_log() {
  if (!logger().is_debug_enabled())
    return;
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(output_log_path, error);
  if (!error && size > max_output_log_size) {
    std::filesystem::remove(old_output_log_path, error);
    std::filesystem::rename(output_log_path, old_output_log_path, error);
  }
  output_.open(output_log_path, std::ios::app);
}

std::string IPsecStatusParser::vpn_status_command() {
  return "ipsec whack --trafficstatus --status | grep -e '#[0-9]*:' | awk -F '#[0-9]+:' "
         "'{ print substr($2, 2) }' | grep -v ZOLtoZOL";
}

VPNStatusParser::ExpectedEntries::iterator IPsecStatusParser::find(ExpectedEntries& expected,
                                                                   VPNConnInfo conn) {
  return expected.find(conn.right_id + conn.right);
}

bool IPsecStatusParser::parse_line(const std::string& line) {
  const long now = time(nullptr);
  if (output_.is_open())
    output_ << now << " | " << line;
  try {
    parse_connection(line, now);
  } catch (const std::exception& error) {
    SUP_LOG(logger(), log_level::error) << "parse_line"
                                        << ": " << error.what();
    return false;
  }
  return true;
}

void IPsecStatusParser::parse_connection(const std::string& line, long now) {
  const std::string identity = extract_conn_identity(line);
  if (identity.empty())
    return;
  const bool remote_access = contains(line, "%any");
  const std::string name = extract_conn_name(line);
  if (name.empty())
    return;
  std::string site_ip;
  if (contains(line, " esp."))
    site_ip = extract_site_ip(line);
  VPNConnState state = Established;
  auto timestamp = static_cast<unsigned>(now);
  std::string tunnel;
  std::string lease;
  std::string ra_id;
  if (contains(line, "add_time=")) {
    timestamp = extract_add_time(line);
    tunnel = extract_tunnel_connection(line);
    if (remote_access) {
      lease = Helper::extract_token(line, "lease=", "/32", false);
      ra_id = Helper::extract_token(line, "id='", "'", false);
      SUP_LOG(logger(), log_level::debug)
          << "parse_line: timestamp " << timestamp << " lease_ip " << lease << " and id " << ra_id;
    }
  } else {
    state = extract_state(line, tunnel);
  }
  VPNConnInfo record(name, "ipsec", state, timestamp, site_ip, ra_id, lease);
  record.insert_established_tunnel(tunnel);
  store(identity, record);
}

std::string IPsecStatusParser::extract_conn_identity(const std::string& line) {
  const std::size_t quote = closing_quote(line);
  std::string identity;
  if (is_tunnel_named(line))
    identity = Helper::extract_token(line, "\"", "/", false);
  else if (quote != std::string::npos && line.compare(quote + 1, 1, "[") == 0)
    identity = Helper::extract_token(line, "\"", "]", true);
  else
    identity = Helper::extract_token(line, "\"", "\"", false);
  if (identity.empty())
    SUP_LOG(logger(), log_level::error) << "extract_conn_identity: No connection in line: " << line;
  return identity;
}

std::string IPsecStatusParser::extract_conn_name(const std::string& line) {
  return Helper::extract_token(line, "\"", is_tunnel_named(line) ? "/" : "\"", false);
}

std::string IPsecStatusParser::extract_site_ip(const std::string& line) {
  const std::size_t esp = line.find(" esp.");
  return esp == std::string::npos ? "" : Helper::extract_token(line.substr(esp), "@", " ", false);
}

std::string IPsecStatusParser::extract_tunnel_connection(const std::string& line) {
  if (!contains(line, "/"))
    return "0x0";
  return is_tunnel_named(line) ? Helper::extract_token(line, "/", "\"", false) : "";
}

VPNConnState IPsecStatusParser::extract_state(const std::string& line, std::string& tunnel) {
  const std::string text = Helper::extract_token(line, "(", ")", false);
  if (contains(text, "IPsec SA established")) {
    tunnel = extract_tunnel_connection(line);
    return Established;
  }
  if (contains(text, "ISAKMP SA established") || contains(text, "established IKE SA"))
    return Connecting;
  return Disconnected;
}

unsigned IPsecStatusParser::extract_add_time(const std::string& line) {
  const std::string digits = Helper::extract_token(line, "add_time=", ",", false);
  unsigned seconds = 0;
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, seconds);
  if (error != std::errc() || stop != end)
    throw std::runtime_error("Parsing error: timestamp");
  return seconds;
}

}  // namespace zol
