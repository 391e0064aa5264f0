// Log lines are formatted, since that is code under test too, and then dropped.
#pragma once

#include <string>

#include "lib/liblogger/log_sink.h"

namespace zol_fuzz {

class NullSink : public sup_logger::ILogSink {
 public:
  void write(const std::string&, int, const std::string&) override {}
};

inline void quiet_log() {
  static NullSink sink;
  static const bool set = (sup_logger::set_log_sink(&sink), true);
  static_cast<void>(set);
}

}  // namespace zol_fuzz
