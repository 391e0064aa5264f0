#include "sessions/zol_sessions.h"

#include "sessions/sessions_log.h"
#include "sessions/settings.h"

namespace zol_monitor {

ZOLSessions::ZOLSessions(zol::Services* services_in, zol::SiteServicesBase* site_services_in)
    : services(services_in), site_services(site_services_in) {}

ZOLSessions::~ZOLSessions() = default;

SessionPtr ZOLSessions::create(const unsigned char* uuid, std::uint32_t client_address,
                               std::uint16_t client_port) {
  auto session = std::make_shared<SessionInfo>(uuid, client_address, client_port);
  session->set_vpn_data(site_services);
  SessionPtr& listed = sessions_by_id[SessionId(uuid)];
  if (listed)
    unlist(*listed);
  listed = session;
  news_.add(*session);
  SUP_LOG(sessions_logger(), log_level::debug)
      << "Creating new session info. ID: " << uuid_text(uuid)
      << " for client: " << log_peer(client_address, client_port) << ".";
  return session;
}

void ZOLSessions::count_out_entry(SessionInfo& session) {
  ++session.out_entries;
  if (session.unlisted)
    ++unlisted_out_entries_;
}

void ZOLSessions::uncount_out_entry(SessionInfo& session) {
  --session.out_entries;
  if (session.unlisted)
    --unlisted_out_entries_;
}

void ZOLSessions::unlist(SessionInfo& session) {
  if (session.unlisted)
    return;
  session.unlisted = true;
  unlisted_out_entries_ += session.out_entries;
}

void ZOLSessions::erase_if_unused(const std::weak_ptr<SessionInfo>& unused) {
  const SessionPtr session = unused.lock();
  if (!session || !session->in->is_erased || !session->out->is_erased)
    return;
  const auto listed = sessions_by_id.find(SessionId(session->session_id));
  if (listed != sessions_by_id.end() && listed->second == session)
    sessions_by_id.erase(listed);
  unlist(*session);
  if (session->network_id.empty() || session->in->address == 0)
    SUP_LOG(sessions_logger(), log_level::error) << "erase_if_unused"
                                                 << " Problematic session info: " << *session;
  if (session_report_resolution_ms() < 1)
    return;
  const long holders = session.use_count() - 1;  // without this function's own
  if (holders > 1) {
    SUP_LOG(sessions_logger(), log_level::error)
        << "erase_if_unused"
        << " Leaking session - ref-count: " << holders << " Session info: " << *session;
    return;
  }
  SUP_LOG(sessions_logger(), log_level::trace) << "erase_if_unused"
                                               << " Erasing Session info object " << *session;
  finished_sessions.insert_session(session, services, next_hop, next_hop_cname);
  if (listener != nullptr && finished_sessions.is_max_sessions_reached())
    listener->max_sessions_notify();
}

}  // namespace zol_monitor
