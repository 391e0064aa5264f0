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

SessionPtr copy_of(const SessionPtr* found) {
  return found != nullptr ? *found : nullptr;
}

}  // namespace

const SessionPtr* ZOLSessions::look_up(std::uint64_t key, LegMap& map, LegMap::iterator& node) {
  node = map.find(key);
  const bool found = node != map.end();
  log_look_up(found ? ": Got " : ": Couldn't get ", key, map);
  return found ? &node->second : nullptr;
}

const SessionPtr* ZOLSessions::look_up(const LegPeer& peer, LegMap& map, LegMap::iterator& node) {
  return peer.is_known() ? look_up(leg_key(peer.address, peer.port), map, node) : nullptr;
}

const SessionPtr* ZOLSessions::look_up_outbound(const LegPeer& first, const LegPeer& second,
                                                LegPlace& place) {
  if (!first.is_known() || !second.is_known())
    return nullptr;
  const auto outer = out_sessions.find(leg_key(first.address, first.port));
  if (outer == out_sessions.end())
    return nullptr;
  LegMap::iterator node;
  const SessionPtr* session = look_up(second, outer->second, node);
  if (session != nullptr)
    place = {&(*session)->out_info, &outer->second, node, outer};
  return session;
}

const SessionPtr* ZOLSessions::look_up(const nfconntrack_ends_t& ends, LegPlace& place) {
  const LegPeer source = {ends.src, ends.sport};
  const LegPeer target = {ends.dst, ends.dport};
  for (const LegPeer& peer : {source, target}) {
    LegMap::iterator node;
    if (const SessionPtr* session = look_up(peer, in_sessions, node)) {
      place = {&(*session)->in_info, &in_sessions, node, {}};
      return session;
    }
  }
  const std::array<std::array<LegPeer, 2>, 4> pairs = {
      {{target, target}, {target, source}, {source, target}, {source, source}}};
  for (const auto& [first, second] : pairs) {
    if (const SessionPtr* session = look_up_outbound(first, second, place))
      return session;
  }
  return nullptr;
}

SessionPtr ZOLSessions::get(std::uint64_t key, LegMap& map, LegMap::iterator* node) {
  LegMap::iterator unused;
  return copy_of(look_up(key, map, node != nullptr ? *node : unused));
}

SessionPtr ZOLSessions::get(std::uint32_t address, std::uint16_t port, LegMap& map, LegMap::iterator* node) {
  LegMap::iterator unused;
  return copy_of(look_up(LegPeer{address, port}, map, node != nullptr ? *node : unused));
}

SessionPtr ZOLSessions::get_outbound(std::uint32_t first_address, std::uint16_t first_port,
                                     std::uint32_t second_address, std::uint16_t second_port,
                                     LegPlace* place) {
  LegPlace unused;
  return copy_of(look_up_outbound({first_address, first_port}, {second_address, second_port},
                                  place != nullptr ? *place : unused));
}

SessionPtr ZOLSessions::get(const nf_conntrack* ct, LegPlace* place) {
  return get(nfconntrack_get_ends(ct), place);
}

SessionPtr ZOLSessions::get(const nfconntrack_ends_t& ends, LegPlace* place) {
  LegPlace unused;
  return copy_of(look_up(ends, place != nullptr ? *place : unused));
}

FoundLeg ZOLSessions::find(const nfconntrack_ends_t& ends) {
  FoundLeg leg;
  if (const SessionPtr* session = look_up(ends, leg.place))
    leg.session = session->get();
  return leg;
}

// Without the attribute the compiler takes the map's function for one without effect, and leaves it out.
[[gnu::flatten]] void ZOLSessions::prefetch(const nfconntrack_ends_t& ends) const {
  in_sessions.prefetch(leg_key(ends.src, ends.sport));
  in_sessions.prefetch(leg_key(ends.dst, ends.dport));
}

void ZOLSessions::prefetch(const FoundLeg& leg) {
  if (!leg)
    return;
  const SessionInfo& session = *leg.session;
  const SessionEndpointInfo& endpoint = *leg.place.endpoint;
  const void* const parts[] = {&session.client_ip, &endpoint.termination_reason, &endpoint.outgoing_bytes,
                               &session.network_id, &session.domain_name};
  for (const void* part : parts)
    __builtin_prefetch(part, 1);
}

void ZOLSessions::prefetch_texts(const FoundLeg& leg) {
  if (leg)
    __builtin_prefetch(leg.session->domain_name.data());
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
