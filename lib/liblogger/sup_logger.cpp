#include "sup_logger.h"

#include <event2/event.h>

#include <utility>

#include "log_core.h"

SupLoggerStreamer::SupLoggerStreamer(SupLogger* logger, int level)
    : logger_(logger),
      level_(level),
      text_(logger == nullptr ? nullptr : std::make_unique<std::ostringstream>()) {}

SupLoggerStreamer::~SupLoggerStreamer() {
  if (!text_)
    return;
  try {
    logger_->write(level_, text_->str());
  } catch (...) {  // no memory for the line: there is no place left to say so
  }
}

SupLogger::SupLogger(std::string name) : name_(std::move(name)), threshold_(log_level::info) {}

SupLogger& SupLogger::get_instance(const std::string& category) {
  return sup_logger::LogCore::instance().category(category, [&] { return new SupLogger(category); });
}

void SupLogger::write(int level, const std::string& text) {
  sup_logger::LogCore::instance().write(name_, level, text);
}

void SupLogger::refresh_threshold() {
  threshold_.store(sup_logger::LogCore::instance().level_of(name_), std::memory_order_relaxed);
}

extern "C" void libevent_event_log_cpp(int severity, const char* message) {
  static SupLogger& logger = SupLogger::get_instance("libevent");
  int level = log_level::error;
  switch (severity) {
    case EVENT_LOG_DEBUG:
      level = log_level::debug;
      break;
    case EVENT_LOG_MSG:
      level = log_level::info;
      break;
    case EVENT_LOG_WARN:
      level = log_level::warning;
      break;
    default:
      break;
  }
  SUP_LOG(logger, level) << (message == nullptr ? "" : message);
}
