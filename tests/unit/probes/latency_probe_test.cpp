// Probes over a sender of the test's own: states and results.
#include "probes/latency_probe.h"

#include <gmock/gmock.h>

#include "dns/resolver.h"
#include "probes/raw_socket_manager.h"
#include "tests/support/log_capture.h"
#include "tests/unit/dns/dns_fixture.h"
#include "tests/unit/probes/failing_calls.h"
#include "tests/unit/probes/latency_probe_fixture.h"

namespace zol_test {
namespace {

using testing::MatchesRegex;

constexpr const char* not_running = "Latency probe test is not in progress";

class LatencyProbeTest : public testing::Test {
 protected:
  LatencyProbeTest() { zol::Resolver::set_instance(nullptr); }

  LogCapture log_;
  RecordingSender sender_;
};

// --- states

// Verifies what a new probe of no kind says of itself.
TEST_F(LatencyProbeTest, BaseDefaults) {
  PlainProbe probe;
  zol::Packet packet(10);
  probe.set_probe_id(7);
  probe.craft_packet(packet);
  EXPECT_EQ(probe.get_probe_id(), 0U);
  EXPECT_EQ(probe.get_report_type(), "");
  EXPECT_FALSE(probe.is_rejected());
  EXPECT_EQ(packet.get_length(), 0);
  EXPECT_FALSE(probe.in_progress || probe.succeeded || probe.send_failed);
  EXPECT_EQ(probe.resolve_handle, nullptr);
  EXPECT_EQ(probe.sender, nullptr);
  EXPECT_EQ(probe.logger_name, "PlainProbe");
  EXPECT_EQ(probe.protocol, 99);
}

// Verifies that without a global resolver a literal address goes out at once.
TEST_F(LatencyProbeTest, LiteralAddress) {
  PlainProbe probe(&sender_, "127.0.0.1");
  EXPECT_TRUE(probe.start());
  EXPECT_TRUE(probe.in_progress);
  EXPECT_EQ(probe.dst_ip, "127.0.0.1");
  EXPECT_EQ(probe.src_ip, "127.0.0.1");
  EXPECT_EQ(sender_.sent, 1);
  EXPECT_GT(probe.start_time.tv_sec, 0);
  EXPECT_FALSE(probe.send_failed);
}

// Verifies that without a global resolver a host name fails at once, and that the probe waits to be stopped.
TEST_F(LatencyProbeTest, HostNameWithoutAResolver) {
  PlainProbe probe(&sender_, "station.test");
  EXPECT_FALSE(probe.start());
  EXPECT_TRUE(log_.contains(log_level::error, "Could not resolve target:  station.test"));
  EXPECT_TRUE(probe.in_progress);
  EXPECT_EQ(sender_.sent, 0);
  EXPECT_TRUE(probe.stop(false));
}

// Verifies that a probe in progress can't be started again.
TEST_F(LatencyProbeTest, StartTwice) {
  PlainProbe probe(&sender_, "127.0.0.1");
  probe.start();
  EXPECT_FALSE(probe.start());
  EXPECT_TRUE(log_.contains(log_level::error, "Latency probe test is already in progress"));
  EXPECT_EQ(sender_.sent, 1);
  EXPECT_TRUE(probe.in_progress);
}

// Verifies that stopping a probe that isn't running says so and changes nothing.
TEST_F(LatencyProbeTest, StopWithoutStart) {
  PlainProbe probe(&sender_, "127.0.0.1");
  EXPECT_FALSE(probe.stop(true));
  EXPECT_TRUE(log_.contains(log_level::error, not_running));
  EXPECT_FALSE(probe.succeeded);
  EXPECT_EQ(probe.sender, &sender_);
  probe.start();
  probe.stop(true);
  EXPECT_FALSE(probe.stop(false));
  EXPECT_TRUE(probe.succeeded);
}

// Verifies that a stop lets the sender go, and that a probe started again then sends nothing.
TEST_F(LatencyProbeTest, StartAfterTheEnd) {
  PlainProbe probe(&sender_, "127.0.0.1");
  probe.start();
  EXPECT_TRUE(probe.stop(false));
  EXPECT_EQ(probe.sender, nullptr);
  EXPECT_TRUE(probe.start());
  EXPECT_TRUE(probe.in_progress);
  EXPECT_EQ(sender_.sent, 1);
}

// Verifies that a failed send leaves the probe stopped and failed, with the lines of both stops.
TEST_F(LatencyProbeTest, FailedSend) {
  sender_.result = false;
  PlainProbe probe(&sender_, "127.0.0.1");
  probe.dst_port = 80;
  EXPECT_FALSE(probe.start());
  EXPECT_FALSE(probe.in_progress);
  EXPECT_FALSE(probe.succeeded);
  EXPECT_TRUE(probe.send_failed);
  EXPECT_TRUE(
      log_.contains(log_level::warning, "probe_start: Failed to state latency probe for 127.0.0.1:80"));
  EXPECT_EQ(log_.records().back().text, not_running);
  EXPECT_EQ(probe.get_latency(), -1);
}

// Verifies that a target without a way to it fails, and that the probe waits to be stopped.
TEST_F(LatencyProbeTest, NoSourceAddress) {
  if (!in_own_namespaces())
    GTEST_SKIP() << "needs a network of the test's own, without a way out";
  PlainProbe probe(&sender_, "203.0.113.1");  // the test's network has the loopback only
  EXPECT_FALSE(probe.start());
  EXPECT_TRUE(log_.contains(log_level::error, "Failed get internal address for target 203.0.113.1"));
  EXPECT_TRUE(probe.in_progress);
  EXPECT_EQ(sender_.sent, 0);
}

// Verifies that a source that was given isn't replaced.
TEST_F(LatencyProbeTest, GivenSourceAddress) {
  PlainProbe probe(&sender_, "127.0.0.1");
  probe.src_ip = "192.0.2.1";
  probe.start();
  EXPECT_EQ(probe.src_ip, "192.0.2.1");
}

// Verifies that the measurement goes on when the clock can't be read.
TEST_F(LatencyProbeTest, FailedClock) {
  PlainProbe probe(&sender_, "127.0.0.1");
  {
    const FailingClock failing;
    EXPECT_TRUE(probe.start());
  }
  EXPECT_TRUE(log_.contains(log_level::error, "set_start_time: Failed to retrieve clock from source"));
  EXPECT_EQ(sender_.sent, 1);
}

// Verifies that the start is noted before the send and after the crafting.
TEST_F(LatencyProbeTest, StartTimeIsBesideTheSend) {
  PlainProbe probe(&sender_, "127.0.0.1");
  probe.start();
  EXPECT_TRUE(is_before(probe.crafted_at, probe.start_time));
  EXPECT_TRUE(is_before(probe.start_time, sender_.sent_at));
}

// Verifies the lines of start and stop.
TEST_F(LatencyProbeTest, StartAndStopLines) {
  zol::TCPLatencyProbe probe(nullptr, "127.0.0.1", 443, "127.0.0.5");
  probe.set_probe_id(50000);
  probe.start();
  EXPECT_THAT(log_.records().back().text,
              MatchesRegex("Start latency test <0x[0-9a-f]+> from  \\[127.0.0.5:50000 \\(50000\\)\\] "
                           "to target \\[127.0.0.1:443 \\(50000\\)\\]"));
  EXPECT_EQ(log_.records().back().level, log_level::debug);
  EXPECT_EQ(log_.records().back().category, "TCPLatencyProbe");
  probe.stop(false);
  EXPECT_THAT(log_.records().back().text,
              MatchesRegex("Stopped latency test <0x[0-9a-f]+> from  \\[127.0.0.5:50000 \\(50000\\)\\] "
                           "to target \\[127.0.0.1:443 \\(50000\\)\\]"));
  EXPECT_EQ(log_.records().back().level, log_level::debug);
}

// --- results

// Verifies that there is a latency only between an end and a success, in microseconds.
TEST_F(LatencyProbeTest, Latency) {
  PlainProbe probe(&sender_, "127.0.0.1");
  EXPECT_EQ(probe.get_latency(), -1);
  probe.start();
  EXPECT_EQ(probe.get_latency(), -1);
  probe.start_time = {100, 999999000};
  timespec end = {101, 1234000};
  probe.on_probe_complete(end, true);
  EXPECT_EQ(probe.get_latency(), 1235);
  EXPECT_EQ(probe.get_diff_us(), 1235);
}

// Verifies that a failed probe has no latency; one way of asking is silent about it, the other isn't.
TEST_F(LatencyProbeTest, NoLatency) {
  PlainProbe probe(&sender_, "127.0.0.1");
  probe.start();
  timespec end = {101, 0};
  probe.on_probe_complete(end, false);
  log_.clear();
  EXPECT_EQ(probe.get_latency(), -1);
  EXPECT_TRUE(log_.records().empty());
  EXPECT_EQ(probe.get_diff_us(), -1);
  EXPECT_TRUE(log_.contains(log_level::error, "The is no valid result available for timestamp diff"));
}

// Verifies that a clock set back gives what it gives, and no crash.
TEST_F(LatencyProbeTest, ClockSetBack) {
  PlainProbe probe(&sender_, "127.0.0.1");
  probe.start();
  probe.start_time = {200, 0};
  timespec end = {199, 0};
  probe.on_probe_complete(end, true);
  EXPECT_EQ(probe.get_latency(), -1000000);
}

// --- TCP probes

// Verifies what a TCP probe says of itself, and that its id is its source port.
TEST_F(LatencyProbeTest, TcpProbe) {
  zol::TCPRawSocketManager manager;
  zol::TCPLatencyProbe probe(&manager, "host.test", 80, "10.0.0.1");
  EXPECT_EQ(probe.target, "host.test");
  EXPECT_EQ(probe.dst_port, 80);
  EXPECT_EQ(probe.src_ip, "10.0.0.1");
  EXPECT_EQ(probe.src_port, 0);
  EXPECT_EQ(probe.sender, &manager);
  EXPECT_EQ(probe.get_report_type(), "tcp-ping");
  EXPECT_EQ(probe.logger_name, "TCPLatencyProbe");
  EXPECT_EQ(probe.protocol, 6);
  EXPECT_FALSE(probe.is_rejected());
  probe.set_is_reset(true);
  EXPECT_TRUE(probe.is_rejected());
  probe.set_probe_id(1234);
  EXPECT_EQ(probe.src_port, 1234);
  EXPECT_EQ(probe.get_probe_id(), 1234U);
}

// Verifies that probes begin their sequences at random.
TEST_F(LatencyProbeTest, RandomSequence) {
  const zol::TCPLatencyProbe one(nullptr, "h", 1, "");
  const zol::TCPLatencyProbe two(nullptr, "h", 1, "");
  const zol::TCPLatencyProbe three(nullptr, "h", 1, "");
  EXPECT_FALSE(one.seq == two.seq && two.seq == three.seq);
}

// Verifies that source ports go round in their range, one counter for all probes.
TEST_F(LatencyProbeTest, SourcePorts) {
  zol::TCPLatencyProbe one("", "", "h", "", 1, 1000, 3, &sender_, 0);
  zol::TCPLatencyProbe two("", "", "h", "", 1, 1000, 3, &sender_, 0);
  const int first = one.src_port - 1000;
  ASSERT_TRUE(first >= 0 && first < 3);
  EXPECT_EQ(two.src_port, 1000 + (first + 1) % 3);
  one.set_src_port(2000, 3);
  EXPECT_EQ(one.src_port, 2000 + (first + 2) % 3);
  one.set_src_port(2000, 0);
  EXPECT_EQ(one.src_port, 2000);
}

// Verifies that a measurement holds what the probe was made with, and the latency once there is one.
TEST_F(LatencyProbeTest, Measurement) {
  zol::TCPLatencyProbe probe("one", "two", "127.0.0.1", "three", 80, 1000, 1, &sender_, 0x100000000);
  EXPECT_EQ(probe.sender, &sender_);
  probe.start();
  EXPECT_EQ(probe.get_measurement().latency_us, -1);
  probe.start_time = {10, 0};
  timespec end = {10, 5000};
  probe.on_probe_complete(end, true);
  const zol::LatencyMeasurement measurement = probe.get_measurement();
  EXPECT_THAT(measurement.timestamp,
              MatchesRegex("[0-9]+-[0-9]+-[0-9]+T[0-9]+:[0-9]+:[0-9]+\\.[0-9][0-9][0-9]Z"));
  EXPECT_EQ(measurement.first_label, "one");
  EXPECT_EQ(measurement.second_label, "two");
  EXPECT_EQ(measurement.dst_ip, "127.0.0.1");
  EXPECT_EQ(measurement.target, "127.0.0.1");
  EXPECT_EQ(measurement.third_label, "three");
  EXPECT_EQ(measurement.note, "");
  EXPECT_EQ(measurement.dst_port, 80U);
  EXPECT_EQ(measurement.latency_us, 5);
  EXPECT_EQ(measurement.value, 0x100000000U);
}

// Verifies the line of a TCP probe's end.
TEST_F(LatencyProbeTest, TcpStopLine) {
  zol::TCPLatencyProbe probe(nullptr, "127.0.0.1", 443, "");
  probe.start();
  probe.stop(true);
  EXPECT_TRUE(
      log_.contains(log_level::debug, "stop: TCP latency probe to [127.0.0.1:443] completed successfully"));
  EXPECT_FALSE(probe.stop(false));
  EXPECT_TRUE(
      log_.contains(log_level::debug, "stop: TCP latency probe to [127.0.0.1:443] completed unsuccessfully"));
}

}  // namespace
}  // namespace zol_test
