// Sessions by logical network and domain, for the length of a report.
//
// A report asks several questions for each domain; without this each would walk over all sessions. Holds no
// references: the table must not change while it is in use. Main thread only.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace zol_monitor {

struct SessionInfo;

class SessionGroups {
 public:
  struct Group {
    std::vector<SessionInfo*> in_legs;   // as often as in ZOLSessions::in_sessions
    std::vector<SessionInfo*> sessions;  // those of ZOLSessions::sessions_by_id
  };

  void add(SessionInfo& session);
  // An empty domain stands for all.
  const Group& of(const std::string& network, const std::string& domain) const;

 private:
  struct Network {
    Group all;
    std::unordered_map<std::string_view, Group> domains;
  };

  // The keys are the texts of a session of the group.
  std::unordered_map<std::string_view, Network> networks_;
};

}  // namespace zol_monitor
