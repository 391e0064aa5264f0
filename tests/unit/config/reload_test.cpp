// The walk over the listeners of a reload.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "config/zol_configurator.h"
#include "sup_logger.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using zol_test::LogCapture;
using zol_test::ScopedConfig;

std::vector<std::string> calls;

// Answers as told and notes in `calls` what it is asked.
class Listener : public zol::IReconfigure {
 public:
  explicit Listener(std::string listener_name) : name(std::move(listener_name)) {}

  bool need_reconf(bool& enabled) override {
    calls.push_back(name + ".need");
    enabled = enable;
    on_need();
    return need;
  }
  void reconfigure() override {
    calls.push_back(name + ".reconfigure");
    on_reconfigure();
  }
  void post_reconfigure() override {
    calls.push_back(name + ".post");
    on_post();
  }
  void reload(bool enabled) override {
    calls.push_back(name + (enabled ? ".reload(1)" : ".reload(0)"));
    is_running = enabled;
  }

  std::string name;
  bool need = true;
  bool enable = false;
  std::function<void()> on_need = [] {};
  std::function<void()> on_reconfigure = [] {};
  std::function<void()> on_post = [] {};
};

class OpenConfigurator : public zol::AConfigurator {
 public:
  using AConfigurator::AConfigurator;
  using AConfigurator::file_name;
  using AConfigurator::frozen;
  using AConfigurator::lock;
};

class ReloadTest : public testing::Test {
 protected:
  ReloadTest() {
    calls.clear();
    for (Listener* listener : {&one, &two})
      config.configurator().register_reconfiguration_cb(listener);
  }
  void reload(const std::string& service_name = "", unsigned long timestamp = 0) {
    config.configurator().reload_configuration(service_name, timestamp);
  }
  using Calls = std::vector<std::string>;

  ScopedConfig config{"a = 1;"};
  Listener one{"one"};
  Listener two{"two"};
};

// Verifies that both rounds visit the listeners in order of registration, the second one after the first.
TEST_F(ReloadTest, TwoRounds) {
  reload();
  EXPECT_EQ(calls, (Calls{"one.need", "one.reconfigure", "one.reload(0)", "two.need", "two.reconfigure",
                          "two.reload(0)", "one.post", "two.post"}));
}

// Verifies that the listeners see the new file.
TEST_F(ReloadTest, ReadsTheFileFirst) {
  config.write_file("a = 2;");
  int seen = 0;
  one.on_reconfigure = [&] { config.configurator().config.lookupValue("a", seen); };
  reload();
  EXPECT_EQ(seen, 2);
}

// Verifies that a listener registered twice is called once.
TEST_F(ReloadTest, RegisteredTwice) {
  config.configurator().register_reconfiguration_cb(&one);
  reload();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "one.reconfigure"), 1);
  config.configurator().unregister_reconfiguration_cb(&one);
  calls.clear();
  reload();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "one.need"), 0);
}

// Verifies that unregistering an unknown listener does nothing.
TEST_F(ReloadTest, UnregisterUnknown) {
  Listener stranger("stranger");
  config.configurator().unregister_reconfiguration_cb(&stranger);
  reload();
  EXPECT_EQ(calls.size(), 8U);
}

// Verifies that a listener may leave, and take another one with it, while it is visited.
TEST_F(ReloadTest, UnregisterWhileVisited) {
  Listener three("three");
  config.configurator().register_reconfiguration_cb(&three);
  one.on_reconfigure = [&] {
    config.configurator().unregister_reconfiguration_cb(&one);
    config.configurator().unregister_reconfiguration_cb(&two);
  };
  reload();
  EXPECT_EQ(calls, (Calls{"one.need", "one.reconfigure", "one.reload(0)", "three.need", "three.reconfigure",
                          "three.reload(0)", "three.post"}));
}

// Verifies that a listener without a need whose service is as it should be is left alone.
TEST_F(ReloadTest, NoNeedSameState) {
  one.need = two.need = false;
  two.is_running = two.enable = true;
  reload();
  EXPECT_EQ(calls, (Calls{"one.need", "two.need"}));
}

// Verifies that a listener without a need is reconfigured when its service is to start or to stop.
TEST_F(ReloadTest, NoNeedOtherState) {
  one.need = two.need = false;
  one.enable = true;
  two.is_running = true;
  reload();
  EXPECT_EQ(calls, (Calls{"one.need", "one.reconfigure", "one.reload(1)", "two.need", "two.reconfigure",
                          "two.reload(0)", "one.post", "two.post"}));
}

// Verifies that `enabled` begins as false for a listener that doesn't write it.
TEST_F(ReloadTest, EnabledBeginsFalse) {
  class Silent : public Listener {
   public:
    using Listener::Listener;
    bool need_reconf(bool& enabled) override {
      was_enabled = enabled;
      return true;
    }
    bool was_enabled = true;
  } silent("silent");
  config.configurator().register_reconfiguration_cb(&silent);
  reload();
  EXPECT_FALSE(silent.was_enabled);
}

// Verifies the debug line of each visit.
TEST_F(ReloadTest, DebugLine) {
  one.enable = true;
  two.need = false;
  two.is_running = true;
  LogCapture log;
  reload();
  EXPECT_TRUE(log.contains(log_level::debug, "Need reconf: 1 SVC enabled: 1 Is running: 0")) << log.all();
  EXPECT_TRUE(log.contains(log_level::debug, "Need reconf: 0 SVC enabled: 0 Is running: 1")) << log.all();
}

// Verifies that a service name aims the reload at the listeners of that name.
TEST_F(ReloadTest, ByServiceName) {
  two.service_name = "proxy";
  reload("proxy");
  EXPECT_EQ(calls, (Calls{"two.need", "two.reconfigure", "two.reload(0)", "two.post"}));
}

// Verifies that a listener left out by its name gets no second post_reconfigure for an earlier reload.
TEST_F(ReloadTest, ByServiceNameAfterAnother) {
  two.service_name = "proxy";
  reload();
  calls.clear();
  reload("proxy");
  EXPECT_EQ(calls, (Calls{"two.need", "two.reconfigure", "two.reload(0)", "two.post"}));
}

// Verifies that a time stamp leaves out the listeners that have reconfigured since, and that each reconfigure
// sets the listener's own.
TEST_F(ReloadTest, ByTimestamp) {
  one.last_reconf_ms = 1001;
  two.last_reconf_ms = 1000;
  reload("", 1000);
  EXPECT_EQ(calls, (Calls{"two.need", "two.reconfigure", "two.reload(0)", "two.post"}));
  EXPECT_EQ(one.last_reconf_ms, 1001U);
  EXPECT_GT(two.last_reconf_ms, 1600000000000U);
}

// Verifies that a file that is gone is logged and that no listener hears of it.
TEST_F(ReloadTest, MissingFile) {
  std::filesystem::remove(config.folder() + "/zol.conf");
  LogCapture log;
  reload();
  EXPECT_TRUE(calls.empty());
  EXPECT_TRUE(
      log.contains(log_level::error,
                   "Exception caught reloading configuration file: Could not open configuration file - " +
                       config.folder() + "/zol.conf"))
      << log.all();
}

// Verifies that a syntax error is logged with its line, that no listener hears of it, and that the settings
// in force stay.
TEST_F(ReloadTest, SyntaxError) {
  config.write_file("b = 5;\na = = 2;\n");
  LogCapture log;
  reload();
  EXPECT_TRUE(calls.empty());
  EXPECT_TRUE(log.contains(log_level::error, "Exception caught reloading configuration file: ParseException"))
      << log.all();
  EXPECT_TRUE(log.contains(log_level::error, "line 2")) << log.all();
  int value = 0;
  EXPECT_TRUE(config.configurator().config.lookupValue("a", value));
  EXPECT_EQ(value, 1);
}

// Verifies that a syntax error leaves the shared lock held until the next unlock, and that the next reload on
// the mended file takes it again and gives it up.
TEST_F(ReloadTest, SyntaxErrorKeepsTheLock) {
  const auto writer_may_lock = [&] {
    const int fd = open((config.folder() + "/zol.conf.lock").c_str(), O_RDWR);
    const bool taken = flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return taken;
  };
  config.write_file("a = = 2;");
  reload();
  EXPECT_FALSE(writer_may_lock());
  config.write_file("a = 2;");
  reload();
  EXPECT_TRUE(writer_may_lock());
  EXPECT_EQ(calls.size(), 8U);
}

// Verifies that a std::runtime_error of the first round names its owner, is thrown on, and leaves the other
// listeners without a reload and everybody without a second round.
TEST_F(ReloadTest, RuntimeErrorEndsTheReload) {
  two.on_reconfigure = [] { throw std::runtime_error("broken"); };
  Listener three("three");
  config.configurator().register_reconfiguration_cb(&three);
  LogCapture log;
  try {
    reload();
    FAIL() << "no exception";
  } catch (const std::runtime_error& failure) {
    EXPECT_STREQ(failure.what(), "broken");
  }
  EXPECT_EQ(calls, (Calls{"one.need", "one.reconfigure", "one.reload(0)", "two.need", "two.reconfigure"}));
  EXPECT_TRUE(log.contains(log_level::error,
                           "Exception caught in reloading configuration callback from: (anonymous "
                           "namespace)::Listener"))
      << log.all();
}

// Verifies that what is thrown on is a plain std::runtime_error, also for a derived one.
TEST_F(ReloadTest, RuntimeErrorIsCopied) {
  one.on_need = [] { throw std::range_error("out of bounds"); };
  try {
    reload();
    FAIL() << "no exception";
  } catch (const std::runtime_error& failure) {
    EXPECT_EQ(typeid(failure), typeid(std::runtime_error));
    EXPECT_STREQ(failure.what(), "out of bounds");
  }
}

// Verifies that a thrown int doesn't stop the other listeners, and that its listener has no post_reconfigure.
TEST_F(ReloadTest, OtherExceptionIsPassedOver) {
  one.on_reconfigure = [] { throw 5; };
  LogCapture log;
  reload();
  EXPECT_EQ(calls, (Calls{"one.need", "one.reconfigure", "two.need", "two.reconfigure", "two.reload(0)",
                          "two.post"}));
  EXPECT_FALSE(one.post_pending);
  EXPECT_EQ(log.count("Exception caught in reloading configuration callback from: "), 1) << log.all();
}

// Verifies that a std::logic_error counts as any other exception.
TEST_F(ReloadTest, LogicErrorIsPassedOver) {
  one.on_need = [] { throw std::logic_error("no"); };
  reload();
  EXPECT_EQ(calls.back(), "two.post");
}

// Verifies that exceptions of the second round are handled as those of the first.
TEST_F(ReloadTest, ExceptionsOfTheSecondRound) {
  one.on_post = [] { throw 5; };
  reload();
  EXPECT_EQ(calls.back(), "two.post");
  one.on_post = [] { throw std::runtime_error("post"); };
  calls.clear();
  EXPECT_THROW(reload(), std::runtime_error);
  EXPECT_EQ(calls.back(), "one.post");
}

template <int>
struct ATypeWithALongNameThatIsRepeatedSoOftenThatItDoesNotFitTheLine {};

template <typename... Parts>
class LongNamed : public Listener {
 public:
  using Listener::Listener;
};

// Verifies that the name of an owner is cut to 511 characters.
TEST_F(ReloadTest, LongOwnerNameIsCut) {
  using Piece = ATypeWithALongNameThatIsRepeatedSoOftenThatItDoesNotFitTheLine<1>;
  LongNamed<Piece, Piece, Piece, Piece, Piece, Piece, Piece, Piece> owner("long");
  owner.on_need = [] { throw 1; };
  config.configurator().register_reconfiguration_cb(&owner);
  LogCapture log;
  reload();
  const std::string opening = "Exception caught in reloading configuration callback from: ";
  for (const auto& record : log.records())
    if (record.text.starts_with(opening)) {
      EXPECT_EQ(record.text.size(), opening.size() + 511);
      return;
    }
  FAIL() << log.all();
}

// Verifies that a frozen configurator takes no listener and doesn't reload.
TEST_F(ReloadTest, Frozen) {
  OpenConfigurator frozen((config.folder() + "/zol.conf").c_str(), false);
  frozen.register_reconfiguration_cb(&one);
  frozen.frozen = true;
  frozen.register_reconfiguration_cb(&two);
  config.write_file("a = 7;");
  frozen.reload_configuration("", 0);
  EXPECT_TRUE(calls.empty());
  int value = 0;
  frozen.config.lookupValue("a", value);
  EXPECT_EQ(value, 1);
  frozen.frozen = false;
  frozen.reload_configuration("", 0);
  EXPECT_EQ(calls, (Calls{"one.need", "one.reconfigure", "one.reload(0)", "one.post"}));
}

// Verifies that a configurator without a file name can't be reloaded, and says so as text.
TEST_F(ReloadTest, Transient) {
  OpenConfigurator transient((config.folder() + "/zol.conf").c_str(), false);
  transient.file_name.clear();
  try {
    transient.reload_configuration("", 0);
    FAIL() << "no exception";
  } catch (const char* text) {
    EXPECT_STREQ(text, "Unable to reload transient configurator");
  }
}

}  // namespace
