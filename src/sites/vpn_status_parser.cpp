#include "sites/vpn_status_parser.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "sites/site_service.h"
#include "sites/vpn_sites_services.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr std::size_t line_buffer_size = 1024;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("VPNStatusParser");
  return instance;
}

// The command's standard output; its end is waited for with the object's.
class CommandOutput {
 public:
  explicit CommandOutput(const std::string& command) : stream_(popen(command.c_str(), "re")) {}
  ~CommandOutput() {
    if (stream_ != nullptr)
      pclose(stream_);
  }
  CommandOutput(const CommandOutput&) = delete;
  CommandOutput& operator=(const CommandOutput&) = delete;

  bool is_open() const { return stream_ != nullptr; }
  bool next_line(std::string& line) {
    std::array<char, line_buffer_size> buffer;
    if (fgets(buffer.data(), buffer.size(), stream_) == nullptr)
      return false;
    line = buffer.data();
    return true;
  }

 private:
  FILE* stream_;
};

void log_added(const char* what, const VPNConnInfo& conn) {
  SUP_LOG(logger(), log_level::debug)
      << "get_connections_info_status" << what << vpn_conn_state_str(conn.state) << " vpn connection "
      << conn.name << " : " << Helper::make_log_addr(conn.right) << " " << conn.internal_id;
}

}  // namespace

void VPNStatusParser::parse() {
  const std::string command = vpn_status_command();
  if (command.empty())
    return;
  CommandOutput output(command);
  if (!output.is_open()) {
    const int error = errno;
    SUP_LOG(logger(), log_level::error) << "parse"
                                        << ": Failed to run VPN status command: " << command << "; Error ("
                                        << error << ") : " << strerror(error);
    return;
  }
  entries.clear();
  std::string line;
  for (unsigned number = 0; output.next_line(line); ++number) {
    if (!parse_line(line))
      SUP_LOG(logger(), log_level::debug)
          << "parse"
          << ": Couldn't parse VPN status of line #" << number << " Line : " << line;
  }
}

void VPNStatusParser::store(const std::string& key, const VPNConnInfo& record) {
  const auto [stored, is_new] = entries.emplace(key, record);
  if (!is_new)
    stored->second.update(record);
}

void VPNStatusParser::add_expected_entry(ExpectedEntries& expected, SiteEntry entry) {
  const std::string key = entry.conn->right_id + entry.conn->right;
  expected[key] = std::move(entry);
}

VPNStatusParser::ExpectedEntries::iterator VPNStatusParser::find(ExpectedEntries& expected,
                                                                 VPNConnInfo conn) {
  return std::find_if(expected.begin(), expected.end(),
                      [&conn](const auto& entry) { return entry.second.conn->right == conn.right; });
}

VPNStatusParser::ExpectedEntries VPNStatusParser::prepare_expected_site_entries(SiteServicesBase* services) {
  ExpectedEntries expected;
  for (const auto& [internal_id, site] : services->site_services) {
    if (!site->accept_connections || site->protocol != get_protocol() || site->type == "remote_access")
      continue;
    for (const auto& conn : site->entries)
      add_expected_entry(expected, {conn, false});
  }
  return expected;
}

std::vector<VPNConnInfo> VPNStatusParser::get_connections_info_status(SiteServicesBase* services) {
  ExpectedEntries expected = prepare_expected_site_entries(services);
  std::vector<VPNConnInfo> result;
  for (const auto& [key, record] : entries) {
    const auto it = find(expected, record);
    if (it != expected.end())
      it->second.found = true;
    else if (record.state == Disconnected)
      continue;
    log_added(": Adding ", record);
    result.push_back(record);
  }
  for (const auto& [key, entry] : expected) {
    if (entry.found)
      continue;
    result.push_back(*entry.conn);
    result.back().update(Disconnected, time(nullptr), true);
    log_added(": Adding expected ", result.back());
  }
  return result;
}

}  // namespace zol
