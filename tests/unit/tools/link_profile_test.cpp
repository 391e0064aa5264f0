#include "link_emulator/profile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "link_emulator/options.h"

namespace emulator {
namespace {

using testing::Each;
using testing::IsEmpty;
using testing::SizeIs;

Profile profile_of(const std::vector<std::string>& words) {
  std::string error;
  const auto profile = parse_profile(words, error);
  EXPECT_TRUE(profile) << error;
  return profile.value_or(Profile{});
}

// Verifies that each key sets its own member, in nanoseconds or as a share.
TEST(LinkProfile, Keys) {
  const Profile profile = profile_of({"delay_us=200.5", "jitter_us=3", "reorder_us=4000000", "loss=10",
                                      "duplicate=20", "reorder=30", "corrupt=0.5", "corrupt_byte=24"});
  EXPECT_EQ(profile.delay_ns, 200500);
  EXPECT_EQ(profile.jitter_ns, 3000);
  EXPECT_EQ(profile.reorder_ns, 4000000000);
  EXPECT_DOUBLE_EQ(profile.loss, 0.1);
  EXPECT_DOUBLE_EQ(profile.duplicate, 0.2);
  EXPECT_DOUBLE_EQ(profile.reorder, 0.3);
  EXPECT_DOUBLE_EQ(profile.corrupt, 0.005);
  EXPECT_EQ(profile.byte, 24u);
}

// Verifies that a key that isn't known, has no value or one out of range is refused by name.
TEST(LinkProfile, Refusals) {
  for (const char* word : {"delay=1", "loss", "loss=", "loss=101", "loss=-1", "loss=1e1", "delay_us=4e9",
                           "delay_us=3600000001", "corrupt_byte=1.5", "corrupt_byte=65536", "loss=nan"}) {
    std::string error;
    EXPECT_FALSE(parse_profile({"delay_us=1", word}, error)) << word;
    EXPECT_EQ(error, std::string("not a property of a link: ") + word);
  }
}

// Verifies the forms of a link command.
TEST(LinkProfile, Command) {
  std::string error;
  const auto both = parse_link("10.9.0.2 both delay_us=7", error);
  ASSERT_TRUE(both) << error;
  EXPECT_EQ(both->address, "10.9.0.2");
  EXPECT_TRUE(both->forth && both->back);
  EXPECT_EQ(both->profile.delay_ns, 7000);
  const auto back = parse_link("* back", error);
  ASSERT_TRUE(back) << error;
  EXPECT_TRUE(!back->forth && back->back);
  for (const char* text : {"", "10.9.0.2", "10.9.0.2 sideways", "10.9.0 both", "* both lost=1"})
    EXPECT_FALSE(parse_link(text, error)) << text;
}

// Verifies that chances of 0 and of 1 are never and always, and that a lost packet has no copies.
TEST(LinkDice, Certainties) {
  Dice dice(1);
  for (int i = 0; i < 1000; ++i) {
    const Fate plain = dice.roll(profile_of({"delay_us=5"}), 68);
    ASSERT_THAT(plain.copies, SizeIs(1));
    EXPECT_FALSE(plain.lost || plain.reordered);
    EXPECT_EQ(plain.copies[0].delay_ns, 5000);
    EXPECT_EQ(plain.copies[0].corrupt_bit, -1);
    EXPECT_TRUE(dice.roll(profile_of({"loss=100", "duplicate=100"}), 68).lost);
    EXPECT_THAT(dice.roll(profile_of({"loss=100", "duplicate=100"}), 68).copies, IsEmpty());
    EXPECT_THAT(dice.roll(profile_of({"duplicate=100"}), 68).copies, SizeIs(2));
  }
}

// Verifies that chances come out as often as they say.
TEST(LinkDice, Shares) {
  Dice dice(2);
  const Profile profile = profile_of({"loss=10", "duplicate=20", "reorder=30", "corrupt=40"});
  constexpr int rolls = 20000;
  int lost = 0, doubled = 0, held = 0, spoilt = 0;
  for (int i = 0; i < rolls; ++i) {
    const Fate fate = dice.roll(profile, 68);
    lost += fate.lost;
    doubled += fate.copies.size() == 2;
    held += fate.reordered;
    spoilt += !fate.copies.empty() && fate.copies[0].corrupt_bit >= 0;
  }
  const double sent = rolls - lost;
  EXPECT_NEAR(lost / double{rolls}, 0.1, 0.01);
  EXPECT_NEAR(doubled / sent, 0.2, 0.02);
  EXPECT_NEAR(held / sent, 0.3, 0.02);
  EXPECT_NEAR(spoilt / sent, 0.4, 0.02);
}

// Verifies that jitter spreads the delay evenly on both sides, never below 0, and that a held packet waits
// longer by its time.
TEST(LinkDice, Delays) {
  Dice dice(3);
  std::int64_t least = INT64_MAX, most = 0;
  for (int i = 0; i < 5000; ++i) {
    const std::int64_t delay = dice.roll(profile_of({"delay_us=100", "jitter_us=10"}), 68).copies[0].delay_ns;
    least = std::min(least, delay);
    most = std::max(most, delay);
    EXPECT_GE(dice.roll(profile_of({"delay_us=1", "jitter_us=10"}), 68).copies[0].delay_ns, 0);
  }
  EXPECT_GE(least, 90000);
  EXPECT_LT(least, 91000);
  EXPECT_LE(most, 110000);
  EXPECT_GT(most, 109000);
  const Fate held = dice.roll(profile_of({"delay_us=100", "reorder=100", "reorder_us=7"}), 68);
  EXPECT_TRUE(held.reordered);
  EXPECT_EQ(held.copies[0].delay_ns, 107000);
}

// Verifies that the flipped bit lies in the packet, in the byte that is told when the packet has it.
TEST(LinkDice, CorruptBit) {
  Dice dice(4);
  for (int i = 0; i < 2000; ++i) {
    const long any = dice.roll(profile_of({"corrupt=100"}), 68).copies[0].corrupt_bit;
    EXPECT_TRUE(any >= 0 && any < 68 * 8) << any;
    const long told = dice.roll(profile_of({"corrupt=100", "corrupt_byte=24"}), 68).copies[0].corrupt_bit;
    EXPECT_EQ(told / 8, 24);
    const long outside = dice.roll(profile_of({"corrupt=100", "corrupt_byte=68"}), 68).copies[0].corrupt_bit;
    EXPECT_LT(outside, 68 * 8);
  }
  EXPECT_EQ(dice.roll(profile_of({"corrupt=100"}), 0).copies[0].corrupt_bit, -1);
}

std::vector<bool> losses(std::uint64_t seed, const std::vector<std::string>& words) {
  Dice dice(seed);
  std::vector<bool> row;
  for (int i = 0; i < 200; ++i)
    row.push_back(dice.roll(profile_of(words), 68).lost);
  return row;
}

// Verifies that a seed repeats its row, that another gives another, and that other chances leave it alone.
TEST(LinkDice, Seed) {
  EXPECT_EQ(losses(5, {"loss=50"}), losses(5, {"loss=50"}));
  EXPECT_NE(losses(5, {"loss=50"}), losses(6, {"loss=50"}));
  EXPECT_EQ(losses(5, {"loss=50"}), losses(5, {"loss=50", "duplicate=50", "corrupt=50", "jitter_us=9"}));
}

}  // namespace
}  // namespace emulator
