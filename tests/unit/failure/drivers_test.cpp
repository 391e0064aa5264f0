// The links to the daemon and to the agent of the pair: what goes out, byte by byte.
#include <arpa/inet.h>

#include <stdexcept>

#include "sup_logger.h"
#include "tests/unit/failure/failure_fixture.h"

namespace {

using zol_test::Bytes;
using zol_test::FailureTest;
using zol_test::receive;
using zol_test::text_at;
using zol_test::Types;
using zol_test::value_at;

class Drivers : public FailureTest {};

std::string header_text(const Bytes& message) {
  return text_at(message, 2) + ">" + text_at(message, 31);
}

Bytes behind_header(const Bytes& message) {
  return Bytes(message.begin() + 56, message.end());
}

// Verifies the record of a failure, to the daemon and to the agent.
TEST_F(Drivers, Failure) {
  const Bytes expected = {
      192,  0,    2, 7,  // address, network order
      0x29, 0x23,        // port 9001, host order
      0,    0,           // no second port
      1,                 // one valid
      0,    0,    0, 0,  // status
  };
  EXPECT_TRUE(monitor_driver_.dispatch_event_failure("192.0.2.7", 9001));
  EXPECT_TRUE(agent_driver_.dispatch_event_failure("192.0.2.7", 9001));
  const Bytes to_daemon = receive(daemon_);
  const Bytes to_agent = receive(agent_);
  ASSERT_EQ(to_daemon.size(), 69U);
  ASSERT_EQ(to_agent.size(), 69U);
  EXPECT_EQ(value_at<std::uint16_t>(to_daemon, 0), 7);
  EXPECT_EQ(value_at<std::uint16_t>(to_agent, 0), 7);
  EXPECT_EQ(header_text(to_daemon), "zol>zol_monitor");
  EXPECT_EQ(header_text(to_agent), "zol>zol_ha_agent");
  EXPECT_EQ(behind_header(to_daemon), expected);
  EXPECT_EQ(behind_header(to_agent), expected);
}

// Verifies that a text that is no address is an error line and no message.
TEST_F(Drivers, FailureOfNoAddress) {
  for (const char* text : {"", "neighbour.example", "192.0.2", "300.1.1.1"}) {
    EXPECT_FALSE(monitor_driver_.dispatch_event_failure(text, 9001)) << text;
    EXPECT_FALSE(agent_driver_.dispatch_event_failure(text, 9001)) << text;
    EXPECT_TRUE(
        log_.contains(log_level::error, std::string("dispatch_event_failure: not an IPv4 address: ") + text));
  }
  EXPECT_EQ(types_at(daemon_), Types{});
  EXPECT_EQ(types_at(agent_), Types{});
}

// Verifies the record of fail-open, on and off.
TEST_F(Drivers, Failopen) {
  for (const bool active : {true, false}) {
    EXPECT_TRUE(monitor_driver_.dispatch_event_failopen(active));
    const Bytes message = receive(daemon_);
    ASSERT_EQ(message.size(), 57U);
    EXPECT_EQ(value_at<std::uint16_t>(message, 0), 8);
    EXPECT_EQ(header_text(message), "zol>zol_monitor");
    EXPECT_EQ(message[56], active ? 1 : 0);
  }
}

// Verifies the record of a black hole: the target with zero behind it, cut at 255 characters, and "unknown"
// for none.
TEST_F(Drivers, BlackHole) {
  for (const std::string& target :
       {std::string("target.example"), std::string(255, 't'), std::string(400, 'u'), std::string()}) {
    EXPECT_TRUE(monitor_driver_.dispatch_event_bh(target));
    const Bytes message = receive(daemon_);
    ASSERT_EQ(message.size(), 312U);
    EXPECT_EQ(value_at<std::uint16_t>(message, 0), 26);
    const std::string told = target.empty() ? "unknown" : target.substr(0, 255);
    Bytes expected(told.begin(), told.end());
    expected.resize(256);
    EXPECT_EQ(behind_header(message), expected);
  }
}

// Verifies that suspension and its end are bare headers to the agent.
TEST_F(Drivers, SuspendAndResume) {
  EXPECT_TRUE(agent_driver_.dispatch_event_suspend());
  EXPECT_TRUE(agent_driver_.dispatch_event_resume());
  for (const int type : {14, 15}) {
    const Bytes message = receive(agent_);
    ASSERT_EQ(message.size(), 56U);
    EXPECT_EQ(value_at<std::uint16_t>(message, 0), type);
    EXPECT_EQ(header_text(message), "zol>zol_ha_agent");
  }
}

// Verifies that an event that reaches nobody is told so.
TEST_F(Drivers, NobodyThere) {
  zol::IDispatch::setup(-1, "");
  EXPECT_FALSE(monitor_driver_.dispatch_event_failure("192.0.2.7", 9001));
  EXPECT_FALSE(monitor_driver_.dispatch_event_failopen(true));
  EXPECT_FALSE(monitor_driver_.dispatch_event_bh("target.example"));
  EXPECT_FALSE(agent_driver_.dispatch_event_suspend());
  EXPECT_FALSE(agent_driver_.dispatch_event_resume());
}

// Verifies that the daemon is told of black holes only when the server is to know, and that a line says why
// not.
TEST_F(Drivers, BlackHoleForTheServer) {
  monitor_driver_.bh_notification({"target.example", true});
  EXPECT_EQ(types_at(daemon_), Types{26});
  for (const char* text : {"BlackHole: { enabled = true; hqs_notification = false; };", ""}) {
    config_.set(text);
    log_.clear();
    monitor_driver_.bh_notification({"target.example", false});
    EXPECT_TRUE(log_.contains(log_level::info, "bh_notification: ")) << log_.all();
    EXPECT_TRUE(log_.contains("BlackHole.hqs_notification"));
  }
  EXPECT_EQ(types_at(daemon_), Types{});
}

// Verifies that the agent is sent a reload for a black hole that nobody has handled, with all of it switched
// on, and in no other case.
TEST_F(Drivers, BlackHoleForTheAgent) {
  agent_driver_.bh_notification({"target.example", false});
  EXPECT_EQ(types_at(agent_), Types{2});
  agent_driver_.bh_notification({"target.example", true});
  config_.set("BlackHole: { enabled = true; }; HighAvailability: { enabled = false; };");
  agent_driver_.bh_notification({"target.example", false});
  config_.set("HighAvailability: { enabled = true; };");
  agent_driver_.bh_notification({"target.example", false});
  EXPECT_EQ(types_at(agent_), Types{});
}

// Verifies that a black hole reaches both links as registered listeners.
TEST_F(Drivers, BlackHoleByTheHandler) {
  failure_->bh_notify_register(&monitor_driver_);
  failure_->bh_notify_register(&agent_driver_);
  failure_->blackhole_notify({"target.example", false});
  EXPECT_EQ(types_at(daemon_), Types{26});
  EXPECT_EQ(types_at(agent_), Types{2});
  config_.set("BlackHole: { enabled = true; close_service_ports = true; hqs_notification = true; };");
  failure_->blackhole_notify({"target.example", false});  // handled: the agent has nothing to do
  EXPECT_EQ(types_at(daemon_), Types{26});
  EXPECT_EQ(types_at(agent_), Types{});
}

// Verifies the processes that the links ask the watchdog for.
TEST_F(Drivers, Processes) {
  EXPECT_EQ(monitor_driver_.WDProcessExecutor::path, "./zol_monitor");
  EXPECT_EQ(monitor_driver_.get_pname(), "zol_monitor");
  EXPECT_EQ(monitor_driver_.weight, 0.5);
  EXPECT_TRUE(monitor_driver_.args.empty());
  EXPECT_EQ(agent_driver_.WDProcessExecutor::path, "./zol_ha_agent");
  EXPECT_EQ(agent_driver_.get_pname(), "zol_ha_agent");
  EXPECT_EQ(agent_driver_.weight, 1.0);
  EXPECT_TRUE(agent_driver_.args.empty());
  EXPECT_EQ(monitor_driver_.WDExecutor::dispatch.source, "zol");
  EXPECT_EQ(monitor_driver_.WDExecutor::dispatch.destination, "watchdog");
}

// Verifies that each link's switch says whether its process is to run, and what a missing one throws.
TEST_F(Drivers, Switches) {
  for (const bool on : {true, false}) {
    const std::string value = on ? "true" : "false";
    config_.set("HighAvailability: { enabled = " + value + "; }; Monitoring: { enabled = " + value + "; };");
    bool daemon = !on;
    bool agent = !on;
    EXPECT_TRUE(monitor_driver_.need_reconf(daemon));
    EXPECT_TRUE(agent_driver_.need_reconf(agent));
    EXPECT_EQ(daemon, on);
    EXPECT_EQ(agent, on);
    EXPECT_EQ(agent_driver_.is_enabled(), on);
    EXPECT_TRUE(monitor_driver_.is_enabled());
  }
  config_.set("");
  for (zol::IReconfigure* driver :
       {static_cast<zol::IReconfigure*>(&monitor_driver_), static_cast<zol::IReconfigure*>(&agent_driver_)}) {
    bool enabled = false;
    try {
      driver->need_reconf(enabled);
      ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "ERROR couldn't find the critical parameter of monitor-enabled ");
    }
  }
}

// Verifies that a reload starts the two processes through the watchdog, tells those that run to read their
// settings, and stops them when they are switched off.
TEST_F(Drivers, ReloadStartsAndStops) {
  config_.configurator().reload_configuration("", 0);
  EXPECT_EQ(types_at(watchdog_), (Types{10, 10}));
  EXPECT_EQ(types_at(daemon_), Types{});
  config_.configurator().reload_configuration("", 0);
  EXPECT_EQ(types_at(watchdog_), Types{});
  EXPECT_EQ(types_at(daemon_), Types{2});
  EXPECT_EQ(types_at(agent_), Types{2});
  config_.write_file("HighAvailability: { enabled = false; }; Monitoring: { enabled = false; };");
  config_.configurator().reload_configuration("", 0);
  EXPECT_EQ(types_at(watchdog_), (Types{11, 11}));
}

// Verifies that a reload without a switch ends there, and that the listeners behind hear nothing of it.
TEST_F(Drivers, ReloadWithoutSwitch) {
  config_.write_file("HighAvailability: { enabled = true; };");
  log_.clear();
  EXPECT_THROW(config_.configurator().reload_configuration("", 0), std::runtime_error);
  EXPECT_FALSE(log_.contains("Reconfiguration of ZOL failure handler"));
  EXPECT_TRUE(log_.contains("zol::MonitorDriver"));
}

// Verifies that a link that has ended hears of no reload.
TEST_F(Drivers, EndedLink) {
  config_.write_file("HighAvailability: { enabled = true; }; Monitoring: { enabled = true; };");
  { const zol::MonitorDriver ended(1.0); }
  config_.configurator().reload_configuration("", 0);
  EXPECT_EQ(types_at(watchdog_), (Types{10, 10}));
}

}  // namespace
