#include "settings_watch.h"

#include <event2/event.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace sup_logger {

SettingsWatch::~SettingsWatch() {
  if (event_ != nullptr)
    event_free(event_);
  if (fd_ >= 0)
    close(fd_);
}

void SettingsWatch::drop_watch() {
  if (watch_ >= 0)
    inotify_rm_watch(fd_, watch_);
  watch_ = -1;
  name_.clear();
}

bool SettingsWatch::set_file(const std::string& path) {
  if (path.empty()) {
    drop_watch();
    return true;
  }
  if (fd_ < 0)
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd_ < 0)
    return false;
  const std::size_t slash = path.rfind('/');
  const std::string folder =
      slash == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
  // The kernel gives a folder that is watched already its old number; another one may have taken its name.
  const int watch = inotify_add_watch(fd_, folder.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_ONLYDIR);
  if (watch != watch_)
    drop_watch();
  watch_ = watch;
  name_ = slash == std::string::npos ? path : path.substr(slash + 1);
  return watch_ >= 0;
}

bool SettingsWatch::put_on(event_base* base) {
  if (fd_ < 0)
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (event_ != nullptr)
    event_free(event_);
  const auto readable = [](evutil_socket_t, short, void* self) {
    static_cast<SettingsWatch*>(self)->read_changes();
  };
  event_ = fd_ < 0 ? nullptr : event_new(base, fd_, EV_READ | EV_PERSIST, readable, this);
  return event_ != nullptr && event_add(event_, nullptr) == 0;
}

void SettingsWatch::read_changes() {
  bool seen = false;
  alignas(inotify_event) char buffer[4096];
  ssize_t size;
  while ((size = read(fd_, buffer, sizeof(buffer))) > 0) {
    for (ssize_t at = 0; at < size;) {
      inotify_event change;
      std::memcpy(&change, buffer + at, sizeof(change));
      const char* name = buffer + at + sizeof(change);
      if ((change.mask & IN_IGNORED) != 0 && change.wd == watch_)
        watch_ = -1;  // the folder is gone
      else if ((change.mask & IN_Q_OVERFLOW) != 0 || (change.wd == watch_ && change.len > 0 && name_ == name))
        seen = true;
      at += static_cast<ssize_t>(sizeof(change) + change.len);
    }
  }
  if (seen)
    changed_();
}

}  // namespace sup_logger
