#include "sessions/finished_sessions.h"

#include <cmath>

#include "config/cached_setting.h"
#include "config/zol_conf_consts.h"
#include "sessions/session_report_records.h"
#include "sessions/sessions_log.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

constexpr double max_end_time_gap_ms = 60000;
constexpr double max_end_time_age_ms = 43200000;  // 12 hours

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("FinishedSessionsInfo");
  return instance;
}

// What is missing, of what every reported session should have; null when nothing is.
const char* missing_part(const SessionInfo& session) {
  if (session.start_time_ms == 0)
    return " verification error: Missing session start time";
  if (session.in->end_time_ms == 0)
    return " verification error: Missing session end time on IN interface";
  if (session.out->end_time_ms == 0)
    return " verification error: Missing session end time on OUT interface";
  if (session.in->termination_reason == STR_NONE)
    return " verification error: Missing session termination reason on IN interface";
  if (session.out->termination_reason == STR_NONE)
    return " verification error: Missing session termination reason on OUT interface";
  return nullptr;
}

double time_difference(std::uint64_t one, std::uint64_t other) {
  return std::abs(static_cast<double>(one) - static_cast<double>(other));
}

void verify_leg_age(const SessionInfo& session, const std::string& session_id, std::uint64_t now,
                    const SessionEndpointInfo& leg, const char* text) {
  const double age = time_difference(now, leg.end_time_ms);
  if (age <= max_end_time_age_ms)
    return;
  SUP_LOG(logger(), log_level::warning)
      << "verify_session_info"
      << " Session ID: " << session_id << " verification error: " << text << static_cast<std::int64_t>(age)
      << "( Bigger then " << static_cast<std::int64_t>(max_end_time_age_ms) << " )";
  SUP_LOG(logger(), log_level::warning)
      << "verify_session_info"
      << " Session ID: " << session_id
      << " Printing session info: " << log_peer(session.client_ip, session.client_port);
}

}  // namespace

FinishedSessionsInfo::FinishedSessionsInfo() : sessions(libvariant::Variant::make_list()) {}

void FinishedSessionsInfo::insert_session(const std::shared_ptr<SessionInfo>& session,
                                          zol::Services* services, const std::string& next_hop,
                                          const std::string& next_hop_cname) {
  static zol::CachedSetting<bool> report_incomplete_setting(
      zol_conf_consts::monitoring_report_incomplete_sessions_key);
  bool report_incomplete = true;
  report_incomplete_setting.lookup(report_incomplete);
  if (!report_incomplete && is_session_incomplete(session)) {
    ++incomplete_count;
    return;
  }
  if (session->ignored) {
    ++ignored_count;
    return;
  }
  const std::string session_id = uuid_text(session->session_id);
  verify_session_info(session, session_id);
  libvariant::Variant record =
      make_session_record(*this, *session, session_id, services, next_hop, next_hop_cname);
  ++reported_count;
  sessions.Append(std::move(record));
}

void FinishedSessionsInfo::insert_non_tcp_session(const std::shared_ptr<NonTCPSessionInfo>& session) {
  const bool is_gxe = zol::Helper::is_middle_mile_network();
  if (!is_gxe)
    ++non_tcp_count;
  sessions.Append(make_non_tcp_record(*session, is_gxe));
}

bool FinishedSessionsInfo::is_max_sessions_reached() const {
  static zol::CachedSetting<unsigned> max_sessions_setting(
      zol_conf_consts::monitoring_session_report_max_sessions_key);
  unsigned max_sessions = 0;
  max_sessions_setting.lookup(max_sessions);
  return max_sessions != 0 && reported_count >= max_sessions;
}

bool FinishedSessionsInfo::is_session_incomplete(const std::shared_ptr<SessionInfo>& session) const {
  const SessionTerminationReason reason = session->out->termination_reason;
  if (reason > STR_CONNECTION_REFUSED) {
    SUP_LOG(logger(), log_level::error) << "is_session_incomplete"
                                        << " wrong value for termination reason: " << +reason;
    return false;
  }
  return reason >= STR_RESOLUTION_FAILURE;
}

void FinishedSessionsInfo::verify_session_info(const std::shared_ptr<SessionInfo>& session,
                                               const std::string& session_id) const {
  if (!logger().is_warning_enabled())
    return;
  if (const char* missing = missing_part(*session)) {
    SUP_LOG(logger(), log_level::warning) << "verify_session_info"
                                          << " Session ID: " << session_id << missing;
    return;
  }
  const double gap = time_difference(session->in->end_time_ms, session->out->end_time_ms);
  if (gap > max_end_time_gap_ms) {
    SUP_LOG(logger(), log_level::warning)
        << "verify_session_info"
        << " Session ID: " << session_id << " verification error: "
        << " End-time diff value between IN and OUT interface is out of sync: "
        << static_cast<std::int64_t>(gap) << " ( Bigger then "
        << static_cast<std::int64_t>(max_end_time_gap_ms) << " )";
  }
  const std::uint64_t now = zol::Helper::get_timestamp_ms();
  verify_leg_age(*session, session_id, now, *session->in,
                 "End time on IN interface is out of sync with the current time: ");
  verify_leg_age(*session, session_id, now, *session->out,
                 "End time on OUT interface is out of sync with the current time: ");
}

const char* FinishedSessionsInfo::termination_reason_to_string(SessionTerminationReason reason,
                                                               bool is_in_leg) const {
  switch (reason) {
    case STR_NONE:
      SUP_LOG(logger(), log_level::debug) << "Reporting session with unknown termination reason";
      return "Unknown";
    case STR_FIN_FROM_TARGET_SIDE:
      return is_in_leg ? "FIN Sent" : "FIN Received";
    case STR_FIN_FROM_CLIENT_SIDE:
      return is_in_leg ? "FIN Received" : "FIN Sent";
    case STR_RST_FROM_TARGET_SIDE:
      return is_in_leg ? "RST Sent" : "RST Received";
    case STR_RST_FROM_CLIENT_SIDE:
      return is_in_leg ? "RST Received" : "RST Sent";
    case STR_RESOLUTION_FAILURE:
      return "Resolution Failure";
    case STR_CONNECTION_TIMEOUT:
      return "Connection TimeOut";
    case STR_CONNECTION_REFUSED:
      return "Connection Refused";
  }
  SUP_LOG(logger(), log_level::error) << "termination_reason_to_string"
                                      << " wrong value for termination reason: " << +reason;
  return "Unknown";
}

void FinishedSessionsInfo::clear() {
  sessions = libvariant::Variant::make_list();
  reported_count = 0;
  incomplete_count = 0;
  ignored_count = 0;
  non_tcp_count = 0;
}

}  // namespace zol_monitor
