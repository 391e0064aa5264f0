#include "sessions/session_keys.h"

#include <random>

namespace zol_monitor {

namespace {

std::uint64_t random_word() {
  std::random_device device;
  return std::uint64_t{device()} << 32 | device();
}

}  // namespace

// The second is a factor: odd, so that no bit of the other one is lost.
HashSeeds::HashSeeds() : first(random_word()), second(random_word() | 1) {}

const HashSeeds hash_seeds;

}  // namespace zol_monitor
