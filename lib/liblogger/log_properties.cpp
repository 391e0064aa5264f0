#include "log_properties.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "log_core.h"

namespace sup_logger {
namespace {

constexpr char appender_prefix[] = "appender.";

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos)
    return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

bool is_trace(const std::string& level) {
  return strcasecmp(level.c_str(), "TRACE") == 0;
}

bool is_category(const std::string& key) {
  return key == "rootCategory" || key.starts_with("category.");
}

bool is_threshold(const std::string& key) {
  return key.starts_with(appender_prefix) && key.ends_with(".threshold");
}

// The value of a category is its level, then the names of its appenders.
std::string with_stored_trace(const std::string& value) {
  const std::size_t comma = value.find(',');
  if (!is_trace(trimmed(value.substr(0, comma))))
    return value;
  return std::to_string(trace_as_stored) + (comma == std::string::npos ? "" : value.substr(comma));
}

}  // namespace

LogProperties::LogProperties(const std::string& text) {
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    line.resize(std::min(line.size(), line.find('#')));
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos)
      continue;
    const std::string name = trimmed(line.substr(0, equals));
    values_[name.substr(name.find('.') + 1)] = trimmed(line.substr(equals + 1));
  }
}

std::string LogProperties::value(const std::string& key) const {
  const auto found = values_.find(key);
  return found == values_.end() ? std::string() : found->second;
}

std::vector<std::string> LogProperties::appenders() const {
  std::vector<std::string> names;
  for (const auto& [key, type] : values_) {
    if (!key.starts_with(appender_prefix))
      continue;
    const std::string name = key.substr(sizeof(appender_prefix) - 1);
    if (name.find('.') == std::string::npos)
      names.push_back(name);
  }
  return names;
}

bool LogProperties::writes_file(const std::string& appender) const {
  return value(appender_prefix + appender).ends_with("FileAppender");
}

std::string LogProperties::pattern_of(const std::string& appender) const {
  const std::string layout = appender_prefix + appender + ".layout";
  return value(layout).ends_with("PatternLayout") ? value(layout + ".ConversionPattern") : std::string();
}

void LogProperties::check_log_files() const {
  for (const std::string& appender : appenders()) {
    if (!writes_file(appender))
      continue;
    const std::string file = value(appender_prefix + appender + ".fileName");
    if (file.empty())
      throw std::runtime_error("appender '" + appender + "' has no fileName");
    if (file.find("${") != std::string::npos)  // log4cpp fills in the environment later
      continue;
    const int fd = open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
      throw std::runtime_error("can't open log file " + file + ": " + std::strerror(errno));
    close(fd);
  }
}

std::string LogProperties::text_for_log4cpp(bool keep_files) const {
  std::map<std::string, std::string> settings = values_;
  if (keep_files) {
    for (const std::string& appender : appenders()) {
      if (writes_file(appender))
        settings[appender_prefix + appender + ".append"] = "true";
    }
  }
  std::ostringstream text;
  for (const auto& [key, setting] : settings) {
    text << "log4cpp." << key << '=';
    if (is_category(key))
      text << with_stored_trace(setting);
    else if (is_threshold(key) && is_trace(setting))
      text << "NOTSET";
    else
      text << setting;
    text << '\n';
  }
  return text.str();
}

}  // namespace sup_logger
