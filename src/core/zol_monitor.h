// The daemon's one top-level object, and the process-wide pieces around it.
#pragma once

#include <memory>
#include <string>

#include "core/monitor.h"
#include "probes/station_monitor.h"

namespace zol_monitor {

class ConntrackStatesManager;

// The monitor of this node: Monitor, opened on the node's IPC, with the messages that concern the process
// itself and those that become events.
class ZOLMonitor : public Monitor {
 public:
  explicit ZOLMonitor(const std::string& node_id);
  ~ZOLMonitor() override;

  // Opens the IPC endpoint "zol_monitor". A failure is logged and leaves the descriptor negative: no message
  // arrives then and no health beat leaves.
  void init_socket();
  // One health beat to "watchdog".
  void send_health();

  void reload_conf_notify(ipcmsg_t* msg) override;
  void term_notify(ipcmsg_t* msg) override;
  void failure_notify(ipc_failure_msg_t* msg) override;
  void failopen_notify(ipc_failopen_msg_t* msg) override;
  void bh_event_notify(ipc_bh_event_msg_t* msg) override;
  void bgp_provider_fail_notify(ipc_bgp_provider_fail_msg_t* msg) override;
  void next_hop_api_event(ipcmsg_t* msg) override;
  void routing_anomaly_notify(ipc_routing_anomaly_msg_t* msg) override;
  void vpn_log_cli(ipcmsg_t* msg) override;
  void vpn_info_cli(ipcmsg_t* msg) override;

 private:
  std::string node_id_;
  StationMonitor station_monitor_;
  std::unique_ptr<ConntrackStatesManager> owned_states_manager_;  // MonitorData::states_manager
};

// Hands General.ipc_write_sleep_time_us to the IPC library; -1 when it is missing, with an error line.
void apply_ipc_sleep_time();

// Reads the log's settings anew; the process entry holds the log.
void reload_logging();

}  // namespace zol_monitor
