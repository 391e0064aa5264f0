// SYNs through the kernel: to the loopback, which answers by itself, and to a device whose far end is the
// test.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <deque>

#include "lib/common/unique_fd.h"
#include "probes/latency_probe.h"
#include "probes/raw_socket_manager.h"
#include "tests/unit/probes/probe_wire_fixture.h"

namespace zol_test {
namespace {

using zol::TCPLatencyProbe;
using zol_utils::UniqueFd;

constexpr const char* loopback = "127.0.0.1";
constexpr const char* completed_text = "Latency test for this probe has been completed";

// A socket that listens on a port of its own choice.
class Listener {
 public:
  Listener() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = inet_addr(loopback);
    socklen_t size = sizeof name;
    auto* generic = static_cast<sockaddr*>(static_cast<void*>(&name));
    EXPECT_EQ(bind(fd_.get(), generic, size), 0);
    EXPECT_EQ(listen(fd_.get(), 10), 0);
    EXPECT_EQ(getsockname(fd_.get(), generic, &size), 0);
    port = ntohs(name.sin_port);
  }
  std::uint16_t port = 0;

 private:
  UniqueFd fd_;
};

class TcpKernelTest : public ProbeWireTest {
 protected:
  void SetUp() override {
    ProbeWireTest::SetUp();
    if (IsSkipped())
      return;
    ASSERT_TRUE(manager_.init(255, first_port, last_port));
  }

  TCPLatencyProbe& start(const std::string& target, std::uint16_t port) {
    TCPLatencyProbe& probe = probes_.emplace_back(&manager_, target, port, "");
    probe.set_probe_id(first_port + probes_.size() - 1);
    EXPECT_TRUE(probe.start());
    return probe;
  }

  static constexpr std::uint16_t first_port = 20000;  // below what the kernel gives out by itself
  static constexpr std::uint16_t last_port = 20009;

  std::deque<TCPLatencyProbe> probes_;
  zol::TCPRawSocketManager manager_;
};

// Verifies that an open port answers: the kernel has taken the SYN, and so its checksum.
TEST_F(TcpKernelTest, OpenPort) {
  const Listener listener;
  TCPLatencyProbe& probe = start(loopback, listener.port);
  ASSERT_TRUE(run_until([&] { return !probe.in_progress; }));
  EXPECT_TRUE(probe.succeeded);
  EXPECT_FALSE(probe.is_rejected());
  EXPECT_GE(probe.get_latency(), 0);
  EXPECT_GE(probe.get_measurement().latency_us, 0);
}

// Verifies that a closed port rejects.
TEST_F(TcpKernelTest, ClosedPort) {
  std::uint16_t port = 0;
  {
    const Listener listener;
    port = listener.port;
  }
  TCPLatencyProbe& probe = start(loopback, port);
  ASSERT_TRUE(run_until([&] { return !probe.in_progress; }));
  EXPECT_FALSE(probe.succeeded);
  EXPECT_TRUE(probe.is_rejected());
  EXPECT_EQ(probe.get_latency(), -1);
}

// Verifies that a filtered port, which says nothing, leaves the probe waiting for its owner's stop.
TEST_F(TcpKernelTest, FilteredPort) {
  TCPLatencyProbe& filtered = start(far_address, 443);
  const Listener listener;
  TCPLatencyProbe& open = start(loopback, listener.port);
  ASSERT_TRUE(run_until([&] { return !open.in_progress; }));
  EXPECT_TRUE(filtered.in_progress);
  filtered.stop(false);
  EXPECT_EQ(filtered.get_latency(), -1);
  EXPECT_FALSE(filtered.is_rejected());
}

// Verifies the SYN on the wire, and that only its acknowledgement from its target is a result.
TEST_F(TcpKernelTest, FarEnd) {
  TCPLatencyProbe& probe = start(far_address, 443);
  const Bytes syn = wire_->read().value_or(Bytes());
  ASSERT_EQ(syn.size(), 40U);
  EXPECT_EQ(get16(syn, 2), 40U);
  EXPECT_EQ(syn[8], 64);
  EXPECT_EQ(get16(syn, 20), first_port);
  EXPECT_EQ(get16(syn, 22), 443U);
  EXPECT_EQ(get32(syn, 24), probe.seq);
  const std::uint32_t ack = get32(syn, 24) + 1;
  wire_->write(tcp_packet({third_address, 443, own_address, first_port, ack, flag_syn | flag_ack}));
  wire_->write(tcp_packet({far_address, 443, own_address, first_port, ack, flag_ack}));
  ASSERT_TRUE(run_until([&] { return log_.contains(log_level::notice, completed_text); }));
  EXPECT_TRUE(probe.in_progress);
  wire_->write(tcp_packet({far_address, 443, own_address, first_port, ack, flag_syn | flag_ack}));
  ASSERT_TRUE(run_until([&] { return !probe.in_progress; }));
  EXPECT_TRUE(probe.succeeded);
}

// Verifies that an acknowledgement of something else ends the probe without a result.
TEST_F(TcpKernelTest, WrongAcknowledgement) {
  TCPLatencyProbe& probe = start(far_address, 443);
  wire_->write(tcp_packet({far_address, 443, own_address, first_port, probe.seq, flag_syn | flag_ack}));
  ASSERT_TRUE(run_until([&] { return !probe.in_progress; }));
  EXPECT_FALSE(probe.succeeded);
  EXPECT_FALSE(probe.is_rejected());
  EXPECT_TRUE(log_.contains(log_level::error, "Wrong packet received - probe seq: "));
}

}  // namespace
}  // namespace zol_test
