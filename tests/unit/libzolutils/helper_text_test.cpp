#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>

#include "zol_helper.h"

using testing::ElementsAre;
using testing::IsEmpty;
using zol::Helper;

namespace {

// Verifies that a text is split at the separator and that empty pieces are left out.
TEST(HelperText, SplitsWithoutEmptyPieces) {
  EXPECT_THAT(Helper::deserialize_strings("a,bc,d", ','), ElementsAre("a", "bc", "d"));
  EXPECT_THAT(Helper::deserialize_strings(",a,,b,", ','), ElementsAre("a", "b"));
  EXPECT_THAT(Helper::deserialize_strings("alone", ','), ElementsAre("alone"));
  EXPECT_THAT(Helper::deserialize_strings("", ','), IsEmpty());
  EXPECT_THAT(Helper::deserialize_strings(",,", ','), IsEmpty());
}

// Verifies that the form with a vector replaces what the vector held.
TEST(HelperText, SplitReplacesTheVector) {
  std::vector<std::string> pieces = {"old"};
  Helper::deserialize_strings("x@y", pieces, '@');
  EXPECT_THAT(pieces, ElementsAre("x", "y"));
}

// Verifies that extract_token gives what stands between the first `from` and the first `to` behind it.
TEST(HelperText, TokenBetweenDelimiters) {
  EXPECT_EQ(Helper::extract_token("a id='@peer', lease=10.1.2.3/32", "id='", "'", false), "@peer");
  EXPECT_EQ(Helper::extract_token("]x[one][two]", "[", "]", false), "one");
  EXPECT_EQ(Helper::extract_token("[]", "[", "]", false), "");
}

// Verifies that `from` stays in the result when that is asked for.
TEST(HelperText, TokenKeepsFrom) {
  EXPECT_EQ(Helper::extract_token("say \"name\"[7]", "\"", "]", true), "\"name\"[7");
}

// Verifies that an empty `to` stands for the end of the text.
TEST(HelperText, TokenToTheEnd) {
  EXPECT_EQ(Helper::extract_token("State: Established", "State: ", "", false), "Established");
  EXPECT_EQ(Helper::extract_token("State: Established", "State: ", "", true), "State: Established");
}

// Verifies that a text that lacks one of the delimiters gives an empty token.
TEST(HelperText, TokenWithoutDelimiters) {
  EXPECT_EQ(Helper::extract_token("no such text", "[", "]", false), "");
  EXPECT_EQ(Helper::extract_token("an open [bracket", "[", "]", false), "");
  EXPECT_EQ(Helper::extract_token("an open [bracket", "[", "]", true), "");
  EXPECT_EQ(Helper::extract_token("", "[", "]", true), "");
}

// Verifies that the number of cores is the number of processors that are online.
TEST(HelperText, CountsCores) {
  EXPECT_EQ(static_cast<long>(Helper::calc_number_of_cores()), ::sysconf(_SC_NPROCESSORS_ONLN));
}

// Verifies that the usage is the busy share in percent, and negative when more idle time than time went by.
TEST(HelperText, UsageIsNotClamped) {
  EXPECT_DOUBLE_EQ(Helper::calc_usage_percentage(100, 100.0, 2), 50.0);
  EXPECT_DOUBLE_EQ(Helper::calc_usage_percentage(0, 100.0, 4), 100.0);
  EXPECT_DOUBLE_EQ(Helper::calc_usage_percentage(300, 100.0, 2), -50.0);
}

}  // namespace
