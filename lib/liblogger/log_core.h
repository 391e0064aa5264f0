// What all categories share: their register, the lock around log4cpp, and the sink of tests.
//
// log4cpp knows no level below debug: 800 means "as the parent" there. So a category's own threshold decides
// what is written, log4cpp is handed the finished record without being asked again, and the priority
// `trace_as_stored` stands for trace in log4cpp's tree of categories.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "log_sink.h"
#include "sup_logger.h"

namespace sup_logger {

inline constexpr int trace_as_stored = 799;

class LogCore {
 public:
  // Made at first use, with logging to standard error at info level; lives for ever.
  static LogCore& instance();

  SupLogger& category(const std::string& name, const std::function<SupLogger*()>& make);
  void write(const std::string& category, int level, const std::string& text);
  // The level down to which a category writes; the caller holds the lock or is the only thread.
  int level_of(const std::string& category) const;
  void set_sink(ILogSink* sink);
  // Runs a change of log4cpp's settings while nobody writes, then gives every category its new level. What
  // the change throws passes through, after that.
  void change_settings(const std::function<void()>& change);

 private:
  LogCore();
  void refresh_levels();

  std::mutex mutex_;
  std::map<std::string, std::unique_ptr<SupLogger>> categories_;
  ILogSink* sink_ = nullptr;
};

}  // namespace sup_logger
