// What arrives at raw sockets: through the kernel's filters, with its times.
#include <arpa/inet.h>
#include <event2/event.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <algorithm>

#include "lib/common/unique_fd.h"
#include "probes/raw_socket.h"
#include "tests/unit/probes/probe_wire_fixture.h"

namespace zol_test {
namespace {

using zol_utils::UniqueFd;

constexpr unsigned long rcvbuf = 255UL << 11;

class ReceiveTest : public ProbeWireTest {
 protected:
  // Starts the socket with its filter, as the manager does.
  void start(zol::RawSocket& socket, zol::RawSocketL4Filter filter = {}) {
    ASSERT_TRUE(socket.attach_l4_filter(filter));
    ASSERT_TRUE(socket.raw_rcv_async_start(Arrivals::take, &arrivals_));
  }
  // The packets that have arrived when `last`, the last one written, has.
  void run_to(const Bytes& last) {
    wire_->write(last);
    ASSERT_TRUE(run_until([&] { return !arrivals_.packets.empty() && arrivals_.packets.back() == last; }));
  }
  void write_all(const std::vector<Bytes>& packets) const {
    for (const Bytes& packet : packets)
      wire_->write(packet);
  }

  Arrivals arrivals_;
};

// --- filters in the kernel

// Verifies that the ICMP type's filter alone lets in echo replies only, to any address of this machine.
TEST_F(ReceiveTest, IcmpTypes) {
  zol::ICMPRawSocket socket(rcvbuf);
  start(socket);
  for (const unsigned type : {3U, 5U, 8U, 11U, 12U, 13U, 14U})
    wire_->write(icmp_packet(far_address, own_address, type, 1, 1));
  run_to(echo_reply(far_address, own_address, 1, 2));
  EXPECT_EQ(arrivals_.packets.size(), 1U);
}

// Verifies that with an address only packets to that one are let in.
TEST_F(ReceiveTest, IcmpDestination) {
  const TunWire other("probe1", "10.78.0.1");
  zol::ICMPRawSocket socket(rcvbuf);
  zol::RawSocketL4Filter filter;
  filter.address = inet_addr(own_address);
  start(socket, filter);
  other.write(echo_reply("10.78.0.2", "10.78.0.1", 1, 1));
  run_to(echo_reply(far_address, own_address, 1, 2));
  EXPECT_EQ(arrivals_.packets.size(), 1U);
}

// Verifies that SYN with ACK and RST to the ports of the range are let in, and no other segments.
TEST_F(ReceiveTest, TcpReplies) {
  zol::TCPRawSocket socket(rcvbuf);
  zol::RawSocketL4Filter filter;
  filter.first_port = 40000;
  filter.last_port = 40010;
  start(socket, filter);
  const auto segment = [](std::uint16_t port, unsigned char flags) {
    return tcp_packet({far_address, 443, own_address, port, 9, flags});
  };
  write_all({segment(39999, flag_rst), segment(40011, flag_rst), segment(40000, flag_syn),
             segment(40000, flag_ack), segment(40000, flag_fin | flag_ack)});
  const std::vector<Bytes> good = {segment(40000, flag_syn | flag_ack), segment(40010, flag_rst | flag_ack)};
  write_all(good);
  run_to(segment(40005, flag_rst));
  ASSERT_EQ(arrivals_.packets.size(), 3U);
  EXPECT_EQ(arrivals_.packets[0], good[0]);
  EXPECT_EQ(arrivals_.packets[1], good[1]);
}

// Verifies that one type of the control protocol's messages is let in, from any host or from one.
TEST_F(ReceiveTest, TcmpMessages) {
  const auto message = [](const char* src, unsigned char type, unsigned char second = 0) {
    return ip_packet(src, own_address, 233, {type, second, 1, 2});
  };
  zol::RawSocketL4Filter filter;
  filter.type = 5;
  {
    zol::TCMPRawSocket socket(rcvbuf);
    start(socket, filter);
    write_all({message(far_address, 4), message(far_address, 5, 1), message(third_address, 5)});
    run_to(message(far_address, 5));
    EXPECT_EQ(arrivals_.packets.size(), 2U);
  }
  arrivals_ = {};
  filter.address = inet_addr(far_address);
  zol::TCMPRawSocket socket(rcvbuf);
  start(socket, filter);
  write_all({message(far_address, 4), message(far_address, 5, 1), message(third_address, 5)});
  run_to(message(far_address, 5));
  EXPECT_EQ(arrivals_.packets.size(), 1U);
}

// Verifies that a socket bound to a device hears that device only, and sends there.
TEST_F(ReceiveTest, BoundToADevice) {
  const TunWire other("probe1", "10.78.0.1");
  zol::ICMPRawSocket socket(rcvbuf);
  ASSERT_TRUE(socket.bind_to_iface(wire_device));
  start(socket);
  other.write(echo_reply("10.78.0.2", "10.78.0.1", 1, 1));
  run_to(echo_reply(far_address, own_address, 1, 2));
  EXPECT_EQ(arrivals_.packets.size(), 1U);
}

// --- the queue

// Verifies that one wake takes the whole queue, in order.
TEST_F(ReceiveTest, WholeQueueAtOnce) {
  zol::ICMPRawSocket socket(rcvbuf);
  start(socket);
  for (unsigned seq = 0; seq < 50; ++seq)
    wire_->write(echo_reply(far_address, own_address, 1, seq));
  ASSERT_EQ(event_base_loop(zol::ZOLEventBase::base(), EVLOOP_ONCE), 0);
  ASSERT_EQ(arrivals_.packets.size(), 50U);
  for (unsigned seq = 0; seq < 50; ++seq)
    EXPECT_EQ(get16(arrivals_.packets[seq], 26), seq);
  EXPECT_TRUE(log_.records().empty());
}

// Verifies that a flush drops what the socket has caught, and nothing that comes later.
TEST_F(ReceiveTest, Flush) {
  zol::ICMPRawSocket socket(rcvbuf);
  for (unsigned seq = 0; seq < 5; ++seq)
    wire_->write(echo_reply(far_address, own_address, 1, seq, 3000));
  socket.flush();
  socket.flush();
  start(socket);
  run_to(echo_reply(far_address, own_address, 1, 9));
  EXPECT_EQ(arrivals_.packets.size(), 1U);
}

// Verifies that a packet above the buffer is cut to it.
TEST_F(ReceiveTest, LargePacket) {
  zol::ICMPRawSocket socket(rcvbuf);
  start(socket);
  const Bytes packet = echo_reply(far_address, own_address, 1, 1, 4000);
  wire_->write(packet);
  ASSERT_TRUE(run_until([&] { return arrivals_.packets.size() == 1; }));
  ASSERT_EQ(arrivals_.packets[0].size(), 1514U);
  EXPECT_TRUE(std::equal(arrivals_.packets[0].begin(), arrivals_.packets[0].end(), packet.begin()));
}

// Verifies that the time is that of the arrival, however long the loop takes to look.
TEST_F(ReceiveTest, KernelTime) {
  zol::ICMPRawSocket socket(rcvbuf);
  start(socket);
  bool stamped = false;
  // The kernel begins to stamp a little after the first socket has asked for it.
  for (unsigned attempt = 0; attempt < 10000 && !stamped; ++attempt) {
    arrivals_ = {};
    const timespec before = wall_clock();
    wire_->write(echo_reply(far_address, own_address, 1, attempt & 0xffff));
    const timespec after = wall_clock();
    ASSERT_TRUE(run_until([&] { return arrivals_.times.size() == 1; }));
    ASSERT_TRUE(is_before(before, arrivals_.times[0]));
    stamped = is_before(arrivals_.times[0], after);
  }
  EXPECT_TRUE(stamped);
}

// Verifies that a packet without a time is dropped with an error, and that the rest of the queue comes at the
// next readiness.
TEST_F(ReceiveTest, WithoutATime) {
  zol::ICMPRawSocket socket(rcvbuf);
  start(socket);
  const int off = 0;
  ASSERT_EQ(setsockopt(socket.fd, SOL_SOCKET, SO_TIMESTAMPNS, &off, sizeof off), 0);
  wire_->write(echo_reply(far_address, own_address, 1, 1));
  wire_->write(echo_reply(far_address, own_address, 1, 2));
  ASSERT_EQ(event_base_loop(zol::ZOLEventBase::base(), EVLOOP_ONCE), 0);
  EXPECT_TRUE(
      log_.contains(log_level::error, "Error while trying to retrieve an ancillary data for RX time stamp"));
  EXPECT_EQ(log_.records().size(), 1U);
  EXPECT_TRUE(arrivals_.packets.empty());
  const int on = 1;
  ASSERT_EQ(setsockopt(socket.fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on), 0);
  ASSERT_TRUE(run_until([&] { return arrivals_.packets.size() == 1; }));
  EXPECT_EQ(get16(arrivals_.packets[0], 26), 2U);
}

// Verifies that a time of another kind isn't taken for one.
TEST_F(ReceiveTest, TimeOfAnotherKind) {
  zol::ICMPRawSocket socket(rcvbuf);
  start(socket);
  const int on = 1;
  ASSERT_EQ(setsockopt(socket.fd, SOL_SOCKET, SO_TIMESTAMP, &on, sizeof on), 0);  // microseconds
  wire_->write(echo_reply(far_address, own_address, 1, 1));
  ASSERT_TRUE(run_until([&] { return log_.contains("ancillary data for RX time stamp"); }));
  EXPECT_TRUE(arrivals_.packets.empty());
}

// Verifies that an empty queue is left without a word, and that other errors and an empty message are said.
TEST_F(ReceiveTest, ReadResults) {
  zol::ICMPRawSocket socket(rcvbuf);
  start(socket);
  zol::socket_probe_raw_read_cb(socket.fd, EV_READ, &socket);
  EXPECT_TRUE(log_.records().empty());
  zol::socket_probe_raw_read_cb(-1, EV_READ, &socket);
  EXPECT_TRUE(log_.contains(log_level::error, "Error while trying to receive packet (Bad file descriptor)"));
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair), 0);
  const UniqueFd near_end(pair[0]);
  const UniqueFd far_end(pair[1]);
  ASSERT_EQ(send(far_end.get(), "", 0, 0), 0);
  zol::socket_probe_raw_read_cb(near_end.get(), EV_READ, &socket);
  EXPECT_TRUE(log_.contains(log_level::warning, "Unexpected result while trying to receive packet"));
  EXPECT_TRUE(arrivals_.packets.empty());
}

}  // namespace
}  // namespace zol_test
