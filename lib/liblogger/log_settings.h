// Puts settings into log4cpp. Main thread only.
#pragma once

#include <string>

namespace sup_logger {

// Replaces all settings by standard error at info level, for a caller that is alone or holds the log's lock.
void install_standard_error();

// The same while others may log.
void log_to_standard_error();

// Takes a properties file into use. On failure `error` says why, and the settings are what they were.
bool log_by_file(const std::string& path, std::string& error);

// Whether the settings in use come from a file.
bool logging_by_file();

}  // namespace sup_logger
