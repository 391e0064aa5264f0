#include <gtest/gtest.h>

#include "sessions/session_info.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace {

using zol_monitor::HTTPCounters;

zol::http_notification_t kind(unsigned number) {
  return static_cast<zol::http_notification_t>(number);
}

// Verifies that new counters are all zero.
TEST(HTTPCountersTest, StartsEmpty) {
  const HTTPCounters counters;
  for (unsigned i = 0; i < HTTPCounters::kinds; ++i)
    EXPECT_EQ(counters.get_counter(kind(i)), 0U);
  EXPECT_TRUE(counters.is_empty());
}

// Verifies that kinds 0 to 2 are requests and kinds 3 to 6 responses, each with a counter of its own.
TEST(HTTPCountersTest, Totals) {
  HTTPCounters counters;
  for (unsigned i = 0; i < HTTPCounters::kinds; ++i)
    for (unsigned times = 0; times <= i; ++times)
      EXPECT_TRUE(counters.update(kind(i)));
  for (unsigned i = 0; i < HTTPCounters::kinds; ++i)
    EXPECT_EQ(counters.get_counter(kind(i)), i + 1);
  EXPECT_EQ(counters.total_requests(), 1U + 2 + 3);
  EXPECT_EQ(counters.total_responses(), 4U + 5 + 6 + 7);
  EXPECT_FALSE(counters.is_empty());
}

// Verifies that a single request, or a single response, makes the counters not empty.
TEST(HTTPCountersTest, NotEmpty) {
  HTTPCounters request;
  request.update(zol::HTTP_OTHER_REQUEST);
  EXPECT_FALSE(request.is_empty());
  HTTPCounters response;
  response.update(zol::HTTP_5XX_RESPONSE);
  EXPECT_FALSE(response.is_empty());
}

// Verifies that a sum has every counter of both operands, and that reset clears them all.
TEST(HTTPCountersTest, SumAndReset) {
  HTTPCounters one;
  one.update(zol::HTTP_GET_REQUEST);
  one.update(zol::HTTP_5XX_RESPONSE);
  HTTPCounters other;
  other.update(zol::HTTP_GET_REQUEST);
  other.update(zol::HTTP_POST_REQUEST);
  const HTTPCounters sum = one + other;
  EXPECT_EQ(sum.get_counter(zol::HTTP_GET_REQUEST), 2U);
  EXPECT_EQ(sum.get_counter(zol::HTTP_POST_REQUEST), 1U);
  EXPECT_EQ(sum.get_counter(zol::HTTP_5XX_RESPONSE), 1U);
  EXPECT_EQ(one.get_counter(zol::HTTP_GET_REQUEST), 1U);
  one += other;
  EXPECT_EQ(one.total_requests(), 3U);
  one.reset();
  EXPECT_TRUE(one.is_empty());
}

// Verifies that a kind beyond the known ones, as a message may hold it, is refused with an error line.
TEST(HTTPCountersTest, UnknownKind) {
  const zol_test::LogCapture log;
  HTTPCounters counters;
  EXPECT_FALSE(counters.update(kind(7)));
  EXPECT_FALSE(counters.update(kind(255)));
  EXPECT_TRUE(counters.is_empty());
  EXPECT_EQ(counters.get_counter(kind(7)), 0U);
  EXPECT_TRUE(log.contains(log_level::error, "update: HTTP notification 255 is not supported")) << log.all();
}

}  // namespace
