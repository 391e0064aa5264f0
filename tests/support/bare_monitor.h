// A Monitor whose messages about the process itself go nowhere: the session side whole, for tests, benchmarks
// and fuzz targets. Needs a configuration, and a loop when timers are to run.
#pragma once

#include "core/monitor.h"

namespace zol_test {

class BareMonitor : public zol_monitor::Monitor {
 public:
  using Monitor::Monitor;

  void reload_conf_notify(ipcmsg_t*) override { ++reloads; }
  void term_notify(ipcmsg_t*) override { ++terminations; }
  void failure_notify(ipc_failure_msg_t*) override {}
  void failopen_notify(ipc_failopen_msg_t*) override {}
  void bh_event_notify(ipc_bh_event_msg_t*) override {}
  void bgp_provider_fail_notify(ipc_bgp_provider_fail_msg_t*) override {}
  void next_hop_api_event(ipcmsg_t*) override {}
  void routing_anomaly_notify(ipc_routing_anomaly_msg_t*) override {}
  void vpn_log_cli(ipcmsg_t*) override {}
  void vpn_info_cli(ipcmsg_t*) override {}

  zol_monitor::ReporterContext& periodic() { return periodic_; }
  zol_monitor::ReporterContext& traffic() { return traffic_; }
  zol_monitor::ReporterContext& sessions_context() { return sessions_context_; }

  int reloads = 0;
  int terminations = 0;
};

}  // namespace zol_test
