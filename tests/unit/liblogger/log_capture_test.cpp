#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

#include "sup_logger.h"

namespace {

using zol_test::LogCapture;

SupLogger& logger() {
  return SupLogger::get_instance("CaptureTest");
}

// Verifies that a capture collects category, level and text at every level, and keeps them off standard
// error.
TEST(LogCapture, collects_every_level) {
  testing::internal::CaptureStderr();
  LogCapture capture;
  SUP_LOG(logger(), log_level::fatal) << "first";
  SUP_LOG(logger(), log_level::trace) << "last " << 7;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  ASSERT_EQ(capture.records().size(), 2U);
  EXPECT_EQ(capture.records()[0].level, log_level::fatal);
  EXPECT_EQ(capture.records()[1].category, "CaptureTest");
  EXPECT_EQ(capture.records()[1].text, "last 7");
  EXPECT_EQ(capture.all(), "0 CaptureTest: first\n800 CaptureTest: last 7\n");
}

// Verifies that look-ups find a part of a text, with a level only at that level, and count each record.
TEST(LogCapture, looks_up_by_part_and_level) {
  LogCapture capture;
  SUP_LOG(logger(), log_level::error) << "read_file: gone";
  SUP_LOG(logger(), log_level::info) << "read_file: back";
  EXPECT_TRUE(capture.contains("_file: gone"));
  EXPECT_FALSE(capture.contains("_file: lost"));
  EXPECT_TRUE(capture.contains(log_level::error, "gone"));
  EXPECT_FALSE(capture.contains(log_level::info, "gone"));
  EXPECT_EQ(capture.count("read_file"), 2);
  capture.clear();
  EXPECT_EQ(capture.count("read_file"), 0);
}

// Verifies that the levels are the usual ones again after a capture, also for a category made within it.
TEST(LogCapture, gives_levels_back) {
  {
    LogCapture capture;
    EXPECT_TRUE(logger().is_trace_enabled());
    EXPECT_TRUE(SupLogger::get_instance("MadeInCapture").is_trace_enabled());
  }
  EXPECT_FALSE(logger().is_debug_enabled());
  EXPECT_FALSE(SupLogger::get_instance("MadeInCapture").is_debug_enabled());
  EXPECT_TRUE(logger().is_info_enabled());
}

}  // namespace
