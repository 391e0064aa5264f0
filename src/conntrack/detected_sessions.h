// The sessions of one traffic report, in the order in which it asks: by network and role of this node, and in
// these client by client.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sessions/session_info.h"

namespace zol_monitor {

// A session without a network counts as what it is when the first client is asked for: the reading of the
// connection table in between may still find its network and role out. Holds references, so it must be empty
// again before anybody asks for the use count of a session. Main thread only. A client's sessions are found
// without looking at any other session.
class DetectedSessions {
 public:
  using Session = std::shared_ptr<SessionInfo>;
  using size_type = std::size_t;

  // With `accepted_only` those that were accepted elsewhere are left out.
  void assign(std::list<Session> sessions, bool accepted_only);
  void clear();
  // How many haven't been taken yet.
  size_type size() const { return left_; }
  bool empty() const { return left_ == 0; }

  // Takes the sessions of the next client out and calls visit(session) for each; false when there is none
  // left. What accept(session) refuses is taken out alone, before a client is chosen and within it.
  template <typename Accept, typename Visit>
  bool take_client(const std::string& network, bool accepted, Accept accept, Visit visit);

 private:
  struct Entry {
    std::uint32_t client;
    Session session;
  };
  using Entries = std::vector<Entry>;
  // Of one network and role, sorted by client; those before `next` have been taken.
  struct Group {
    Entries entries;
    std::size_t next = 0;
    bool sorted = true;
  };

  // The walk is as long as its waiting for memory, so what it will read is asked for in time.
  static constexpr std::size_t sessions_ahead = 8;
  static void prefetch(const Group& group, std::size_t index);
  void add_to_group(Session session);
  void sort_groups();
  void group_pending();

  std::vector<Session> pending_;            // without a network yet
  std::map<std::string, Group> groups_[2];  // by network; of sessions accepted elsewhere, and here
  size_type left_ = 0;
};

template <typename Accept, typename Visit>
bool DetectedSessions::take_client(const std::string& network, bool accepted, Accept accept, Visit visit) {
  group_pending();
  const auto found = groups_[accepted].find(network);
  if (found == groups_[accepted].end())
    return false;
  Group& group = found->second;
  std::uint32_t client = 0;
  bool is_found = false;
  for (; group.next < group.entries.size(); ++group.next) {
    Entry& entry = group.entries[group.next];
    if (is_found && entry.client != client)
      break;
    prefetch(group, group.next + sessions_ahead);
    if (accept(*entry.session)) {
      client = entry.client;
      is_found = true;
      visit(*entry.session);
    }
    entry.session.reset();
    --left_;
  }
  return is_found;
}

}  // namespace zol_monitor
