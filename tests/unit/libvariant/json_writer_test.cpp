#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdint>
#include <limits>

#include "tests/support/log_capture.h"
#include "variant.h"

namespace {

using libvariant::Deserialize;
using libvariant::Serialize;
using libvariant::Variant;

std::string compact(const Variant& value) {
  return Serialize(value, Variant());
}

Variant parameters(bool pretty, const Variant& precision) {
  Variant map;
  map.Assign("pretty", pretty);
  map.Assign("precision", precision);
  return map;
}

std::string with_precision(double value, int precision) {
  return Serialize(value, parameters(false, precision));
}

// Verifies the text of each kind at the edges of its range.
TEST(Serialize, each_kind) {
  EXPECT_EQ(compact(Variant()), "null");
  EXPECT_EQ(compact(true), "true");
  EXPECT_EQ(compact(false), "false");
  EXPECT_EQ(compact(0), "0");
  EXPECT_EQ(compact(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(compact(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(compact("text"), "\"text\"");
  EXPECT_EQ(compact(Variant::make_list()), "[]");
  EXPECT_EQ(compact(Variant::make_map()), "{}");
}

// Verifies the pretty form: four blanks a level, one member or element a line.
TEST(Serialize, pretty) {
  Variant map;
  map.Assign("id", 7);
  Variant& list = map.Assign("list", Variant());
  list.Append("a");
  list.Append(Variant::make_map());
  map.Assign("inner", Variant()).Assign("deep", true);
  EXPECT_EQ(Serialize(map, parameters(true, 10)),
            "{\n"
            "    \"id\": 7,\n"
            "    \"list\": [\n"
            "        \"a\",\n"
            "        {}\n"
            "    ],\n"
            "    \"inner\": {\n"
            "        \"deep\": true\n"
            "    }\n"
            "}");
}

// Verifies that the form without "pretty" has no blanks and no line feeds.
TEST(Serialize, compact_form) {
  Variant map;
  map.Assign("id", 7);
  map.Assign("list", Variant()).Append(1.5);
  EXPECT_EQ(compact(map), "{\"id\":7,\"list\":[1.5]}");
  EXPECT_EQ(Serialize(map, parameters(false, Variant())), "{\"id\":7,\"list\":[1.5]}");
}

// Verifies that quotes, backslashes and control characters are escaped, wherever they stand in a text, and
// that others aren't.
TEST(Serialize, escapes) {
  EXPECT_EQ(compact("\"\\/\b\f\n\r\t"), R"("\"\\/\b\f\n\r\t")");
  EXPECT_EQ(compact(std::string("\0\x01\x1F\x7F", 4)), "\"\\u0000\\u0001\\u001F\x7F\"");
  for (std::size_t at = 0; at < 20; ++at) {
    for (const auto& [c, escaped] :
         {std::pair<char, const char*>{'"', "\\\""}, {'\\', "\\\\"}, {'\n', "\\n"}, {'\x1F', "\\u001F"}}) {
      std::string text(20, 'x');
      text[at] = c;
      EXPECT_EQ(compact(text), "\"" + std::string(at, 'x') + escaped + std::string(19 - at, 'x') + "\"");
    }
    std::string plain(20, 'x');
    plain[at] = ' ';
    EXPECT_EQ(compact(plain), "\"" + plain + "\"");
  }
  Variant map;
  map.Assign(std::string("k\"ey"), 1);
  EXPECT_EQ(compact(map), R"({"k\"ey":1})");
}

// Verifies that UTF-8 goes out as it is and other bytes as U+FFFD, in texts and in keys.
TEST(Serialize, utf8) {
  EXPECT_EQ(compact("caf\xC3\xA9 \xF0\x9F\x98\x80"), "\"caf\xC3\xA9 \xF0\x9F\x98\x80\"");
  Variant map;
  map.Assign(std::string("k\xFF"), "caf\xE9");
  EXPECT_EQ(compact(map), "{\"k\xEF\xBF\xBD\":\"caf\xEF\xBF\xBD\"}");
}

// Verifies that precision is significant digits, rounded, without zeros at the end, at every magnitude.
TEST(Serialize, precision) {
  EXPECT_EQ(with_precision(1.0 / 3, 10), "0.3333333333");
  EXPECT_EQ(with_precision(200.0 / 3, 10), "66.66666667");
  EXPECT_EQ(with_precision(0.1, 10), "0.1");
  EXPECT_EQ(with_precision(2.0, 10), "2");
  EXPECT_EQ(with_precision(-1234567.891, 10), "-1234567.891");
  EXPECT_EQ(with_precision(12345678901.0, 10), "1.23456789e+10");
  EXPECT_EQ(with_precision(0.00001, 10), "1e-05");
  EXPECT_EQ(with_precision(99.96, 3), "100");
  EXPECT_EQ(with_precision(0.0, 10), "0");
}

// Verifies that without a precision a double is read back as the same, and that a precision out of range is
// cut.
TEST(Serialize, default_and_cut_precision) {
  for (const double value : {0.1, 1.0 / 3, 1e300, 5e-324, std::numeric_limits<double>::max()})
    EXPECT_EQ(Deserialize(compact(value)).AsDouble(), value);
  EXPECT_EQ(with_precision(0.1, 1000), "0.10000000000000001");
  EXPECT_EQ(with_precision(1.25, 0), "1");
  EXPECT_EQ(with_precision(1.25, -5), "1");
}

// Verifies that a double that JSON has no text for is written as 0.
TEST(Serialize, doubles_that_are_not_finite) {
  EXPECT_EQ(compact(std::nan("")), "0");
  EXPECT_EQ(compact(std::numeric_limits<double>::infinity()), "0");
  EXPECT_EQ(compact(-std::numeric_limits<double>::infinity()), "0");
}

// Verifies that a text much longer than foreseen comes out whole: every byte of it is escaped.
TEST(Serialize, text_longer_than_foreseen) {
  Variant list;
  for (int i = 0; i < 1000; ++i)
    list.Append(std::string(100, '\x01'));
  const std::string text = compact(list);
  EXPECT_EQ(text.size(), 1000U * (600 + 2) + 999 + 2);
  EXPECT_EQ(Deserialize(text), list);
}

// Verifies that a long list whose elements differ much in size comes out whole.
TEST(Serialize, long_list) {
  Variant list;
  for (int i = 0; i < 3000; ++i)
    list.Append(i % 10 == 1 ? Variant(std::string(500, 'x')) : Variant(i));
  EXPECT_EQ(Deserialize(Serialize(list, parameters(true, 10))), list);
}

// Verifies that writing and reading give the same value back, both forms.
TEST(Serialize, round_trip) {
  Variant map;
  map.Assign("null", Variant());
  map.Assign("bool", true);
  map.Assign("signed", -42);
  map.Assign("unsigned", std::numeric_limits<std::uint64_t>::max());
  map.Assign("double", 0.25);
  map.Assign("text", "line\nfeed \xC3\xA9");
  Variant& list = map.Assign("list", Variant::make_list());
  list.Append(Variant::make_map());
  list.Append(Variant::make_list());
  for (const bool pretty : {false, true})
    EXPECT_EQ(Deserialize(Serialize(map, parameters(pretty, 17))), map);
}

}  // namespace
