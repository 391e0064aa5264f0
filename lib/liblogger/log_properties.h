// A log4cpp properties file, read before log4cpp reads it.
//
// log4cpp takes some mistakes without a word: a log file that can't be opened swallows all lines, and an
// appender without a file name writes to a file "foobar". They are found here. It also has no name for trace
// level.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace sup_logger {

class LogProperties {
 public:
  // The text of a properties file: lines "log4cpp.<key> = <value>", any first label, "#" starts a comment.
  // Lines of another form are left out.
  explicit LogProperties(const std::string& text);

  // Throws std::runtime_error when an appender names no file or one that can't be written to.
  void check_log_files() const;
  // The text for log4cpp: TRACE written so that it understands. With `keep_files`, log files are appended to
  // whatever the settings say.
  std::string text_for_log4cpp(bool keep_files) const;

  std::vector<std::string> appenders() const;
  // The ConversionPattern of an appender with a PatternLayout; empty for others.
  std::string pattern_of(const std::string& appender) const;

 private:
  std::string value(const std::string& key) const;
  bool writes_file(const std::string& appender) const;

  std::map<std::string, std::string> values_;  // by the key without its first label
};

}  // namespace sup_logger
