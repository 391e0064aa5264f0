#include "variant.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace {

using libvariant::Variant;
using Kind = Variant::Kind;

constexpr auto int64_max = std::numeric_limits<std::int64_t>::max();
constexpr auto int64_min = std::numeric_limits<std::int64_t>::min();
constexpr auto uint64_max = std::numeric_limits<std::uint64_t>::max();

// A pointer would turn into true, and an enumerator into a number that says nothing.
static_assert(!std::is_convertible_v<void*, Variant>);
enum Colour { red };
static_assert(!std::is_convertible_v<Colour, Variant>);

// Verifies that every C++ type becomes the kind that keeps its value.
TEST(Variant, kind_of_each_type) {
  EXPECT_EQ(Variant().kind(), Kind::Null);
  EXPECT_EQ(Variant(true).kind(), Kind::Bool);
  EXPECT_EQ(Variant(-1).kind(), Kind::Signed);
  EXPECT_EQ(Variant(short{1}).kind(), Kind::Signed);
  EXPECT_EQ(Variant(1LL).kind(), Kind::Signed);
  EXPECT_EQ(Variant(1U).kind(), Kind::Unsigned);
  EXPECT_EQ(Variant(1UL).kind(), Kind::Unsigned);
  EXPECT_EQ(Variant(1ULL).kind(), Kind::Unsigned);
  EXPECT_EQ(Variant(std::uint8_t{1}).kind(), Kind::Unsigned);
  EXPECT_EQ(Variant(0.5).kind(), Kind::Double);
  EXPECT_EQ(Variant(0.5F).kind(), Kind::Double);
  EXPECT_EQ(Variant("text").kind(), Kind::String);
  EXPECT_EQ(Variant(std::string("text")).kind(), Kind::String);
  EXPECT_EQ(Variant::make_list().kind(), Kind::List);
  EXPECT_EQ(Variant::make_map().kind(), Kind::Map);
}

// Verifies that texts around the size that is kept in place come back whole, with NULs, and that null is
// empty.
TEST(Variant, texts_of_every_size) {
  for (const std::size_t size : {0U, 1U, 7U, 8U, 9U, 15U, 16U, 1000U}) {
    const std::string text(size, 'x');
    EXPECT_EQ(Variant(text).AsString(), text);
    EXPECT_EQ(Variant(text).AsStringView(), text);
  }
  const std::string with_nul("a\0b", 3);
  EXPECT_EQ(Variant(with_nul).AsString(), with_nul);
  const char* null = nullptr;
  EXPECT_TRUE(Variant(null).IsString());
  EXPECT_EQ(Variant(null).AsString(), "");
}

// Verifies that a copy is deep: a change of the one leaves the other.
TEST(Variant, copy_is_deep) {
  Variant map;
  map.Assign("list", Variant()).Append("a text of more than eight bytes");
  map.Assign(std::string("copied key"), 1);
  Variant copy = map;
  copy.Find("list")->Append(2);
  copy.Assign("more", 3);
  EXPECT_EQ(map.At("list").Size(), 1U);
  EXPECT_FALSE(map.Contains("more"));
  EXPECT_EQ(copy.At("list").AsList()[0].AsString(), "a text of more than eight bytes");
  EXPECT_EQ(copy.At("copied key").AsInt(), 1);
}

// Verifies that a move leaves null behind, for every kind.
TEST(Variant, move_leaves_null) {
  for (Variant value : {Variant(1), Variant("short"), Variant("a text of more than eight bytes"),
                        Variant::make_list(), Variant::make_map()}) {
    const Variant before = value;
    const Variant taken = std::move(value);
    EXPECT_TRUE(value.IsNull());  // NOLINT(bugprone-use-after-move): that is what is tested
    EXPECT_EQ(taken, before);
  }
}

// Verifies that a value can be assigned to itself and to a part of itself.
TEST(Variant, assignment_of_own_parts) {
  Variant map;
  map.Assign("inner", Variant()).Assign("deep", "a text of more than eight bytes");
  const Variant& self = map;
  map = self;
  EXPECT_EQ(map.At("inner").At("deep").AsString(), "a text of more than eight bytes");
  const Variant& part = map.At("inner");
  map = part;
  EXPECT_EQ(map.At("deep").AsString(), "a text of more than eight bytes");
  map = std::move(*map.Find("deep"));
  EXPECT_EQ(map.AsString(), "a text of more than eight bytes");
}

// Verifies that a null, and a string, list or map without content, are empty, and nothing else is.
TEST(Variant, empty) {
  EXPECT_TRUE(Variant().Empty());
  EXPECT_TRUE(Variant("").Empty());
  EXPECT_TRUE(Variant::make_list().Empty());
  EXPECT_TRUE(Variant::make_map().Empty());
  EXPECT_FALSE(Variant(false).Empty());
  EXPECT_FALSE(Variant(0).Empty());
  EXPECT_FALSE(Variant(0.0).Empty());
  EXPECT_FALSE(Variant("x").Empty());
}

// Verifies that clearing keeps the kind of a string, list and map, and makes null of everything else.
TEST(Variant, clear) {
  Variant list;
  list.Append(1);
  Variant map;
  map.Assign("key", 1);
  Variant text("a text of more than eight bytes");
  Variant number(7);
  for (Variant* value : {&list, &map, &text, &number})
    value->Clear();
  EXPECT_TRUE(list.IsList() && list.Empty());
  EXPECT_TRUE(map.IsMap() && map.Empty() && !map.Contains("key"));
  EXPECT_TRUE(text.IsString() && text.Empty());
  EXPECT_TRUE(number.IsNull());
}

// Verifies that a null becomes a list by its first element, and that other kinds are left alone.
TEST(Variant, append) {
  Variant list;
  list.Append(1);
  Variant& stored = list.Append("two");
  EXPECT_EQ(stored.AsString(), "two");
  EXPECT_EQ(list.Size(), 2U);
  EXPECT_EQ(list.AsList()[0].AsInt(), 1);
  list.MutableList()->pop_back();
  EXPECT_EQ(list.Size(), 1U);
  Variant number(7);
  number.Append(1) = Variant("lost");
  EXPECT_EQ(number.AsInt(), 7);
  EXPECT_TRUE(number.Append(Variant()).IsNull());
  EXPECT_EQ(number.MutableList(), nullptr);
  EXPECT_TRUE(number.AsList().empty());
}

// Verifies that numbers convert to each other, cut to the range of the type asked for.
TEST(Variant, numbers_convert_within_range) {
  EXPECT_EQ(Variant(-1).AsUnsigned(), 0U);
  EXPECT_EQ(Variant(uint64_max).AsInt(), int64_max);
  EXPECT_EQ(Variant(2.9).AsInt(), 2);
  EXPECT_EQ(Variant(-2.9).AsInt(), -2);
  EXPECT_EQ(Variant(-2.9).AsUnsigned(), 0U);
  EXPECT_EQ(Variant(1e30).AsInt(), int64_max);
  EXPECT_EQ(Variant(-1e30).AsInt(), int64_min);
  EXPECT_EQ(Variant(1e30).AsUnsigned(), uint64_max);
  EXPECT_EQ(Variant(0x1p63).AsInt(), int64_max);
  EXPECT_EQ(Variant(0x1p63).AsUnsigned(), 0x8000000000000000ULL);
  EXPECT_EQ(Variant(std::nan("")).AsInt(), 0);
  EXPECT_EQ(Variant(std::numeric_limits<double>::infinity()).AsUnsigned(), uint64_max);
  EXPECT_EQ(Variant(-3).AsDouble(), -3.0);
  EXPECT_EQ(Variant(3U).AsDouble(), 3.0);
}

// Verifies that a read that doesn't fit the kind gives the empty result of its type.
TEST(Variant, reads_of_another_kind) {
  for (const Variant& value : {Variant(), Variant("12"), Variant(true), Variant::make_map()}) {
    EXPECT_EQ(value.AsInt(), 0);
    EXPECT_EQ(value.AsUnsigned(), 0U);
    EXPECT_EQ(value.AsDouble(), 0.0);
  }
  EXPECT_FALSE(Variant(1).AsBool());
  EXPECT_TRUE(Variant(true).AsBool());
  EXPECT_EQ(Variant(12).AsString(), "");
  EXPECT_TRUE(Variant("x").AsMap().empty());
  EXPECT_EQ(Variant("x").Size(), 0U);
}

// Verifies that numbers of different kinds are equal by value, without rounding, and that nothing else is
// equal across kinds.
TEST(Variant, equality) {
  EXPECT_EQ(Variant(1), Variant(1U));
  EXPECT_EQ(Variant(1U), Variant(1));
  EXPECT_EQ(Variant(1), Variant(1.0));
  EXPECT_EQ(Variant(1.0), Variant(1U));
  EXPECT_NE(Variant(-1), Variant(uint64_max));
  EXPECT_NE(Variant(1), Variant(1.5));
  EXPECT_NE(Variant(int64_max), Variant(0x1p63));
  EXPECT_NE(Variant(uint64_max), Variant(0x1p64));
  EXPECT_EQ(Variant(int64_min), Variant(-0x1p63));
  EXPECT_NE(Variant(std::nan("")), Variant(std::nan("")));
  EXPECT_NE(Variant(0), Variant(false));
  EXPECT_NE(Variant(0), Variant());
  EXPECT_EQ(Variant(), Variant());
  EXPECT_EQ(Variant("a"), Variant(std::string("a")));
  EXPECT_NE(Variant("1"), Variant(1));
}

// Verifies that lists are equal element by element, and maps whatever the order of their keys.
TEST(Variant, equality_of_containers) {
  Variant one;
  one.Append(1);
  Variant other;
  other.Append(1U);
  EXPECT_EQ(one, other);
  other.Append(2);
  EXPECT_NE(one, other);
  Variant a_first;
  a_first.Assign("a", 1);
  a_first.Assign("b", one);
  Variant b_first;
  b_first.Assign("b", one);
  EXPECT_NE(a_first, b_first);
  b_first.Assign("a", 1);
  EXPECT_EQ(a_first, b_first);
  b_first.Assign("a", Variant());
  EXPECT_NE(a_first, b_first);
  b_first.Erase("a");
  b_first.Assign("c", Variant());
  a_first.Assign("a", Variant());
  EXPECT_NE(a_first, b_first);
}

}  // namespace
