#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "log_settings.h"
#include "settings_watch.h"
#include "sup_logger.h"
#include "zol_settings.h"

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("Logging");
  return l;
}

}  // namespace

struct zol_logging_handle {
  explicit zol_logging_handle(const char* settings_key)
      : key(settings_key == nullptr ? "" : settings_key), watch([this] { read_file(); }) {}

  void find_file();
  void read_file();
  void say_once(const std::string& why);

  std::string key;
  std::string path;
  bool said = false;  // that there are no settings; once, until there were some again
  sup_logger::SettingsWatch watch;
};

void zol_logging_handle::find_file() {
  path.clear();
  zol_utils::lookup_setting(key.c_str(), path);
  if (!watch.set_file(path))
    SUP_LOG(logger(), log_level::warning)
        << "find_file: changes of " << path << " can't be watched: " << std::strerror(errno);
  read_file();
}

void zol_logging_handle::read_file() {
  if (path.empty()) {
    sup_logger::log_to_standard_error();
    say_once("the key " + key + " is not set");
    return;
  }
  const bool missing = access(path.c_str(), F_OK) != 0;
  if (missing && !sup_logger::logging_by_file()) {
    say_once("there is no file " + path);
    return;
  }
  std::string error = std::strerror(ENOENT);
  if (missing || !sup_logger::log_by_file(path, error)) {
    SUP_LOG(logger(), log_level::error)
        << "read_file: " << path << ": " << error << "; the log settings stay as they were";
    return;
  }
  said = false;
  SUP_LOG(logger(), log_level::info) << "read_file: log settings taken from " << path;
}

void zol_logging_handle::say_once(const std::string& why) {
  if (!said)
    SUP_LOG(logger(), log_level::notice) << "read_file: " << why << ", logging to standard error";
  said = true;
}

zol_logging_handle* zol_logging_init_and_watch(const char* key) {
  auto* handle = new zol_logging_handle(key);
  handle->find_file();
  return handle;
}

void zol_logging_watch_on(zol_logging_handle* handle, event_base* base) {
  if (handle == nullptr || base == nullptr)
    return;
  if (!handle->watch.put_on(base))
    SUP_LOG(logger(), log_level::error) << "zol_logging_watch_on: changes of the log settings won't be seen";
}

void zol_logging_reload(zol_logging_handle* handle) {
  if (handle != nullptr)
    handle->find_file();
}

void zol_logging_and_watch_fini(zol_logging_handle* handle) {
  delete handle;
  if (handle != nullptr)
    sup_logger::log_to_standard_error();
}
