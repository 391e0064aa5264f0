#include "sessions/session_groups.h"

#include "sessions/session_info.h"

namespace zol_monitor {

void SessionGroups::add(SessionInfo& session) {
  Network& network = networks_[session.network_id];
  for (Group* group : {&network.all, &network.domains[session.domain_name]}) {
    group->in_legs.insert(group->in_legs.end(), session.in_entries, &session);
    if (!session.unlisted)
      group->sessions.push_back(&session);
  }
}

const SessionGroups::Group& SessionGroups::of(const std::string& network, const std::string& domain) const {
  static const Group empty;
  const auto found = networks_.find(network);
  if (found == networks_.end())
    return empty;
  if (domain.empty())
    return found->second.all;
  const auto group = found->second.domains.find(domain);
  return group == found->second.domains.end() ? empty : group->second;
}

}  // namespace zol_monitor
