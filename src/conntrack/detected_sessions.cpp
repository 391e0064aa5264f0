#include "conntrack/detected_sessions.h"

#include <algorithm>
#include <utility>

namespace zol_monitor {

void DetectedSessions::assign(std::list<Session> sessions, bool accepted_only) {
  clear();
  for (Session& session : sessions) {
    if (accepted_only && !session->accepted_locally)
      continue;
    ++left_;
    if (session->network_id.empty())
      pending_.push_back(std::move(session));
    else
      add_to_group(std::move(session));
  }
  sort_groups();
}

void DetectedSessions::add_to_group(Session session) {
  Group& group = groups_[session->accepted_locally][session->network_id];
  const std::uint32_t client = session->client_ip;
  group.entries.push_back({client, std::move(session)});
  group.sorted = false;
}

void DetectedSessions::sort_groups() {
  for (auto& groups : groups_)
    for (auto& [network, group] : groups)
      if (!std::exchange(group.sorted, true))
        std::sort(group.entries.begin(), group.entries.end(),
                  [](const Entry& one, const Entry& other) { return one.client < other.client; });
}

void DetectedSessions::group_pending() {
  if (pending_.empty())
    return;
  for (Session& session : std::exchange(pending_, {}))
    add_to_group(std::move(session));
  sort_groups();
}

void DetectedSessions::clear() {
  pending_.clear();
  for (auto& groups : groups_)
    groups.clear();
  left_ = 0;
}

void DetectedSessions::prefetch(const Group& group, std::size_t index) {
  if (index >= group.entries.size())
    return;
  const SessionInfo& session = *group.entries[index].session;
  const void* const parts[] = {&session.in, &session.in_info.termination_reason, &session.out,
                               &session.out_info.termination_reason, &session.state};
  for (const void* part : parts)
    __builtin_prefetch(part, 1);
}

}  // namespace zol_monitor
