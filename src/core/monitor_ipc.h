// What the monitor hears over IPC: one handler a message type.
#pragma once

#include "core/ipc_messages.h"
#include "core/ipc_socket.h"
#include "core/monitor_context.h"

namespace zol_monitor {

// Checks each message's type and size and calls its handler. A message that is too short, or of a type that
// the monitor doesn't take, is logged and dropped. Handlers get a pointer into the read buffer, at any
// alignment, and don't keep it.
class MonitorIPC : public zol::IPCSocket, public MonitorContext {
 public:
  void handle_ipc_msg(const unsigned char* data, unsigned long size) override;
  ~MonitorIPC() override = default;

  virtual void reload_conf_notify(ipcmsg_t* msg) = 0;
  virtual void term_notify(ipcmsg_t* msg) = 0;
  virtual void failure_notify(ipc_failure_msg_t* msg) = 0;
  virtual void failopen_notify(ipc_failopen_msg_t* msg) = 0;
  virtual void session_identification_notify(ipc_session_identification_msg_t* msg) = 0;
  virtual void tcp_conn_diag_info_notify(ipc_tcp_conn_diag_info_msg_t* msg) = 0;
  virtual void dump_session_notify(ipcmsg_t* msg) = 0;
  virtual void set_out_failure_reason_notify(msgtyp_failure_reason_msg_t* msg) = 0;
  virtual void invalid_public_host_notify(ipcmsg_t* msg) = 0;
  virtual void http_msg_notify(msgtyp_http_notification_t* msg) = 0;
  virtual void bh_event_notify(ipc_bh_event_msg_t* msg) = 0;
  virtual void bgp_provider_fail_notify(ipc_bgp_provider_fail_msg_t* msg) = 0;
  virtual void next_hop_api_event(ipcmsg_t* msg) = 0;
  virtual void ignored_session_info(ipc_ignored_session_info_msg_t* msg) = 0;
  virtual void wanp_tcp_pool_stats(ipc_tcp_pool_stats_msg_t* msg) = 0;
  virtual void routing_anomaly_notify(ipc_routing_anomaly_msg_t* msg) = 0;
  virtual void vpn_log_cli(ipcmsg_t* msg) = 0;
  virtual void vpn_info_cli(ipcmsg_t* msg) = 0;
};

}  // namespace zol_monitor
