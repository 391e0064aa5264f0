#include <gtest/gtest.h>

#include "sessions/session_info.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace {

using zol_monitor::SessionsErrorCounter;

zol::failure_reason_t reason(unsigned number) {
  return static_cast<zol::failure_reason_t>(number);
}

// Verifies that the reasons 1 to 5, and no others, are known.
TEST(SessionsErrorCounterTest, KnownReasons) {
  EXPECT_FALSE(SessionsErrorCounter::verify_failure_reason(reason(0)));
  for (unsigned number = 1; number <= 5; ++number)
    EXPECT_TRUE(SessionsErrorCounter::verify_failure_reason(reason(number))) << number;
  EXPECT_FALSE(SessionsErrorCounter::verify_failure_reason(reason(6)));
  EXPECT_FALSE(SessionsErrorCounter::verify_failure_reason(reason(255)));
}

// Verifies that a failure counts in both maps, and that clearing the period leaves the total.
TEST(SessionsErrorCounterTest, CountsInBothMaps) {
  SessionsErrorCounter counter;
  counter.update_counters(zol::FR_PEER_TIMEOUT);
  counter.update_counters(zol::FR_PEER_TIMEOUT);
  counter.update_counters(zol::FR_INVALID_HOST);
  EXPECT_EQ(SessionsErrorCounter::get_counter(counter.total, zol::FR_PEER_TIMEOUT), 2U);
  EXPECT_EQ(SessionsErrorCounter::get_counter(counter.period, zol::FR_PEER_TIMEOUT), 2U);
  EXPECT_EQ(SessionsErrorCounter::get_counter(counter.period, zol::FR_INVALID_HOST), 1U);
  counter.period.clear();
  EXPECT_EQ(SessionsErrorCounter::get_counter(counter.period, zol::FR_PEER_TIMEOUT), 0U);
  EXPECT_EQ(SessionsErrorCounter::get_counter(counter.total, zol::FR_PEER_TIMEOUT), 2U);
}

// Verifies that a reason that never occurred reads as 0 and isn't entered by reading it.
TEST(SessionsErrorCounterTest, UnseenReason) {
  const SessionsErrorCounter counter;
  EXPECT_EQ(SessionsErrorCounter::get_counter(counter.total, zol::FR_CONNECTION_REFUSED), 0U);
  EXPECT_TRUE(counter.total.empty());
}

// Verifies that the reasons 0 and 6 are logged as unsupported and counted nowhere.
TEST(SessionsErrorCounterTest, UnsupportedUpdate) {
  const zol_test::LogCapture log;
  SessionsErrorCounter counter;
  counter.update_counters(reason(0));
  counter.update_counters(reason(6));
  EXPECT_TRUE(counter.total.empty());
  EXPECT_TRUE(counter.period.empty());
  EXPECT_TRUE(log.contains(log_level::error, "update_counters:Failure-Reason:0 is not supported:"))
      << log.all();
  EXPECT_TRUE(log.contains(log_level::error, "update_counters:Failure-Reason:6 is not supported:"))
      << log.all();
}

// Verifies that reading the counter of an unsupported reason is logged and gives 0.
TEST(SessionsErrorCounterTest, UnsupportedRead) {
  const zol_test::LogCapture log;
  SessionsErrorCounter counter;
  counter.total[reason(6)] = 9;
  EXPECT_EQ(SessionsErrorCounter::get_counter(counter.total, reason(6)), 0U);
  EXPECT_TRUE(log.contains(log_level::error, "get_counter:Failure-Reason:6 is not supported:")) << log.all();
}

}  // namespace
