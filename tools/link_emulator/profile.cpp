#include "link_emulator/profile.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace emulator {

namespace {

constexpr double longest_us = 3600e6;
constexpr double percent = 100;

bool parse_number(const std::string& text, double largest, double& value) {
  const char* end = text.data() + text.size();
  const auto [rest, failure] = std::from_chars(text.data(), end, value, std::chars_format::fixed);
  return failure == std::errc() && rest == end && value >= 0 && value <= largest;
}

bool set_time(const std::string& key, double us, Profile& profile) {
  const std::int64_t ns = std::llround(us * 1000);
  if (key == "delay_us")
    profile.delay_ns = ns;
  else if (key == "jitter_us")
    profile.jitter_ns = ns;
  else if (key == "reorder_us")
    profile.reorder_ns = ns;
  else
    return false;
  return true;
}

bool set_chance(const std::string& key, double chance, Profile& profile) {
  if (key == "loss")
    profile.loss = chance;
  else if (key == "duplicate")
    profile.duplicate = chance;
  else if (key == "reorder")
    profile.reorder = chance;
  else if (key == "corrupt")
    profile.corrupt = chance;
  else
    return false;
  return true;
}

bool set_member(const std::string& key, const std::string& text, Profile& profile) {
  double value = 0;
  if (key == "corrupt_byte") {
    if (!parse_number(text, 65535, value) || value != std::floor(value))
      return false;
    profile.byte = static_cast<std::size_t>(value);
    return true;
  }
  if (key.ends_with("_us"))
    return parse_number(text, longest_us, value) && set_time(key, value, profile);
  return parse_number(text, percent, value) && set_chance(key, value / percent, profile);
}

}  // namespace

std::optional<Profile> parse_profile(const std::vector<std::string>& words, std::string& error) {
  Profile profile;
  for (const std::string& word : words) {
    const std::size_t sign = word.find('=');
    if (sign == std::string::npos || !set_member(word.substr(0, sign), word.substr(sign + 1), profile)) {
      error = "not a property of a link: " + word;
      return std::nullopt;
    }
  }
  return profile;
}

double Dice::draw() {
  return std::ldexp(static_cast<double>(numbers_() >> 11), -53);
}

Fate Dice::roll(const Profile& profile, std::size_t bytes) {
  const bool lost = draw() < profile.loss;
  const bool twice = draw() < profile.duplicate;
  const bool held = draw() < profile.reorder;
  const bool flipped = draw() < profile.corrupt;
  const double place = draw();
  const double bit_in_byte = draw();
  const double shifts[] = {draw(), draw()};
  Fate fate;
  if (lost) {
    fate.lost = true;
    return fate;
  }
  fate.reordered = held;
  for (int i = 0; i < (twice ? 2 : 1); ++i) {
    const auto shift = std::llround((2 * shifts[i] - 1) * static_cast<double>(profile.jitter_ns));
    Copy copy;
    copy.delay_ns = std::max<std::int64_t>(profile.delay_ns + shift, 0) + (held ? profile.reorder_ns : 0);
    if (flipped && bytes > 0) {
      const std::size_t any = static_cast<std::size_t>(place * static_cast<double>(bytes));
      const std::size_t byte = profile.byte && *profile.byte < bytes ? *profile.byte : any;
      copy.corrupt_bit = static_cast<long>(byte * 8) + static_cast<long>(bit_in_byte * 8);
    }
    fate.copies.push_back(copy);
  }
  return fate;
}

}  // namespace emulator
