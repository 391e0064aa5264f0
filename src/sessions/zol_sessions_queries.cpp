// What the traffic report asks of the live sessions.
#include "sessions/zol_sessions.h"

namespace zol_monitor {

namespace {

// An empty domain stands for all.
bool is_of(const SessionInfo& session, const std::string& network, const std::string& domain) {
  return session.network_id == network && (domain.empty() || session.domain_name == domain);
}

bool is_new_of(const SessionInfo& session, const std::string& network, const std::string& domain) {
  return session.state == 0 && is_of(session, network, domain);
}

bool is_target_failure(const SessionInfo& session) {
  return !session.target_failure_counted && !session.is_next_hop_zol &&
         session.out->termination_reason >= STR_RESOLUTION_FAILURE;
}

}  // namespace

bool ZOLSessions::should_counter_updated(const SessionInfo& session, traffic_dir_t dir) {
  switch (dir) {
    case traffic_dir_t::target:
      return session.accepted_locally;
    case traffic_dir_t::public_hop:
      return !session.accepted_locally && !session.is_private_network;
    case traffic_dir_t::private_hop:
      return !session.accepted_locally && session.is_private_network;
  }
  return false;
}

std::uint32_t ZOLSessions::get_new_count(const std::string& network, traffic_dir_t dir) const {
  return get_domain_new_count(network, {}, dir);
}

std::uint32_t ZOLSessions::get_domain_new_count(const std::string& network, const std::string& domain) const {
  std::uint32_t count = 0;
  for (const auto& [key, session] : in_sessions)
    count += is_new_of(*session, network, domain);
  return count;
}

std::uint32_t ZOLSessions::get_domain_new_count(const std::string& network, const std::string& domain,
                                                traffic_dir_t dir) const {
  std::uint32_t count = 0;
  for (const auto& [key, session] : in_sessions)
    count += is_new_of(*session, network, domain) && should_counter_updated(*session, dir);
  return count;
}

TargetFailureCounts ZOLSessions::get_target_failure_by_domain_count(const std::string& network,
                                                                    const std::string& domain) {
  TargetFailureCounts counts;
  for (const auto& [id, session] : sessions_by_id) {
    if (!is_target_failure(*session) || !is_of(*session, network, domain))
      continue;
    session->target_failure_counted = true;
    if (session->accepted_locally)
      ++counts.accepted;
    else if (session->is_private_network)
      ++counts.private_network;
    else
      ++counts.public_network;
  }
  return counts;
}

HTTPCountersCointainer ZOLSessions::get_http_counters(const std::string& network, const std::string& domain) {
  HTTPCountersCointainer sums;
  for (const auto& [id, session] : sessions_by_id) {
    if (!is_of(*session, network, domain))
      continue;
    if (session->accepted_locally)
      sums.accepted += session->http_counters;
    else if (session->is_private_network)
      sums.private_network += session->http_counters;
    else
      sums.public_network += session->http_counters;
    session->http_counters.reset();
  }
  return sums;
}

std::list<SessionPtr> ZOLSessions::get_zol_sessions() const {
  std::list<SessionPtr> sessions;
  for (const auto& [key, session] : in_sessions)
    sessions.push_back(session);
  return sessions;
}

}  // namespace zol_monitor
