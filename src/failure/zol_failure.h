// The node's failure handling, in the processes that carry its traffic. It counts the failures of
// neighbouring nodes and switches the node into fail-open when there are too many, passes on that a target is
// a black hole, and leaves fail-open when its time is over.
//
// The state is the node's and stands in the shared ZolStatusData (shared_records.h): fail-open and since
// when, failures counted, black holes, suspension. All processes see one state; each has one object of this
// class, which tells the objects of its own process. A record that can't be used is logged by
// with_locked_record and reads as "not active"; what can't be stored there didn't happen, and nobody is told
// of it.
//
// Times are whole seconds of CLOCK_BOOTTIME. Logs under "ZOLFailure". Main thread only. The timer runs in a
// process with an event loop.
#pragma once

#include <string>
#include <vector>

#include "config/zol_configurator.h"
#include "core/zol_libevent.h"
#include "failure/zol_failopen.h"

namespace zol {

class HAAgentDriver;
class MonitorDriver;

class ZOLFailure : public virtual IReconfigure {
 public:
  // Use zol_failure(). Registers for reloads.
  ZOLFailure();
  ~ZOLFailure() override;

  // The failure handling owns none of these: who adds one removes it before it ends. Twice is once, and one
  // that isn't there may be removed. A listener may leave, itself or another, while it is told. One that
  // joins during fail-open isn't told of it: it asks is_failopen_enabled().
  void add(IFailopen* listener);
  void remove(IFailopen* listener);
  void bh_notify_register(IBlackHoleNotify* listener);
  void bh_notify_unregister(IBlackHoleNotify* listener);
  // The links to the monitoring daemon and to the agent of the high-availability pair; null takes one away.
  void set_notifier(MonitorDriver* driver);
  void set_ha_agent(HAAgentDriver* driver);

  // A connection to a neighbouring node has failed; other ports than a neighbour's are passed over. The
  // daemon and, with HighAvailability.enabled, the agent hear of it, unless it was the resolving of a name
  // (`dns`). With `count` it counts, and when Failopen.threshold is reached the node goes into fail-open, but
  // not a middle-mile node. While suspended nothing counts. Throws std::runtime_error when there is an agent
  // and HighAvailability.enabled is missing.
  void notify(std::string address, unsigned short port, bool count, bool dns);
  // Switches the node's state; the count of failures begins anew with each change. With `notify` the
  // listeners and the daemon are told of a change, and the watchdog is sent a reload, so that the other
  // processes read the state.
  void failopen(bool active, bool notify);
  bool is_failopen_enabled();

  // With BlackHole.enabled each listener is told of the target. With BlackHole.close_service_ports the node's
  // state says so too, and the target counts as handled.
  void blackhole_notify(BHInfo info);
  void shm_set_bh_state(bool active);

  // Suspends the counting of failures for `seconds`, 0 until it is resumed, or resumes it; the agent is told.
  // This process resumes by itself what it has suspended, once the time is over.
  void suspend_notifier(bool suspend, unsigned seconds);

  // The timer's callback, `self` a ZOLFailure*: leaves fail-open when Failopen.return_wait_period seconds
  // have passed since it began; without that setting fail-open stays.
  static void check_failure_status(int fd, short events, void* self);

  // The listeners hear of a state that another process has switched since they were last told.
  void reconfigure() override;
  bool need_reconf(bool& enabled) override;

  ZOLEventLibEventTimer status_timer;
  std::vector<IFailopen*> failopen_listeners;
  std::vector<IBlackHoleNotify*> bh_listeners;
  MonitorDriver* notifier = nullptr;
  HAAgentDriver* ha_agent = nullptr;
  bool bh_active = false;  // a black hole has closed a service's ports

 private:
  void arm_timer();
  bool count_failure();
  void tell_listeners(bool active);
  void end_failopen_in_time();
  void end_suspension_in_time();

  bool told_ = false;            // the state that the listeners know
  bool suspended_here_ = false;  // this process has suspended and is to resume
  bool said_no_end_ = false;     // that nothing ends fail-open
};

// The one of the process, made at first use.
ZOLFailure& zol_failure();

}  // namespace zol
