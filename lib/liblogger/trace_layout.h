// log4cpp's pattern layout with the word TRACE for trace level, which log4cpp would call NOTSET.
#pragma once

#include <log4cpp/Layout.hh>
#include <log4cpp/LoggingEvent.hh>
#include <log4cpp/PatternLayout.hh>
#include <string>

namespace sup_logger {

class TraceLayout : public log4cpp::Layout {
 public:
  // Throws log4cpp::ConfigureFailure for a bad pattern.
  explicit TraceLayout(const std::string& pattern);
  std::string format(const log4cpp::LoggingEvent& event) override;

 private:
  log4cpp::PatternLayout usual_;
  log4cpp::PatternLayout trace_;
};

// The pattern with each priority (%p, with its widths) replaced by the word, cut and padded as it asks.
std::string pattern_for_trace(const std::string& pattern);

}  // namespace sup_logger
