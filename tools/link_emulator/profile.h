// What the emulated link does to packets, and the dice that say what it does to the next one.
//
// A profile belongs to one address of the right-hand side and one way: "forth" is from the left device to the
// right one, "back" the other way round. Times are nanoseconds, chances lie between 0 and 1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace emulator {

struct Profile {
  std::int64_t delay_ns = 0;
  std::int64_t jitter_ns = 0;  // each packet's delay lies evenly within delay -/+ jitter, never below 0
  double loss = 0;
  double duplicate = 0;             // a second copy, with a delay of its own
  double reorder = 0;               // the packet is held back, so that later ones overtake it
  std::int64_t reorder_ns = 0;      // for so long
  double corrupt = 0;               // one bit of the packet is flipped
  std::optional<std::size_t> byte;  // in this byte; in any when it isn't told, or the packet is shorter
};

// Reads "delay_us=200 loss=10": the keys delay_us, jitter_us, reorder_us, loss, duplicate, reorder, corrupt
// (in percent, with fractions) and corrupt_byte. What isn't told is 0. Nothing, with the reason in `error`,
// for another key or a value out of range (times up to an hour).
std::optional<Profile> parse_profile(const std::vector<std::string>& words, std::string& error);

// One copy of a packet on its way.
struct Copy {
  std::int64_t delay_ns = 0;  // from the packet's arrival at the emulator
  long corrupt_bit = -1;      // the flipped bit, counted from the first bit (0x80) of the first byte; -1 none
};

struct Fate {
  bool lost = false;
  bool reordered = false;
  std::vector<Copy> copies;  // empty when it is lost
};

// The same seed gives the same row of fates for the same row of packet lengths. Each packet takes the same
// number of draws whatever becomes of it, so that changing one chance leaves the rest of the row as it was.
class Dice {
 public:
  explicit Dice(std::uint64_t seed) : numbers_(seed) {}
  Fate roll(const Profile& profile, std::size_t bytes);

 private:
  double draw();  // evenly from 0 to 1, without 1

  std::mt19937_64 numbers_;
};

}  // namespace emulator
