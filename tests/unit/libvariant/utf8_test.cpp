#include "lib/libvariant/utf8.h"

#include <gtest/gtest.h>

namespace {

using libvariant::as_utf8;

#define FFFD "\xEF\xBF\xBD"

// Verifies that UTF-8 of every length, at the edges of its ranges, is given back as it is, without a copy.
TEST(AsUtf8, valid_text) {
  for (const std::string text : {"", "plain", "eight by", "nine byte", "\x7F", "\xC2\x80", "\xDF\xBF",
                                 "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF",
                                 "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF", "12345678\xC3\xA9 more text"}) {
    std::string storage;
    const std::string_view valid = as_utf8(text, storage);
    EXPECT_EQ(valid, text);
    EXPECT_EQ(valid.data(), text.data());
  }
}

struct InvalidRow {
  const char* text;
  const char* corrected;
};

class InvalidUtf8 : public testing::TestWithParam<InvalidRow> {};

// Verifies that each part that can't be a character becomes one U+FFFD, and that what stands around it stays.
TEST_P(InvalidUtf8, is_replaced) {
  std::string storage;
  EXPECT_EQ(as_utf8(GetParam().text, storage), GetParam().corrected);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, InvalidUtf8,
    testing::Values(InvalidRow{"a\x80z", "a" FFFD "z"},                   // lone continuation byte
                    InvalidRow{"\xFF\xFE", FFFD FFFD},                    // never used
                    InvalidRow{"\xC0\xAF", FFFD FFFD},                    // overlong
                    InvalidRow{"\xC1\xBF", FFFD FFFD},                    //
                    InvalidRow{"\xE0\x80\xAF", FFFD FFFD FFFD},           // overlong
                    InvalidRow{"\xF0\x80\x80\xAF", FFFD FFFD FFFD FFFD},  // overlong
                    InvalidRow{"\xED\xA0\x80", FFFD FFFD FFFD},           // surrogate
                    InvalidRow{"\xF4\x90\x80\x80", FFFD FFFD FFFD FFFD},  // above U+10FFFF
                    InvalidRow{"\xF5z", FFFD "z"},                        //
                    InvalidRow{"\xC3", FFFD},                             // cut off
                    InvalidRow{"\xE2\x82", FFFD},                         // cut off: one part
                    InvalidRow{"\xF0\x9F\x98", FFFD},                     // cut off: one part
                    InvalidRow{"\xE2\x82z", FFFD "z"},                    // broken off
                    InvalidRow{"\xE2\xC3\xA9", FFFD "\xC3\xA9"},          // broken off by a lead
                    InvalidRow{"12345678\xE9t\xE9 and \xC3\xA9", "12345678" FFFD "t" FFFD " and \xC3\xA9"}));

}  // namespace
