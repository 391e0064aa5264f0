#include "log_capture.h"

#include <algorithm>

#include "lib/liblogger/log_sink.h"

namespace zol_test {

struct LogCapture::Impl : sup_logger::ILogSink {
  void write(const std::string& category, int level, const std::string& text) override {
    records.push_back({category, level, text});
  }

  std::vector<LogRecord> records;
};

LogCapture::LogCapture() : impl_(new Impl) {
  sup_logger::set_log_sink(impl_);
}

LogCapture::~LogCapture() {
  sup_logger::set_log_sink(nullptr);
  delete impl_;
}

const std::vector<LogRecord>& LogCapture::records() const {
  return impl_->records;
}

bool LogCapture::contains(const std::string& text) const {
  return count(text) > 0;
}

bool LogCapture::contains(int level, const std::string& text) const {
  return std::any_of(impl_->records.begin(), impl_->records.end(), [&](const LogRecord& record) {
    return record.level == level && record.text.find(text) != std::string::npos;
  });
}

int LogCapture::count(const std::string& text) const {
  return static_cast<int>(
      std::count_if(impl_->records.begin(), impl_->records.end(),
                    [&](const LogRecord& record) { return record.text.find(text) != std::string::npos; }));
}

std::string LogCapture::all() const {
  std::string lines;
  for (const LogRecord& record : impl_->records)
    lines += std::to_string(record.level) + " " + record.category + ": " + record.text + "\n";
  return lines;
}

void LogCapture::clear() {
  impl_->records.clear();
}

}  // namespace zol_test
