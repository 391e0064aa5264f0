// A list of sessions through hooks that the sessions themselves carry: listing one allocates nothing, and a
// session that goes leaves the list by itself. Main thread only.
#pragma once

#include <utility>

namespace zol_monitor {

// One link of the ring. Not copied: its neighbours point at it.
class SessionNewsHook {
 public:
  SessionNewsHook() = default;
  ~SessionNewsHook() { unlink(); }
  SessionNewsHook(const SessionNewsHook&) = delete;
  SessionNewsHook& operator=(const SessionNewsHook&) = delete;

  bool is_linked() const { return next_ != this; }
  void link_behind(SessionNewsHook& place) {
    unlink();
    next_ = std::exchange(place.next_, this);
    previous_ = std::exchange(next_->previous_, this);
  }
  void unlink() {
    previous_->next_ = next_;
    next_->previous_ = previous_;
    next_ = previous_ = this;
  }
  SessionNewsHook* next() const { return next_; }

 private:
  SessionNewsHook* next_ = this;
  SessionNewsHook* previous_ = this;
};

// The sessions that may have something to tell to the next traffic report. `Session` derives from the hook.
template <typename Session>
class SessionNewsList {
 public:
  void add(Session& session) {
    if (!session.SessionNewsHook::is_linked())
      session.SessionNewsHook::link_behind(ring_);
  }
  // The visitor must not change the list.
  template <typename Visit>
  void for_each(Visit visit) const {
    for (SessionNewsHook* hook = ring_.next(); hook != &ring_; hook = hook->next())
      visit(static_cast<Session&>(*hook));
  }
  template <typename Condition>
  void remove_unless(Condition stays) {
    for (SessionNewsHook* hook = ring_.next(); hook != &ring_;) {
      SessionNewsHook* const session = std::exchange(hook, hook->next());
      if (!stays(static_cast<const Session&>(*session)))
        session->unlink();
    }
  }

 private:
  SessionNewsHook ring_;  // its own ends
};

}  // namespace zol_monitor
