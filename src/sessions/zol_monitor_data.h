// What the daemon knows of the node's traffic: the session table, the conntrack reader and the socket table.
#pragma once

#include <cstdint>

#include "conntrack/conntrack.h"
#include "core/monitor_context.h"
#include "sessions/tcp_diag_info.h"
#include "sessions/zol_sessions.h"

namespace zol {
class Services;
class SiteServicesBase;
}  // namespace zol

namespace zol_monitor {

class ConntrackStatesManager;

// Main thread only. The pointers are not owned and outlive the object.
class MonitorData {
 public:
  MonitorData(zol::Services* services, zol::SiteServicesBase* site_services, MonitorContext* context,
              bool tcp_diag_enabled);
  virtual ~MonitorData();
  MonitorData(const MonitorData&) = delete;
  MonitorData& operator=(const MonitorData&) = delete;

  zol::Services* services;
  zol::SiteServicesBase* site_services;
  // The memory of connection counters; null until the monitor has made it, and again when it goes.
  ConntrackStatesManager* states_manager = nullptr;
  ZOLSessions sessions;
  ConntrackEvents conntrack;
  TCPDiagInfo tcp_diag;
};

}  // namespace zol_monitor
