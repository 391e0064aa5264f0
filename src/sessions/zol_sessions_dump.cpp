// The table in the log.
#include "sessions/sessions_log.h"
#include "sessions/zol_sessions.h"

namespace zol_monitor {

namespace {

void log_heading(const char* heading) {
  SUP_LOG(sessions_logger(), log_level::info) << heading;
}

void log_leg(std::uint64_t key, const SessionInfo& session) {
  SUP_LOG(sessions_logger(), log_level::info) << "0x" << std::hex << key << std::dec << ": Info Addr "
                                              << static_cast<const void*>(&session) << session;
}

template <typename Record>
void log_record(const std::string& key, const Record& record) {
  SUP_LOG(sessions_logger(), log_level::info)
      << key << ": Info Addr " << static_cast<const void*>(&record) << " " << record;
}

}  // namespace

void ZOLSessions::dump() const {
  if (!sessions_logger().is_info_enabled())
    return;
  log_heading("ZOL Sessions Dump");
  log_heading("------------------");
  log_heading("By In Address");
  for (const auto& [key, session] : in_sessions)
    log_leg(key, *session);
  log_heading("By Out Address");
  for (const auto& [outer_key, inner] : out_sessions)
    for (const auto& [key, session] : inner)
      log_leg(key, *session);
  log_heading("UDP Sessions");
  for (const auto& [key, session] : non_tcp_sessions)
    log_record(key, *session);
  log_heading("By Session-ID Address");
  for (const auto& [id, session] : sessions_by_id)
    log_record(uuid_text(session->session_id), *session);
}

}  // namespace zol_monitor
