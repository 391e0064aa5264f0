#include "config/port_range.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

namespace {

using testing::ElementsAre;
using zol::PortRange;

// Verifies that text gives a range, a single port, or a range in ascending order.
TEST(PortRange, FromText) {
  EXPECT_EQ(PortRange("80:90"), PortRange(80, 90));
  EXPECT_EQ(PortRange("80"), PortRange(80, 80));
  EXPECT_EQ(PortRange("90:80").start_port_get(), 80);
  EXPECT_EQ(PortRange("90:80").end_port_get(), 90);
  EXPECT_EQ(PortRange("80:x"), PortRange(80));
}

// Verifies that text without a number gives an unset range.
TEST(PortRange, FromTextWithoutNumber) {
  const PortRange unset("none");
  EXPECT_FALSE(unset.is_valid());
  EXPECT_FALSE(unset.is_single());
  EXPECT_EQ(unset.start_port_get(), -1);
  EXPECT_EQ(unset.end_port_get(), -1);
}

// Verifies that ends in the wrong order are swapped.
TEST(PortRange, FromTwoNumbers) {
  EXPECT_EQ(PortRange(90, 80), PortRange(80, 90));
  EXPECT_EQ(PortRange(0, 65535).end_port_get(), 65535);
}

// Verifies which ranges are a single port, and that only those give it.
TEST(PortRange, Single) {
  EXPECT_TRUE(PortRange(80).is_single());
  EXPECT_TRUE(PortRange(80, 80).is_single());
  EXPECT_TRUE(PortRange(80, -1).is_single());
  EXPECT_FALSE(PortRange(80, 81).is_single());
  EXPECT_EQ(PortRange(80, -1).single_port_get(), 80);
  try {
    PortRange(80, 81).single_port_get();
    FAIL() << "no exception";
  } catch (const std::runtime_error& failure) {
    EXPECT_STREQ(failure.what(), "FATAL: PortRange: expected single port");
  }
}

std::string failure_of(const std::string& text) {
  try {
    PortRange range(text);
  } catch (const std::runtime_error& failure) {
    return failure.what();
  }
  return "";
}

// Verifies that ports above 65535 are refused in each place, with the range in the text.
TEST(PortRange, IllegalNumbers) {
  EXPECT_EQ(failure_of("70000"), "PortRange: Ilegal port number 70000");
  EXPECT_EQ(failure_of("65536"), "PortRange: Ilegal port number 65536");
  EXPECT_EQ(failure_of("65535"), "");
  EXPECT_EQ(failure_of("70000:80"), "PortRange: Ilegal port number 80:70000");
  EXPECT_EQ(failure_of("66000:70000"), "PortRange: Ilegal port number 66000:70000");
  EXPECT_THROW(PortRange(70000), std::runtime_error);
  EXPECT_THROW(PortRange(80, 70000), std::runtime_error);
  EXPECT_THROW(PortRange(70000, -1), std::runtime_error);
}

// Verifies the text of a range, and that a stream gets the same.
TEST(PortRange, Text) {
  EXPECT_EQ(PortRange(80).to_str(), "80");
  EXPECT_EQ(PortRange(80, 90).to_str(), "80:90");
  std::ostringstream out;
  out << PortRange(80, 90) << " " << PortRange(7);
  EXPECT_EQ(out.str(), "80:90 7");
}

// Verifies that touching and overlapping ranges combine, and that distant ones don't.
TEST(PortRange, Combine) {
  PortRange range(10, 20);
  EXPECT_TRUE(range.combine(PortRange(21, 30)));
  EXPECT_EQ(range, PortRange(10, 30));
  EXPECT_FALSE(range.combine(PortRange(32, 40)));
  EXPECT_EQ(range, PortRange(10, 30));
  EXPECT_TRUE(range.combine(PortRange(5, 9)));
  EXPECT_EQ(range, PortRange(5, 30));
  EXPECT_FALSE(range.combine(PortRange(1, 3)));
  EXPECT_TRUE(range.combine(PortRange(8, 12)));
  EXPECT_EQ(range, PortRange(5, 30));

  PortRange apart(10, 20);
  EXPECT_FALSE(apart.combine(PortRange(22, 30)));
}

// Verifies that single ports without an end combine by their one port.
TEST(PortRange, CombineSinglePorts) {
  PortRange port(80, -1);
  EXPECT_TRUE(port.combine(PortRange(81, -1)));
  EXPECT_EQ(port, PortRange(80, 81));
  EXPECT_FALSE(port.combine(PortRange(83, -1)));
}

// Verifies that ranges are grouped in ascending order, and that the argument is sorted.
TEST(PortRange, GroupRanges) {
  std::vector<PortRange> ranges = {PortRange(30, 40), PortRange(1, 5), PortRange(6, 10), PortRange(35, 50),
                                   PortRange(60)};
  EXPECT_THAT(PortRange::group_ranges(ranges),
              ElementsAre(PortRange(1, 10), PortRange(30, 50), PortRange(60)));
  EXPECT_EQ(ranges.front(), PortRange(1, 5));
  std::vector<PortRange> none;
  EXPECT_TRUE(PortRange::group_ranges(none).empty());
}

// Verifies that excluded ports split a range, cut its ends, and may lie outside it.
TEST(PortRange, Exclude) {
  EXPECT_THAT(PortRange(10, 20).exclude({}), ElementsAre(PortRange(10, 20)));
  EXPECT_THAT(PortRange(10, 20).exclude({15}), ElementsAre(PortRange(10, 14), PortRange(16, 20)));
  EXPECT_THAT(PortRange(10, 20).exclude({10, 20, 12}), ElementsAre(PortRange(11, 11), PortRange(13, 19)));
  EXPECT_THAT(PortRange(10, 20).exclude({5, 30, -1, 0, 65536, 100000}), ElementsAre(PortRange(10, 20)));
  EXPECT_TRUE(PortRange(10).exclude({10}).empty());
  EXPECT_THAT(PortRange(10, -1).exclude({}), ElementsAre(PortRange(10)));
}

// Verifies that the ends of the port space are covered.
TEST(PortRange, ExcludeAtTheEnds) {
  EXPECT_THAT(PortRange(1, 65535).exclude({1, 65535}), ElementsAre(PortRange(2, 65534)));
  EXPECT_THAT(PortRange(0, 65535).exclude({100}), ElementsAre(PortRange(1, 99), PortRange(101, 65535)));
}

}  // namespace
