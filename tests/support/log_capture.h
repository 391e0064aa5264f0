// Collects what is logged while it lives, at every level, in place of the usual output.
#pragma once

#include <string>
#include <vector>

namespace zol_test {

struct LogRecord {
  std::string category;
  int level;
  std::string text;
};

// One at a time. All categories are opened down to trace level for its life.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogRecord>& records() const;
  // Whether a record holds the text; with a level, a record of just that level.
  bool contains(const std::string& text) const;
  bool contains(int level, const std::string& text) const;
  int count(const std::string& text) const;
  std::string all() const;  // one record a line, for failure messages
  void clear();

 private:
  struct Impl;
  Impl* impl_;
};

}  // namespace zol_test
