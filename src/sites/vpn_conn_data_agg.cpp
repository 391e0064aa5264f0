#include "sites/vpn_conn_data_agg.h"

#include <libgen.h>
#include <unistd.h>

#include <cerrno>

#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr std::uint64_t minute_ms = 60000;
constexpr std::uint64_t probe_after_minute_ms = 10000;
constexpr std::size_t max_executable_path = 4096;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("VPNConnDataAgg");
  return instance;
}

std::string executable_folder() {
  std::string path = std::string(program_invocation_name).substr(0, max_executable_path);
  return dirname(path.data());
}

}  // namespace

VPNConnDataAgg::VPNConnDataAgg()
    : AsyncExecutor(nullptr, 0),
      minute_timer(passed_minute_failures_cb, this, -1),
      log_path(executable_folder() + "/vpnconn.log") {
  VPNConnDataAgg::sigchld_register(this);
  load_vpn_log();
  add_vpn_log(Helper::get_timestamp_gmt_format() + " VPN Log Started");
  charge_minute_timer();
}

VPNConnDataAgg::~VPNConnDataAgg() {
  if (state == async_state::running) {
    terminate();
    unlink(output_path.c_str());
  }
  VPNConnDataAgg::sigchld_unregister(this);
  for (const ConnLog& query : log_queries) {
    if (query.short_query)
      add_vpn_log(query.log);
  }
  add_vpn_log(Helper::get_timestamp_gmt_format() + " VPN Log Stopped");
}

void VPNConnDataAgg::sigchld_register(SigChildHandler* handler) {
  sigchild_handler_register(handler);
}

void VPNConnDataAgg::sigchld_unregister(SigChildHandler* handler) {
  sigchild_handler_unregister(handler);
}

libvariant::Variant VPNConnDataAgg::add_info(const std::string&) const {
  return {};
}

libvariant::Variant VPNConnDataAgg::add_info(const std::string&, std::string entry_key) const {
  const auto found = incidents.find(entry_key);
  if (found == incidents.end())
    return {};
  auto list = libvariant::Variant::make_list();
  for (const ConnLog& incident : found->second) {
    libvariant::Variant entry;
    entry.Set("timestamp", Helper::get_timestamp_gmt_format_ms(incident.timestamp_ms));
    entry.Set("log_text", incident.log_text);
    entry.Set("reason", incident.reason);
    list.Append(std::move(entry));
  }
  libvariant::Variant info;
  info.Set("incidents", std::move(list));
  return info;
}

std::string VPNConnDataAgg::gen_entry_key(const VPNConnInfo& conn) const {
  return conn.get_connection_name();
}

void VPNConnDataAgg::clear_tick() {
  for (auto& [right_id, data] : conn_data)
    data.ticked = false;
}

void VPNConnDataAgg::tick(const VPNConnInfo& info) {
  ConnData& data = conn_data[info.right_id];  // a new one is down
  if (info.state != data.info.state)
    add_vpn_log(info, data.info.state);
  ++data.total_ticks;
  data.ticked = true;
  if (info.state == Established)
    ++data.connected_ticks;
  data.info = info;
}

void VPNConnDataAgg::set_conn_disconnected() {
  for (auto& [right_id, data] : conn_data) {
    if (data.ticked || data.info.state != Established)
      continue;
    data.info.state = Disconnected;
    add_vpn_log(data.info, Established);
  }
}

double VPNConnDataAgg::get_conn_pct(const VPNConnInfo& info) const {
  const auto found = conn_data.find(info.right_id);
  if (found == conn_data.end() || found->second.total_ticks == 0)
    return 0.0;
  return static_cast<double>(found->second.connected_ticks) / found->second.total_ticks;
}

void VPNConnDataAgg::clear() {
  // One that comes back is a new one then, which is down as well.
  std::erase_if(conn_data, [](const auto& entry) {
    return !entry.second.ticked && entry.second.info.state == Disconnected;
  });
  for (auto& [right_id, data] : conn_data)
    data.connected_ticks = data.total_ticks = 0;
  incidents.clear();
}

void VPNConnDataAgg::passed_minute_failures_cb(int, short, void* self) {
  static_cast<VPNConnDataAgg*>(self)->get_passed_minute_failures();
}

void VPNConnDataAgg::get_passed_minute_failures() {
  if (log_queries.empty()) {
    const std::uint64_t now_ms = Helper::get_timestamp_ms();
    for (const auto& [right_id, data] : conn_data) {
      if (data.info.state == Established || data.info.protocol != "ipsec")
        continue;
      ConnLog query;
      query.conn_name = data.info.get_connection_name();
      query.timestamp_ms = now_ms;
      log_queries.push_back(std::move(query));
    }
    if (!log_queries.empty())
      SUP_LOG(logger(), log_level::info) << "Checking pluto failures in the passed minute";
    start_new_log_query();
  }
  charge_minute_timer();
}

void VPNConnDataAgg::charge_minute_timer() {
  const std::uint64_t into_minute_ms = Helper::get_timestamp_ms() % minute_ms;
  minute_timer.charge(static_cast<unsigned>(minute_ms + probe_after_minute_ms - into_minute_ms));
}

}  // namespace zol
