// Probes through the kernel: to the loopback, which answers by itself, and to a device whose far end is the
// test.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <linux/filter.h>
#include <sys/socket.h>

#include <algorithm>
#include <deque>

#include "lib/common/unique_fd.h"
#include "probes/latency_probe.h"
#include "probes/latency_probe_pool.h"
#include "probes/raw_socket_manager.h"
#include "tests/unit/probes/probe_wire_fixture.h"

namespace zol_test {
namespace {

using zol::ICMPLatencyProbe;
using zol_utils::UniqueFd;

constexpr int probe_mark = 0x40ff0000;
constexpr const char* loopback = "127.0.0.1";
constexpr const char* completed_text = "Latency test for this probe has been completed";

class IcmpKernelTest : public ProbeWireTest {
 protected:
  void SetUp() override {
    ProbeWireTest::SetUp();
    if (IsSkipped())
      return;
    pool_.init(40000, 65535, 255);
    auto manager = std::make_unique<zol::IcmpRawSocketManager>();
    ASSERT_TRUE(manager->init(255, probe_mark, "", true));
    pool_.manager = std::move(manager);
  }

  zol::IcmpProbeConfig config(const std::string& target, const std::string& source = "") const {
    zol::IcmpProbeConfig values;
    values.target = target;
    values.source = source;
    values.mark = probe_mark;
    values.include_ip_header = true;
    return values;
  }
  ICMPLatencyProbe& new_probe(const zol::IcmpProbeConfig& values) {
    return probes_.emplace_back(static_cast<zol::IcmpRawSocketManager*>(pool_.manager.get()), values);
  }
  // A probe on its way to the far end, whose packet the test has read.
  ICMPLatencyProbe& on_the_wire(const zol::IcmpProbeConfig& values) {
    ICMPLatencyProbe& probe = new_probe(values);
    EXPECT_TRUE(pool_.add_probe(&probe));
    request_ = wire_->read().value_or(Bytes());
    EXPECT_EQ(request_.size(), 68U);
    return probe;
  }
  ICMPLatencyProbe& on_the_wire() { return on_the_wire(config(far_address)); }
  // Everything written so far has been handed on when this reply has.
  void run_to_the_end_of_the_queue() {
    wire_->write(echo_reply(third_address, own_address, 9, 9));
    ASSERT_TRUE(run_until([&] { return log_.contains("The probe not found for [10.77.0.3:9]"); }));
  }
  // The far end's answer to what it has read: the same message as a reply.
  Bytes answer() const {
    Bytes reply(request_.begin() + 20, request_.end());
    reply[0] = 0;
    put16(reply, 2, 0);
    put16(reply, 2, checksum_of(reply, 0, reply.size()));
    return ip_packet(far_address, own_address, IPPROTO_ICMP, reply);
  }

  std::deque<ICMPLatencyProbe> probes_;
  zol::PingManager pool_{"KernelTest"};
  Bytes request_;
};

// Verifies that the kernel's own answer ends a probe with a latency within what the test itself has seen
// pass.
TEST_F(IcmpKernelTest, Loopback) {
  const timespec before = wall_clock();
  ICMPLatencyProbe& probe = new_probe(config(loopback));
  ASSERT_TRUE(pool_.add_probe(&probe));
  ASSERT_TRUE(run_until([&] { return !probe.in_progress; }));
  const timespec after = wall_clock();
  EXPECT_TRUE(probe.succeeded);
  EXPECT_TRUE(is_before(before, probe.start_time));
  EXPECT_TRUE(is_before(probe.start_time, probe.stop_time));
  EXPECT_TRUE(is_before(probe.stop_time, after));
  EXPECT_GE(probe.get_latency(), 0);
  EXPECT_FALSE(log_.contains(log_level::error, ""));
}

// Verifies that 255 probes at once all get their own replies, and that the pool has no id for one more.
TEST_F(IcmpKernelTest, AllProbesAtOnce) {
  for (int i = 0; i < 255; ++i)
    ASSERT_TRUE(pool_.add_probe(&new_probe(config(loopback))));
  EXPECT_FALSE(pool_.add_probe(&new_probe(config(loopback))));
  probes_.pop_back();
  ASSERT_TRUE(run_until([&] {
    return std::none_of(probes_.begin(), probes_.end(), [](const auto& probe) { return probe.in_progress; });
  }));
  for (ICMPLatencyProbe& probe : probes_) {
    EXPECT_GE(probe.get_latency(), 0) << probe.get_probe_id();
    pool_.notify_probe_done(&probe);
  }
  EXPECT_TRUE(pool_.ids_in_use.empty());
  EXPECT_TRUE(pool_.manager->probes.empty());
}

// Verifies the packet on the wire, with the length and the checksums that the kernel and the probe put there.
TEST_F(IcmpKernelTest, PacketOnTheWire) {
  on_the_wire();
  EXPECT_EQ(get16(request_, 2), 68U);  // by the kernel, in network order
  EXPECT_EQ(checksum_of(request_, 0, 20), 0U);
  EXPECT_EQ(checksum_of(request_, 20, 68), 0U);
  EXPECT_EQ(request_[8], 255);
  EXPECT_EQ(get32(request_, 12), ntohl(inet_addr(own_address)));
  EXPECT_EQ(get32(request_, 16), ntohl(inet_addr(far_address)));
  EXPECT_EQ(request_[20], 8);
  EXPECT_EQ(get16(request_, 24), 40000U);
  EXPECT_EQ(get16(request_, 26), 0U);
}

// Verifies that the packet carries the mark that rules and routes look at, and no other packet does.
TEST_F(IcmpKernelTest, MarkOnTheWire) {
  // A packet socket's filter sees the mark of what leaves the device.
  const UniqueFd sniffer(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(0x0003)));
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(SKF_AD_OFF + SKF_AD_MARK)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, probe_mark, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0x40000),
      BPF_STMT(BPF_RET | BPF_K, 0),
  };
  const sock_fprog filter{4, program};
  ASSERT_EQ(setsockopt(sniffer.get(), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter), 0);
  unsigned char bytes[2048];
  while (recv(sniffer.get(), bytes, sizeof bytes, 0) >= 0) {
  }
  on_the_wire();
  EXPECT_EQ(recv(sniffer.get(), bytes, sizeof bytes, 0), 68);
}

// Verifies that the far end's reply ends the probe, and that the time is the kernel's.
TEST_F(IcmpKernelTest, ReplyFromTheFarEnd) {
  ICMPLatencyProbe& probe = on_the_wire();
  EXPECT_EQ(probe.src_ip, own_address);
  wire_->write(answer());
  ASSERT_TRUE(run_until([&] { return !probe.in_progress; }));
  EXPECT_TRUE(probe.succeeded);
  EXPECT_GE(probe.get_latency(), 0);
}

// Verifies that the latency is the time until the reply has come, and not until the loop has looked.
TEST_F(IcmpKernelTest, LoopDelayIsNotMeasured) {
  bool measured_well = false;
  // The kernel begins to stamp a little after the first socket has asked for it.
  for (int attempt = 0; attempt < 10000 && !measured_well; ++attempt) {
    ICMPLatencyProbe& probe = on_the_wire();
    wire_->write(answer());
    const timespec written = wall_clock();
    ASSERT_TRUE(run_until([&] { return !probe.in_progress; }));
    ASSERT_TRUE(probe.succeeded);
    measured_well = is_before(probe.stop_time, written);
    pool_.notify_probe_done(&probe);
    probes_.pop_back();
  }
  EXPECT_TRUE(measured_well);
}

// Verifies that a lost reply leaves the probe waiting, and its owner's stop ends it without a result.
TEST_F(IcmpKernelTest, Loss) {
  ICMPLatencyProbe& probe = on_the_wire();
  run_to_the_end_of_the_queue();
  EXPECT_TRUE(probe.in_progress);
  probe.stop(false);
  EXPECT_EQ(probe.get_latency(), -1);
}

// Verifies that latencies differ as their replies' delays do.
TEST_F(IcmpKernelTest, Jitter) {
  ICMPLatencyProbe& slow = on_the_wire();
  const Bytes slow_answer = answer();
  ICMPLatencyProbe& fast = on_the_wire();
  wire_->write(answer());
  ASSERT_TRUE(run_until([&] { return !fast.in_progress; }));
  wire_->write(slow_answer);
  ASSERT_TRUE(run_until([&] { return !slow.in_progress; }));
  EXPECT_TRUE(fast.succeeded && slow.succeeded);
  EXPECT_GT(slow.get_latency(), fast.get_latency());
}

// Verifies that replies in another order reach their own probes.
TEST_F(IcmpKernelTest, RepliesInAnotherOrder) {
  std::vector<Bytes> answers;
  for (int i = 0; i < 5; ++i) {
    on_the_wire();
    answers.push_back(answer());
  }
  for (int i = 4; i >= 0; --i) {
    wire_->write(answers[static_cast<std::size_t>(i)]);
    ICMPLatencyProbe& probe = probes_[static_cast<std::size_t>(i)];
    ASSERT_TRUE(run_until([&] { return !probe.in_progress; }));
    EXPECT_TRUE(probe.succeeded);
    EXPECT_EQ(std::count_if(probes_.begin(), probes_.end(), [](const auto& p) { return p.in_progress; }), i);
  }
}

// Verifies that nothing but the reply itself ends the probe well: another host's, another type, another id, a
// cut one; and that the reply still does.
TEST_F(IcmpKernelTest, WhatIsNotTheReply) {
  ICMPLatencyProbe& probe = on_the_wire();
  wire_->write(echo_reply(third_address, own_address, 40000, 0));
  wire_->write(icmp_packet(far_address, own_address, 11, 40000, 0));
  wire_->write(echo_reply(far_address, own_address, 40001, 0));
  wire_->write(ip_packet(far_address, own_address, IPPROTO_ICMP, Bytes(7)));
  run_to_the_end_of_the_queue();
  EXPECT_TRUE(log_.contains(log_level::notice, completed_text));
  EXPECT_TRUE(log_.contains(log_level::error, "The probe not found for [10.77.0.2:40001]"));
  EXPECT_FALSE(log_.contains("ICMP packet is not an echo reply!"));  // the kernel has kept it
  EXPECT_TRUE(probe.in_progress);
  wire_->write(answer());
  ASSERT_TRUE(run_until([&] { return !probe.in_progress; }));
  EXPECT_TRUE(probe.succeeded);
}

// Verifies that a reply with another sequence, and one with less payload, end their probes without a result.
TEST_F(IcmpKernelTest, RepliesThatFailTheCheck) {
  ICMPLatencyProbe& other_sequence = on_the_wire();
  ICMPLatencyProbe& cut = on_the_wire();
  wire_->write(echo_reply(far_address, own_address, 40000, 1));
  wire_->write(echo_reply(far_address, own_address, 40001, 0, 39));
  run_to_the_end_of_the_queue();
  EXPECT_FALSE(other_sequence.in_progress || cut.in_progress);
  EXPECT_EQ(other_sequence.get_latency(), -1);
  EXPECT_EQ(cut.get_latency(), -1);
  EXPECT_TRUE(log_.contains("icmp probe seq: 0, received: 1, from [10.77.0.2]"));
  EXPECT_TRUE(log_.contains("l4_probe_check: Not enough buffer space for ICMP response"));
}

// Verifies that each sequence gets its own reply.
TEST_F(IcmpKernelTest, Sequence) {
  zol::IcmpProbeConfig values = config(far_address);
  values.seq = 0xfffe;
  ICMPLatencyProbe& probe = on_the_wire(values);
  EXPECT_EQ(get16(request_, 26), 0xfffeU);
  wire_->write(answer());
  ASSERT_TRUE(run_until([&] { return !probe.in_progress; }));
  EXPECT_TRUE(probe.succeeded);
}

// Verifies that a reply after the end changes nothing, and that one after the removal finds nothing.
TEST_F(IcmpKernelTest, LateReply) {
  ICMPLatencyProbe& probe = on_the_wire();
  probe.stop(false);
  wire_->write(answer());
  ASSERT_TRUE(run_until([&] { return log_.contains(log_level::notice, completed_text); }));
  EXPECT_EQ(probe.stop_time.tv_sec, 0);
  EXPECT_EQ(probe.get_latency(), -1);
  pool_.notify_probe_done(&probe);
  wire_->write(answer());
  ASSERT_TRUE(run_until([&] { return log_.contains("The probe not found for [10.77.0.2:40000]"); }));
}

// Verifies that of two probes under one id the later has the reply, and the earlier waits for ever.
TEST_F(IcmpKernelTest, TwoProbesUnderOneId) {
  ICMPLatencyProbe& earlier = on_the_wire();
  pool_.ids_in_use.clear();
  ICMPLatencyProbe& later = on_the_wire();
  ASSERT_EQ(later.get_probe_id(), earlier.get_probe_id());
  EXPECT_EQ(pool_.manager->probes.size(), 1U);
  wire_->write(answer());
  ASSERT_TRUE(run_until([&] { return !later.in_progress; }));
  EXPECT_TRUE(later.succeeded);
  EXPECT_TRUE(earlier.in_progress);
}

// Verifies that a source that isn't this machine's goes out all the same, and that its reply doesn't come
// back.
TEST_F(IcmpKernelTest, ForeignSource) {
  ICMPLatencyProbe& probe = on_the_wire(config(far_address, "10.99.9.9"));
  EXPECT_EQ(get32(request_, 12), ntohl(inet_addr("10.99.9.9")));
  wire_->write(echo_reply(far_address, "10.99.9.9", 40000, 0));
  run_to_the_end_of_the_queue();
  EXPECT_TRUE(probe.in_progress);
}

// Verifies that a device as source stands for its address on the wire.
TEST_F(IcmpKernelTest, DeviceAsSource) {
  on_the_wire(config(far_address, wire_device));
  EXPECT_EQ(get32(request_, 12), ntohl(inet_addr(own_address)));
}

// Verifies that an unknown device leaves the choice to the routes.
TEST_F(IcmpKernelTest, UnknownDeviceAsSource) {
  on_the_wire(config(far_address, "nowhere7"));
  EXPECT_EQ(get32(request_, 12), ntohl(inet_addr(own_address)));
  EXPECT_TRUE(log_.contains(log_level::warning, "Source address might be selected on device/IP other than"));
}

// Verifies that a device that has gone down makes the send fail, and the probe with it.
TEST_F(IcmpKernelTest, DeviceGone) {
  wire_.reset();
  zol::IcmpProbeConfig values = config(far_address, own_address);
  ICMPLatencyProbe& probe = new_probe(values);
  EXPECT_FALSE(pool_.add_probe(&probe));
  EXPECT_TRUE(probe.send_failed);
  EXPECT_FALSE(probe.in_progress);
  EXPECT_EQ(probe.get_latency(), -1);
  EXPECT_TRUE(log_.contains(log_level::error, "raw_sendto: Failed to send the packet to [10.77.0.2: 0]"));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to start ping for [10.77.0.2:40000]"));
}

// Verifies that the end of the pool's manager is the end of its socket: a reply then reaches nobody.
TEST_F(IcmpKernelTest, ReplyAfterTheManager) {
  ICMPLatencyProbe& probe = on_the_wire();
  pool_.reset();
  pool_.manager.reset();
  wire_->write(answer());
  run_ready();
  EXPECT_FALSE(probe.in_progress);
  EXPECT_EQ(probe.get_latency(), -1);
}

}  // namespace
}  // namespace zol_test
