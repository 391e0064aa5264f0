// Fail-open, as one process sees and switches it.
#include "failure/zol_failure.h"

#include <event2/event.h>
#include <sys/time.h>

#include <stdexcept>

#include "sup_logger.h"
#include "tests/unit/failure/failure_fixture.h"

namespace {

using zol_test::FailopenListener;
using zol_test::failure_config;
using zol_test::FailureTest;
using zol_test::neighbour;
using zol_test::neighbour_port;
using zol_test::Told;
using zol_test::Types;

class ZolFailure : public FailureTest {};

// Verifies that a failure on another port than a neighbour's is passed over: nobody hears of it, and it
// doesn't count.
TEST_F(ZolFailure, OtherPorts) {
  set_links();
  failure_->notify(neighbour, 9002, true, false);
  EXPECT_TRUE(log_.contains(log_level::notice, "Failure notification on non adjacent ZOL. ignoring"));
  EXPECT_EQ(types_at(daemon_), Types{});
  EXPECT_EQ(types_at(agent_), Types{});
  EXPECT_EQ(status().failure_count, 0U);
}

// Verifies that without the setting of the neighbours' port no port is one.
TEST_F(ZolFailure, NoNeighboursPort) {
  config_.set("Failopen: { threshold = 1; };");
  notify_failure();
  EXPECT_TRUE(log_.contains(log_level::notice, "Failure notification on non adjacent ZOL. ignoring"));
  EXPECT_EQ(status().failopen_active, 0);
}

// Verifies that the daemon and the agent hear of a failure, each where it is set.
TEST_F(ZolFailure, FailureIsPassedOn) {
  notify_failure();
  EXPECT_EQ(types_at(daemon_), Types{});
  EXPECT_EQ(types_at(agent_), Types{});
  failure_->set_notifier(&monitor_driver_);
  notify_failure(false);
  EXPECT_EQ(types_at(daemon_), Types{7});
  EXPECT_EQ(types_at(agent_), Types{});
  failure_->set_notifier(nullptr);
  failure_->set_ha_agent(&agent_driver_);
  notify_failure(false);
  EXPECT_EQ(types_at(daemon_), Types{});
  EXPECT_EQ(types_at(agent_), Types{7});
}

// Verifies that an agent that is switched off isn't told of a failure.
TEST_F(ZolFailure, AgentIsOff) {
  config_.set("IPTables: { internal_base_port = 9001; }; HighAvailability: { enabled = false; };");
  set_links();
  notify_failure(false);
  EXPECT_EQ(types_at(daemon_), Types{7});
  EXPECT_EQ(types_at(agent_), Types{});
}

// Verifies that a missing switch of the agent is fatal to a process that has one, and not to another.
TEST_F(ZolFailure, AgentWithoutSwitch) {
  config_.set("IPTables: { internal_base_port = 9001; };");
  EXPECT_NO_THROW(notify_failure(false));
  set_links();
  try {
    notify_failure(false);
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "ERROR couldn't find the critical parameter of monitor-enabled ");
  }
}

// Verifies that a failure to resolve a name counts, but isn't passed on.
TEST_F(ZolFailure, ResolvingIsNotPassedOn) {
  set_links();
  notify_failure(true, true);
  EXPECT_TRUE(
      log_.contains(log_level::notice, "Failure notification on DNS resolving - Will not be notified"));
  EXPECT_EQ(types_at(daemon_), Types{});
  EXPECT_EQ(types_at(agent_), Types{});
  EXPECT_EQ(status().failure_count, 1U);
}

// Verifies that fail-open begins with the failure that reaches the threshold and not before: the record, the
// listener, the daemon and the watchdog know it.
TEST_F(ZolFailure, ThresholdIsReached) {
  failure_->set_notifier(&monitor_driver_);
  notify_failure();
  notify_failure();
  EXPECT_EQ(status().failopen_active, 0);
  EXPECT_EQ(status().failure_count, 2U);
  EXPECT_EQ(types_at(watchdog_), Types{});
  notify_failure();
  EXPECT_EQ(status().failopen_active, 1);
  EXPECT_NEAR(static_cast<double>(status().failopen_start), static_cast<double>(now_s()), 60);
  EXPECT_EQ(status().failure_count, 0U);
  EXPECT_EQ(listener_.told, Told{true});
  EXPECT_EQ(types_at(daemon_), (Types{7, 7, 7, 8}));
  EXPECT_EQ(types_at(watchdog_), Types{2});
}

// Verifies that failures that another process has counted count here.
TEST_F(ZolFailure, CountIsTheNodes) {
  status().failure_count = 2;
  notify_failure();
  EXPECT_EQ(status().failopen_active, 1);
}

// Verifies that a failure that isn't to be counted isn't.
TEST_F(ZolFailure, Uncounted) {
  status().failure_count = 10;
  notify_failure(false);
  EXPECT_EQ(status().failure_count, 10U);
  EXPECT_EQ(status().failopen_active, 0);
}

// Verifies that without a threshold failures don't lead to fail-open, and that a line says why.
TEST_F(ZolFailure, NoThreshold) {
  config_.set("IPTables: { internal_base_port = 9001; };");
  notify_failure();
  EXPECT_EQ(status().failopen_active, 0);
  EXPECT_EQ(status().failure_count, 1U);
  EXPECT_TRUE(log_.contains(log_level::error,
                            "notify: Couldn't retrieve configuration parameter Failopen.threshold"));
}

// Verifies that a middle-mile node stays out of fail-open.
TEST_F(ZolFailure, MiddleMile) {
  config_.set(failure_config + "MiddleMileNetwork: { enabled = true; };");
  for (int i = 0; i < 5; ++i)
    notify_failure();
  EXPECT_EQ(status().failopen_active, 0);
  EXPECT_EQ(status().failure_count, 5U);
}

// Verifies that fail-open that is active already is said so, keeps its beginning, and nobody is told again.
TEST_F(ZolFailure, AlreadyActive) {
  failure_->set_notifier(&monitor_driver_);
  begin_failopen(10);
  const std::int64_t began = status().failopen_start;
  failure_->failopen(true, true);
  EXPECT_TRUE(log_.contains("Failopen is already active"));
  EXPECT_EQ(status().failopen_start, began);
  EXPECT_EQ(listener_.told, Told{});
  EXPECT_EQ(types_at(daemon_), Types{});
  EXPECT_EQ(types_at(watchdog_), Types{});
}

// Verifies that leaving what isn't active is no change and no line.
TEST_F(ZolFailure, AlreadyLeft) {
  failure_->failopen(false, true);
  EXPECT_FALSE(log_.contains("Failopen is already active"));
  EXPECT_EQ(listener_.told, Told{});
  EXPECT_EQ(types_at(watchdog_), Types{});
}

// Verifies that the end is stored and told as the beginning is.
TEST_F(ZolFailure, Leaving) {
  failure_->set_notifier(&monitor_driver_);
  failure_->failopen(true, true);
  EXPECT_TRUE(failure_->is_failopen_enabled());
  status().failure_count = 2;
  failure_->failopen(false, true);
  EXPECT_FALSE(failure_->is_failopen_enabled());
  EXPECT_EQ(status().failopen_start, 0);
  EXPECT_EQ(status().failure_count, 0U);
  EXPECT_EQ(listener_.told, (Told{true, false}));
  EXPECT_EQ(types_at(daemon_), (Types{8, 8}));
  EXPECT_EQ(types_at(watchdog_), (Types{2, 2}));
}

// Verifies that a quiet switch is stored and told to nobody.
TEST_F(ZolFailure, QuietSwitch) {
  failure_->set_notifier(&monitor_driver_);
  failure_->failopen(true, false);
  EXPECT_EQ(status().failopen_active, 1);
  EXPECT_EQ(listener_.told, Told{});
  EXPECT_EQ(types_at(daemon_), Types{});
  EXPECT_EQ(types_at(watchdog_), Types{});
}

// Verifies that the reload that goes to the watchdog is a bare header from "zol".
TEST_F(ZolFailure, ReloadMessage) {
  failure_->failopen(true, true);
  const zol_test::Bytes message = zol_test::receive(watchdog_);
  ASSERT_EQ(message.size(), 56U);
  EXPECT_EQ(zol_test::text_at(message, 2), "zol");
  EXPECT_EQ(zol_test::text_at(message, 31), "watchdog");
}

// Verifies that a listener is kept once, and is told nothing once it has gone.
TEST_F(ZolFailure, Listeners) {
  FailopenListener other;
  failure_->add(&other);
  failure_->add(&other);
  failure_->add(nullptr);
  failure_->failopen(true, true);
  EXPECT_EQ(other.told, Told{true});
  failure_->remove(&other);
  failure_->remove(&other);
  failure_->failopen(false, true);
  EXPECT_EQ(other.told, Told{true});
  EXPECT_EQ(listener_.told, (Told{true, false}));
}

// Verifies that a listener that takes another one away while it is told keeps the other from being told.
TEST_F(ZolFailure, ListenerLeavesWhileTold) {
  struct Remover : zol::IFailopen {
    Remover(zol::ZOLFailure& from, zol::IFailopen& who) : failure(from), other(who) {}
    void failopen_notification(bool) override {
      failure.remove(&other);
      failure.remove(this);
    }
    zol::ZOLFailure& failure;
    zol::IFailopen& other;
  };
  FailopenListener last;
  Remover remover(*failure_, last);
  failure_->add(&remover);
  failure_->add(&last);
  failure_->failopen(true, true);
  EXPECT_EQ(last.told, Told{});
  EXPECT_EQ(failure_->failopen_listeners, std::vector<zol::IFailopen*>{&listener_});
}

// Verifies that fail-open lasts the waiting period to its last second and ends behind it, with a line.
TEST_F(ZolFailure, WaitingPeriod) {
  failure_->set_notifier(&monitor_driver_);
  begin_failopen(30);
  tick();
  EXPECT_EQ(status().failopen_active, 1);
  EXPECT_EQ(listener_.told, Told{});
  begin_failopen(60);
  tick();
  EXPECT_TRUE(
      log_.contains(log_level::info, "Return wait period have passed, switching out from failopen mode"));
  EXPECT_EQ(status().failopen_active, 0);
  EXPECT_EQ(listener_.told, Told{false});
  EXPECT_EQ(types_at(daemon_), Types{8});
  EXPECT_EQ(types_at(watchdog_), Types{2});
}

// Verifies that a node that isn't in fail-open isn't taken out of it.
TEST_F(ZolFailure, NothingToEnd) {
  tick();
  EXPECT_FALSE(log_.contains("Return wait period"));
  EXPECT_EQ(types_at(watchdog_), Types{});
}

// Verifies that a beginning that lies ahead doesn't hold the node in fail-open.
TEST_F(ZolFailure, BeginningAhead) {
  begin_failopen(-100000);
  tick();
  EXPECT_EQ(status().failopen_active, 0);
}

// Verifies that without a waiting period fail-open stays, which is said once.
TEST_F(ZolFailure, NoWaitingPeriod) {
  config_.set("Failopen: { threshold = 3; };");
  begin_failopen(100000);
  tick();
  tick();
  EXPECT_EQ(status().failopen_active, 1);
  EXPECT_EQ(log_.count("check_failure_status: Couldn't retrieve configuration parameter "
                       "Failopen.return_wait_period"),
            1);
}

// Verifies that the timer runs from the beginning with 5000 ms, charges itself again, and is the one
// callback.
TEST_F(ZolFailure, Timer) {
  EXPECT_TRUE(failure_->status_timer.is_pending());
  EXPECT_EQ(failure_->status_timer.callback, &zol::ZOLFailure::check_failure_status);
  timeval due{};
  ASSERT_NE(event_pending(&failure_->status_timer.ev, EV_TIMEOUT, &due), 0);
  timeval now{};
  gettimeofday(&now, nullptr);
  const double left =
      static_cast<double>(due.tv_sec - now.tv_sec) + static_cast<double>(due.tv_usec - now.tv_usec) / 1e6;
  EXPECT_GT(left, 2.0);
  EXPECT_LT(left, 5.1);
  failure_->status_timer.del(false);
  tick();
  EXPECT_TRUE(failure_->status_timer.is_pending());
}

// Verifies that a reload tells the listeners of a state that another process has switched, once, and sends no
// reload itself.
TEST_F(ZolFailure, ReloadAppliesTheState) {
  begin_failopen(1);
  config_.configurator().reload_configuration("", 0);
  EXPECT_TRUE(log_.contains("Reconfiguration of ZOL failure handler"));
  EXPECT_EQ(listener_.told, Told{true});
  EXPECT_EQ(types_at(watchdog_), (Types{10, 10}));  // the links' processes
  failure_->reconfigure();
  EXPECT_EQ(listener_.told, Told{true});
  status().failopen_active = 0;
  failure_->reconfigure();
  EXPECT_EQ(listener_.told, (Told{true, false}));
  EXPECT_EQ(types_at(watchdog_), Types{});
}

// Verifies that it always wants to hear of a reload and says nothing of a service.
TEST_F(ZolFailure, NeedReconf) {
  bool enabled = true;
  EXPECT_TRUE(failure_->need_reconf(enabled));
  EXPECT_TRUE(enabled);
  EXPECT_FALSE(failure_->is_running);
}

// Verifies that the process has one object, and that a listener's reload puts it there and takes it away.
TEST_F(ZolFailure, TheOneOfTheProcess) {
  struct Listener : zol::IReconfigure, FailopenListener {
    void reconfigure() override {}
    bool need_reconf(bool&) override { return true; }
  } listener;
  listener.reload(true);
  EXPECT_EQ(zol::zol_failure().failopen_listeners, std::vector<zol::IFailopen*>{&listener});
  EXPECT_EQ(&zol::zol_failure(), &zol::zol_failure());
  listener.reload(false);
  EXPECT_TRUE(zol::zol_failure().failopen_listeners.empty());
  zol::zol_failure().status_timer.del(false);
}

}  // namespace
