// What the traffic report asks of the live sessions.
#include <utility>

#include "sessions/zol_sessions.h"

namespace zol_monitor {

namespace {

// An empty domain stands for all.
bool is_of(const SessionInfo& session, const std::string& network, const std::string& domain) {
  return session.network_id == network && (domain.empty() || session.domain_name == domain);
}

bool is_target_failure(const SessionInfo& session) {
  return !session.target_failure_counted && !session.is_next_hop_zol &&
         session.out->termination_reason >= STR_RESOLUTION_FAILURE;
}

bool has_failed(const SessionInfo& session) {
  return session.in_info.termination_reason >= STR_RESOLUTION_FAILURE ||
         session.out_info.termination_reason >= STR_RESOLUTION_FAILURE;
}

// Whether a query may still count the session, now or after another message about it.
bool may_have_news(const SessionInfo& session) {
  return session.state == 0 || session.http_counters != HTTPCounters() ||
         (!session.target_failure_counted && has_failed(session));
}

}  // namespace

void ZOLSessions::begin_report() {
  auto groups = std::make_unique<SessionGroups>();
  news_.for_each([&](SessionInfo& session) { groups->add(session); });
  groups_ = std::move(groups);
}

void ZOLSessions::end_report() {
  groups_.reset();
  news_.remove_unless(may_have_news);
}

template <typename Visit>
void ZOLSessions::for_each_in_leg(const std::string& network, const std::string& domain, Visit visit) const {
  if (groups_) {
    for (const SessionInfo* session : groups_->of(network, domain).in_legs)
      visit(*session);
    return;
  }
  for (const auto& [key, session] : in_sessions)
    if (is_of(*session, network, domain))
      visit(std::as_const(*session));
}

template <typename Visit>
void ZOLSessions::for_each_session(const std::string& network, const std::string& domain, Visit visit) const {
  if (groups_) {
    for (SessionInfo* session : groups_->of(network, domain).sessions)
      visit(*session);
    return;
  }
  for (const auto& [id, session] : sessions_by_id)
    if (is_of(*session, network, domain))
      visit(*session);
}

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
  for_each_in_leg(network, domain, [&](const SessionInfo& session) { count += session.state == 0; });
  return count;
}

std::uint32_t ZOLSessions::get_domain_new_count(const std::string& network, const std::string& domain,
                                                traffic_dir_t dir) const {
  std::uint32_t count = 0;
  for_each_in_leg(network, domain, [&](const SessionInfo& session) {
    count += session.state == 0 && should_counter_updated(session, dir);
  });
  return count;
}

TargetFailureCounts ZOLSessions::get_target_failure_by_domain_count(const std::string& network,
                                                                    const std::string& domain) {
  TargetFailureCounts counts;
  for_each_session(network, domain, [&](SessionInfo& session) {
    if (!is_target_failure(session))
      return;
    session.target_failure_counted = true;
    if (session.accepted_locally)
      ++counts.accepted;
    else if (session.is_private_network)
      ++counts.private_network;
    else
      ++counts.public_network;
  });
  return counts;
}

HTTPCountersCointainer ZOLSessions::get_http_counters(const std::string& network, const std::string& domain) {
  HTTPCountersCointainer sums;
  for_each_session(network, domain, [&](SessionInfo& session) {
    if (session.accepted_locally)
      sums.accepted += session.http_counters;
    else if (session.is_private_network)
      sums.private_network += session.http_counters;
    else
      sums.public_network += session.http_counters;
    session.http_counters.reset();
  });
  return sums;
}

std::list<SessionPtr> ZOLSessions::get_zol_sessions() const {
  std::list<SessionPtr> sessions;
  for (const auto& [key, session] : in_sessions)
    sessions.push_back(session);
  return sessions;
}

}  // namespace zol_monitor
