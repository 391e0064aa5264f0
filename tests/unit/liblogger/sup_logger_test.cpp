#include "sup_logger.h"

#include <event2/event.h>
#include <gtest/gtest.h>

#include <ostream>
#include <utility>

#include "tests/support/log_capture.h"

namespace {

using zol_test::LogCapture;

SupLogger& logger() {
  return SupLogger::get_instance("SupLoggerTest");
}

struct CountsFormatting {
  int* formatted;
};

std::ostream& operator<<(std::ostream& out, const CountsFormatting& value) {
  ++*value.formatted;
  return out;
}

// Verifies that a name always gives the same category, and another name another one.
TEST(SupLogger, one_category_for_each_name) {
  EXPECT_EQ(&logger(), &logger());
  EXPECT_NE(&logger(), &SupLogger::get_instance("Other"));
  EXPECT_EQ(logger().name(), "SupLoggerTest");
}

// Verifies that the level is info before any settings: graver levels are on, debug and trace are off.
TEST(SupLogger, starts_at_info_level) {
  EXPECT_TRUE(logger().is_error_enabled());
  EXPECT_TRUE(logger().is_warning_enabled());
  EXPECT_TRUE(logger().is_notice_enabled());
  EXPECT_TRUE(logger().is_info_enabled());
  EXPECT_FALSE(logger().is_debug_enabled());
  EXPECT_FALSE(logger().is_trace_enabled());
}

// Verifies that a line on standard error shows time, level, category and text.
TEST(SupLogger, standard_error_line) {
  testing::internal::CaptureStderr();
  SUP_LOG(logger(), log_level::warning) << "send_health"
                                        << ": beat lost";
  const std::string line = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(testing::internal::RE::FullMatch(
      line, testing::internal::RE(
                "[0-9-]{10} [0-9:]{8}\\.[0-9]{3} WARN   SupLoggerTest: send_health: beat lost\n")))
      << line;
}

// Verifies that nothing is evaluated or formatted for a level that is off.
TEST(SupLogger, level_that_is_off_costs_nothing) {
  int formatted = 0;
  int evaluated = 0;
  const auto touch = [&] {
    ++evaluated;
    return CountsFormatting{&formatted};
  };
  SUP_LOG(logger(), log_level::debug) << touch();
  EXPECT_EQ(evaluated, 0);
  logger().getStream(log_level::debug) << touch() << std::hex;
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(formatted, 0);
}

// Verifies that one message is one record however it is put together, and that a manipulator ends with it.
TEST(SupLogger, one_record_for_each_message) {
  LogCapture capture;
  SUP_LOG(logger(), log_level::info) << "mark " << std::hex << 255;
  SUP_LOG(logger(), log_level::info) << "mark " << 255;
  ASSERT_EQ(capture.records().size(), 2U);
  EXPECT_EQ(capture.records()[0].text, "mark ff");
  EXPECT_EQ(capture.records()[1].text, "mark 255");
}

// Verifies that the macro is one statement, so that an else behind it belongs to the if before it.
TEST(SupLogger, macro_is_one_statement) {
  bool otherwise = false;
  const bool condition = false;
  if (condition)
    SUP_LOG(logger(), log_level::debug) << "not reached";
  else
    otherwise = true;
  EXPECT_TRUE(otherwise);
}

// Verifies that a streamer that was moved from writes nothing, and the other writes once.
TEST(SupLogger, moved_streamer_writes_once) {
  LogCapture capture;
  {
    SupLoggerStreamer first = logger().getStream(log_level::info);
    first << "kept";
    const SupLoggerStreamer second = std::move(first);
  }
  EXPECT_EQ(capture.count("kept"), 1);
}

// Verifies that libevent's severities become debug, info, warning and error under the category "libevent",
// and that an unknown severity and a null text do no harm.
TEST(SupLogger, libevent_severities) {
  LogCapture capture;
  libevent_event_log_cpp(EVENT_LOG_DEBUG, "a");
  libevent_event_log_cpp(EVENT_LOG_MSG, "b");
  libevent_event_log_cpp(EVENT_LOG_WARN, "c");
  libevent_event_log_cpp(EVENT_LOG_ERR, "d");
  libevent_event_log_cpp(99, nullptr);
  EXPECT_EQ(capture.all(),
            "700 libevent: a\n600 libevent: b\n400 libevent: c\n300 libevent: d\n300 libevent: \n");
}

}  // namespace
