#include "dns/async_udp_client.h"

#include <arpa/inet.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/zol_buffer_event.h"
#include "dns_fixture.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

using zol_test::address_of;
using zol_test::Bytes;
using zol_test::LogCapture;
using zol_test::ScriptedServer;

namespace {

// Notes what happens; sends nothing by itself.
class Client : public zol::UDPClient {
 public:
  void on_connect_success() override { ++successes; }
  void on_connect_failure() override { ++failures; }
  void on_readcb() override {
    char data[4096];
    const long size = buffer->read(data, sizeof data);
    datagrams.emplace_back(data, static_cast<std::size_t>(size));
  }

  using UDPClient::create_socket;
  int descriptor() const { return socket; }
  zol::ZOLBufferEvent* stream() { return buffer; }

  int successes = 0;
  int failures = 0;
  std::vector<std::string> datagrams;
};

class UdpClient : public zol_test::DnsTest {
 protected:
  Client client;
  LogCapture log;
};

int status_flags(int fd) {
  return fcntl(fd, F_GETFL);
}

std::string own_address(int fd) {
  sockaddr_in own{};
  socklen_t size = sizeof own;
  getsockname(fd, reinterpret_cast<sockaddr*>(&own), &size);
  return inet_ntoa(own.sin_addr);
}

// Verifies that the socket is a datagram socket, non-blocking and closed on exec.
TEST_F(UdpClient, SocketHasItsFlags) {
  ASSERT_TRUE(client.create_socket(""));
  EXPECT_NE(status_flags(client.descriptor()) & O_NONBLOCK, 0);
  EXPECT_NE(fcntl(client.descriptor(), F_GETFD) & FD_CLOEXEC, 0);
  int type = 0;
  socklen_t size = sizeof type;
  getsockopt(client.descriptor(), SOL_SOCKET, SO_TYPE, &type, &size);
  EXPECT_EQ(type, SOCK_DGRAM);
  EXPECT_FALSE(log.contains("Using source address"));
}

// Verifies that a source address is bound.
TEST_F(UdpClient, SourceIsBound) {
  ASSERT_TRUE(client.create_socket("127.0.0.44"));
  EXPECT_EQ(own_address(client.descriptor()), "127.0.0.44");
  EXPECT_TRUE(log.contains("create_socket: Using source address 127.0.0.44")) << log.all();
}

// Verifies that a source address that isn't this machine's, or is none, fails and leaves no socket.
TEST_F(UdpClient, BadSourceFails) {
  for (const char* source : {"192.0.2.200", "no address"}) {
    log.clear();
    EXPECT_FALSE(client.create_socket(source));
    EXPECT_EQ(client.descriptor(), -1);
    EXPECT_TRUE(log.contains(log_level::error, "create_socket Unable to bind socket errno: ")) << log.all();
  }
  EXPECT_FALSE(client.connect(address_of("127.0.0.1"), 53, -1, "192.0.2.200"));
  EXPECT_TRUE(log.contains("connect Unable to create socket")) << log.all();
  EXPECT_EQ(client.successes + client.failures, 0);
}

// Verifies that running out of descriptors is told.
TEST_F(UdpClient, NoSocketIsTold) {
  std::vector<int> taken;
  rlimit old_limit{};
  getrlimit(RLIMIT_NOFILE, &old_limit);
  const int next = dup(0);
  close(next);
  const rlimit few{static_cast<rlim_t>(next), old_limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  const bool made = client.create_socket("");
  setrlimit(RLIMIT_NOFILE, &old_limit);
  EXPECT_FALSE(made);
  EXPECT_TRUE(log.contains(log_level::error, " Unable to create socket")) << log.all();
}

// Verifies that a destination that the kernel refuses at once reaches on_connect_failure, and only that.
TEST_F(UdpClient, RefusedDestinationFails) {
  EXPECT_TRUE(client.connect(address_of("192.0.2.1"), 53, -1, ""));  // no route out of this namespace
  EXPECT_EQ(client.failures, 1);
  EXPECT_EQ(client.successes, 0);
  EXPECT_EQ(client.descriptor(), -1);
  EXPECT_TRUE(log.contains("Trying to connect NS:  192.0.2.1")) << log.all();
  EXPECT_TRUE(log.contains("connect Connect return with error")) << log.all();
}

// Verifies that a mark is set when it is asked for, and none otherwise.
TEST_F(UdpClient, MarkIsSet) {
  for (const int mark : {-1, 0x42}) {
    ASSERT_TRUE(client.connect(address_of("127.0.0.1"), 53, mark, ""));
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(client.descriptor(), SOL_SOCKET, SO_MARK, &value, &size);
    EXPECT_EQ(value, mark < 0 ? 0 : mark);
  }
}

// Verifies that two datagrams that wait together are read one by one.
TEST_F(UdpClient, DatagramsAreNotJoined) {
  const ScriptedServer server("127.0.0.1", [](const Bytes&) {
    return std::vector<Bytes>{Bytes{'o', 'n', 'e'}, Bytes{'t', 'w', 'o'}};
  });
  ASSERT_TRUE(client.connect(address_of("127.0.0.1"), 53, -1, ""));
  EXPECT_EQ(client.successes, 1);
  ASSERT_TRUE(client.stream()->write("?", 1));
  ASSERT_TRUE(run_until([&] { return client.datagrams.size() == 2; }));
  EXPECT_EQ(client.datagrams, (std::vector<std::string>{"one", "two"}));
}

// Verifies that an empty datagram is an unknown event and then an empty read.
TEST_F(UdpClient, EmptyDatagramIsEmptyRead) {
  const ScriptedServer server("127.0.0.1", [](const Bytes&) { return std::vector<Bytes>{Bytes{}}; });
  ASSERT_TRUE(client.connect(address_of("127.0.0.1"), 53, -1, ""));
  ASSERT_TRUE(client.stream()->write("?", 1));
  ASSERT_TRUE(run_until([&] { return !client.datagrams.empty(); }));
  EXPECT_EQ(client.datagrams, std::vector<std::string>{""});
  EXPECT_TRUE(log.contains("eventcb: Unknown event")) << log.all();
  EXPECT_EQ(client.failures, 0);
}

// Verifies that a port that nobody listens on is an error at once.
TEST_F(UdpClient, ClosedPortIsError) {
  ASSERT_TRUE(client.connect(address_of("127.0.0.1"), 53, -1, ""));
  ASSERT_TRUE(client.stream()->write("?", 1));
  ASSERT_TRUE(run_until([&] { return client.failures > 0; }));
  EXPECT_TRUE(log.contains("eventcb: Connection error to server: 127.0.0.1")) << log.all();
}

// Verifies what each event becomes.
TEST_F(UdpClient, Events) {
  ASSERT_TRUE(client.connect(address_of("127.0.0.1"), 53, -1, ""));
  client.eventcb(BEV_EVENT_TIMEOUT | BEV_EVENT_READING, nullptr);
  EXPECT_TRUE(log.contains("eventcb: Connection timeout to server: 127.0.0.1")) << log.all();
  EXPECT_EQ(client.failures, 1);
  client.eventcb(BEV_EVENT_ERROR, nullptr);
  EXPECT_TRUE(log.contains("eventcb: Connection error to server: 127.0.0.1")) << log.all();
  EXPECT_EQ(client.failures, 2);
  client.eventcb(BEV_EVENT_CONNECTED, nullptr);
  EXPECT_TRUE(log.contains("eventcb: Unknown event"));
  EXPECT_EQ(client.failures, 2);
}

// Verifies that cleaning up closes the socket, with a buffer and without, and may be repeated.
TEST_F(UdpClient, CleanupClosesSocket) {
  ASSERT_TRUE(client.create_socket(""));
  int fd = client.descriptor();
  client.cleanup();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  ASSERT_TRUE(client.connect(address_of("127.0.0.1"), 53, -1, ""));
  fd = client.descriptor();
  client.cleanup();
  client.cleanup();
  run_ready();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(client.descriptor(), -1);
}

}  // namespace
