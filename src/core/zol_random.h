// Randomness of the kernel.
#pragma once

#include <cstdint>

namespace zol {

// 32 bits of /dev/urandom.
std::uint32_t zol_random();

}  // namespace zol
