// Logging of the node's programs: named categories over log4cpp.
//
// A category is found once (a function-local static reference is the usual way) and lives for ever. A message
// below the category's level costs one compare: nothing is formatted and nothing is allocated, as long as it
// is written through SUP_LOG or behind the matching is_..._enabled().
//
//   SupLogger& logger() { static SupLogger& l = SupLogger::get_instance("Monitor"); return l; }
//   SUP_LOG(logger(), log_level::debug) << "send_health" << ": beat sent";
//
// Main thread, and the sampler's thread for its own lines: a category may be used by any thread, the settings
// change on the main thread only.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

struct event_base;

// log4cpp's priorities: the lower the number, the graver the message.
namespace log_level {
inline constexpr int fatal = 0;
inline constexpr int error = 300;
inline constexpr int warning = 400;
inline constexpr int notice = 500;
inline constexpr int info = 600;
inline constexpr int debug = 700;
inline constexpr int trace = 800;
}  // namespace log_level

class SupLogger;

// One message: what is streamed in is collected and handed to the category as one record when the object
// dies. A streamer of a level that is off has no buffer and swallows everything.
class SupLoggerStreamer {
 public:
  SupLoggerStreamer(SupLogger* logger, int level);  // a null logger makes a streamer that is off
  SupLoggerStreamer(SupLoggerStreamer&&) noexcept = default;
  SupLoggerStreamer& operator=(SupLoggerStreamer&&) = delete;
  SupLoggerStreamer(const SupLoggerStreamer&) = delete;
  ~SupLoggerStreamer();

  template <typename T>
  SupLoggerStreamer& operator<<(const T& value) {
    if (text_)
      *text_ << value;
    return *this;
  }
  // Manipulators such as std::hex; they last for this message.
  SupLoggerStreamer& operator<<(std::ios_base& (*manipulator)(std::ios_base&)) {
    if (text_)
      *text_ << manipulator;
    return *this;
  }

 private:
  SupLogger* logger_;
  int level_;
  std::unique_ptr<std::ostringstream> text_;
};

class SupLogger {
 public:
  // The category of that name, made at first use.
  static SupLogger& get_instance(const std::string& category);

  bool is_enabled(int level) const { return level <= threshold_.load(std::memory_order_relaxed); }
  bool is_error_enabled() const { return is_enabled(log_level::error); }
  bool is_warning_enabled() const { return is_enabled(log_level::warning); }
  bool is_notice_enabled() const { return is_enabled(log_level::notice); }
  bool is_info_enabled() const { return is_enabled(log_level::info); }
  bool is_debug_enabled() const { return is_enabled(log_level::debug); }
  bool is_trace_enabled() const { return is_enabled(log_level::trace); }

  SupLoggerStreamer getStream(int level) { return {is_enabled(level) ? this : nullptr, level}; }

  const std::string& name() const { return name_; }
  // Writes one record without looking at the level.
  void write(int level, const std::string& text);
  // Takes the level that log4cpp holds for the category anew; the library calls it after each reload.
  void refresh_threshold();

  SupLogger(const SupLogger&) = delete;
  SupLogger& operator=(const SupLogger&) = delete;

 private:
  explicit SupLogger(std::string name);

  std::string name_;
  std::atomic<int> threshold_;
};

// Makes a message a void expression, so that SUP_LOG is one statement wherever a statement may stand.
struct SupLogVoidify {
  void operator&(const SupLoggerStreamer&) const {}
};

// One message. Its operands are evaluated only when the level is on.
// NOLINTBEGIN(bugprone-macro-parentheses): what is streamed in follows the macro
#define SUP_LOG(logger, level) \
  !(logger).is_enabled(level) ? static_cast<void>(0) : SupLogVoidify() & (logger).getStream(level)
// NOLINTEND(bugprone-macro-parentheses)

// Opaque state of the running log.
struct zol_logging_handle;

// Starts logging from the log4cpp properties file that the configuration key names. Without the key or the
// file, logging goes to standard error at info level, and one line says so. The file's folder is watched with
// inotify from here on; the watch is looked at when the loop runs, see zol_logging_watch_on. Never null.
//
// The levels in the file are log4cpp's words and TRACE. A log file that can't be opened makes the file a
// broken one.
zol_logging_handle* zol_logging_init_and_watch(const char* key);
// Puts the watch on a loop: a change of the file re-reads it. Call once the base stands.
void zol_logging_watch_on(zol_logging_handle* handle, event_base* base);
// Looks the key up anew and re-reads the file. A broken file keeps the old settings, with one error line.
void zol_logging_reload(zol_logging_handle* handle);
// Takes the watch off the loop, closes the files and frees the handle; null is allowed. Logging goes on, to
// standard error.
void zol_logging_and_watch_fini(zol_logging_handle* handle);

// libevent's log callback: forwards to the category "libevent", severities mapped to debug, info, warning and
// error.
extern "C" void libevent_event_log_cpp(int severity, const char* message);
