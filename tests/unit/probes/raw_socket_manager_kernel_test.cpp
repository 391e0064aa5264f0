// Managers with sockets of the kernel: how they begin, and what they say when that fails.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "lib/common/unique_fd.h"
#include "probes/latency_probe.h"
#include "probes/latency_probe_pool.h"
#include "probes/raw_socket_manager.h"
#include "tests/unit/probes/failing_calls.h"
#include "tests/unit/probes/probe_wire_fixture.h"

namespace zol_test {
namespace {

constexpr int probe_mark = 0x40ff0000;

class ManagerKernelTest : public ProbeWireTest {
 protected:
  int option(int level, int name) const {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(getsockopt(manager_.socket->fd, level, name, &value, &size), 0);
    return value;
  }
  // Instructions of the filter that the socket has; SO_GET_FILTER of socket(7).
  int filter_length() const {
    socklen_t count = 0;
    EXPECT_EQ(getsockopt(manager_.socket->fd, SOL_SOCKET, SO_ATTACH_FILTER, nullptr, &count), 0);
    return static_cast<int>(count);
  }

  zol::IcmpRawSocketManager manager_;
};

// Verifies the socket that the daemon has: marked, with room for 255 replies, and without filter and device.
TEST_F(ManagerKernelTest, AsTheDaemonDoes) {
  ASSERT_TRUE(manager_.init(255, probe_mark, "", true));
  EXPECT_EQ(option(SOL_SOCKET, SO_MARK), probe_mark);
  EXPECT_EQ(option(SOL_SOCKET, SO_RCVBUF), 2 * 255 * 2048);
  EXPECT_EQ(option(IPPROTO_IP, IP_HDRINCL), 1);
  EXPECT_EQ(filter_length(), 0);
  EXPECT_TRUE(manager_.socket->read_event.is_pending());
  EXPECT_EQ(manager_.socket->callback, zol::RawSocketManager::raw_recv);
  EXPECT_EQ(manager_.socket->callback_context, &manager_);
  EXPECT_TRUE(log_.records().empty());
}

// Verifies that a mark of 0 sets neither mark nor filter, and leaves the IP header alone.
TEST_F(ManagerKernelTest, WithoutAMark) {
  ASSERT_TRUE(manager_.init(10, 0, "", false));
  EXPECT_EQ(option(SOL_SOCKET, SO_MARK), 0);
  EXPECT_EQ(option(IPPROTO_IP, IP_HDRINCL), 1);
  EXPECT_EQ(filter_length(), 0);
}

// Verifies that a mark of 0 stands for no filter also with a device, which is bound to.
TEST_F(ManagerKernelTest, DeviceWithoutAMark) {
  ASSERT_TRUE(manager_.init(10, 0, wire_device, true));
  EXPECT_EQ(filter_length(), 0);
  EXPECT_NE(option(SOL_SOCKET, SO_BINDTOIFINDEX), 0);
}

// Verifies that a negative mark stands for a filter on the device's address, and that the device is bound to.
TEST_F(ManagerKernelTest, NegativeMark) {
  ASSERT_TRUE(manager_.init(10, -1, wire_device, true));
  EXPECT_EQ(option(SOL_SOCKET, SO_MARK), 0);
  EXPECT_EQ(filter_length(), 7);
  char device[32] = {};
  socklen_t size = sizeof device;
  ASSERT_EQ(getsockopt(manager_.socket->fd, SOL_SOCKET, SO_BINDTODEVICE, device, &size), 0);
  EXPECT_STREQ(device, wire_device);
}

// Verifies that a device with another mark is bound to without a filter.
TEST_F(ManagerKernelTest, DeviceWithAMark) {
  ASSERT_TRUE(manager_.init(10, 1, wire_device, false));
  EXPECT_EQ(option(SOL_SOCKET, SO_MARK), 1);
  EXPECT_EQ(option(IPPROTO_IP, IP_HDRINCL), 0);
  EXPECT_EQ(filter_length(), 0);
}

// Verifies that the right to raw sockets is asked for, and that the manager refuses to send without.
TEST_F(ManagerKernelTest, NoRight) {
  {
    const NoNetworkRights without;
    EXPECT_FALSE(manager_.init(255, probe_mark, "", true));
  }
  EXPECT_TRUE(
      log_.contains(log_level::error, "init: Raw socket creation failed : Failed to open new socket"));
  EXPECT_EQ(manager_.socket, nullptr);
  zol::ICMPLatencyProbe probe(&manager_, {});
  zol::Packet packet(100);
  EXPECT_FALSE(manager_.raw_sendto(packet, &probe));
  EXPECT_TRUE(log_.contains(log_level::error, "raw_sendto: Socket is not initialized yet"));
}

// Verifies that a filter that is refused leaves no socket.
TEST_F(ManagerKernelTest, RefusedFilter) {
  const FailingOption failing(SOL_SOCKET, SO_ATTACH_FILTER, ENOMEM);
  EXPECT_FALSE(manager_.init(255, -1, wire_device, true));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to attach filter, result -1(12)"));
  EXPECT_TRUE(log_.contains(log_level::error, "init: Failed to set filter"));
  EXPECT_EQ(manager_.socket, nullptr);
}

// A socket that the loop doesn't take.
class UnpollableSocket : public zol::RawSocket {
 public:
  explicit UnpollableSocket(unsigned long rcvbuf)
      : RawSocket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP), asked_for(rcvbuf) {
    last_buffer = asked_for;
    const zol_utils::UniqueFd file(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    dup2(file.get(), fd);  // a file can't be waited for
  }
  unsigned long asked_for;
  static inline unsigned long last_buffer = 0;
};

// Verifies that a socket that doesn't start leaves none, and that a buffer unit is 2048 bytes.
TEST_F(ManagerKernelTest, RefusedStart) {
  zol::RawSocketL4Filter filter;
  zol::RawSocketManager& manager = manager_;
  EXPECT_FALSE(manager.init<UnpollableSocket>(255, filter));
  EXPECT_TRUE(log_.contains(log_level::error, "init: Failed to start raw socket"));
  EXPECT_EQ(manager.socket, nullptr);
  EXPECT_EQ(UnpollableSocket::last_buffer, 255UL * 2048);
}

// Verifies that a refused mark is said, and leaves the socket open.
TEST_F(ManagerKernelTest, RefusedMark) {
  const FailingOption failing(SOL_SOCKET, SO_MARK);
  EXPECT_FALSE(manager_.init(255, probe_mark, "nowhere7", true));
  EXPECT_TRUE(log_.contains(log_level::error, "init: cannot set mark to icmp raw socket"));
  EXPECT_FALSE(log_.contains("bind_to_iface"));
  EXPECT_NE(manager_.socket, nullptr);
}

// Verifies that a device that can't be bound to is said, and leaves the socket open.
TEST_F(ManagerKernelTest, RefusedDevice) {
  EXPECT_FALSE(manager_.init(255, -1, "nowhere7", true));
  EXPECT_TRUE(log_.contains(log_level::error, "init: icmp raw socket cannot bind to interface"));
  EXPECT_NE(manager_.socket, nullptr);
  EXPECT_EQ(filter_length(), 0);
}

// Verifies that an init over a socket replaces it.
TEST_F(ManagerKernelTest, InitTwice) {
  ASSERT_TRUE(manager_.init(10, 1, "", true));
  ASSERT_TRUE(manager_.init(10, 2, "", true));
  EXPECT_EQ(option(SOL_SOCKET, SO_MARK), 2);
  EXPECT_TRUE(manager_.socket->read_event.is_pending());
}

// Verifies that the receive buffer is set in units of 2048 bytes, and that no number of them overflows.
TEST_F(ManagerKernelTest, ReceiveBuffer) {
  ASSERT_TRUE(manager_.init(255, 0, "", true));
  manager_.set_rcv_buffer(10);
  EXPECT_EQ(option(SOL_SOCKET, SO_RCVBUF), 2 * 10 * 2048);
  manager_.set_rcv_buffer(0x7fffffff);
  EXPECT_GT(option(SOL_SOCKET, SO_RCVBUF), 2 * 255 * 2048);
  manager_.set_rcv_buffer(-1);
  EXPECT_LT(option(SOL_SOCKET, SO_RCVBUF), 2 * 10 * 2048);
  EXPECT_TRUE(log_.records().empty());
}

// Verifies that a pool over a manager has the receive buffer follow the number of probes, when that changes.
TEST_F(ManagerKernelTest, ReceiveBufferOfAPool) {
  zol::PingManager pool("KernelTest");
  pool.init(40000, 65535, 255);
  auto manager = std::make_unique<zol::IcmpRawSocketManager>();
  ASSERT_TRUE(manager->init(7, 0, "", true));
  const int fd = manager->socket->fd;
  pool.manager = std::move(manager);
  const auto buffer_of = [fd] {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &value, &size), 0);
    return value;
  };
  EXPECT_TRUE(pool.init(40000, 65535, 255));
  EXPECT_EQ(buffer_of(), 2 * 7 * 2048);
  EXPECT_TRUE(pool.init(40000, 65535, 10));
  EXPECT_EQ(buffer_of(), 2 * 10 * 2048);
}

// Verifies that the TCP manager's socket has the filter of its ports.
TEST_F(ManagerKernelTest, TcpFilter) {
  zol::TCPRawSocketManager tcp;
  ASSERT_TRUE(tcp.init(10, 40000, 40010));
  socklen_t count = 0;
  ASSERT_EQ(getsockopt(tcp.socket->fd, SOL_SOCKET, SO_ATTACH_FILTER, nullptr, &count), 0);
  EXPECT_EQ(count, 21U);
}

// Verifies that a send that fails names the target and keeps the probe until it is removed.
TEST_F(ManagerKernelTest, FailedSend) {
  ASSERT_TRUE(manager_.init(10, 0, "", true));
  zol::IcmpProbeConfig config;
  config.id = 40000;
  zol::ICMPLatencyProbe probe(&manager_, config);
  probe.dst_ip = "203.0.113.1";
  zol::Packet packet(100);
  packet.set_length(28);
  EXPECT_FALSE(manager_.raw_sendto(packet, &probe));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to send packet Network is unreachable"));
  EXPECT_TRUE(log_.contains(log_level::error, "raw_sendto: Failed to send the packet to [203.0.113.1: 0]"));
  EXPECT_THAT(manager_.probes, testing::ElementsAre(testing::Pair(40000U, &probe)));
  manager_.probe_remove(&probe);
  EXPECT_TRUE(manager_.probes.empty());
}

// A socket that catches a packet before it has its filter.
class EarlyBird : public zol::ICMPRawSocket {
 public:
  explicit EarlyBird(unsigned long rcvbuf) : ICMPRawSocket(rcvbuf) {
    wire->write(echo_reply(far_address, own_address, 1, 1));
  }
  static inline const TunWire* wire = nullptr;
};

// Verifies that what a manager's socket had caught before its filter stood is dropped.
TEST_F(ManagerKernelTest, FlushBeforeTheStart) {
  EarlyBird::wire = wire_.get();
  zol::RawSocketL4Filter filter;
  zol::RawSocketManager& manager = manager_;
  ASSERT_TRUE(manager.init<EarlyBird>(10, filter));
  wire_->write(echo_reply(far_address, own_address, 2, 1));
  ASSERT_TRUE(run_until([&] { return log_.contains("The probe not found for [10.77.0.2:2]"); }));
  EXPECT_FALSE(log_.contains("10.77.0.2:1]"));
}

}  // namespace
}  // namespace zol_test
