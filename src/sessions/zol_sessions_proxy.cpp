// The proxy's other messages: failures, figures, HTTP messages, ignored sessions.
#include "config/services.h"
#include "sessions/sessions_log.h"
#include "sessions/zol_sessions.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

// STR_NONE for a failure that doesn't concern the Out leg.
SessionTerminationReason termination_reason_of(zol::failure_reason_t reason) {
  switch (reason) {
    case zol::FR_RESOLUTION_FAILURE:
      return STR_RESOLUTION_FAILURE;
    case zol::FR_PEER_TIMEOUT:
      return STR_CONNECTION_TIMEOUT;
    case zol::FR_CONNECTION_REFUSED:
      return STR_CONNECTION_REFUSED;
    default:
      return STR_NONE;
  }
}

void set_leg_stats(SessionEndpointInfo& leg, const tcp_info& info, std::uint32_t read_idle_ms,
                   std::uint32_t write_congestion_ms) {
  copy_tcp_info_stats(leg.tcp_info, info);
  leg.read_idle_time_ms = read_idle_ms;
  leg.write_congestion_time_ms = write_congestion_ms;
}

}  // namespace

void ZOLSessions::set_out_termination_reason(std::uint32_t client_address, std::uint16_t client_port,
                                             const unsigned char* uuid, const zol::FailureInfo& info) {
  SessionPtr session = get(uuid);
  if (!session)
    session = create(uuid, client_address, client_port);
  SessionEndpointInfo& out = *session->out;
  if (out.port != 0 || session->next_hop_ip != 0 || out.termination_reason != STR_NONE) {
    SUP_LOG(sessions_logger(), log_level::warning)
        << "set_out_termination_reason"
        << " Trying to set termination reason for an existing session info, with valid out info.";
    return;
  }
  const SessionTerminationReason reason = termination_reason_of(info.reason);
  if (reason == STR_NONE) {
    SUP_LOG(sessions_logger(), log_level::error)
        << "set_out_termination_reason"
        << ": Termination reason " << static_cast<unsigned>(info.reason) << " is not supported:";
    return;
  }
  out.termination_reason = reason;
  news_.add(*session);
  error_counters.update_counters(info.reason);
  session->next_hop_ip = info.address;
  out.end_time_ms = zol::Helper::get_timestamp_ms();
  session->set_vpn_data(site_services);
  if (info.port != 0)
    session->is_next_hop_zol = services->is_internal_port(info.port);
  else
    SUP_LOG(sessions_logger(), log_level::warning)
        << "set_out_termination_reason"
        << " failed port does not exist, unable to set \"is_next_hop_zol\" ";
  SUP_LOG(sessions_logger(), log_level::debug)
      << " Update termination reason for session ID: " << uuid_text(uuid) << " Client [ "
      << log_peer(client_address, client_port) << "] -> Failed Peer [" << log_peer(info.address, info.port)
      << "] Reason: " << +reason;
}

void ZOLSessions::ignored_session_info(const unsigned char* uuid) {
  const SessionPtr session = get(uuid);
  if (!session) {
    SUP_LOG(sessions_logger(), log_level::warning) << "ignored_session_info"
                                                   << ": Unable to find session info";
    return;
  }
  if (session->ignored) {
    SUP_LOG(sessions_logger(), log_level::warning) << "ignored_session_info"
                                                   << ": Session already marked: " << uuid_text(uuid);
    return;
  }
  session->ignored = true;
  SUP_LOG(sessions_logger(), log_level::debug) << "ignored_session_info"
                                               << ": Session - " << uuid_text(uuid) << " will be ignored";
}

void ZOLSessions::update_http_counters(const unsigned char* uuid, zol::http_notification_t kind) {
  const SessionPtr session = get(uuid);
  if (!session) {
    SUP_LOG(sessions_logger(), log_level::error) << "update_http_counters"
                                                 << ": Session not found";
    return;
  }
  if (session->http_counters.update(kind))
    news_.add(*session);
}

void ZOLSessions::set_in_stats(std::uint32_t address, std::uint16_t port, const unsigned char* uuid,
                               const tcp_info& info, std::uint32_t read_idle_ms,
                               std::uint32_t write_congestion_ms) {
  const SessionPtr session = get(address, port, 0, 0, uuid);
  if (!session) {
    SUP_LOG(sessions_logger(), log_level::warning)
        << "Trying to set stats information for non existing session info. IN connection: "
        << zol::Helper::make_anonymous_address(address) << "." << port;
    return;
  }
  set_leg_stats(session->in_info, info, read_idle_ms, write_congestion_ms);
  in_write_waiting_ms += write_congestion_ms;
}

void ZOLSessions::set_out_stats(std::uint32_t address, std::uint16_t port, const unsigned char* uuid,
                                const tcp_info& info, std::uint32_t read_idle_ms,
                                std::uint32_t write_congestion_ms) {
  const SessionPtr session = get(uuid);
  if (!session) {
    SUP_LOG(sessions_logger(), log_level::warning)
        << "Trying to set stats information for non existing session info. OUT connection: "
        << zol::Helper::make_anonymous_address(address) << "." << port;
    return;
  }
  set_leg_stats(session->out_info, info, read_idle_ms, write_congestion_ms);
  out_write_waiting_ms += write_congestion_ms;
}

}  // namespace zol_monitor
