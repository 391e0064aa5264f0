#include <utility>

#include "config/zol_conf_consts.h"
#include "sessions/finished_sessions.h"
#include "sessions/settings.h"
#include "sessions/zol_monitor_data.h"
#include "sup_logger.h"

namespace zol_monitor {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("ZolSessionsReport");
  return instance;
}

bool lookup_bool(const char* key, bool value) {
  lookup_setting(key, value);
  return value;
}

void log_counts(const FinishedSessionsInfo& finished) {
  SUP_LOG(logger(), log_level::info) << "generate_sessions_report"
                                     << ": Number of reported sessions: "
                                     << finished.reported_count + finished.non_tcp_count;
  if (!lookup_bool(zol_conf_consts::monitoring_report_incomplete_sessions_key, true))
    SUP_LOG(logger(), log_level::info)
        << "generate_sessions_report"
        << ": Number of incomplete sessions that were not reported: " << finished.incomplete_count;
  if (finished.ignored_count != 0)
    SUP_LOG(logger(), log_level::debug) << "generate_sessions_report"
                                        << ": Number of ignored sessions: " << finished.ignored_count;
}

}  // namespace

libvariant::Variant take_sessions_report(ZOLSessions& sessions) {
  sessions.update_non_tcp_sessions();
  FinishedSessionsInfo& finished = sessions.finished_sessions;
  if (!lookup_bool(zol_conf_consts::monitoring_session_report_is_enabled_key, false)) {
    finished.clear();
    SUP_LOG(logger(), log_level::debug) << "generate_sessions_report"
                                        << ": sessions report is disabled, not sending report";
    return libvariant::Variant::make_list();
  }
  log_counts(finished);
  return std::exchange(finished.sessions, libvariant::Variant::make_list());
}

ZolSessionsReport::ZolSessionsReport(MonitorData* data) : data_(data) {}

ZolSessionsReport::~ZolSessionsReport() = default;

libvariant::Variant ZolSessionsReport::generate_sessions_report() {
  return take_sessions_report(data_->sessions);
}

void ZolSessionsReport::clean_finished_sessions() {
  data_->sessions.finished_sessions.clear();
}

}  // namespace zol_monitor
