// The monitor: what is heard over IPC, what is known of the traffic, and the three reports made of it.
#pragma once

#include "core/monitor_ipc.h"
#include "core/reporter_context.h"
#include "sessions/sessions_events.h"
#include "sessions/zol_monitor_data.h"

namespace zol {
class ISiteAdditionalInfo;
class Services;
class SiteServicesBase;
}  // namespace zol

namespace zol_monitor {

// Feeds the session table from the proxy's messages and schedules the reports. Main thread only.
class Monitor : public MonitorIPC, public MonitorData, public ISessionsEvents {
 public:
  // The arguments are not owned and outlive the object; `site_info` adds its keys to each connection of the
  // periodic report and may be null. Throws std::runtime_error when a critical key is missing.
  Monitor(zol::Services* services, zol::SiteServicesBase* site_services, zol::ISiteAdditionalInfo* site_info,
          bool tcp_diag_enabled);
  ~Monitor() override;

  // Creates the three reporters, which live until uninit_reporter.
  void init_reporter();
  void uninit_reporter();
  // Charges each reporter that isn't charged; one that is keeps its running cycle.
  void charge_reporter();
  // While the reports are disabled, asks whether this version is the one that should work again, and charges
  // the reporters then: no cycle of theirs runs that would ask. Called with each health beat.
  void resume_reports();

  void session_identification_notify(ipc_session_identification_msg_t* msg) override;
  void tcp_conn_diag_info_notify(ipc_tcp_conn_diag_info_msg_t* msg) override;
  void dump_session_notify(ipcmsg_t* msg) override;
  void set_out_failure_reason_notify(msgtyp_failure_reason_msg_t* msg) override;
  void invalid_public_host_notify(ipcmsg_t* msg) override;
  void http_msg_notify(msgtyp_http_notification_t* msg) override;
  void ignored_session_info(ipc_ignored_session_info_msg_t* msg) override;
  void wanp_tcp_pool_stats(ipc_tcp_pool_stats_msg_t* msg) override;

  void stop() override;
  void start() override;
  void max_sessions_notify() override;

 protected:
  // Given at construction, or by a deriving class before init_reporter.
  zol::ISiteAdditionalInfo* site_info_;
  ReporterContext periodic_;
  ReporterContext traffic_;
  ReporterContext sessions_context_;
};

}  // namespace zol_monitor
