#include <gtest/gtest.h>

#include <chrono>

#include "zol_helper.h"

using zol::Helper;

namespace {

// Verifies that get_timestamp_ms tells the wall clock in milliseconds.
TEST(HelperClock, TimestampIsTheWallClock) {
  const auto wall_ms = [] {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
  };
  const std::uint64_t before = wall_ms();
  const std::uint64_t stamp = Helper::get_timestamp_ms();
  EXPECT_GE(stamp, before);
  EXPECT_LE(stamp, wall_ms());
}

// Verifies that get_clock reads CLOCK_BOOTTIME in both of its forms.
TEST(HelperClock, ClockIsBoottime) {
  timespec before;
  timespec after;
  timespec by_pointer;
  timespec by_reference;
  ASSERT_EQ(::clock_gettime(CLOCK_BOOTTIME, &before), 0);
  EXPECT_TRUE(Helper::get_clock(&by_pointer));
  EXPECT_TRUE(Helper::get_clock(by_reference));
  ASSERT_EQ(::clock_gettime(CLOCK_BOOTTIME, &after), 0);
  EXPECT_GE(Helper::get_clock_diff_us(&before, &by_pointer), 0);
  EXPECT_GE(Helper::get_clock_diff_us(&by_pointer, &by_reference), 0);
  EXPECT_GE(Helper::get_clock_diff_us(&by_reference, &after), 0);
}

// Verifies that a difference is the second time minus the first, also across a second and below zero.
TEST(HelperClock, DifferenceIsToMinusFrom) {
  const timespec early = {10, 999'000'000};
  const timespec late = {12, 1'500'000};
  EXPECT_EQ(Helper::get_clock_diff_ms(early, late), 1002);
  EXPECT_EQ(Helper::get_clock_diff_ms(late, early), -1002);
  EXPECT_EQ(Helper::get_clock_diff_us(&early, &late), 1'002'500);
  EXPECT_EQ(Helper::get_clock_diff_us(&late, &early), -1'002'500);
}

// Verifies that convert_us_to_ms drops what is less than a millisecond.
TEST(HelperClock, MicrosecondsAreCutToMilliseconds) {
  EXPECT_EQ(Helper::convert_us_to_ms(0), 0U);
  EXPECT_EQ(Helper::convert_us_to_ms(999), 0U);
  EXPECT_EQ(Helper::convert_us_to_ms(1000), 1U);
  EXPECT_EQ(Helper::convert_us_to_ms(1999), 1U);
  EXPECT_EQ(Helper::convert_us_to_ms(4294967295U), 4294967U);
}

// Verifies that a time stamp of seconds is ISO 8601 in UTC.
TEST(HelperClock, StampOfSeconds) {
  const long seconds = 1795248123;
  EXPECT_EQ(Helper::get_timestamp_gmt_format(&seconds), "2026-11-21T08:02:03Z");
  const long epoch = 0;
  EXPECT_EQ(Helper::get_timestamp_gmt_format(&epoch), "1970-01-01T00:00:00Z");
}

// Verifies that a time stamp of milliseconds shows three digits behind the second.
TEST(HelperClock, StampOfMilliseconds) {
  EXPECT_EQ(Helper::get_timestamp_gmt_format_ms(1795248123123), "2026-11-21T08:02:03.123Z");
  EXPECT_EQ(Helper::get_timestamp_gmt_format_ms(1795248123007), "2026-11-21T08:02:03.007Z");
}

// Verifies that the forms without a time tell the present second.
TEST(HelperClock, StampOfNow) {
  const long before = std::time(nullptr);
  const std::string stamp = Helper::get_timestamp_gmt_format();
  const std::string stamp_ms = Helper::get_timestamp_gmt_format_ms();
  const std::string of_null = Helper::get_timestamp_gmt_format(nullptr);
  const long after = std::time(nullptr);
  for (const std::string& text : {stamp, of_null, stamp_ms.substr(0, 19) + "Z"}) {
    EXPECT_GE(text, Helper::get_timestamp_gmt_format(&before));
    EXPECT_LE(text, Helper::get_timestamp_gmt_format(&after));
  }
  EXPECT_EQ(stamp_ms.size(), std::string("2026-11-21T08:02:03.123Z").size());
}

// Verifies that a time that no calendar can tell gives an empty text and no crash.
TEST(HelperClock, StampOutOfTheCalendar) {
  const long far = 9223372036854775807L;
  EXPECT_EQ(Helper::get_timestamp_gmt_format(&far), "");
}

}  // namespace
