// What the session table tells its owner.
#pragma once

namespace zol_monitor {

class ISessionsEvents {
 public:
  virtual ~ISessionsEvents() = default;

  // As many finished sessions wait as one report may hold: send it now.
  virtual void max_sessions_notify() = 0;
};

}  // namespace zol_monitor
