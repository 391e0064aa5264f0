// Finding the session behind a key, a tracked connection or a message.
#include <array>

#include "conntrack/nfconntrack.h"
#include "sessions/sessions_log.h"
#include "sessions/zol_sessions.h"

namespace zol_monitor {

namespace {

void log_look_up(const char* outcome, std::uint64_t key, const LegMap& map) {
  const auto address = static_cast<std::uint32_t>(key >> 32);
  const auto port = static_cast<std::uint16_t>(key);
  SUP_LOG(sessions_logger(), log_level::trace)
      << "get" << outcome << "0x" << std::hex << key << std::dec << " address: " << log_peer(address, port)
      << " map: " << static_cast<const void*>(&map);
}

// What a reading of the connection table reads and writes of a session.
const SessionInfo* fetch(const SessionInfo& session, const SessionEndpointInfo& leg) {
  const void* const parts[] = {&session.client_ip, &leg.termination_reason, &leg.outgoing_bytes,
                               &session.network_id, &session.domain_name};
  for (const void* part : parts)
    __builtin_prefetch(part, 1);
  return &session;
}

// One end of a tracked connection.
struct Peer {
  std::uint32_t address;
  std::uint16_t port;
};

}  // namespace

SessionPtr ZOLSessions::get(std::uint64_t key, LegMap& map, LegMap::iterator* node) {
  const auto found = map.find(key);
  if (node != nullptr)
    *node = found;
  if (found == map.end()) {
    log_look_up(": Couldn't get ", key, map);
    return nullptr;
  }
  log_look_up(": Got ", key, map);
  return found->second;
}

SessionPtr ZOLSessions::get(std::uint32_t address, std::uint16_t port, LegMap& map, LegMap::iterator* node) {
  if (address == 0 || port == 0)
    return nullptr;
  return get(leg_key(address, port), map, node);
}

SessionPtr ZOLSessions::get_outbound(std::uint32_t first_address, std::uint16_t first_port,
                                     std::uint32_t second_address, std::uint16_t second_port,
                                     LegPlace* place) {
  if (first_address == 0 || first_port == 0 || second_address == 0 || second_port == 0)
    return nullptr;
  const auto outer = out_sessions.find(leg_key(first_address, first_port));
  if (outer == out_sessions.end())
    return nullptr;
  LegMap::iterator node;
  SessionPtr session = get(second_address, second_port, outer->second, &node);
  if (session && place != nullptr)
    *place = {&session->out_info, &outer->second, node, outer};
  return session;
}

SessionPtr ZOLSessions::get(const nf_conntrack* ct, LegPlace* place) {
  return get(nfconntrack_get_ends(ct), place);
}

void ZOLSessions::prefetch(const nfconntrack_ends_t& ends) const {
  in_sessions.prefetch(leg_key(ends.src, ends.sport));
  in_sessions.prefetch(leg_key(ends.dst, ends.dport));
}

const SessionInfo* ZOLSessions::touch(const nfconntrack_ends_t& ends) const {
  const std::uint64_t source = leg_key(ends.src, ends.sport);
  const std::uint64_t target = leg_key(ends.dst, ends.dport);
  auto found = in_sessions.find(source);
  if (found == in_sessions.end())
    found = in_sessions.find(target);
  if (found != in_sessions.end())
    return fetch(*found->second, found->second->in_info);
  auto outer = out_sessions.find(target);
  if (outer == out_sessions.end())
    outer = out_sessions.find(source);
  if (outer == out_sessions.end())
    return nullptr;
  auto inner = outer->second.find(target);
  if (inner == outer->second.end())
    inner = outer->second.find(source);
  return inner != outer->second.end() ? fetch(*inner->second, inner->second->out_info) : nullptr;
}

void ZOLSessions::touch_texts(const SessionInfo* session) {
  if (session != nullptr)
    __builtin_prefetch(session->domain_name.data());
}

FoundLeg ZOLSessions::find(const nfconntrack_ends_t& ends) {
  FoundLeg leg;
  leg.session = get(ends, &leg.place);
  return leg;
}

SessionPtr ZOLSessions::get(const nfconntrack_ends_t& ends, LegPlace* place) {
  const Peer source = {ends.src, ends.sport};
  const Peer target = {ends.dst, ends.dport};
  for (const Peer& peer : {source, target}) {
    LegMap::iterator node;
    if (SessionPtr session = get(peer.address, peer.port, in_sessions, &node)) {
      if (place != nullptr)
        *place = {&session->in_info, &in_sessions, node, {}};
      return session;
    }
  }
  const std::array<std::array<Peer, 2>, 4> pairs = {
      {{target, target}, {target, source}, {source, target}, {source, source}}};
  for (const auto& [first, second] : pairs) {
    if (SessionPtr session = get_outbound(first.address, first.port, second.address, second.port, place))
      return session;
  }
  return nullptr;
}

SessionPtr ZOLSessions::get(std::uint32_t address1, std::uint16_t port1, std::uint32_t address2,
                            std::uint16_t port2, const unsigned char* uuid) {
  SessionPtr session = get(address1, port1, in_sessions);
  if (!session)
    session = get_outbound(address1, port1, address2, port2);
  if (session && uuid_compare(session->session_id, uuid) == 0)
    return session;
  if (session)
    SUP_LOG(sessions_logger(), log_level::notice)
        << "Duplicate keys found: [" << log_peer(address1, port1) << "]";
  const auto listed = sessions_by_id.find(SessionId(uuid));
  return listed == sessions_by_id.end() ? nullptr : listed->second;
}

SessionPtr ZOLSessions::get(const unsigned char* uuid) {
  return get(0, 0, 0, 0, uuid);
}

}  // namespace zol_monitor
