#include "log_settings.h"

#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <log4cpp/Category.hh>
#include <log4cpp/OstreamAppender.hh>
#include <log4cpp/PropertyConfigurator.hh>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "log_core.h"
#include "log_properties.h"
#include "trace_layout.h"

namespace sup_logger {
namespace {

constexpr char standard_error_appender[] = "standard error";
constexpr char standard_error_pattern[] = "%d{%Y-%m-%d %H:%M:%S.%l} %-6p %c: %m%n";

struct InUse {
  std::optional<LogProperties> file;   // the file in use; empty means standard error
  std::vector<std::string> appenders;  // made so far; the categories don't own them
};

InUse& in_use() {
  static InUse& state = *new InUse;
  return state;
}

// Text in a file that only this process sees, since log4cpp reads settings by path.
class TextAsFile {
 public:
  explicit TextAsFile(const std::string& text) : fd_(memfd_create("log settings", MFD_CLOEXEC)) {
    if (fd_ >= 0 && write(fd_, text.data(), text.size()) == static_cast<ssize_t>(text.size()))
      return;
    if (fd_ >= 0)
      close(fd_);
    throw std::runtime_error("no memory for the log settings");
  }
  ~TextAsFile() { close(fd_); }
  TextAsFile(const TextAsFile&) = delete;
  TextAsFile& operator=(const TextAsFile&) = delete;
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

void remove_all_settings() {
  const std::unique_ptr<std::vector<log4cpp::Category*>> categories(
      log4cpp::Category::getCurrentCategories());
  for (log4cpp::Category* category : *categories) {
    category->removeAllAppenders();
    category->setAdditivity(true);
    category->setPriority(category->getParent() == nullptr ? log_level::info : log4cpp::Priority::NOTSET);
  }
  for (const std::string& name : in_use().appenders)
    delete log4cpp::Appender::getAppender(name);
  in_use().appenders.clear();
}

void install(const LogProperties& properties, bool keep_files) {
  remove_all_settings();
  in_use().appenders = properties.appenders();
  log4cpp::PropertyConfigurator::configure(TextAsFile(properties.text_for_log4cpp(keep_files)).path());
  for (const std::string& name : in_use().appenders) {
    const std::string pattern = properties.pattern_of(name);
    log4cpp::Appender* appender = log4cpp::Appender::getAppender(name);
    if (appender != nullptr && !pattern.empty())
      appender->setLayout(new TraceLayout(pattern));
  }
}

void install_what_was_in_use() {
  try {
    if (in_use().file)
      install(*in_use().file, true);
    else
      install_standard_error();
  } catch (const std::exception&) {  // it worked before, so what it needs is gone: better seen than lost
    in_use().file.reset();
    install_standard_error();
  }
}

std::string read_text(const std::string& path) {
  const std::ifstream file(path);
  if (!file)
    throw std::runtime_error("can't read the file");
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace

void install_standard_error() {
  remove_all_settings();
  auto* appender = new log4cpp::OstreamAppender(standard_error_appender, &std::cerr);
  in_use().appenders = {standard_error_appender};
  appender->setLayout(new TraceLayout(standard_error_pattern));
  log4cpp::Category::getRoot().addAppender(*appender);
}

void log_to_standard_error() {
  LogCore::instance().change_settings([] {
    in_use().file.reset();
    install_standard_error();
  });
}

bool log_by_file(const std::string& path, std::string& error) {
  try {
    LogProperties properties(read_text(path));
    properties.check_log_files();
    LogCore::instance().change_settings([&] {
      try {
        install(properties, false);
      } catch (...) {
        install_what_was_in_use();
        throw;
      }
      in_use().file = std::move(properties);
    });
    return true;
  } catch (const std::exception& failure) {
    error = failure.what();
    return false;
  }
}

bool logging_by_file() {
  return in_use().file.has_value();
}

}  // namespace sup_logger
