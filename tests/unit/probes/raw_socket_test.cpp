// Raw sockets of the kernel: what they are set to, and what they say when the kernel refuses.
#include "probes/raw_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/icmp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>

#include "lib/common/unique_fd.h"
#include "tests/unit/probes/failing_calls.h"
#include "tests/unit/probes/probe_wire_fixture.h"

namespace zol_test {
namespace {

using zol::ICMPRawSocket;
using zol::RawSocket;
using zol::TCMPRawSocket;
using zol::TCPRawSocket;
using zol_utils::UniqueFd;

constexpr unsigned long rcvbuf = 255UL << 11;

int option_of(const RawSocket& socket, int level, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  EXPECT_EQ(getsockopt(socket.fd, level, option, &value, &size), 0);
  return value;
}

template <typename Call>
std::string text_thrown_by(Call call) {
  try {
    call();
  } catch (const std::runtime_error& thrown) {
    return thrown.what();
  }
  return "nothing";
}

// What all raw sockets here have in common.
void expect_options(const RawSocket& socket, int protocol) {
  EXPECT_EQ(option_of(socket, SOL_SOCKET, SO_DOMAIN), AF_INET);
  EXPECT_EQ(option_of(socket, SOL_SOCKET, SO_TYPE), SOCK_RAW);
  EXPECT_EQ(option_of(socket, SOL_SOCKET, SO_PROTOCOL), protocol);
  EXPECT_EQ(option_of(socket, SOL_SOCKET, SO_TIMESTAMPNS), 1);
  EXPECT_EQ(option_of(socket, IPPROTO_IP, IP_HDRINCL), 1);
  EXPECT_EQ(option_of(socket, SOL_SOCKET, SO_PRIORITY), 6);
  EXPECT_EQ(option_of(socket, SOL_SOCKET, SO_RCVBUF), static_cast<int>(2 * rcvbuf));  // socket(7): doubled
  EXPECT_EQ(option_of(socket, SOL_SOCKET, SO_MARK), 0);
  EXPECT_NE(fcntl(socket.fd, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_FALSE(socket.read_event.is_pending());
}

class RawSocketTest : public ProbeWireTest {};

// --- construction

// Verifies what the socket of each class is set to.
TEST_F(RawSocketTest, Options) {
  expect_options(TCPRawSocket(rcvbuf), 6);
  expect_options(TCMPRawSocket(rcvbuf), 233);
  const ICMPRawSocket icmp(rcvbuf);
  expect_options(icmp, 1);
  EXPECT_EQ(static_cast<unsigned>(option_of(icmp, SOL_RAW, ICMP_FILTER)), 0xfffffffe);
}

// Verifies that a receive buffer above the system's limit, and above what an int holds, is the largest that
// the kernel has.
TEST_F(RawSocketTest, HugeReceiveBuffer) {
  const ICMPRawSocket socket(~0UL);
  EXPECT_EQ(option_of(socket, SOL_SOCKET, SO_RCVBUF), 0x7ffffffe);
  EXPECT_TRUE(log_.records().empty());
}

// Verifies the text of each option that the kernel refuses, for each class.
TEST_F(RawSocketTest, RefusedOptions) {
  struct Case {
    int level;
    int option;
    const char* text;
  };
  for (const Case& refused :
       {Case{SOL_SOCKET, SO_TIMESTAMPNS, "Failed to enable SO_TIMESTAMPNS option on socket"},
        Case{IPPROTO_IP, IP_HDRINCL, "Failed to set IP_HDRINCL on socket"},
        Case{SOL_SOCKET, SO_PRIORITY, "Failed to set SO_PRIORITY to 6 on socket"}}) {
    const FailingOption failing(refused.level, refused.option);
    EXPECT_EQ(text_thrown_by([] { const TCPRawSocket socket(rcvbuf); }), refused.text);
    EXPECT_EQ(text_thrown_by([] { const ICMPRawSocket socket(rcvbuf); }), refused.text);
    EXPECT_EQ(text_thrown_by([] { const TCMPRawSocket socket(rcvbuf); }), refused.text);
  }
  const FailingOption failing(SOL_RAW, ICMP_FILTER);
  EXPECT_EQ(text_thrown_by([] { const ICMPRawSocket socket(rcvbuf); }),
            "Failed to set ICMP_FILTER on socket");
}

// Verifies that a constructor that throws leaves no descriptor open.
TEST_F(RawSocketTest, RefusedOptionsLeaveNoDescriptor) {
  const int before = UniqueFd(dup(0)).get();  // the lowest one free
  for (const int option : {SO_TIMESTAMPNS, SO_PRIORITY}) {
    const FailingOption failing(SOL_SOCKET, option);
    EXPECT_THROW(const ICMPRawSocket socket(rcvbuf), std::runtime_error);
  }
  EXPECT_EQ(UniqueFd(dup(0)).get(), before);
}

// Verifies that a process without the right to raw sockets is told so.
TEST_F(RawSocketTest, NoRight) {
  const NoNetworkRights without;
  EXPECT_EQ(text_thrown_by([] { const ICMPRawSocket socket(rcvbuf); }), "Failed to open new socket");
  EXPECT_EQ(text_thrown_by([] { const TCPRawSocket socket(rcvbuf); }), "Failed to open new socket");
}

// Verifies that a receive buffer that can't be had is said, and that the socket stands all the same.
TEST_F(RawSocketTest, RefusedReceiveBuffer) {
  {
    const FailingOption failing(SOL_SOCKET, SO_RCVBUFFORCE);
    const ICMPRawSocket socket(4096);
    EXPECT_EQ(option_of(socket, SOL_SOCKET, SO_RCVBUF), 8192);  // without privilege, in the system's limit
    EXPECT_TRUE(log_.records().empty());
  }
  ICMPRawSocket socket(rcvbuf);
  close(socket.fd);
  EXPECT_FALSE(socket.set_rcv_buffer(4096));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to set socket receive buffer to 4096"));
}

// Verifies that a descriptor that can't be closed is said.
TEST_F(RawSocketTest, FailedClose) {
  {
    const ICMPRawSocket socket(rcvbuf);
    close(socket.fd);
  }
  EXPECT_TRUE(log_.contains(log_level::error, "~RawSocket: Failed to close raw socket: Bad file descriptor"));
}

// --- options that are set later

// Verifies that the plain socket's filter is none, and succeeds.
TEST_F(RawSocketTest, BaseFilter) {
  RawSocket socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_UDP);
  zol::RawSocketL4Filter filter;
  EXPECT_TRUE(socket.attach_l4_filter(filter));
}

// Verifies that a program that the kernel refuses is said, with the error's number.
TEST_F(RawSocketTest, RefusedFilter) {
  ICMPRawSocket socket(rcvbuf);
  sock_filter nonsense[] = {{0xffff, 0, 0, 0}};
  EXPECT_FALSE(socket.attach_filter(nonsense, 1));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to attach filter, result -1(22)"));
}

// Verifies that an ICMP socket without an address attaches nothing.
TEST_F(RawSocketTest, IcmpWithoutAFilter) {
  const FailingOption failing(SOL_SOCKET, SO_ATTACH_FILTER);
  ICMPRawSocket socket(rcvbuf);
  zol::RawSocketL4Filter filter;
  EXPECT_TRUE(socket.attach_l4_filter(filter));
  filter.address = inet_addr(own_address);
  EXPECT_FALSE(socket.attach_l4_filter(filter));
}

// Verifies the debug line of a filter by host.
TEST_F(RawSocketTest, TcmpFilterHostLine) {
  TCMPRawSocket socket(rcvbuf);
  zol::RawSocketL4Filter filter;
  EXPECT_TRUE(socket.attach_l4_filter(filter));
  EXPECT_TRUE(log_.records().empty());
  filter.address = 0x0a0b0c0d;
  EXPECT_TRUE(socket.attach_l4_filter(filter));
  EXPECT_TRUE(log_.contains(log_level::debug, "filter host a0b0c0d"));
}

// Verifies that the mark is set, and with it whether packets bring their IP header.
TEST_F(RawSocketTest, Mark) {
  ICMPRawSocket socket(rcvbuf);
  EXPECT_TRUE(socket.set_mark(0x40ff0000, 0));
  EXPECT_EQ(option_of(socket, SOL_SOCKET, SO_MARK), 0x40ff0000);
  EXPECT_EQ(option_of(socket, IPPROTO_IP, IP_HDRINCL), 0);
  EXPECT_TRUE(socket.set_mark(0, 1));
  EXPECT_EQ(option_of(socket, SOL_SOCKET, SO_MARK), 0);
  EXPECT_EQ(option_of(socket, IPPROTO_IP, IP_HDRINCL), 1);
}

// Verifies that a negative mark is refused before the kernel is asked.
TEST_F(RawSocketTest, NegativeMark) {
  ICMPRawSocket socket(rcvbuf);
  EXPECT_FALSE(socket.set_mark(-5, 1));
  EXPECT_TRUE(log_.contains(log_level::error, "set_mark: Invalid mark -5, mark cannot be negative"));
  EXPECT_EQ(option_of(socket, SOL_SOCKET, SO_MARK), 0);
}

// Verifies that a mark that isn't allowed is said.
TEST_F(RawSocketTest, MarkWithoutTheRight) {
  ICMPRawSocket socket(rcvbuf);
  const NoNetworkRights without;
  EXPECT_FALSE(socket.set_mark(7, 1));
  EXPECT_TRUE(log_.contains(log_level::error,
                            "set_mark: Unable to set sender mark to 7, error [Operation not permitted]"));
}

// Verifies that a header option that is refused behind the mark throws.
TEST_F(RawSocketTest, MarkWithoutTheHeader) {
  ICMPRawSocket socket(rcvbuf);
  const FailingOption failing(IPPROTO_IP, IP_HDRINCL);
  EXPECT_EQ(text_thrown_by([&] { socket.set_mark(7, 1); }), "Failed to set IP_HDRINCL on socket");
}

// Verifies that a device that isn't there is said.
TEST_F(RawSocketTest, BindToAnUnknownDevice) {
  ICMPRawSocket socket(rcvbuf);
  EXPECT_FALSE(socket.bind_to_iface("nowhere7"));
  EXPECT_TRUE(log_.contains(log_level::error,
                            "bind_to_iface: Unable to bind socket to nowhere7, error [No such device]"));
}

// --- start and stop

// Verifies that a second start warns and gives false, and that the first callback stays.
TEST_F(RawSocketTest, StartTwice) {
  ICMPRawSocket socket(rcvbuf);
  Arrivals first;
  Arrivals second;
  EXPECT_TRUE(socket.raw_rcv_async_start(Arrivals::take, &first));
  EXPECT_NE(fcntl(socket.fd, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_FALSE(socket.raw_rcv_async_start(Arrivals::take, &second));
  EXPECT_TRUE(log_.contains(log_level::warning, "Failed to start receiving - already started"));
  wire_->write(echo_reply(far_address, own_address, 1, 1));
  ASSERT_TRUE(run_until([&] { return first.packets.size() == 1; }));
  EXPECT_TRUE(second.packets.empty());
}

// Verifies that a stopped socket hands nothing on, and may be started again with another callback.
TEST_F(RawSocketTest, StopAndStart) {
  ICMPRawSocket socket(rcvbuf);
  Arrivals first;
  Arrivals second;
  socket.raw_rcv_async_start(Arrivals::take, &first);
  socket.raw_rcv_async_stop();
  EXPECT_FALSE(socket.read_event.is_pending());
  socket.raw_rcv_async_stop();
  wire_->write(echo_reply(far_address, own_address, 1, 1));
  run_ready();
  EXPECT_TRUE(first.packets.empty());
  EXPECT_TRUE(socket.raw_rcv_async_start(Arrivals::take, &second));
  ASSERT_TRUE(run_until([&] { return second.packets.size() == 1; }));
  EXPECT_TRUE(first.packets.empty());
  EXPECT_TRUE(log_.records().empty());
}

// Verifies that a descriptor that can't be made non-blocking isn't started.
TEST_F(RawSocketTest, StartOfAClosedSocket) {
  ICMPRawSocket socket(rcvbuf);
  close(socket.fd);
  EXPECT_FALSE(socket.raw_rcv_async_start(Arrivals::take, nullptr));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to set socket as non-blocking"));
  EXPECT_EQ(socket.callback, nullptr);
}

// Verifies that a descriptor that the loop doesn't take isn't started.
TEST_F(RawSocketTest, StartRefusedByTheLoop) {
  ICMPRawSocket socket(rcvbuf);
  const UniqueFd file(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));  // can't be waited for
  ASSERT_EQ(dup2(file.get(), socket.fd), socket.fd);
  EXPECT_FALSE(socket.raw_rcv_async_start(Arrivals::take, nullptr));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to create new event"));
  EXPECT_EQ(socket.callback, nullptr);
  EXPECT_FALSE(socket.read_event.is_pending());
}

// --- sending

// Verifies that the packet's data goes to the address, and nothing before it.
TEST_F(RawSocketTest, Send) {
  ICMPRawSocket socket(rcvbuf);
  const Bytes bytes = icmp_packet(own_address, far_address, 8, 77, 3);
  zol::Packet packet(1514);
  packet.set_length(static_cast<int>(bytes.size()));
  std::copy(bytes.begin(), bytes.end(), packet.data);
  EXPECT_TRUE(socket.raw_sendto(packet, inet_addr(far_address)));
  const auto sent = wire_->read();
  ASSERT_TRUE(sent);
  EXPECT_EQ(*sent, bytes);
}

// Verifies that a send that fails says why.
TEST_F(RawSocketTest, FailedSend) {
  ICMPRawSocket socket(rcvbuf);
  zol::Packet packet(100);
  packet.set_length(28);
  EXPECT_FALSE(socket.raw_sendto(packet, inet_addr("203.0.113.1")));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to send packet Network is unreachable"));
}

}  // namespace
}  // namespace zol_test
