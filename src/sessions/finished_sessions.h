// The sessions that have ended, as records of the session report that waits to be sent.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "sessions/session_info.h"
#include "variant.h"

namespace zol {
class Services;
}

namespace zol_monitor {

class MonitorData;
class ZOLSessions;

// Fills at the end of sessions, empties at each session report. Main thread only.
class FinishedSessionsInfo {
 public:
  FinishedSessionsInfo();

  // Appends the session's record. A session that is incomplete (with Monitoring.report_incomplete_sessions
  // off) or ignored is counted and dropped; any other is reported whatever verify_session_info finds.
  void insert_session(const std::shared_ptr<SessionInfo>& session, zol::Services* services,
                      const std::string& next_hop, const std::string& next_hop_cname);
  // In GXE mode the record goes out under the network "Dummy" and uncounted.
  void insert_non_tcp_session(const std::shared_ptr<NonTCPSessionInfo>& session);

  // Whether the TCP records have reached Monitoring.session_report_max_sessions; 0 is no limit.
  bool is_max_sessions_reached() const;
  // Whether the proxy never got the Out connection up.
  bool is_session_incomplete(const std::shared_ptr<SessionInfo>& session) const;
  // Warns of the first missing time or reason, and of times that don't fit together. Changes nothing.
  void verify_session_info(const std::shared_ptr<SessionInfo>& session, const std::string& session_id) const;
  // The report's text of a reason; a FIN or RST reads "Sent" on one leg and "Received" on the other.
  const char* termination_reason_to_string(SessionTerminationReason reason, bool is_in_leg) const;

  // Empties the list and zeroes the counters.
  void clear();

  libvariant::Variant sessions;      // a list
  std::uint64_t reported_count = 0;  // TCP records since the last clear
  std::uint64_t incomplete_count = 0;
  std::uint64_t ignored_count = 0;
  std::uint64_t non_tcp_count = 0;  // not counted in GXE mode
};

// The list for the session report: dead non-TCP flows are added first, then the list moves to the caller; the
// counters stay until the table's finished sessions are cleared. With Monitoring.session_report_is_enabled
// off, the list is empty and what had finished is dropped.
libvariant::Variant take_sessions_report(ZOLSessions& sessions);

// The reporter's view of the finished sessions.
class ZolSessionsReport {
 public:
  explicit ZolSessionsReport(MonitorData* data);  // not owned
  virtual ~ZolSessionsReport();

  libvariant::Variant generate_sessions_report();
  // Called once the report has been serialised.
  void clean_finished_sessions();

 private:
  MonitorData* data_;
};

}  // namespace zol_monitor
