#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "variant.h"

namespace {

using libvariant::Deserialize;
using libvariant::Variant;
using Kind = Variant::Kind;
using zol_test::LogCapture;

std::string nested(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

// Verifies that each form of a JSON value becomes the fitting kind.
TEST(Deserialize, each_kind) {
  EXPECT_EQ(Deserialize("true"), Variant(true));
  EXPECT_EQ(Deserialize(" null ").kind(), Kind::Null);
  EXPECT_EQ(Deserialize("-7"), Variant(-7));
  EXPECT_EQ(Deserialize("1.5"), Variant(1.5));
  EXPECT_EQ(Deserialize("\"a\\u00e9\\n\"").AsString(), "a\xC3\xA9\n");
  EXPECT_EQ(Deserialize("[]").kind(), Kind::List);
  EXPECT_EQ(Deserialize("{}").kind(), Kind::Map);
  const Variant map = Deserialize(R"({"a": [1, {"b": "c"}], "d": {}})");
  EXPECT_EQ(map.At("a").AsList()[1].At("b").AsString(), "c");
  EXPECT_TRUE(map.At("d").IsMap());
}

// Verifies that whole numbers keep their value over the whole range of 64 bits, and become doubles beyond it.
TEST(Deserialize, big_numbers) {
  EXPECT_EQ(Deserialize("-9223372036854775808"), Variant(std::numeric_limits<std::int64_t>::min()));
  EXPECT_EQ(Deserialize("9223372036854775807").kind(), Kind::Signed);
  EXPECT_EQ(Deserialize("4294967295").kind(), Kind::Signed);
  EXPECT_EQ(Deserialize("9223372036854775808").kind(), Kind::Unsigned);
  EXPECT_EQ(Deserialize("18446744073709551615"), Variant(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_EQ(Deserialize("18446744073709551616").kind(), Kind::Double);
  EXPECT_EQ(Deserialize("18446744073709551616").AsDouble(), 0x1p64);
  EXPECT_EQ(Deserialize("-9223372036854775809").kind(), Kind::Double);
  EXPECT_EQ(Deserialize("123456789012345678901234567890").AsDouble(), 123456789012345678901234567890.0);
}

// Verifies that of equal keys the last wins.
TEST(Deserialize, equal_keys) {
  const Variant map = Deserialize(R"({"a": 1, "b": 2, "a": 3})");
  EXPECT_EQ(map.Size(), 2U);
  EXPECT_EQ(map.At("a").AsInt(), 3);
}

struct BadRow {
  std::string text;
  const char* offset;
};

class BadText : public testing::TestWithParam<BadRow> {};

// Verifies that text that is no JSON gives null and one error with the offset, without the text itself.
TEST_P(BadText, is_null_and_logged) {
  LogCapture capture;
  EXPECT_TRUE(Deserialize(GetParam().text).IsNull());
  ASSERT_EQ(capture.records().size(), 1U) << capture.all();
  EXPECT_EQ(capture.records()[0].category, "Variant");
  EXPECT_TRUE(capture.contains(
      log_level::error, std::string("Deserialize: text is no JSON, at offset ") + GetParam().offset + ": "))
      << capture.all();
  EXPECT_FALSE(capture.contains("secret"));
}

INSTANTIATE_TEST_SUITE_P(Rows, BadText,
                         testing::Values(BadRow{"", "0"}, BadRow{"   ", "3"}, BadRow{"secret", "0"},
                                         BadRow{"{\"secret\": }", "11"}, BadRow{"[1, 2", "5"},
                                         BadRow{"[1,]", "3"}, BadRow{"{\"a\":1,}", "7"}, BadRow{"{a:1}", "1"},
                                         BadRow{"1 2", "2"}, BadRow{"\"open", "5"}, BadRow{"\"a\nb\"", "2"},
                                         BadRow{"nul", "3"}, BadRow{"NaN", "0"}, BadRow{"1e999", "0"},
                                         BadRow{"\"\\ud800\"", "1"}, BadRow{"[1] // remark", "4"},
                                         BadRow{std::string("[1]\0", 4), "3"},
                                         BadRow{std::string("7\0[]", 4), "1"}));

// Verifies that 256 levels are read and one more is refused, and that no depth, closed or not, exhausts the
// stack.
TEST(Deserialize, depth) {
  LogCapture capture;
  EXPECT_TRUE(Deserialize(nested(256)).IsList());
  EXPECT_EQ(capture.all(), "");
  EXPECT_TRUE(Deserialize(nested(257)).IsNull());
  EXPECT_EQ(capture.all(),
            "300 Variant: Deserialize: text is no JSON, at offset 256: Nested deeper than 256.\n");
  EXPECT_TRUE(Deserialize(nested(1000000)).IsNull());
  EXPECT_TRUE(Deserialize(std::string(1000000, '[')).IsNull());
  std::string maps;
  for (int i = 0; i < 300; ++i)
    maps += "{\"a\":";
  EXPECT_TRUE(Deserialize(maps).IsNull());
  EXPECT_EQ(capture.count("Nested deeper than 256."), 4);
}

// Verifies that many neighbours on one level are no depth.
TEST(Deserialize, many_neighbours) {
  std::string text = "[";
  for (int i = 0; i < 1000; ++i)
    text += "[],{},";
  EXPECT_EQ(Deserialize(text + "0]").Size(), 2001U);
}

// Verifies that only the given part of a longer text is read.
TEST(Deserialize, part_of_a_text) {
  EXPECT_EQ(Deserialize(std::string_view("12345", 2)), Variant(12));
}

}  // namespace
