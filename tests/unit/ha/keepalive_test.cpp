#include "ha/keepalive.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <stdexcept>

#include "core/ipc_messages.h"
#include "sup_logger.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/unit/core/ipc_fixture.h"
#include "tests/unit/core/loop_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using zol_test::Bytes;
using zol_test::LogCapture;

constexpr std::size_t source_offset = 2;  // of the message's header
constexpr std::size_t destination_offset = 31;

class KeepAliveUnderTest : public zol::KeepAlive {
 public:
  KeepAliveUnderTest() = default;
};

class KeepAliveTest : public zol_test::LoopTest {
 protected:
  // The beats that wait for the watchdog.
  std::size_t beats() {
    std::size_t count = 0;
    while (!zol_test::receive(watchdog_).empty())
      ++count;
    return count;
  }

  zol_test::TestNode node_;
  zol_test::ScopedConfig config_{"General: { zol_id = \"" + node_.id() + "\"; };"};
  int watchdog_ = node_.open("watchdog");
  KeepAliveUnderTest keep_alive_;
};

TEST_F(KeepAliveTest, one_of_the_process) {
  // Verifies that everybody gets the same object, which sends nothing as long as nobody has started it.
  EXPECT_EQ(zol::KeepAlive::instance(), zol::KeepAlive::instance());
  zol::KeepAlive::instance()->send_keepalive();
  EXPECT_EQ(beats(), 0U);
}

TEST_F(KeepAliveTest, fresh_object) {
  // Verifies that an object that nobody has started isn't ready, has no name and no endpoint.
  EXPECT_EQ(keep_alive_.socket, 0);
  EXPECT_FALSE(keep_alive_.ready);
  EXPECT_THAT(keep_alive_.name, IsEmpty());
  EXPECT_EQ(keep_alive_.pending_checks, nullptr);
  EXPECT_FALSE(keep_alive_.is_pending());
}

TEST_F(KeepAliveTest, starts_without_checks) {
  // Verifies that without checks the first beat leaves at the loop's next pass, from the given name, as the
  // health beat to the watchdog, and that the timer is charged again.
  LogCapture log;
  keep_alive_.init(0, "worker", "worker_ka");
  EXPECT_TRUE(log.contains(log_level::info, "init: Keepalive started for worker, pending for 0 checks"));
  EXPECT_TRUE(keep_alive_.ready);
  EXPECT_EQ(beats(), 0U);
  Bytes message;
  ASSERT_TRUE(run_until([&] { return !(message = zol_test::receive(watchdog_)).empty(); }));
  ASSERT_THAT(message, SizeIs(sizeof(ipcmsg_t)));
  EXPECT_EQ(zol_test::value_at<std::uint16_t>(message, 0), 1);
  EXPECT_EQ(zol_test::text_at(message, source_offset), "worker");
  EXPECT_EQ(zol_test::text_at(message, destination_offset), "watchdog");
  EXPECT_TRUE(keep_alive_.is_pending());
  EXPECT_TRUE(log.contains(log_level::trace, "send_heartbeat: Sent heartbeat"));
}

TEST_F(KeepAliveTest, own_endpoint) {
  // Verifies that the endpoint bears the given IPC name, and without one the name of the process.
  keep_alive_.init(1, "worker", "worker_ka");
  EXPECT_EQ(access((node_.folder() + "/worker_ka").c_str(), F_OK), 0);
  KeepAliveUnderTest unnamed;
  unnamed.init(1, "worker", "");
  EXPECT_EQ(access((node_.folder() + "/worker").c_str(), F_OK), 0);
}

TEST_F(KeepAliveTest, endpoint_that_stands) {
  // Verifies that an endpoint that was set before isn't opened anew.
  const int fd = node_.open("owner");
  keep_alive_.socket = fd;
  keep_alive_.init(0, "worker", "worker_ka");
  EXPECT_EQ(keep_alive_.socket, fd);
  EXPECT_NE(access((node_.folder() + "/worker_ka").c_str(), F_OK), 0);
  keep_alive_.socket = 0;  // the node's, which closes it
}

TEST_F(KeepAliveTest, second_start) {
  // Verifies that a second start changes nothing.
  keep_alive_.init(2, "worker", "worker_ka");
  keep_alive_.init(0, "other", "other_ka");
  EXPECT_EQ(keep_alive_.name, "worker");
  EXPECT_THAT(*keep_alive_.pending_checks, SizeIs(2));
  EXPECT_FALSE(keep_alive_.ready);
}

TEST_F(KeepAliveTest, no_node_id) {
  // Verifies that without the node's id there is no start, and a later one is whole.
  config_.set("General: {};");
  EXPECT_THROW(keep_alive_.init(1, "worker", ""), std::runtime_error);
  config_.set("General: { zol_id = \"" + node_.id() + "\"; };");
  keep_alive_.init(1, "worker", "");
  EXPECT_THAT(*keep_alive_.pending_checks, ElementsAre(0U));
  EXPECT_GT(keep_alive_.socket, 0);
}

TEST_F(KeepAliveTest, pending_checks) {
  // Verifies that as long as a check is missing nothing is sent.
  keep_alive_.init(2, "worker", "");
  keep_alive_.pass_check(2);
  EXPECT_THAT(*keep_alive_.pending_checks, ElementsAre(0U, 1U));
  keep_alive_.send_keepalive();
  run_once();
  EXPECT_FALSE(keep_alive_.ready);
  EXPECT_FALSE(keep_alive_.is_pending());
  EXPECT_EQ(beats(), 0U);
}

TEST_F(KeepAliveTest, last_check) {
  // Verifies that with the last check, whatever the order, the first beat leaves at once and the timer runs.
  LogCapture log;
  keep_alive_.init(2, "worker", "");
  EXPECT_TRUE(log.contains(log_level::info, "init: Keepalive started for worker, pending for 2 checks"));
  keep_alive_.pass_check(2);
  EXPECT_FALSE(log.contains("Ready to send"));
  keep_alive_.pass_check(1);
  EXPECT_TRUE(log.contains(log_level::info, "pass_check: Ready to send KA messages"));
  EXPECT_TRUE(keep_alive_.ready);
  EXPECT_TRUE(keep_alive_.is_pending());
  EXPECT_EQ(beats(), 1U);
}

TEST_F(KeepAliveTest, check_after_the_last) {
  // Verifies that a check that is passed again when all have passed does nothing.
  keep_alive_.init(1, "worker", "");
  keep_alive_.pass_check(1);
  EXPECT_EQ(beats(), 1U);
  keep_alive_.pass_check(1);
  EXPECT_EQ(beats(), 0U);
}

TEST_F(KeepAliveTest, unknown_check) {
  // Verifies that a number that no check has is a programming fault, before and after the start.
  LogCapture log;
  const auto fault = testing::ThrowsMessage<std::runtime_error>("Received invalid check number");
  EXPECT_THAT([this] { keep_alive_.pass_check(1); }, fault);
  keep_alive_.init(2, "worker", "");
  EXPECT_THAT([this] { keep_alive_.pass_check(0); }, fault);
  EXPECT_THAT([this] { keep_alive_.pass_check(3); }, fault);
  EXPECT_TRUE(
      log.contains(log_level::fatal, "pass_check: Invalid check number provided. Provided value is 0"));
  EXPECT_TRUE(
      log.contains(log_level::fatal, "pass_check: Invalid check number provided. Provided value is 3"));
  EXPECT_THAT(*keep_alive_.pending_checks, ElementsAre(0U, 0U));
}

TEST_F(KeepAliveTest, beat_of_long_work) {
  // Verifies that a beat from inside long work leaves at once and without the log line.
  keep_alive_.init(1, "worker", "");
  keep_alive_.pass_check(1);
  EXPECT_EQ(beats(), 1U);
  LogCapture log;
  keep_alive_.send_keepalive();
  EXPECT_EQ(beats(), 1U);
  EXPECT_FALSE(log.contains("Sent heartbeat"));
}

TEST_F(KeepAliveTest, no_watchdog) {
  // Verifies that a watchdog that isn't there stops nothing.
  unlink((node_.folder() + "/watchdog").c_str());
  const LogCapture quiet;
  keep_alive_.init(0, "worker", "");
  ASSERT_TRUE(run_until([&] { return quiet.contains("Sent heartbeat"); }));
  EXPECT_TRUE(keep_alive_.is_pending());
  keep_alive_.send_keepalive();
  EXPECT_TRUE(keep_alive_.ready);
}

}  // namespace
