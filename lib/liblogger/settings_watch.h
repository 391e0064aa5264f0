// Watches one file for changes, see inotify(7). It's the file's folder that is watched, so that a file that
// is replaced by a rename, or that comes into being later, is seen too.
#pragma once

#include <functional>
#include <string>
#include <utility>

struct event;
struct event_base;

namespace sup_logger {

class SettingsWatch {
 public:
  explicit SettingsWatch(std::function<void()> changed) : changed_(std::move(changed)) {}
  ~SettingsWatch();
  SettingsWatch(const SettingsWatch&) = delete;
  SettingsWatch& operator=(const SettingsWatch&) = delete;

  // From now on watches this file; empty watches nothing. False with errno set when it can't.
  bool set_file(const std::string& path);
  // Looks at the watch when the loop finds it readable.
  bool put_on(event_base* base);

 private:
  void drop_watch();
  void read_changes();

  std::function<void()> changed_;
  std::string name_;
  int fd_ = -1;
  int watch_ = -1;
  event* event_ = nullptr;
};

}  // namespace sup_logger
