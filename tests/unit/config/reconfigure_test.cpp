// What the base class of the listeners does by itself.
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "config/zol_configurator.h"
#include "exec/wd_executor.h"
#include "failure/zol_failure.h"
#include "sup_logger.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using Calls = std::vector<std::string>;
Calls calls;

class Plain : public zol::IReconfigure {
 public:
  void reconfigure() override { calls.push_back("reconfigure"); }
  bool need_reconf(bool&) override { return true; }
  void reload_conf() override { calls.push_back("reload_conf"); }
};

// Whether the failure handling tells it of fail-open.
bool is_listed(zol::IReconfigure& listener) {
  const auto* failopen = dynamic_cast<zol::IFailopen*>(&listener);
  const auto& all = zol::zol_failure().failopen_listeners;
  return failopen != nullptr && std::find(all.begin(), all.end(), failopen) != all.end();
}

class WithExecutor : public virtual Plain, public zol::WDExecutor {
 public:
  WithExecutor() : zol::WDExecutor("zol") {}
  bool start() override {
    calls.push_back(is_listed(*this) ? "start while listed" : "start");
    return starts;
  }
  std::string get_pname() override { return "zol_ha_agent"; }
  bool stop() override {
    calls.push_back(is_listed(*this) ? "stop while listed" : "stop");
    return true;
  }
  bool starts = true;
};

class WithFailopen : public virtual Plain, public zol::IFailopen {
 public:
  ~WithFailopen() override { zol::zol_failure().remove(this); }
  void failopen_notification(bool) override {}
};

class WithBoth : public WithExecutor, public WithFailopen {};

class Reconfigure : public testing::Test {
 protected:
  template <typename Listener>
  static Calls reload_calls(bool is_running, bool enable) {
    Listener listener;
    listener.is_running = is_running;
    if (auto* failopen = dynamic_cast<zol::IFailopen*>(static_cast<Plain*>(&listener));
        failopen != nullptr && is_running)
      zol::zol_failure().add(failopen);
    calls.clear();
    listener.reload(enable);
    EXPECT_EQ(listener.is_running, enable);
    if (is_listed(listener))
      calls.push_back("listed");
    return calls;
  }

  zol_test::ScopedConfig config_{"Group: { on = true; off = false; };"};
};

// Verifies the defaults of a listener.
TEST_F(Reconfigure, Defaults) {
  Plain listener;
  EXPECT_FALSE(listener.is_running);
  EXPECT_TRUE(listener.service_name.empty());
  EXPECT_EQ(listener.last_reconf_ms, 0U);
  EXPECT_TRUE(listener.service_tag.empty());
  EXPECT_FALSE(listener.post_pending);
  EXPECT_TRUE(listener.is_enabled());
  EXPECT_FALSE(listener.reconf_timer.is_pending());
  EXPECT_NO_THROW(listener.post_reconfigure());
}

// Verifies that a service that runs and goes on running is told to re-read its configuration, and no more.
TEST_F(Reconfigure, RunningStaysRunning) {
  EXPECT_EQ(reload_calls<Plain>(true, true), Calls{"reload_conf"});
  EXPECT_EQ(reload_calls<WithBoth>(true, true), (Calls{"reload_conf", "listed"}));
}

// Verifies that a service that is switched off leaves the failure handling and is stopped, in this order.
TEST_F(Reconfigure, RunningStops) {
  EXPECT_EQ(reload_calls<Plain>(true, false), Calls{});
  EXPECT_EQ(reload_calls<WithExecutor>(true, false), Calls{"stop"});
  EXPECT_EQ(reload_calls<WithFailopen>(true, false), Calls{});
  EXPECT_EQ(reload_calls<WithBoth>(true, false), Calls{"stop"});
}

// Verifies that a service that is switched on is started and joins the failure handling, in this order.
TEST_F(Reconfigure, StoppedStarts) {
  EXPECT_EQ(reload_calls<Plain>(false, true), Calls{});
  EXPECT_EQ(reload_calls<WithExecutor>(false, true), Calls{"start"});
  EXPECT_EQ(reload_calls<WithFailopen>(false, true), Calls{"listed"});
  EXPECT_EQ(reload_calls<WithBoth>(false, true), (Calls{"start", "listed"}));
}

// Verifies that nothing happens to a service that is off and stays off.
TEST_F(Reconfigure, StoppedStaysStopped) {
  EXPECT_EQ(reload_calls<WithBoth>(false, false), Calls{});
}

// Verifies that a failing start is logged at fatal level and thrown in the same words, and that the service
// doesn't count as running.
TEST_F(Reconfigure, FailingStart) {
  WithBoth listener;
  listener.starts = false;
  calls.clear();
  zol_test::LogCapture log;
  try {
    listener.reload(true);
    FAIL() << "no exception";
  } catch (const std::runtime_error& failure) {
    EXPECT_STREQ(failure.what(), "Couldn't run the process: zol_ha_agent");
  }
  EXPECT_TRUE(log.contains(log_level::fatal, "Couldn't run the process: zol_ha_agent")) << log.all();
  EXPECT_FALSE(listener.is_running);
  EXPECT_EQ(calls, Calls{"start"});
  EXPECT_FALSE(is_listed(listener));
}

// Verifies that bool_get reads the tree, and throws with the key's name when it is missing.
TEST_F(Reconfigure, BoolGet) {
  Plain listener;
  EXPECT_TRUE(listener.bool_get("Group.on"));
  EXPECT_FALSE(listener.bool_get("Group.off"));
  try {
    listener.bool_get("Group.absent");
    FAIL() << "no exception";
  } catch (const std::runtime_error& failure) {
    EXPECT_STREQ(failure.what(), "ERROR couldn't find the parameter of Group.absent");
  }
}

// Verifies that the timer's callback reconfigures and then runs the second step.
TEST_F(Reconfigure, TimerCallback) {
  class WithPost : public Plain {
   public:
    void post_reconfigure() override { calls.push_back("post"); }
  } listener;
  calls.clear();
  zol::IReconfigure::reconf_cb(-1, 1, static_cast<zol::IReconfigure*>(&listener));
  EXPECT_EQ(calls, (Calls{"reconfigure", "post"}));
  EXPECT_EQ(listener.reconf_timer.arg, static_cast<zol::IReconfigure*>(&listener));
  EXPECT_EQ(listener.reconf_timer.callback, &zol::IReconfigure::reconf_cb);
  EXPECT_EQ(listener.reconf_timer.fd, -1);
}

// Verifies that the default reload_conf, which has no endpoint here, reaches nobody and harms nothing.
TEST_F(Reconfigure, DefaultReloadConf) {
  class Bare : public zol::IReconfigure {
   public:
    void reconfigure() override {}
    bool need_reconf(bool&) override { return true; }
  } listener;
  EXPECT_NO_THROW(listener.reload_conf());
}

}  // namespace
