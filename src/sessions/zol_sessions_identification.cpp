// The proxy's identification of a session's legs.
#include <utility>

#include "sessions/sessions_log.h"
#include "sessions/zol_sessions.h"

namespace zol_monitor {

namespace {

void assign_if_new(std::string& to, std::string_view text) {
  if (!text.empty() && to != text)
    to = text;
}

template <typename T>
void assign_if_set(T& to, T value) {
  if (value != 0)
    to = value;
}

}  // namespace

void ZOLSessions::set_session_identification(
    bool is_outbound, std::uint32_t address1, std::uint16_t port1, std::uint32_t address2,
    std::uint16_t port2, const unsigned char* uuid, std::uint32_t client_address, std::uint16_t client_port,
    std::uint16_t service_port, std::uint32_t destination_address, std::uint8_t retries,
    std::uint16_t hop_order, bool failopen, std::string_view user_agent, std::string_view domain_name,
    bool recover, std::uint32_t target_address, std::uint16_t target_port) {
  SessionPtr session = get(address1, port1, address2, port2, uuid);
  if (!session)
    session = create(uuid, client_address, client_port);
  SUP_LOG(sessions_logger(), log_level::debug)
      << "set_session_identification" << (is_outbound ? " Outbound" : " Inbound") << " Keys: ["
      << log_peer(address1, port1) << "] Session_ID: " << uuid_text(uuid) << " Client info: ["
      << log_peer(client_address, client_port) << "] Target info: [" << log_peer(target_address, target_port)
      << "]";
  assign_if_set(session->service_port, service_port);
  assign_if_set(session->hop_order, hop_order);
  if (failopen)
    note_failopen(*session, recover);
  assign_if_set(session->retries_count, retries);
  if (domain_name != "unknown")
    assign_if_new(session->domain_name, domain_name);
  assign_if_new(session->user_agent, user_agent);
  assign_if_set(session->client_ip, client_address);
  assign_if_set(session->client_port, client_port);
  assign_if_set(session->target_ip, target_address);
  assign_if_set(session->target_port, target_port);
  if (is_outbound)
    set_info_out(session, address1, port1, address2, port2, uuid, recover);
  else
    set_info_in(session, address1, port1, uuid, destination_address);
  session->set_vpn_data(site_services);
}

// The first fail-open of a session counts once: as recovered when the session reconnected, else as an error.
void ZOLSessions::note_failopen(SessionInfo& session, bool recover) {
  if (recover && !session.connection_recover) {
    ++recovered_period;
    ++recovered_total;
    session.connection_recover = true;
  } else if (!session.failopen) {
    error_counters.update_counters(zol::FR_FAILOPEN_CONNECTION);
  }
  session.failopen = true;
}

void ZOLSessions::set_info_in(const SessionPtr& session, std::uint32_t address, std::uint16_t port,
                              const unsigned char* uuid, std::uint32_t destination) {
  const std::uint64_t key = leg_key(address, port);
  const auto [entry, inserted] = in_sessions.try_emplace(key, session);
  const bool is_known = !inserted && uuid_compare(entry->second->session_id, uuid) == 0;
  SessionPtr displaced;
  if (!inserted && !is_known) {
    displaced = std::exchange(entry->second, session);
    displaced->in_info.is_erased = true;
    --displaced->in_entries;
  }
  SessionEndpointInfo& leg = session->in_info;
  leg.address = address;
  leg.port = port;
  leg.is_erased = false;
  assign_if_set(leg.destination_ip, destination);
  if (is_known)
    return;
  ++session->in_entries;
  SUP_LOG(sessions_logger(), log_level::debug) << "set_info_in"
                                               << ": Saving in session 0x" << std::hex << key;
  if (displaced)
    erase_if_unused(displaced);
}

void ZOLSessions::set_info_out(const SessionPtr& session, std::uint32_t address, std::uint16_t port,
                               std::uint32_t address2, std::uint16_t port2, const unsigned char* uuid,
                               bool recover) {
  LegMap& inner = out_sessions[leg_key(address, port)];
  const std::uint64_t inner_key = leg_key(address2, port2);
  const auto [entry, inserted] = inner.try_emplace(inner_key, session);
  const bool is_known = !inserted && !recover && uuid_compare(entry->second->session_id, uuid) == 0;
  SessionPtr displaced;
  if (!inserted && !is_known) {
    displaced = std::exchange(entry->second, session);
    displaced->out_info.is_erased = true;
    uncount_out_entry(*displaced);
  }
  SessionEndpointInfo& leg = session->out_info;
  leg.address = address;
  leg.port = port;
  leg.is_erased = false;
  if (is_known)
    return;
  count_out_entry(*session);
  SUP_LOG(sessions_logger(), log_level::debug) << "set_info_out"
                                               << ": Saving out session 0x" << std::hex << inner_key;
  if (displaced)
    erase_if_unused(displaced);
}

}  // namespace zol_monitor
