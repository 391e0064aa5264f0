// When a report is made, how its transfer is driven, and how often it is tried again.
#pragma once

#include <cstdint>
#include <string>

#include "core/zol_libevent.h"

namespace zol_monitor {

class MonitorContext;
class Reporter;

// Set while another installed version of the software is the active one: nothing is reported then.
extern bool reports_disabled;
// When update_dual_zol_state has looked last, by the wall clock.
extern std::uint64_t last_dual_check_ms;

// The scheduler of one reporter. A cycle goes idle, charged, sending, polling, and back to charged; the next
// cycle is charged before the present report is made, so that a period runs from start to start.
//
// Main thread only. The reporter is created and deleted by Monitor.
class ReporterContext {
 public:
  // With `read_retries`, throws std::runtime_error when Monitoring.reporter_total_retries is missing.
  ReporterContext(MonitorContext* context, const std::string& name, bool read_retries);
  ~ReporterContext();
  ReporterContext(const ReporterContext&) = delete;
  ReporterContext& operator=(const ReporterContext&) = delete;

  // Charges the send timer with the period that `resolution_key` names; period 0 switches the reporter off.
  // With `initial` the delay is random below the period, so that the nodes of a network don't report all at
  // once. Throws std::runtime_error when the key is missing.
  void charge_reporter(bool initial);
  // Throws std::runtime_error when Monitoring.polling_rate_ms is missing.
  void charge_poll_send_report();

  // While the last report is under way none is made, with a notice.
  void send_report(int fd, short events);
  // Throws std::runtime_error when libcurl refuses to go on.
  void poll_send_report(int fd, short events);

  static void send_report_cb(int fd, short events, void* self);
  static void poll_send_report_cb(int fd, short events, void* self);

  // Asks, every 5 seconds at most, whether this version is the one that should work, and starts or stops the
  // context on a change.
  static void update_dual_zol_state(MonitorContext* context);

  // Stores the time of the last accepted report in the node's status record.
  void save_last_successful_report_sent();

  Reporter* reporter = nullptr;
  const char* resolution_key = nullptr;
  zol::ZOLEventLibEventTimer send_timer;
  zol::ZOLEventLibEventTimer poll_timer;
  bool charged = false;            // by the last charge_reporter
  std::int32_t total_retries = 0;  // Monitoring.reporter_total_retries
  std::int32_t attempts = 0;       // retries made for the present report
  std::string name;
  MonitorContext* context;
  bool compress = false;  // Monitoring.compress_report
};

}  // namespace zol_monitor
