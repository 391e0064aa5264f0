#include "core/zol_core_files.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>

#include "core/reporter_context.h"
#include "core/zol_event_timers.h"
#include "core/zol_libevent.h"
#include "dual_zol_helper.h"
#include "sup_logger.h"

namespace zol_monitor {

namespace {

constexpr unsigned core_check_period_ms = 30000;
constexpr std::string_view core_word = "core";
constexpr std::string_view text_word = "txt";  // in the names of a crash's descriptions
constexpr std::array<std::string_view, 4> process_words = {"zol", "ydns", "watchdog", "wanproxy"};

zol::ZOLEventLibEventTimer core_check_timer(core_check_send, nullptr, -1);

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Monitor");
  return instance;
}

struct DirCloser {
  void operator()(DIR* folder) const { closedir(folder); }
};

bool holds(std::string_view name, std::string_view word) {
  return name.find(word) != std::string_view::npos;
}

// The names in a folder, in its order; false, with an error line, when it can't be opened.
bool list_folder(const std::string& path, std::vector<std::string>& names) {
  const std::unique_ptr<DIR, DirCloser> folder(opendir(path.c_str()));
  if (!folder) {
    SUP_LOG(logger(), log_level::error) << "Failed to open folder " << path << " : " << strerror(errno);
    return false;
  }
  while (const dirent* entry = readdir(folder.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..")
      names.emplace_back(name);
  }
  return true;
}

bool read_status(const std::string& path, struct stat& status) {
  if (stat(path.c_str(), &status) == 0)
    return true;
  SUP_LOG(logger(), log_level::error) << "failed to stat " << path;
  return false;
}

bool is_wanted(const CorePlace& place, const std::string& name) {
  if (!place.filter.empty())
    return holds(name, place.filter);
  return std::any_of(process_words.begin(), process_words.end(),
                     [&name](std::string_view word) { return holds(name, word); });
}

// Goes down from a crash directory to the core in it; false when it has none.
bool enter_crash(std::string& name, std::string& path, struct stat& status) {
  std::vector<std::string> files;
  if (!list_folder(path, files))
    return false;
  const auto file = std::find_if(files.begin(), files.end(), [](const std::string& candidate) {
    return holds(candidate, core_word) && !holds(candidate, text_word);
  });
  if (file == files.end()) {
    SUP_LOG(logger(), log_level::error) << "failed to find kernel core file in " << path;
    return false;
  }
  name = *file;
  path += "/" + name;
  return read_status(path, status);
}

}  // namespace

std::vector<CorePlace> core_places() {
  const std::string& version = zol_utils::DualZOLHelper::instance()->get_zol_version();
  return {{"/var/log", std::string(core_word)},
          {"/opt/" + version + "/wanproxy/var/log", std::string(core_word)},
          {"/var/crash", ""}};
}

std::vector<core_t> find_new_cores(const CorePlace& place) {
  std::vector<std::string> names;
  std::vector<core_t> cores;
  list_folder(place.directory, names);
  for (std::string& name : names) {
    if (!is_wanted(place, name))
      continue;
    std::string path = place.directory + "/" + name;
    struct stat status;
    if (!read_status(path, status) || (place.filter.empty() && !enter_crash(name, path, status)))
      continue;
    if ((status.st_mode & S_ISUID) != 0)
      continue;
    SUP_LOG(logger(), log_level::error) << "New core file found at " << path << " !!";
    cores.push_back({name, status.st_ctime, path});
  }
  return cores;
}

void report_new_cores(const std::vector<CorePlace>& places) {
  std::vector<core_t> cores;
  for (const CorePlace& place : places) {
    std::vector<core_t> found = find_new_cores(place);
    std::move(found.begin(), found.end(), std::back_inserter(cores));
  }
  if (cores.empty())
    return;
  SUP_LOG(logger(), log_level::debug) << "core_check_send: Found new cores, creating JSON and sending alert";
  zol_events().invoke(new CoreEvent(cores));
  charge_send_events();
}

void core_check_send(int, short, void*) {
  if (reports_disabled) {
    SUP_LOG(logger(), log_level::debug) << "core_check_send: reports are disabled, rescheduling";
    charge_core_check();
    return;
  }
  SUP_LOG(logger(), log_level::debug) << "core_check_send: core check running";
  report_new_cores(core_places());
  SUP_LOG(logger(), log_level::debug) << "core_check_send: finished checking cores, rescheduling for 30000ms";
  charge_core_check();
}

void charge_core_check() {
  core_check_timer.charge(core_check_period_ms);
}

bool is_core_check_charged() {
  return core_check_timer.is_pending();
}

void stop_core_check() {
  core_check_timer.del(false);
}

}  // namespace zol_monitor
