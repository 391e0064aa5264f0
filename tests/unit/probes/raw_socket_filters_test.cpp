#include "probes/raw_socket_filters.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <linux/if_packet.h>

#include "tests/unit/probes/bpf_machine.h"

namespace zol_test {
namespace {

using testing::ElementsAre;

constexpr const char* far_end = "10.0.0.2";
constexpr const char* own = "10.0.0.1";
constexpr std::uint32_t all = 262144;

template <typename Program>
bool passes(const Program& program, const Bytes& packet, unsigned type = PACKET_HOST) {
  const std::uint32_t accepted = run_filter(program, packet, type).accepted;
  EXPECT_TRUE(accepted == 0 || accepted == all) << accepted;
  return accepted != 0;
}

// --- replies to a SYN

class TcpFilterTest : public testing::Test {
 protected:
  static Bytes segment(unsigned char flags, std::uint16_t dst_port = 40005) {
    return tcp_packet({far_end, 443, own, dst_port, 1, flags});
  }
  bool lets_in(const Bytes& packet, unsigned type = PACKET_HOST) const {
    return passes(filter_, packet, type);
  }

  std::array<sock_filter, 21> filter_ = zol::tcp_reply_filter(40000, 40010);
  Bytes reply_ = segment(flag_syn | flag_ack);
};

// Verifies that SYN with ACK and RST, alone and with ACK, pass.
TEST_F(TcpFilterTest, Replies) {
  EXPECT_TRUE(lets_in(reply_));
  EXPECT_TRUE(lets_in(segment(flag_rst)));
  EXPECT_TRUE(lets_in(segment(flag_rst | flag_ack)));
  EXPECT_TRUE(lets_in(segment(flag_syn | flag_ack | 0x40)));  // with ECE beside them
}

// Verifies that segments with any other flags are dropped: half of SYN and ACK isn't enough.
TEST_F(TcpFilterTest, OtherSegments) {
  EXPECT_FALSE(lets_in(segment(0)));
  EXPECT_FALSE(lets_in(segment(flag_syn)));
  EXPECT_FALSE(lets_in(segment(flag_ack)));
  EXPECT_FALSE(lets_in(segment(flag_fin | flag_ack)));
  EXPECT_FALSE(lets_in(segment(flag_syn | flag_fin)));
}

// Verifies that only IP version 4 passes.
TEST_F(TcpFilterTest, Version) {
  reply_[0] = 0x65;
  EXPECT_FALSE(lets_in(reply_));
  reply_[0] = 0x55;
  EXPECT_FALSE(lets_in(reply_));
}

// Verifies that only IP protocol 6 passes.
TEST_F(TcpFilterTest, Protocol) {
  reply_[9] = 17;
  EXPECT_FALSE(lets_in(reply_));
}

// Verifies that a fragment with any offset is dropped, and that the flags beside the offset don't count.
TEST_F(TcpFilterTest, Fragments) {
  reply_[7] = 0x01;
  EXPECT_FALSE(lets_in(reply_));
  reply_[7] = 0;
  reply_[6] = 0x10;  // the offset's highest bit
  EXPECT_FALSE(lets_in(reply_));
  reply_[6] = 0x40;  // don't fragment
  EXPECT_TRUE(lets_in(reply_));
  reply_[6] = 0x20;  // the first of several
  EXPECT_TRUE(lets_in(reply_));
}

// Verifies that the range of ports has both its ends, and nothing beside them.
TEST_F(TcpFilterTest, PortRange) {
  for (const auto& [port, expected] :
       {std::pair{39999, false}, {40000, true}, {40010, true}, {40011, false}, {0, false}, {65535, false}})
    EXPECT_EQ(lets_in(segment(flag_rst, static_cast<std::uint16_t>(port))), expected) << port;
}

// Verifies that a range may reach over all ports, and be one port.
TEST_F(TcpFilterTest, PortRangeLimits) {
  filter_ = zol::tcp_reply_filter(0, 65535);
  EXPECT_TRUE(lets_in(segment(flag_rst, 0)));
  EXPECT_TRUE(lets_in(segment(flag_rst, 65535)));
  filter_ = zol::tcp_reply_filter(7, 7);
  EXPECT_TRUE(lets_in(segment(flag_rst, 7)));
  EXPECT_FALSE(lets_in(segment(flag_rst, 6)));
  EXPECT_FALSE(lets_in(segment(flag_rst, 8)));
  filter_ = zol::tcp_reply_filter(9, 7);
  EXPECT_FALSE(lets_in(segment(flag_rst, 8)));
}

// Verifies that only the packet type of an outgoing packet is dropped.
TEST_F(TcpFilterTest, Outgoing) {
  EXPECT_FALSE(lets_in(reply_, PACKET_OUTGOING));
  for (const unsigned type :
       {PACKET_HOST, PACKET_BROADCAST, PACKET_MULTICAST, PACKET_OTHERHOST, PACKET_LOOPBACK})
    EXPECT_TRUE(lets_in(reply_, type)) << type;
}

// Verifies that the TCP header is found behind IP options.
TEST_F(TcpFilterTest, IpOptions) {
  reply_[0] = 0x46;
  reply_.insert(reply_.begin() + 20, 4, 0x01);  // four bytes of no operation
  EXPECT_TRUE(lets_in(reply_));
  put16(reply_, 26, 39999);
  EXPECT_FALSE(lets_in(reply_));
}

// Verifies that a packet that ends anywhere before its TCP flags is dropped.
TEST_F(TcpFilterTest, CutPackets) {
  for (std::size_t length = 0; length < 34; ++length)
    EXPECT_FALSE(lets_in(Bytes(reply_.begin(), reply_.begin() + static_cast<long>(length)))) << length;
  EXPECT_TRUE(lets_in(Bytes(reply_.begin(), reply_.begin() + 34)));
}

// Verifies in which order a reply is looked at.
TEST_F(TcpFilterTest, Order) {
  EXPECT_THAT(run_filter(filter_, reply_).loaded, ElementsAre(0, 9, 6, 0, 33, 22, packet_type));
  EXPECT_THAT(run_filter(filter_, segment(flag_rst)).loaded,
              ElementsAre(0, 9, 6, 0, 33, 33, 22, packet_type));
}

// --- packets to one address

// Verifies that the filter lets in IPv4 to just that address, whatever it carries.
TEST(DestinationFilterTest, Address) {
  const auto filter = zol::destination_filter(inet_addr(own));
  EXPECT_EQ(filter.size(), 7U);
  EXPECT_TRUE(passes(filter, echo_reply(far_end, own, 1, 1)));
  EXPECT_TRUE(passes(filter, tcp_packet({far_end, 1, own, 2})));
  EXPECT_FALSE(passes(filter, echo_reply(own, far_end, 1, 1)));
  EXPECT_FALSE(passes(filter, echo_reply(far_end, "10.0.0.3", 1, 1)));
  EXPECT_FALSE(passes(filter, echo_reply(far_end, "1.0.0.10", 1, 1)));  // its bytes the other way round
  EXPECT_THAT(run_filter(filter, echo_reply(far_end, own, 1, 1)).loaded, ElementsAre(0, 16));
}

// Verifies that another version of IP and a packet without a whole destination are dropped.
TEST(DestinationFilterTest, Malformed) {
  const auto filter = zol::destination_filter(inet_addr(own));
  Bytes packet = echo_reply(far_end, own, 1, 1);
  EXPECT_FALSE(passes(filter, Bytes(packet.begin(), packet.begin() + 19)));
  EXPECT_FALSE(passes(filter, {}));
  packet[0] = 0x65;
  EXPECT_FALSE(passes(filter, packet));
}

// --- the overlay's control protocol

Bytes tcmp(unsigned char type, unsigned char second = 0, const char* src = far_end) {
  return ip_packet(src, own, 233, {type, second, 1, 2, 3, 4});
}

// Verifies that one type of message passes from any host, with a zero byte behind the type.
TEST(TcmpFilterTest, FromAnyHost) {
  const auto filter = zol::tcmp_filter(5);
  EXPECT_EQ(filter.size(), 11U);
  EXPECT_TRUE(passes(filter, tcmp(5)));
  EXPECT_TRUE(passes(filter, tcmp(5, 0, "192.0.2.77")));
  EXPECT_FALSE(passes(filter, tcmp(4)));
  EXPECT_FALSE(passes(filter, tcmp(0, 5)));
  EXPECT_FALSE(passes(filter, tcmp(5, 1)));
  EXPECT_FALSE(passes(filter, tcmp(5), PACKET_OUTGOING));
  EXPECT_THAT(run_filter(filter, tcmp(5)).loaded, ElementsAre(packet_type, 0, 9, 20));
}

// Verifies that with a host only its messages pass, and that the packet's direction doesn't matter then.
TEST(TcmpFilterTest, FromOneHost) {
  const auto filter = zol::tcmp_filter_from(inet_addr(far_end), 5);
  EXPECT_EQ(filter.size(), 11U);
  EXPECT_TRUE(passes(filter, tcmp(5)));
  EXPECT_TRUE(passes(filter, tcmp(5), PACKET_OUTGOING));
  EXPECT_FALSE(passes(filter, tcmp(5, 0, "10.0.0.3")));
  EXPECT_FALSE(passes(filter, tcmp(5, 0, "2.0.0.10")));
  EXPECT_FALSE(passes(filter, tcmp(4)));
  EXPECT_FALSE(passes(filter, tcmp(5, 1)));
  EXPECT_THAT(run_filter(filter, tcmp(5)).loaded, ElementsAre(0, 12, 9, 20));
}

// Verifies for both forms that version and protocol count, that cut packets are dropped, and that a type that
// is no byte never passes.
TEST(TcmpFilterTest, OtherPackets) {
  for (const auto& filter : {zol::tcmp_filter(5), zol::tcmp_filter_from(inet_addr(far_end), 5)}) {
    Bytes packet = tcmp(5);
    EXPECT_FALSE(passes(filter, Bytes(packet.begin(), packet.begin() + 21)));
    EXPECT_FALSE(passes(filter, {}));
    packet[9] = 232;
    EXPECT_FALSE(passes(filter, packet));
    packet[9] = 233;
    packet[0] = 0x65;
    EXPECT_FALSE(passes(filter, packet));
  }
  EXPECT_FALSE(passes(zol::tcmp_filter(0x105), tcmp(5)));
  EXPECT_FALSE(passes(zol::tcmp_filter_from(inet_addr(far_end), 0x105), tcmp(5)));
}

}  // namespace
}  // namespace zol_test
