#include <arpa/inet.h>
#include <endian.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>

#include <vector>

#include "conntrack/conntrack_str.h"
#include "conntrack/nfconntrack.h"
#include "tests/unit/conntrack/conntrack_fixture.h"

namespace zol_monitor {
namespace {

using zol_test::Flow;
using zol_test::ip;
using zol_test::make_ct;

constexpr Flow plain = {.source = {"10.1.2.3", 1001}, .target = {"10.4.5.6", 80}};

Flow with_mark(std::uint32_t mark) {
  Flow flow = plain;
  flow.mark = mark;
  return flow;
}

void put_counters(nlmsghdr* nlh, std::uint16_t direction, std::uint64_t packets, std::uint64_t bytes) {
  nlattr* nest = mnl_attr_nest_start(nlh, direction);
  mnl_attr_put_u64(nlh, CTA_COUNTERS_PACKETS, htobe64(packets));
  mnl_attr_put_u64(nlh, CTA_COUNTERS_BYTES, htobe64(bytes));
  mnl_attr_nest_end(nlh, nest);
}

// Counters come from the kernel alone: the library has no setter for them.
NfctHandle counted(std::uint32_t mark) {
  std::vector<char> message = zol_test::make_message(with_mark(mark), false);
  message.resize(MNL_SOCKET_BUFFER_SIZE);
  auto* nlh = static_cast<nlmsghdr*>(static_cast<void*>(message.data()));
  put_counters(nlh, CTA_COUNTERS_ORIG, 1, 0x100000002);
  put_counters(nlh, CTA_COUNTERS_REPLY, 3, 4);
  NfctHandle ct(nfct_new());
  nfct_nlmsg_parse(nlh, ct.get());
  return ct;
}

// Verifies that the accessors give the original tuple, ports in host order, of a connection that isn't
// reversed.
TEST(ConntrackAccessors, ForwardConnection) {
  const NfctHandle ct = make_ct(with_mark(0x710));
  EXPECT_FALSE(nfconntrack_is_reversed(ct.get()));
  EXPECT_EQ(nfconntrack_get_orig_src(ct.get()), ip("10.1.2.3"));
  EXPECT_EQ(nfconntrack_get_orig_port(ct.get()), 1001);
  EXPECT_EQ(nfconntrack_get_dst(ct.get()), ip("10.4.5.6"));
  EXPECT_EQ(nfconntrack_get_dst_port(ct.get()), 80);
  EXPECT_EQ(nfconntrack_get_protonum(ct.get()), IPPROTO_TCP);
  EXPECT_EQ(nfconntrack_get_mark(ct.get()), 0x710u);
}

// Verifies that source and destination change places for a reversed connection.
TEST(ConntrackAccessors, ReversedConnection) {
  const NfctHandle ct = make_ct(with_mark(0x790));
  EXPECT_TRUE(nfconntrack_is_reversed(ct.get()));
  EXPECT_EQ(nfconntrack_get_orig_src(ct.get()), ip("10.4.5.6"));
  EXPECT_EQ(nfconntrack_get_orig_port(ct.get()), 80);
  EXPECT_EQ(nfconntrack_get_dst(ct.get()), ip("10.1.2.3"));
  EXPECT_EQ(nfconntrack_get_dst_port(ct.get()), 1001);
}

// Verifies that the reversal of the accessors is bit 7 also without a service id, where the nibble's bit is
// bit 3.
TEST(ConntrackAccessors, ReversalIsBitSevenWhateverTheServiceId) {
  EXPECT_TRUE(nfconntrack_is_reversed(make_ct(with_mark(0x80)).get()));
  EXPECT_FALSE(conntrack_mark::is_io_reversed(0x80));
  EXPECT_FALSE(nfconntrack_is_reversed(make_ct(with_mark(0x08)).get()));
  EXPECT_TRUE(conntrack_mark::is_io_reversed(0x08));
}

// Verifies that nfconntrack_reverse toggles bit 7 of the copy's mark and that twice is nothing.
TEST(ConntrackAccessors, ReverseTogglesBitSeven) {
  const NfctHandle ct = make_ct(with_mark(0x12345610));
  nfconntrack_reverse(ct.get());
  EXPECT_EQ(nfconntrack_get_mark(ct.get()), 0x12345690u);
  nfconntrack_reverse(ct.get());
  EXPECT_EQ(nfconntrack_get_mark(ct.get()), 0x12345610u);
}

// Verifies that the statistics are those of the original and the reply direction, in 64 bits.
TEST(ConntrackAccessors, Statistics) {
  const NfctHandle ct = counted(0x710);
  EXPECT_EQ(nfconntrack_get_orig_stats(ct.get()).packets, 1u);
  EXPECT_EQ(nfconntrack_get_orig_stats(ct.get()).bytes, 0x100000002u);
  EXPECT_EQ(nfconntrack_get_repl_stats(ct.get()).packets, 3u);
  EXPECT_EQ(nfconntrack_get_repl_stats(ct.get()).bytes, 4u);
}

// Verifies that the statistics change places for a reversed connection.
TEST(ConntrackAccessors, ReversedStatistics) {
  const NfctHandle ct = counted(0x790);
  EXPECT_EQ(nfconntrack_get_orig_stats(ct.get()).packets, 3u);
  EXPECT_EQ(nfconntrack_get_orig_stats(ct.get()).bytes, 4u);
  EXPECT_EQ(nfconntrack_get_repl_stats(ct.get()).packets, 1u);
  EXPECT_EQ(nfconntrack_get_repl_stats(ct.get()).bytes, 0x100000002u);
}

// Verifies that the addresses of an IPv6 connection read as 0.
TEST(ConntrackAccessors, AddressesOfIpv6AreZero) {
  const NfctHandle ct(nfct_new());
  const std::uint8_t address[16] = {0x20, 0x01, 0x0d, 0xb8, 1, 2, 3, 4};
  nfct_set_attr_u8(ct.get(), ATTR_L3PROTO, AF_INET6);
  nfct_set_attr(ct.get(), ATTR_IPV6_SRC, address);
  nfct_set_attr(ct.get(), ATTR_IPV6_DST, address);
  EXPECT_EQ(nfconntrack_get_orig_src(ct.get()), 0u);
  EXPECT_EQ(nfconntrack_get_dst(ct.get()), 0u);
}

// Verifies that nfconntrack_test_bit tells whether an attribute is there, whatever its value.
TEST(ConntrackAccessors, TestBit) {
  const NfctHandle ct = make_ct(plain);
  constexpr int attr_tcp_state = 19;
  constexpr int attr_mark = 25;
  EXPECT_FALSE(nfconntrack_test_bit(ct.get(), attr_tcp_state));
  EXPECT_FALSE(nfconntrack_test_bit(ct.get(), attr_mark));
  nfct_set_attr_u8(ct.get(), ATTR_TCP_STATE, 0);
  nfct_set_attr_u32(ct.get(), ATTR_MARK, 0);
  EXPECT_TRUE(nfconntrack_test_bit(ct.get(), attr_tcp_state));
  EXPECT_TRUE(nfconntrack_test_bit(ct.get(), attr_mark));
  for (int counter = 26; counter <= 29; ++counter)
    EXPECT_FALSE(nfconntrack_test_bit(ct.get(), counter)) << counter;
  for (int counter = 26; counter <= 29; ++counter)
    EXPECT_TRUE(nfconntrack_test_bit(counted(0x710).get(), counter)) << counter;
}

// Verifies that the TCP state and the kernel's id are read.
TEST(ConntrackAccessors, StateAndId) {
  const NfctHandle ct = make_ct(plain);
  nfct_set_attr_u8(ct.get(), ATTR_TCP_STATE, 7);
  nfct_set_attr_u32(ct.get(), ATTR_ID, 0xabcdef01);
  EXPECT_EQ(nfconntrack_get_tcp_state(ct.get()), 7);
  EXPECT_EQ(nfconntrack_get_id(ct.get()), 0xabcdef01u);
}

// Verifies the fields of the mark, and the normalised nibble of every nibble in both of its places.
TEST(ConntrackMark, Layout) {
  EXPECT_EQ(conntrack_mark::service_id(0x12345678), 0x56);
  EXPECT_EQ(conntrack_mark::link_byte(0x12345678), 0x34);
  EXPECT_EQ(conntrack_mark::io_nibble(0x12345678), 7u);
  EXPECT_EQ(conntrack_mark::io_nibble(0x12340078), 8u);
  const std::uint32_t normalised[16] = {0, 1, 2, 3, 4, 5, 6, 7, 3, 2, 1, 0, 7, 6, 5, 4};
  for (std::uint32_t nibble = 0; nibble < 16; ++nibble) {
    EXPECT_EQ(conntrack_mark::normalised_nibble(0x100 | nibble << 4), normalised[nibble]) << nibble;
    EXPECT_EQ(conntrack_mark::normalised_nibble(nibble), normalised[nibble]) << nibble;
  }
}

// Verifies the log form of a connection: its role, and both ends in the session's direction.
TEST(ConntrackStr, RoleAndEnds) {
  const zol_test::ScopedConfig config("");
  EXPECT_EQ(ct_ntoa_s(make_ct(with_mark(0x710)).get()), "[IN] 10.1.2.3:1001->10.4.5.6:80");
  EXPECT_EQ(ct_ntoa_s(make_ct(with_mark(0x720)).get()), "[OUT] 10.1.2.3:1001->10.4.5.6:80");
  EXPECT_EQ(ct_ntoa_s(make_ct(with_mark(0x730)).get()), "[OUT] 10.1.2.3:1001->10.4.5.6:80");
  EXPECT_EQ(ct_ntoa_s(make_ct(with_mark(0)).get()), "[IN] 10.1.2.3:1001->10.4.5.6:80");
  // Reversed: the nibble 9 is an Out leg, the nibble 10 an In leg.
  EXPECT_EQ(ct_ntoa_s(make_ct(with_mark(0x790)).get()), "[OUT] 10.4.5.6:80->10.1.2.3:1001");
  EXPECT_EQ(ct_ntoa_s(make_ct(with_mark(0x7a0)).get()), "[IN] 10.4.5.6:80->10.1.2.3:1001");
}

// Verifies that the log form masks its addresses where the configuration asks for it.
TEST(ConntrackStr, MaskedAddresses) {
  const zol_test::ScopedConfig config("General: { mask_client_address = true; };");
  EXPECT_EQ(ct_ntoa_s(make_ct(with_mark(0x710)).get()), "[IN] 10.1.2.x:1001->10.4.5.x:80");
}

// Verifies the dotted text of an address.
TEST(ConntrackStr, InetNtoa) {
  EXPECT_EQ(inet_ntoa_s(in_addr{ip("203.0.113.255")}), "203.0.113.255");
}

}  // namespace
}  // namespace zol_monitor
