#include "core/monitor_ipc.h"

#include <cstring>

#include "sup_logger.h"

namespace zol_monitor {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("MonitorIPC");
  return instance;
}

}  // namespace

void MonitorIPC::handle_ipc_msg(const unsigned char* data, unsigned long size) {
  if (size < sizeof(ipcmsg_t)) {
    SUP_LOG(logger(), log_level::warning)
        << "handle_ipc_msg: incoming message size (" << size << ") is too small.";
    return;
  }
  const auto taken = [this, data, size](auto handler, msgtype_e type) {
    return parse_msg(handler, msgtype_value(type), data, size);
  };
  const bool done = taken(&MonitorIPC::reload_conf_notify, msgtype_e::reloadconf) ||
                    taken(&MonitorIPC::term_notify, msgtype_e::terminate) ||
                    taken(&MonitorIPC::failure_notify, msgtype_e::failure) ||
                    taken(&MonitorIPC::failopen_notify, msgtype_e::failopen) ||
                    taken(&MonitorIPC::session_identification_notify, msgtype_e::session_identification) ||
                    taken(&MonitorIPC::tcp_conn_diag_info_notify, msgtype_e::tcp_conn_diag_info) ||
                    taken(&MonitorIPC::dump_session_notify, msgtype_e::dump_session_info) ||
                    taken(&MonitorIPC::set_out_failure_reason_notify, msgtype_e::termination_reason) ||
                    taken(&MonitorIPC::invalid_public_host_notify, msgtype_e::invalid_public_host) ||
                    taken(&MonitorIPC::bh_event_notify, msgtype_e::black_hole_event) ||
                    taken(&MonitorIPC::next_hop_api_event, msgtype_e::next_hop_api_event) ||
                    taken(&MonitorIPC::ignored_session_info, msgtype_e::ignored_session_info) ||
                    taken(&MonitorIPC::wanp_tcp_pool_stats, msgtype_e::tcp_pool_stats) ||
                    taken(&MonitorIPC::http_msg_notify, msgtype_e::http_notification) ||
                    taken(&MonitorIPC::bgp_provider_fail_notify, msgtype_e::bgp_provider_fail) ||
                    taken(&MonitorIPC::routing_anomaly_notify, msgtype_e::routing_anomaly) ||
                    taken(&MonitorIPC::vpn_log_cli, msgtype_e::vpn_log) ||
                    taken(&MonitorIPC::vpn_info_cli, msgtype_e::vpn_info);
  if (done)
    return;
  unsigned short type = 0;
  std::memcpy(&type, data + offsetof(ipcmsg_t, type), sizeof type);
  SUP_LOG(logger(), log_level::warning) << "handle_ipc_msg: unsupported message type: " << type;
}

}  // namespace zol_monitor
