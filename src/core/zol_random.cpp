#include "core/zol_random.h"

#include <fstream>

namespace zol {

std::uint32_t zol_random() {
  std::uint32_t value = 0;
  std::ifstream source("/dev/urandom", std::ios::binary);
  source.read(reinterpret_cast<char*>(&value), sizeof value);
  return value;
}

}  // namespace zol
