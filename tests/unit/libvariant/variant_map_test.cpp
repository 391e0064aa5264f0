#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "variant.h"

namespace {

using libvariant::Variant;
using testing::ElementsAre;

std::vector<std::string> keys_of(const Variant& map) {
  std::vector<std::string> keys;
  map.ForEach([&](std::string_view key, const Variant&) { keys.emplace_back(key); });
  return keys;
}

std::string key_of(int number) {
  return "a key of the traffic report " + std::to_string(number);
}

Variant map_of(int size) {
  Variant map = Variant::make_map();
  for (int i = 0; i < size; ++i)
    map.Assign(key_of(i), i);
  return map;
}

// Verifies that a null becomes a map by its first key, and that Assign replaces where Set doesn't.
TEST(VariantMap, assign_and_set) {
  Variant map;
  EXPECT_EQ(map.Assign("a", 1).AsInt(), 1);
  EXPECT_EQ(map.Assign("a", 2).AsInt(), 2);
  EXPECT_EQ(map.Set("a", 3).AsInt(), 2);
  EXPECT_EQ(map.Set("b", 4).AsInt(), 4);
  EXPECT_EQ(map.Size(), 2U);
  EXPECT_EQ(map.At("a").AsInt(), 2);
}

// Verifies that Add puts new keys behind each other, past the size at which a map gets its index too, and
// that on another kind it does nothing.
TEST(VariantMap, add) {
  Variant map;
  EXPECT_EQ(map.Add("first", 1).AsInt(), 1);
  map.Add("second", 2);
  EXPECT_THAT(keys_of(map), ElementsAre("first", "second"));
  Variant large = map_of(40);
  large.Add("last", 7);
  EXPECT_EQ(large.At("last").AsInt(), 7);
  EXPECT_EQ(large.Assign("last", 8).AsInt(), 8);
  EXPECT_EQ(large.Size(), 41U);
  Variant number(7);
  number.Add("key", 1);
  EXPECT_EQ(number.AsInt(), 7);
}

// Verifies that a literal key and a copied key of the same text are one key.
TEST(VariantMap, literal_and_copied_keys_are_the_same) {
  Variant map;
  map.Assign("key", 1);
  const std::string copied = "key";
  map.Assign(copied, 2);
  map.Set(copied, 3);
  EXPECT_EQ(map.Size(), 1U);
  EXPECT_EQ(map.At("key").AsInt(), 2);
}

// Verifies that a copied key outlives the text that it came from, and may be empty or hold a NUL.
TEST(VariantMap, copied_keys_are_owned) {
  Variant map;
  {
    std::string text = "short-lived";
    map.Assign(text, 1);
    text.assign("overwritten");
  }
  map.Assign(std::string(), 2);
  map.Assign(std::string("a\0b", 3), 3);
  EXPECT_EQ(map.At("short-lived").AsInt(), 1);
  EXPECT_EQ(map.At("").AsInt(), 2);
  EXPECT_EQ(map.At(std::string_view("a\0b", 3)).AsInt(), 3);
  EXPECT_FALSE(map.Contains("a"));
}

// Verifies that a missing key gives a null that isn't stored, and that look-ups on other kinds find nothing.
TEST(VariantMap, missing_keys) {
  Variant map = Variant::make_map();
  EXPECT_TRUE(map.At("none").IsNull());
  EXPECT_EQ(map.Find("none"), nullptr);
  EXPECT_FALSE(map.Erase("none"));
  EXPECT_EQ(map.Size(), 0U);
  EXPECT_TRUE(Variant(7).At("x").At("y").IsNull());
  EXPECT_EQ(Variant("x").AsMap().size(), 0U);
}

// Verifies that changes of a map on another kind do nothing, and that what they give back is null each time.
TEST(VariantMap, changes_on_another_kind) {
  Variant number(7);
  number.Assign("key", 1) = Variant("lost");
  EXPECT_TRUE(number.Set(std::string("key"), 2).IsNull());
  number.Merge(map_of(2));
  EXPECT_FALSE(number.Erase("key"));
  EXPECT_EQ(number.AsInt(), 7);
  EXPECT_EQ(number.Find("key"), nullptr);
}

// Verifies that a map gives its keys in the order in which they came.
TEST(VariantMap, order_of_keys) {
  Variant map;
  map.Assign("c", 1);
  map.Assign("a", 2);
  map.Assign("b", 3);
  map.Assign("c", 4);
  EXPECT_THAT(keys_of(map), ElementsAre("c", "a", "b"));
  map.Erase("a");
  EXPECT_THAT(keys_of(map), ElementsAre("c", "b"));
}

// Verifies that a copy as a standard map holds every entry.
TEST(VariantMap, as_map) {
  const std::map<std::string, Variant> copy = map_of(50).AsMap();
  EXPECT_EQ(copy.size(), 50U);
  EXPECT_EQ(copy.at(key_of(49)).AsInt(), 49);
}

// Verifies that finding, replacing and copying work alike for small and for indexed maps.
class VariantMapOfSize : public testing::TestWithParam<int> {};

TEST_P(VariantMapOfSize, finds_every_key) {
  Variant map = map_of(GetParam());
  for (int i = 0; i < GetParam(); i += 2)
    map.Assign(key_of(i), -i);
  const Variant copy = map;
  map.Clear();
  EXPECT_EQ(copy.Size(), static_cast<std::size_t>(GetParam()));
  for (int i = 0; i < GetParam(); ++i)
    EXPECT_EQ(copy.At(key_of(i)).AsInt(), i % 2 == 0 ? -i : i);
  EXPECT_FALSE(copy.Contains(key_of(GetParam())));
}

// Verifies that after erasing every third key the others are found, that the erased can come back, and that
// all can go.
TEST_P(VariantMapOfSize, erases_keys) {
  Variant map = map_of(GetParam());
  for (int i = 0; i < GetParam(); i += 3)
    EXPECT_TRUE(map.Erase(key_of(i)));
  for (int i = 0; i < GetParam(); ++i)
    EXPECT_EQ(map.Contains(key_of(i)), i % 3 != 0) << i;
  for (int i = 0; i < GetParam(); i += 3)
    map.Assign(key_of(i), i);
  for (int i = 0; i < GetParam(); ++i)
    EXPECT_EQ(map.At(key_of(i)).AsInt(), i);
  for (int i = 0; i < GetParam(); ++i)
    EXPECT_TRUE(map.Erase(key_of(i)));
  EXPECT_TRUE(map.Empty());
}

// Verifies that a map takes over the keys of another, and that equal keys get the other's values.
TEST_P(VariantMapOfSize, merges) {
  Variant map = map_of(GetParam());
  Variant other;
  other.Assign(key_of(0), "replaced by the other map");
  for (int i = 0; i < GetParam(); ++i)
    other.Assign("new " + std::to_string(i), i);
  map.Merge(std::move(other));
  EXPECT_EQ(map.Size(), 2U * static_cast<std::size_t>(GetParam()));
  EXPECT_EQ(map.At(key_of(0)).AsString(), "replaced by the other map");
  for (int i = 0; i < GetParam(); ++i)
    EXPECT_EQ(map.At("new " + std::to_string(i)).AsInt(), i);
}

// 32 entries is the largest map without an index.
INSTANTIATE_TEST_SUITE_P(Sizes, VariantMapOfSize, testing::Values(1, 5, 31, 32, 33, 34, 1000));

// Verifies that maps within maps are merged, and that other values within are replaced whole.
TEST(VariantMap, merge_of_nested_maps) {
  Variant map;
  map.Assign("direct", Variant()).Assign("bytes", 1);
  map.Assign("list", Variant()).Append(1);
  Variant other;
  other.Assign("direct", Variant()).Assign("packets", 2);
  other.Assign("list", Variant()).Append(2);
  map.Merge(other);
  EXPECT_EQ(map.At("direct").At("bytes").AsInt(), 1);
  EXPECT_EQ(map.At("direct").At("packets").AsInt(), 2);
  ASSERT_EQ(map.At("list").Size(), 1U);
  EXPECT_EQ(map.At("list").AsList()[0].AsInt(), 2);
  EXPECT_EQ(other.At("direct").Size(), 1U);
}

// Verifies that a null takes a map over, and that merging what is no map changes nothing.
TEST(VariantMap, merge_with_other_kinds) {
  Variant null;
  null.Merge(map_of(3));
  EXPECT_EQ(null.Size(), 3U);
  null.Merge(Variant(7));
  null.Merge(Variant());
  EXPECT_EQ(null.Size(), 3U);
  Variant still_null;
  still_null.Merge(Variant());
  EXPECT_TRUE(still_null.IsNull());
}

// Verifies that values move from a map into another place with the key staying behind, and the key of the
// other place staying where it is.
TEST(VariantMap, values_move_between_entries) {
  Variant map;
  map.Assign("literal", "a text of more than eight bytes");
  map.Assign(std::string("a copied key"), 2);
  *map.Find("a copied key") = std::move(*map.Find("literal"));
  EXPECT_THAT(keys_of(map), ElementsAre("literal", "a copied key"));
  EXPECT_EQ(map.At("a copied key").AsString(), "a text of more than eight bytes");
  EXPECT_TRUE(map.At("literal").IsNull());
  const Variant outside = *map.Find("a copied key");
  map.Clear();
  EXPECT_EQ(outside.AsString(), "a text of more than eight bytes");
}

}  // namespace
