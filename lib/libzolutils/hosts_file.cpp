// Names that the machine's own file of hosts settles; hosts(5).
#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <ctime>
#include <sstream>
#include <utility>

#include "libzolutils/helper_internal.h"
#include "zol_helper.h"

namespace zol_utils {

namespace {

constexpr std::int64_t ns_a_second = 1'000'000'000;

std::string to_lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// Which content of the file this is; a missing file has inode 0.
struct FileState {
  std::int64_t changed_ns = 0;
  off_t size = 0;
  ino_t inode = 0;

  bool operator==(const FileState&) const = default;
};

FileState look_at(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0)
    return {};
  return {status.st_mtim.tv_sec * ns_a_second + status.st_mtim.tv_nsec, status.st_size, status.st_ino};
}

class HostsFile {
 public:
  explicit HostsFile(std::string path) : path_(std::move(path)) {}

  const HostAddresses& addresses() {
    const FileState state = look_at(path_);
    if (!settled_ || state != state_)
      read(state);
    return addresses_;
  }
  unsigned reads() const { return reads_; }

 private:
  // The state is taken before the content, so that a change in between shows at the next look. Two writes
  // within one tick of the file system's clock leave the same time: a file that young is read again.
  void read(const FileState& state) {
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    settled_ = state.changed_ns + ns_a_second < now.tv_sec * ns_a_second + now.tv_nsec;
    state_ = state;
    std::string text;
    addresses_ = state.inode != 0 && read_file(path_, text) ? parse_hosts(text) : HostAddresses{};
    ++reads_;
  }

  std::string path_;
  FileState state_;
  bool settled_ = false;
  unsigned reads_ = 0;
  HostAddresses addresses_;
};

HostsFile& hosts() {
  static HostsFile file("/etc/hosts");
  return file;
}

}  // namespace

HostAddresses parse_hosts(const std::string& text) {
  HostAddresses found;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line.substr(0, line.find('#')));
    std::string word;
    in_addr address;
    if (!(words >> word) || ::inet_pton(AF_INET, word.c_str(), &address) != 1)
      continue;
    while (words >> word)
      found[to_lower(word)].push_back(address);
  }
  return found;
}

void set_hosts_file(const std::string& path) {
  hosts() = HostsFile(path);
}

unsigned hosts_file_reads() {
  return hosts().reads();
}

}  // namespace zol_utils

namespace zol {

bool Helper::try_static_resolution(const std::string& host, std::list<in_addr>& addresses) {
  const zol_utils::HostAddresses& known = zol_utils::hosts().addresses();
  const auto found = known.find(zol_utils::to_lower(host));
  if (found == known.end())
    return false;
  addresses = found->second;
  return true;
}

}  // namespace zol
