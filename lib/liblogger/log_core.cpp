#include "log_core.h"

#include <log4cpp/Category.hh>
#include <log4cpp/LoggingEvent.hh>

#include "log_settings.h"

namespace sup_logger {

LogCore& LogCore::instance() {
  // Never destroyed: static objects may log when the process ends.
  static LogCore& core = *new LogCore;
  return core;
}

LogCore::LogCore() {
  install_standard_error();
}

SupLogger& LogCore::category(const std::string& name, const std::function<SupLogger*()>& make) {
  const std::lock_guard lock(mutex_);
  std::unique_ptr<SupLogger>& entry = categories_[name];
  if (!entry) {
    entry.reset(make());
    entry->refresh_threshold();
  }
  return *entry;
}

void LogCore::write(const std::string& category, int level, const std::string& text) {
  const std::lock_guard lock(mutex_);
  if (sink_ != nullptr)
    sink_->write(category, level, text);
  else
    log4cpp::Category::getInstance(category).callAppenders(
        log4cpp::LoggingEvent(category, text, std::string(), level));
}

int LogCore::level_of(const std::string& category) const {
  if (sink_ != nullptr)
    return log_level::trace;
  const int priority = log4cpp::Category::getInstance(category).getChainedPriority();
  return priority >= trace_as_stored ? log_level::trace : priority;
}

void LogCore::set_sink(ILogSink* sink) {
  const std::lock_guard lock(mutex_);
  sink_ = sink;
  refresh_levels();
}

void LogCore::change_settings(const std::function<void()>& change) {
  const std::lock_guard lock(mutex_);
  try {
    change();
  } catch (...) {
    refresh_levels();
    throw;
  }
  refresh_levels();
}

void LogCore::refresh_levels() {
  for (const auto& [name, category] : categories_)
    category->refresh_threshold();
}

void set_log_sink(ILogSink* sink) {
  LogCore::instance().set_sink(sink);
}

}  // namespace sup_logger
