// A way to take what is logged away from the usual output, for tests.
#pragma once

#include <string>

namespace sup_logger {

class ILogSink {
 public:
  virtual ~ILogSink() = default;
  // Called under the log's lock: one record at a time, and it must not log.
  virtual void write(const std::string& category, int level, const std::string& text) = 0;
};

// While a sink is set, every category is open down to trace level and all records go to it. Null puts the
// usual output and the levels of the settings back. Not owned. Main thread only.
void set_log_sink(ILogSink* sink);

}  // namespace sup_logger
