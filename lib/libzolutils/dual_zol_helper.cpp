#include "dual_zol_helper.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <ctime>
#include <memory>
#include <set>
#include <string_view>
#include <vector>

#include "common/unique_fd.h"
#include "libzolutils/helper_internal.h"

namespace zol_utils {

namespace {

constexpr std::string_view version_prefix = "zol-";
constexpr std::string_view pid_file_suffix = ".pid";

std::string& the_run_folder() {
  static std::string folder = "/run/zol";
  return folder;
}

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

// A pid file's name in its parts; the version without "zol-".
struct Instance {
  std::string file;
  std::string program;
  std::string version;
};

std::string_view without_prefix(std::string_view version) {
  return version.starts_with(version_prefix) ? version.substr(version_prefix.size()) : version;
}

bool begins_with_digit(std::string_view text) {
  return !text.empty() && std::isdigit(static_cast<unsigned char>(text.front())) != 0;
}

// <program>-<version>.pid; the version begins behind the first '-' that a number or "zol-" and a number
// follows, since both parts may hold a '-'; without one, behind the last '-'.
bool split_file_name(std::string_view file, Instance& instance) {
  if (!file.ends_with(pid_file_suffix))
    return false;
  const std::string_view stem = file.substr(0, file.size() - pid_file_suffix.size());
  std::size_t dash = stem.find('-', 1);
  while (dash != std::string_view::npos && !begins_with_digit(without_prefix(stem.substr(dash + 1))))
    dash = stem.find('-', dash + 1);
  if (dash == std::string_view::npos)
    dash = stem.rfind('-');
  if (dash == std::string_view::npos || dash == 0 || dash + 1 == stem.size())
    return false;
  instance = {std::string(file), std::string(stem.substr(0, dash)),
              std::string(without_prefix(stem.substr(dash + 1)))};
  return true;
}

std::string instances_folder() {
  return the_run_folder() + "/instances";
}

std::vector<Instance> list_instances() {
  std::vector<Instance> all;
  const std::unique_ptr<DIR, CloseDirectory> folder(::opendir(instances_folder().c_str()));
  while (const dirent* entry = folder ? ::readdir(folder.get()) : nullptr) {
    Instance instance;
    if (split_file_name(entry->d_name, instance))
      all.push_back(std::move(instance));
  }
  return all;
}

// Whoever runs holds a lock, shared or not, and nobody gets an exclusive one meanwhile.
bool is_running(const Instance& instance) {
  const std::string path = instances_folder() + "/" + instance.file;
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  return file && ::flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

void pause_us(unsigned microseconds) {
  timespec rest = {static_cast<time_t>(microseconds / 1'000'000), microseconds % 1'000'000 * 1000L};
  while (::nanosleep(&rest, &rest) != 0 && errno == EINTR) {
  }
}

std::string trim(const std::string& text) {
  constexpr const char* blanks = " \t\r\n";
  const std::size_t begin = text.find_first_not_of(blanks);
  if (begin == std::string::npos)
    return {};
  return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

// Runs before the static objects of a program are built: one of them may open a shared record.
[[gnu::constructor(200)]] void set_shared_mem_enabled() {
  shared_mem_enabled = is_shared_memory_allowed();
}

}  // namespace

bool shared_mem_enabled = true;

void set_run_folder(const std::string& folder) {
  the_run_folder() = folder;
}

const std::string& run_folder() {
  return the_run_folder();
}

bool is_shared_memory_allowed() {
  return ::access((run_folder() + "/no_shared_memory").c_str(), F_OK) != 0;
}

DualZOLHelper::DualZOLHelper()
    : version_num_(ZOL_VERSION), version_(std::string(version_prefix) + ZOL_VERSION) {}

DualZOLHelper* DualZOLHelper::instance() {
  static DualZOLHelper helper;
  return &helper;
}

const std::string& DualZOLHelper::get_zol_version_num() const {
  return version_num_;
}

const std::string& DualZOLHelper::get_zol_version() const {
  return version_;
}

bool DualZOLHelper::zol_is_services_should_run() const {
  std::string text;
  if (!read_file(run_folder() + "/active_version", text))
    return true;
  const std::string active = trim(text.substr(0, text.find('\n')));
  return active.empty() || without_prefix(active) == version_num_;
}

bool DualZOLHelper::zol_is_running() const {
  return zol_is_services_should_run();
}

bool DualZOLHelper::check_for_other_running_zol_instances(unsigned timeout_us, int tries) const {
  const auto is_other = [this](const Instance& instance) {
    return instance.program == program_invocation_short_name && instance.version != version_num_ &&
           is_running(instance);
  };
  for (int i = 0; i < std::max(tries, 1); ++i) {
    if (i > 0)
      pause_us(timeout_us);
    const std::vector<Instance> all = list_instances();
    if (std::none_of(all.begin(), all.end(), is_other))
      return false;
  }
  return true;
}

bool DualZOLHelper::is_dual_installation() const {
  std::set<std::string> versions;
  for (const Instance& instance : list_instances())
    versions.insert(instance.version);
  return versions.size() > 1;
}

}  // namespace zol_utils
