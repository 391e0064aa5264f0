#include "trace_layout.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "log_core.h"

namespace sup_logger {
namespace {

// "-min.max" as in printf: pads on the right with a minus, cuts at the end.
std::string fitted(const std::string& word, const std::string& widths) {
  const bool left = widths.starts_with('-');
  const std::size_t dot = widths.find('.');
  const auto number = [](const std::string& digits) {
    return std::min<std::size_t>(std::strtoul(digits.c_str(), nullptr, 10), 100);
  };
  std::string text = word;
  if (dot != std::string::npos)
    text = text.substr(0, number(widths.substr(dot + 1)));
  const std::size_t width = number(widths.substr(left ? 1 : 0, dot));
  if (text.size() < width)
    text.insert(left ? text.size() : 0, width - text.size(), ' ');
  return text;
}

}  // namespace

std::string pattern_for_trace(const std::string& pattern) {
  std::string out;
  std::size_t at = 0;
  while (at < pattern.size()) {
    if (pattern[at] != '%') {
      out += pattern[at++];
      continue;
    }
    std::size_t letter = at + 1;
    while (letter < pattern.size() && (std::isdigit(static_cast<unsigned char>(pattern[letter])) ||
                                       pattern[letter] == '-' || pattern[letter] == '.'))
      ++letter;
    std::size_t end = std::min(letter + 1, pattern.size());
    if (letter < pattern.size() && pattern[letter] == 'p')
      out += fitted("TRACE", pattern.substr(at + 1, letter - at - 1));
    else {
      if (end < pattern.size() && pattern[end] == '{')  // "%d{%p}" is the clock's %p
        end = std::min(pattern.find('}', end), pattern.size() - 1) + 1;
      out += pattern.substr(at, end - at);
    }
    at = end;
  }
  return out;
}

TraceLayout::TraceLayout(const std::string& pattern) {
  usual_.setConversionPattern(pattern);
  trace_.setConversionPattern(pattern_for_trace(pattern));
}

std::string TraceLayout::format(const log4cpp::LoggingEvent& event) {
  return event.priority >= trace_as_stored ? trace_.format(event) : usual_.format(event);
}

}  // namespace sup_logger
