// The proxy's messages about sessions, turned into operations on the session table.
#include <arpa/inet.h>
#include <uuid/uuid.h>

#include <cstring>
#include <string>
#include <string_view>

#include "core/monitor.h"
#include "shared_object.h"
#include "shared_records.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Monitor");
  return instance;
}

// The text of a fixed field, whether the sender terminated it or not.
template <std::size_t Size>
std::string_view field_text(const char (&field)[Size]) {
  return {field, strnlen(field, Size)};
}

std::string uuid_text(const unsigned char* uuid) {
  char text[UUID_STR_LEN];
  uuid_unparse(uuid, text);
  return text;
}

void log_diagnostics(const ipc_tcp_conn_diag_info_msg_t& msg, const tcp_info& info) {
  SUP_LOG(logger(), log_level::debug)
      << "diagnostics report from wanproxy: " << (msg.outbound != 0 ? "outbound" : "inbound") << " ip: ["
      << zol::Helper::make_anonymous_address(msg.ip) << ":" << ntohs(msg.port)
      << "] Session_ID: " << uuid_text(msg.uuid) << "  rtt: " << info.tcpi_rtt / 1000.0
      << " ms retrans: " << info.tcpi_total_retrans << " read idle: " << +msg.read_idle_ms
      << "ms. write congestion: " << +msg.write_congestion_ms << "ms";
}

}  // namespace

void Monitor::session_identification_notify(ipc_session_identification_msg_t* msg) {
  sessions.set_session_identification(
      msg->outbound != 0, msg->address1, ntohs(msg->port1), msg->address2, ntohs(msg->port2), msg->uuid,
      msg->client_address, ntohs(msg->client_port), msg->service_port, msg->destination_address, msg->retries,
      msg->hop_order, msg->failopen != 0, field_text(msg->user_agent), field_text(msg->domain_name),
      msg->recover != 0, msg->target_address, ntohs(msg->target_port));
}

void Monitor::tcp_conn_diag_info_notify(ipc_tcp_conn_diag_info_msg_t* msg) {
  if (reports_disabled) {
    SUP_LOG(logger(), log_level::debug) << "tcp_conn_diag_info_notify"
                                        << ": reports disabled";
    return;
  }
  tcp_info info{};  // the record holds the first bytes of the kernel's structure
  std::memcpy(&info, msg->info, sizeof msg->info);
  log_diagnostics(*msg, info);
  if (msg->outbound != 0)
    sessions.set_out_stats(msg->ip, ntohs(msg->port), msg->uuid, info, msg->read_idle_ms,
                           msg->write_congestion_ms);
  else
    sessions.set_in_stats(msg->ip, ntohs(msg->port), msg->uuid, info, msg->read_idle_ms,
                          msg->write_congestion_ms);
  zol_utils::with_locked_record<zol_utils::ZolStatusData>(
      "tcp_conn_diag_info_notify",
      [&info](zol_utils::ZolStatusData& status) { status.total_retransmissions += info.tcpi_total_retrans; });
}

void Monitor::dump_session_notify(ipcmsg_t*) {
  sessions.dump();
}

void Monitor::set_out_failure_reason_notify(msgtyp_failure_reason_msg_t* msg) {
  if (msg->failure_reason == 0) {
    SUP_LOG(logger(), log_level::warning) << "set_out_failure_reason_notify"
                                          << " Got unknown termination reason";
    return;
  }
  zol::FailureInfo info{};
  info.address = msg->failed_address;
  info.port = msg->failed_port;  // as it stands in the record
  info.reason = static_cast<zol::failure_reason_t>(msg->failure_reason);
  sessions.set_out_termination_reason(msg->ip, ntohs(msg->port), msg->uuid, info);
}

void Monitor::invalid_public_host_notify(ipcmsg_t*) {
  sessions.error_counters.update_counters(zol::FR_INVALID_HOST);
}

void Monitor::http_msg_notify(msgtyp_http_notification_t* msg) {
  sessions.update_http_counters(msg->uuid, static_cast<zol::http_notification_t>(msg->notification));
}

void Monitor::ignored_session_info(ipc_ignored_session_info_msg_t* msg) {
  sessions.ignored_session_info(msg->uuid);
}

void Monitor::wanp_tcp_pool_stats(ipc_tcp_pool_stats_msg_t* msg) {
  SUP_LOG(logger(), log_level::debug) << "wanp_tcp_pool_stats"
                                      << " Received IPC msg";
  zol_utils::with_locked_record<zol_utils::ZolStatusData>(
      "wanp_tcp_pool_stats", [msg](zol_utils::ZolStatusData& status) {
        for (std::size_t i = 0; i < std::size(msg->counters); ++i)
          status.tcp_pool_counters[i] += msg->counters[i];
      });
}

}  // namespace zol_monitor
