// How the data objects follow the reports.
#pragma once

namespace zol_monitor {

// context_start and context_end bracket the work of every reporter timer and every conntrack event; start and
// stop follow the switch of the reports when another installed version becomes the active one.
class MonitorContext {
 public:
  virtual ~MonitorContext() = default;

  virtual void context_start() {}
  virtual void context_end() {}
  virtual void start() {}
  virtual void stop() {}
};

}  // namespace zol_monitor
