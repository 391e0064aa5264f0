// The connection log, and the reasons of failures that go into it.
#include "sites/vpn_conn_log.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>
#include <vector>

#include "sites/vpn_conn_data_agg.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr std::size_t max_log_lines = 100;
constexpr std::size_t max_incidents = 1000;  // of a connection; no report may come that takes them
constexpr std::size_t max_waiting_queries = 10000;
constexpr const char* reason_helper = "/opt/zol/get_pluto_fail_reason.sh";
constexpr unsigned reason_limit_ms = 2000;
constexpr std::uint64_t ms_per_second = 1000;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("VPNConnDataAgg");
  return instance;
}

// A name comes from the output of a command; the shell must take it as it stands.
std::string in_double_quotes(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\' || c == '$' || c == '`')
      quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

std::string reason_command(const ConnLog& query) {
  return std::string(reason_helper) + " \"" + std::to_string(query.timestamp_ms / ms_per_second) + "\" " +
         in_double_quotes(query.conn_name) + " " + (query.short_query ? "short" : "long");
}

}  // namespace

void VPNConnDataAgg::load_vpn_log() {
  std::ifstream file(log_path);
  std::error_code error;
  if (!file || !std::filesystem::is_regular_file(log_path, error)) {
    SUP_LOG(logger(), log_level::warning) << "Failed to open file " << log_path;
    return;
  }
  for (std::string line; std::getline(file, line);) {
    log_lines.push_back(line);
    if (log_lines.size() > max_log_lines)
      log_lines.pop_front();
  }
}

void VPNConnDataAgg::add_vpn_log(const VPNConnInfo& info, VPNConnState old_state) {
  std::string line = Helper::get_timestamp_gmt_format() + ": " + info.name + " - " + info.right;
  if (!info.peer_ip.empty() && info.peer_ip != info.right)
    line += " (Resolved to " + info.peer_ip + ")";
  line += std::string(", status changed from ") + vpn_conn_state_str(old_state) + " to " +
          vpn_conn_state_str(info.state);
  if (info.protocol == "ipsec" && info.state == Disconnected)
    add_ipsec_log(line, info.get_connection_name(), Helper::get_timestamp_ms());
  else
    add_vpn_log(std::move(line));
}

void VPNConnDataAgg::add_vpn_log(std::string line) {
  log_lines.push_back(std::move(line));
  if (log_lines.size() > max_log_lines)
    log_lines.pop_front();
  write_vpn_log();
}

void VPNConnDataAgg::write_vpn_log() const {
  std::ofstream file(log_path, std::ios::trunc);
  if (!file) {
    SUP_LOG(logger(), log_level::warning) << "Failed to open file " << log_path << ": " << strerror(errno);
    return;
  }
  if (!(file << get_vpn_log() << std::flush))
    SUP_LOG(logger(), log_level::warning) << "Failed to write file " << log_path << ": " << strerror(errno);
}

std::string VPNConnDataAgg::get_vpn_log() const {
  std::string text;
  for (const std::string& line : log_lines)
    text += line + "\n";
  return text;
}

void VPNConnDataAgg::add_ipsec_log(const std::string& line, const std::string& conn_name,
                                   std::uint64_t timestamp_ms) {
  if (log_queries.size() >= max_waiting_queries) {
    SUP_LOG(logger(), log_level::warning)
        << "Too many reason queries wait, not asking about \"" << conn_name << "\"";
    return add_vpn_log(line);
  }
  const bool idle = log_queries.empty();
  log_queries.push_back({line, conn_name, timestamp_ms, "", "", true});
  if (idle)
    start_new_log_query();
}

void VPNConnDataAgg::start_new_log_query() {
  while (!log_queries.empty()) {
    const ConnLog& query = log_queries.front();
    const std::string command = reason_command(query);
    set_cmd(command.c_str(), reason_limit_ms);
    if (run())
      return;
    SUP_LOG(logger(), log_level::warning) << "Failed to run reason query : " << command;
    if (query.short_query)
      add_vpn_log(query.with_reason());
    log_queries.pop_front();
  }
}

void VPNConnDataAgg::handle_async_results() {
  if (log_queries.empty())
    return;
  ConnLog& query = log_queries.front();
  if (state == async_state::failed) {
    SUP_LOG(logger(), log_level::warning)
        << "Failed to get pluto log failure reason for \"" << query.conn_name << "\"";
    query.reason = "unknown";
    query.log_text = "failed to execute";
  } else if (result == "unknown") {
    SUP_LOG(logger(), log_level::warning)
        << "Pluto failure reason not found for \"" << query.conn_name << "\"";
    query.reason = "unknown";
    query.log_text = "no match";
  } else {
    parse_reason();
  }
  finish_incident_handling();
}

void VPNConnDataAgg::parse_reason() {
  std::vector<std::string> lines;
  Helper::deserialize_strings(result, lines, '\n');
  if (lines.size() < 2) {
    SUP_LOG(logger(), log_level::error) << "Bad output from ipsec fail reason parser!";
    return;
  }
  log_queries.front().log_text = std::move(lines[0]);
  log_queries.front().reason = std::move(lines[1]);
}

void VPNConnDataAgg::finish_incident_handling() {
  const ConnLog& query = log_queries.front();
  if (query.short_query || query.log_text != "no match") {
    std::list<ConnLog>& of_connection = incidents[query.conn_name];
    of_connection.push_back(query);
    if (of_connection.size() > max_incidents)
      of_connection.pop_front();
  }
  if (query.short_query)
    add_vpn_log(query.with_reason());
  log_queries.pop_front();
  start_new_log_query();
}

}  // namespace zol
