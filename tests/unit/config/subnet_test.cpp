#include "config/subnet.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <stdexcept>

#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace zol {
namespace {

unsigned ip(const char* dotted) {
  return inet_addr(dotted);
}

std::string error_of(const std::string& text) {
  try {
    const Subnet subnet(text);
    return "taken as " + subnet.to_str();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

// Verifies that an unset subnet has prefix -1 and no addresses, made by default or from the empty text.
TEST(Subnet, Unset) {
  for (const Subnet& subnet : {Subnet(), Subnet(std::string())}) {
    EXPECT_EQ(subnet.prefix, -1);
    EXPECT_EQ(subnet.first, 0u);
    EXPECT_EQ(subnet.last, 0u);
  }
}

// Verifies that the text of an address with host bits gives the whole range, in host order.
TEST(Subnet, FromText) {
  const Subnet subnet("10.1.2.3/8");
  EXPECT_EQ(subnet.prefix, 8);
  EXPECT_EQ(subnet.first, 0x0a000000u);
  EXPECT_EQ(subnet.last, 0x0affffffu);
}

// Verifies the ranges of every kind of length.
TEST(Subnet, Lengths) {
  EXPECT_EQ(Subnet("192.0.2.130/25"), Subnet(0xc0000280, 0xc00002ff, 25));
  EXPECT_EQ(Subnet("255.0.2.1/1"), Subnet(0x80000000, 0xffffffff, 1));
  EXPECT_EQ(Subnet("192.0.2.131/31"), Subnet(0xc0000282, 0xc0000283, 31));
  EXPECT_EQ(Subnet("192.0.2.1/32"), Subnet(0xc0000201, 0xc0000201, 32));
}

// Verifies that an address without a length is a subnet of one.
TEST(Subnet, AddressAlone) {
  EXPECT_EQ(Subnet("192.0.2.1"), Subnet("192.0.2.1/32"));
}

// Verifies that 0.0.0.0/0 covers all addresses.
TEST(Subnet, Everything) {
  const Subnet all("0.0.0.0/0");
  EXPECT_EQ(all, Subnet(0, 0xffffffff, 0));
  EXPECT_TRUE(all.is_ip_in_range(ip("0.0.0.0")));
  EXPECT_TRUE(all.is_ip_in_range(ip("255.255.255.255")));
}

// Verifies the error of each bad text.
TEST(Subnet, BadTexts) {
  EXPECT_EQ(error_of("10.0.0"), "bad subnet format1: 10.0.0");
  EXPECT_EQ(error_of("10.0.0.256/8"), "bad subnet format1: 10.0.0.256/8");
  EXPECT_EQ(error_of("/8"), "bad subnet format1: /8");
  EXPECT_EQ(error_of("network"), "bad subnet format1: network");
  EXPECT_EQ(error_of("10.0.0.1/33"), "bad subnet format2: 10.0.0.1/33");
  EXPECT_EQ(error_of("10.0.0.1/99999999999999999999"), "bad subnet format2: 10.0.0.1/99999999999999999999");
  EXPECT_EQ(error_of("10.0.0.1/-1"), "bad subnet format2: 10.0.0.1/-1");
  EXPECT_EQ(error_of("1.2.3.4/0"), "bad subnet format3: 1.2.3.4/0");
  EXPECT_EQ(error_of("1.2.3.4/"), "bad subnet format3: 1.2.3.4/");
  EXPECT_EQ(error_of("1.2.3.4/x"), "bad subnet format3: 1.2.3.4/x");
  EXPECT_EQ(error_of("0.0.0.0/"), "bad subnet format3: 0.0.0.0/");
}

// Verifies the subnet around an address in network order, and the error of a length outside 0 to 32.
TEST(Subnet, AroundAnAddress) {
  EXPECT_EQ(Subnet(ip("10.1.2.3"), 16), Subnet("10.1.0.0/16"));
  EXPECT_EQ(Subnet(ip("10.1.2.3"), 0), Subnet("0.0.0.0/0"));
  EXPECT_THROW(Subnet(ip("10.1.2.3"), 33), std::runtime_error);
  EXPECT_THROW(Subnet(ip("10.1.2.3"), -1), std::runtime_error);
}

// Verifies that both ends belong to the range and their neighbours don't, for each form of an address.
TEST(Subnet, Range) {
  const Subnet subnet("10.1.0.0/16");
  for (const char* inside : {"10.1.0.0", "10.1.128.7", "10.1.255.255"}) {
    EXPECT_TRUE(subnet.is_ip_in_range(ip(inside))) << inside;
    EXPECT_TRUE(subnet.is_ip_in_range(in_addr{ip(inside)})) << inside;
    EXPECT_TRUE(subnet.is_ip_in_range(std::string(inside))) << inside;
  }
  for (const char* outside : {"10.0.255.255", "10.2.0.0", "1.10.0.0"}) {
    EXPECT_FALSE(subnet.is_ip_in_range(ip(outside))) << outside;
    EXPECT_FALSE(subnet.is_ip_in_range(in_addr{ip(outside)})) << outside;
    EXPECT_FALSE(subnet.is_ip_in_range(std::string(outside))) << outside;
  }
}

// Verifies that text that is no address is logged and in no range.
TEST(Subnet, RangeOfBadText) {
  zol_test::LogCapture log;
  EXPECT_FALSE(Subnet("0.0.0.0/0").is_ip_in_range(std::string("nowhere")));
  EXPECT_TRUE(log.contains(log_level::error, "is_ip_in_range: bad addressnowhere")) << log.all();
}

// Verifies the order: by the last address, and of two that end together the narrower first.
TEST(Subnet, Order) {
  const std::set<Subnet> subnets = {Subnet("10.0.0.0/8"), Subnet("10.255.0.0/16"), Subnet("9.0.0.0/8"),
                                    Subnet("10.255.255.255/32")};
  std::string order;
  for (const Subnet& subnet : subnets)
    order += subnet.to_str() + " ";
  EXPECT_EQ(order, "9.0.0.0/8 10.255.255.255/32 10.255.0.0/16 10.0.0.0/8 ");
  EXPECT_FALSE(Subnet("10.0.0.0/8") < Subnet("10.0.0.0/8"));
}

// Verifies that equality looks at all three members.
TEST(Subnet, Equality) {
  EXPECT_EQ(Subnet(1, 2, 3), Subnet(1, 2, 3));
  EXPECT_FALSE(Subnet(1, 2, 3) == Subnet(0, 2, 3));
  EXPECT_FALSE(Subnet(1, 2, 3) == Subnet(1, 3, 3));
  EXPECT_FALSE(Subnet(1, 2, 3) == Subnet(1, 2, 4));
}

// Verifies the text of a subnet: its first address and its length.
TEST(Subnet, Text) {
  EXPECT_EQ(Subnet("10.1.2.3/8").to_str(), "10.0.0.0/8");
  std::ostringstream out;
  out << Subnet("192.0.2.1");
  EXPECT_EQ(out.str(), "192.0.2.1/32");
}

// Verifies that the longest subnet that holds the address is found.
TEST(SubnetMap, LongestPrefixWins) {
  SubnetMap map;
  map.add_subnet(Subnet("10.0.0.0/8"));
  map.add_subnet(Subnet("10.1.0.0/16"));
  map.add_subnet(Subnet("10.1.2.3/32"));
  map.add_subnet(Subnet("128.0.0.0/1"));
  const auto found = [&](const char* address) {
    const Subnet* subnet = map.find(ip(address));
    return subnet == nullptr ? std::string("none") : subnet->to_str();
  };
  EXPECT_EQ(found("10.1.2.4"), "10.1.0.0/16");
  EXPECT_EQ(found("10.1.2.3"), "10.1.2.3/32");
  EXPECT_EQ(found("10.2.0.1"), "10.0.0.0/8");
  EXPECT_EQ(found("200.0.0.1"), "128.0.0.0/1");
  EXPECT_EQ(found("11.0.0.1"), "none");
}

// Verifies that a subnet with the same length and first address takes the place of the earlier one.
TEST(SubnetMap, Overwrites) {
  SubnetMap map;
  map.add_subnet(Subnet(0x0a000000, 0x0a000001, 8));
  map.add_subnet(Subnet("10.0.0.0/8"));
  ASSERT_NE(map.find(ip("10.0.0.1")), nullptr);
  EXPECT_EQ(map.find(ip("10.0.0.1"))->last, 0x0affffffu);
}

// Verifies that lengths without a table are refused.
TEST(SubnetMap, LengthsWithoutATable) {
  SubnetMap map;
  EXPECT_THROW(map.add_subnet(Subnet("0.0.0.0/0")), std::runtime_error);
  EXPECT_THROW(map.add_subnet(Subnet()), std::runtime_error);
  EXPECT_THROW(map.add_subnet(Subnet(0, 0, 33)), std::runtime_error);
  EXPECT_EQ(map.find(ip("10.0.0.1")), nullptr);
}

// Verifies that clear empties every table.
TEST(SubnetMap, Clear) {
  SubnetMap map;
  map.add_subnet(Subnet("10.0.0.0/8"));
  map.add_subnet(Subnet("10.0.0.1/32"));
  map.clear();
  EXPECT_EQ(map.find(ip("10.0.0.1")), nullptr);
}

}  // namespace
}  // namespace zol
