// Whole files: reading and comparing.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "common/unique_fd.h"
#include "libzolutils/helper_internal.h"
#include "zol_helper.h"

namespace {

using Block = std::array<char, 65536>;

// As many bytes as the file has left, a block at most; negative on failure.
ssize_t read_block(int fd, Block& block) {
  std::size_t filled = 0;
  while (filled < block.size()) {
    const ssize_t got = ::read(fd, block.data() + filled, block.size() - filled);
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0)
      return -1;
    if (got == 0)
      break;
    filled += static_cast<std::size_t>(got);
  }
  return static_cast<ssize_t>(filled);
}

zol_utils::UniqueFd open_to_read(const std::string& path) {
  return zol_utils::UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

}  // namespace

namespace zol_utils {

bool read_file(const std::string& path, std::string& text) {
  const UniqueFd file = open_to_read(path);
  if (!file)
    return false;
  text.clear();
  Block block;
  for (;;) {
    const ssize_t size = read_block(file.get(), block);
    if (size < 0)
      return false;
    text.append(block.data(), static_cast<std::size_t>(size));
    if (static_cast<std::size_t>(size) < block.size())
      return true;
  }
}

}  // namespace zol_utils

namespace zol {

namespace {

constexpr std::size_t max_text = std::size_t{1024} * 1024;

}  // namespace

bool Helper::is_file_exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

// Not to be held up by a named pipe that somebody has put in the file's place.
bool Helper::string_from_file(const std::string& path, std::string& text) {
  const zol_utils::UniqueFd file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat state;
  if (!file || ::fstat(file.get(), &state) != 0 || !S_ISREG(state.st_mode))
    return false;
  std::string content;
  Block block;
  while (content.size() < max_text) {
    const ssize_t size = read_block(file.get(), block);
    if (size < 0)
      return false;
    content.append(block.data(), static_cast<std::size_t>(size));
    if (static_cast<std::size_t>(size) < block.size())
      break;
  }
  text = std::move(content);
  return true;
}

bool Helper::compare_files(const std::string& one, const std::string& other) {
  const zol_utils::UniqueFd first = open_to_read(one);
  const zol_utils::UniqueFd second = open_to_read(other);
  if (!first || !second)
    return false;
  Block left;
  Block right;
  for (;;) {
    const ssize_t size = read_block(first.get(), left);
    if (size < 0 || read_block(second.get(), right) != size)
      return false;
    if (size == 0)
      return true;
    if (std::memcmp(left.data(), right.data(), static_cast<std::size_t>(size)) != 0)
      return false;
  }
}

}  // namespace zol
