#include "ha/route_message.h"

#include <gmock/gmock.h>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/ha/route_messages.h"

namespace {

using zol::RouteMessage;
using zol::Subnet;
using zol_test::LogCapture;
using zol_test::route_bytes;
using zol_test::RouteBytes;

std::optional<RouteMessage> decode(const RouteBytes& bytes) {
  const std::vector<std::uint32_t> block = bytes.block();
  return zol::decode_route(reinterpret_cast<const nlmsghdr*>(block.data()));
}

RouteBytes usual() {
  return route_bytes("10.1.2.0", 24, "192.0.2.7", 1001);
}

TEST(RouteMessage, recorded_notification) {
  // Verifies the decoding of a notification as a kernel sent it, byte for byte.
  const unsigned char bytes[] = {
      0x3c, 0x00, 0x00, 0x00,                          // nlmsg_len 60
      0x18, 0x00, 0x00, 0x06,                          // RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL
      0x11, 0x22, 0x33, 0x44, 0x55, 0x01, 0x00, 0x00,  // sequence, port id
      0x02, 0x18, 0x00, 0x00,                          // AF_INET, a destination of 24 bits, no source, no TOS
      0xfc, 0x0c, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00,  // RT_TABLE_COMPAT, RTPROT_BIRD, universe, unicast
      0x08, 0x00, 0x0f, 0x00, 0xe9, 0x03, 0x00, 0x00,  // RTA_TABLE 1001
      0x08, 0x00, 0x01, 0x00, 0x0a, 0x01, 0x02, 0x00,  // RTA_DST 10.1.2.0
      0x08, 0x00, 0x05, 0x00, 0xc0, 0x00, 0x02, 0x07,  // RTA_GATEWAY 192.0.2.7
      0x08, 0x00, 0x04, 0x00, 0x05, 0x00, 0x00, 0x00,  // RTA_OIF 5
  };
  std::uint32_t block[sizeof bytes / 4];
  std::memcpy(block, bytes, sizeof bytes);
  const auto route = zol::decode_route(reinterpret_cast<const nlmsghdr*>(block));
  ASSERT_TRUE(route);
  EXPECT_EQ(route->subnet, Subnet("10.1.2.0/24"));
  EXPECT_EQ(route->table, 1001U);
  EXPECT_TRUE(route->has_gateway);
  EXPECT_EQ(route->gateway, inet_addr("192.0.2.7"));
  EXPECT_EQ(route->oif, 5U);
  EXPECT_TRUE(route->added);
}

TEST(RouteMessage, deleted_route) {
  // Verifies that RTM_DELROUTE tells of a route that has gone, and any other type of nothing.
  EXPECT_FALSE(decode(route_bytes("10.1.2.0", 24, "192.0.2.7", 1001, RTM_DELROUTE))->added);
  EXPECT_FALSE(decode(route_bytes("10.1.2.0", 24, "192.0.2.7", 1001, RTM_NEWRULE)));
}

TEST(RouteMessage, other_family_is_skipped) {
  // Verifies that only AF_INET counts.
  EXPECT_FALSE(decode(RouteBytes(RTM_NEWROUTE, 24, AF_INET6).number(RTA_TABLE, 1001).number(RTA_DST, 1)));
}

TEST(RouteMessage, without_table_is_skipped) {
  // Verifies that a message without RTA_TABLE is skipped.
  EXPECT_FALSE(decode(RouteBytes().address(RTA_DST, "10.1.2.0").address(RTA_GATEWAY, "192.0.2.7")));
}

TEST(RouteMessage, multipath_is_skipped) {
  // Verifies that a message with RTA_MULTIPATH is skipped, even beside a gateway.
  EXPECT_TRUE(decode(usual()));
  EXPECT_FALSE(decode(usual().number(RTA_MULTIPATH, 0)));
}

TEST(RouteMessage, large_table_number) {
  // Verifies that a table's number isn't cut to 16 bits.
  EXPECT_EQ(decode(route_bytes("10.1.2.0", 24, "192.0.2.7", 65536 + 1001))->table, 65536U + 1001U);
}

TEST(RouteMessage, default_route) {
  // Verifies that a prefix of no bits is the default route, whether or not a destination stands beside it.
  EXPECT_EQ(decode(route_bytes(nullptr, 0, "192.0.2.7", 1001))->subnet, Subnet("0.0.0.0/0"));
  EXPECT_EQ(decode(route_bytes(nullptr, 0, "192.0.2.7", 1001).address(RTA_DST, "10.9.9.9"))->subnet,
            Subnet("0.0.0.0/0"));
}

TEST(RouteMessage, missing_destination) {
  // Verifies that a prefix without its destination is dropped with an error line.
  const LogCapture log;
  EXPECT_FALSE(decode(RouteBytes(RTM_NEWROUTE, 24).number(RTA_TABLE, 1001)));
  EXPECT_TRUE(log.contains(log_level::error, "decode_route: bad destination, length 24")) << log.all();
}

TEST(RouteMessage, prefix_too_long) {
  // Verifies that a prefix above 32 bits is dropped with an error line, and one of 32 bits is taken.
  const LogCapture log;
  EXPECT_FALSE(decode(route_bytes("10.1.2.0", 33, "192.0.2.7", 1001)));
  EXPECT_TRUE(log.contains(log_level::error, "decode_route: bad destination, length 33")) << log.all();
  EXPECT_EQ(decode(route_bytes("10.1.2.3", 32, "192.0.2.7", 1001))->subnet, Subnet("10.1.2.3/32"));
}

TEST(RouteMessage, message_shorter_than_its_header) {
  // Verifies that a message that ends within the route header is dropped with an error line.
  const LogCapture log;
  std::vector<std::uint32_t> block = RouteBytes().block();
  block[0] = NLMSG_HDRLEN + sizeof(rtmsg) - 1;
  EXPECT_FALSE(zol::decode_route(reinterpret_cast<const nlmsghdr*>(block.data())));
  EXPECT_TRUE(log.contains(log_level::error, "decode_route: short message, 27 bytes")) << log.all();
}

class NumberAttribute : public testing::TestWithParam<int> {};

TEST_P(NumberAttribute, size_is_checked) {
  // Verifies that each attribute that is a 32-bit value ends the message when it is shorter or longer.
  const auto type = static_cast<std::uint16_t>(GetParam());
  const std::uint64_t value = 0;
  for (const std::uint16_t size : {std::uint16_t{0}, std::uint16_t{3}, std::uint16_t{5}, std::uint16_t{8}}) {
    const LogCapture log;
    EXPECT_FALSE(decode(usual().attribute(type, &value, size))) << size;
    EXPECT_TRUE(log.contains(log_level::error, "data_ipv4_attr_cb: mnl_attr_validate u32")) << log.all();
  }
  EXPECT_TRUE(decode(usual().number(type, 0)));
}

INSTANTIATE_TEST_SUITE_P(all, NumberAttribute,
                         testing::Values(RTA_DST, RTA_SRC, RTA_IIF, RTA_OIF, RTA_GATEWAY, RTA_PRIORITY,
                                         RTA_PREFSRC, RTA_FLOW, RTA_TABLE));

TEST(RouteMessage, metrics_must_be_nested) {
  // Verifies that RTA_METRICS with a body shorter than an attribute's head ends the message; an empty one and
  // one with a metric don't.
  const LogCapture log;
  EXPECT_FALSE(decode(usual().attribute(RTA_METRICS, "\1\2\3", 3)));
  EXPECT_TRUE(log.contains(log_level::error, "data_ipv4_attr_cb: mnl_attr_validate nested")) << log.all();
  EXPECT_TRUE(decode(usual().attribute(RTA_METRICS, "", 0)));
  const std::uint32_t mtu[] = {RTAX_MTU << 16 | 8U, 1400};
  EXPECT_TRUE(decode(usual().attribute(RTA_METRICS, mtu, sizeof mtu)));
}

TEST(RouteMessage, unknown_attributes) {
  // Verifies that attributes above 24 are ignored whatever they hold, and others without a rule too.
  EXPECT_TRUE(decode(usual().attribute(25, "x", 1).attribute(RTA_NH_ID, "xyz", 3).attribute(200, "", 0)));
  EXPECT_TRUE(decode(usual().attribute(RTA_PREF, "x", 1).attribute(24, "x", 1)));
}

TEST(RouteMessage, attribute_lengths_that_lie) {
  // Verifies that an attribute that claims more than the message holds, or less than its own head, isn't
  // read; what stands before it counts.
  EXPECT_TRUE(decode(usual().raw(4096, RTA_OIF)));
  EXPECT_EQ(decode(usual().raw(4096, RTA_OIF))->oif, 0U);
  EXPECT_EQ(decode(usual().raw(3, RTA_OIF))->oif, 0U);
  EXPECT_EQ(decode(usual().raw(0, RTA_OIF).number(RTA_OIF, 7))->oif, 0U);
}

TEST(RouteMessage, link_local_mask) {
  // Verifies that a gateway is link-local when all bits of 169.254.0.0 are set in it, and not by its /16.
  EXPECT_TRUE(zol::is_link_local_gateway(inet_addr("169.254.1.1")));
  EXPECT_TRUE(zol::is_link_local_gateway(inet_addr("169.254.0.0")));
  EXPECT_TRUE(zol::is_link_local_gateway(inet_addr("171.255.3.4")));  // the mask's bits, and more
  EXPECT_FALSE(zol::is_link_local_gateway(inet_addr("169.253.1.1")));
  EXPECT_FALSE(zol::is_link_local_gateway(inet_addr("192.168.1.1")));
  EXPECT_FALSE(zol::is_link_local_gateway(inet_addr("254.169.0.0")));
}

}  // namespace
