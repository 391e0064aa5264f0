// What connection tracking tells of the legs.
#include <algorithm>

#include "config/services.h"
#include "conntrack/nfconntrack.h"
#include "sessions/sessions_log.h"
#include "sessions/zol_sessions.h"
#include "zol_helper.h"

namespace zol_monitor {

void ZOLSessions::set_str(const nf_conntrack* ct, SessionTerminationReason reason) {
  LegPlace place;
  if (get(ct, &place))
    place.endpoint->termination_reason = reason;
  else
    SUP_LOG(sessions_logger(), log_level::warning)
        << "Trying to set termination reason for non existing session info. in connection: " << ct_ntoa_s(ct);
}

bool ZOLSessions::get_str(const nf_conntrack* ct, SessionTerminationReason& reason) {
  LegPlace place;
  if (!get(ct, &place)) {
    SUP_LOG(sessions_logger(), log_level::error)
        << "Trying to get termination reason for non existing info. connection: " << ct_ntoa_s(ct);
    return false;
  }
  reason = place.endpoint->termination_reason;
  return true;
}

void ZOLSessions::set_end_time(const nf_conntrack* ct) {
  LegPlace place;
  if (get(ct, &place))
    place.endpoint->end_time_ms = zol::Helper::get_timestamp_ms();
}

void ZOLSessions::add_counters(const FoundLeg& leg, const conntrack_counters_t& counters) {
  *leg.place.endpoint->incoming_bytes += counters.rx_bytes;
  *leg.place.endpoint->outgoing_bytes += counters.tx_bytes;
}

void ZOLSessions::add_counters(const nf_conntrack* ct, const conntrack_counters_t& counters) {
  const FoundLeg leg = find(nfconntrack_get_ends(ct));
  if (!leg) {
    SUP_LOG(sessions_logger(), log_level::error)
        << "Trying to add counters for non existing info. address: " << ct_ntoa_s(ct);
    return;
  }
  add_counters(leg, counters);
}

void ZOLSessions::set_next_hop_ip(const nf_conntrack* ct) {
  const nfconntrack_ends_t ends = nfconntrack_get_ends(ct);
  if (const FoundLeg leg = find(ends))
    set_next_hop_ip(leg, ends);
}

void ZOLSessions::set_next_hop_ip(const FoundLeg& leg, const nfconntrack_ends_t& ends) {
  SessionInfo& session = *leg.session;
  session.next_hop_ip = ends.dst;
  session.next_hop_port = ends.dport;
  session.is_next_hop_zol = services->is_internal_port(session.is_reversed() ? ends.sport : ends.dport);
  session.set_vpn_data(site_services);
}

void ZOLSessions::set_reversed_io(const nf_conntrack* ct, bool reversed) {
  if (const SessionPtr session = get(ct))
    session->set_reversed_io(reversed);
}

void ZOLSessions::get_session_endpoints(const nf_conntrack* ct, std::uint32_t& client,
                                        std::uint32_t& next_hop_ip) {
  const SessionPtr session = get(ct);
  client = session ? session->client_ip : 0;
  next_hop_ip = session ? session->next_hop_ip : 0;
}

bool ZOLSessions::get_user_identification(const nf_conntrack* ct, std::uint32_t& client, std::uint16_t& port,
                                          std::string& domain) {
  const nfconntrack_ends_t ends = nfconntrack_get_ends(ct);
  const FoundLeg leg = find(ends);
  domain = get_user_identification(leg, ends, client);
  port = leg ? leg.session->client_port : ends.sport;
  return static_cast<bool>(leg);
}

const std::string& ZOLSessions::get_user_identification(const FoundLeg& leg, const nfconntrack_ends_t& ends,
                                                        std::uint32_t& client) {
  static const std::string unknown_domain = "unknown";
  if (leg) {
    client = leg.session->client_ip;
    return leg.session->domain_name;
  }
  client = ends.src;
  SUP_LOG(sessions_logger(), log_level::warning) << "get_user_identification"
                                                 << ": Failed to locate user identification!";
  return unknown_domain;
}

void ZOLSessions::erase(const nf_conntrack* ct) {
  LegPlace place;
  const SessionPtr session = get(ct, &place);
  if (!session)
    return;
  SUP_LOG(sessions_logger(), log_level::trace) << "Erasing 0x" << std::hex << place.node->first;
  place.map->erase(place.node);
  const bool is_in_leg = place.map == &in_sessions;
  session->in_entries -= is_in_leg;
  if (is_in_leg || !erase_out_leg(place, *session))
    place.endpoint->is_erased = true;
  erase_if_unused(session);
}

// The Out entry is gone from its inner map. Whether another connection there keeps the leg alive; an inner
// map without entries goes too.
bool ZOLSessions::erase_out_leg(const LegPlace& place, SessionInfo& session) {
  uncount_out_entry(session);
  const LegMap& inner = *place.map;
  const bool may_have_more = session.out_entries != 0 || unlisted_out_entries_ != 0;
  const bool has_more =
      may_have_more && std::any_of(inner.begin(), inner.end(), [&session](const auto& entry) {
        return uuid_compare(entry.second->session_id, session.session_id) == 0;
      });
  if (has_more)
    SUP_LOG(sessions_logger(), log_level::debug)
        << "erase"
        << ": Found another connection for " << uuid_text(session.session_id);
  if (inner.empty()) {
    SUP_LOG(sessions_logger(), log_level::trace) << "erase"
                                                 << ": There are no more connections to 0x" << std::hex
                                                 << place.outer_node->first << std::dec << ", erasing";
    out_sessions.erase(place.outer_node);
  }
  return has_more;
}

}  // namespace zol_monitor
