#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "settings_folder.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using zol_test::LogCapture;
using zol_test::SettingsFolder;

struct FinishLogging {
  void operator()(zol_logging_handle* handle) const { zol_logging_and_watch_fini(handle); }
};
using Logging = std::unique_ptr<zol_logging_handle, FinishLogging>;

Logging start() {
  return Logging(zol_logging_init_and_watch(zol_test::log_key));
}

SupLogger& logger() {
  return SupLogger::get_instance("LoggingTest");
}

std::string standard_error_of(const std::function<void()>& work) {
  testing::internal::CaptureStderr();
  work();
  return testing::internal::GetCapturedStderr();
}

std::string missing_file_line(const SettingsFolder& folder) {
  return "NOTICE Logging: read_file: there is no file " + folder.settings_path() +
         ", logging to standard error\n";
}

// Verifies that without the key logging goes to standard error at info level, and that one line says so, not
// one for each reload.
TEST(ZolLogging, missing_key) {
  SettingsFolder folder;
  folder.value.clear();
  Logging logging;
  const std::string first = standard_error_of([&] { logging = start(); });
  EXPECT_THAT(first,
              HasSubstr("NOTICE Logging: read_file: the key Test.log_config_file is not set, logging to "
                        "standard error\n"));
  const std::string later = standard_error_of([&] {
    zol_logging_reload(logging.get());
    SUP_LOG(logger(), log_level::info) << "seen";
    SUP_LOG(logger(), log_level::debug) << "unseen";
  });
  EXPECT_THAT(later, HasSubstr("INFO   LoggingTest: seen\n"));
  EXPECT_EQ(std::count(later.begin(), later.end(), '\n'), 1) << later;
}

// Verifies that a key that names no file gives the same, with the file's name.
TEST(ZolLogging, missing_file) {
  const SettingsFolder folder;
  Logging logging;
  EXPECT_THAT(standard_error_of([&] { logging = start(); }), HasSubstr(missing_file_line(folder)));
  EXPECT_EQ(standard_error_of([&] { zol_logging_reload(logging.get()); }), "");
  EXPECT_TRUE(logger().is_info_enabled());
  EXPECT_FALSE(logger().is_debug_enabled());
}

// Verifies that the settings' levels and layout hold: a category's own level, the root's for the others.
TEST(ZolLogging, levels_and_layout_of_the_file) {
  const SettingsFolder folder;
  folder.write_settings(folder.settings("ERROR", "log4cpp.category.LoggingTest=DEBUG\n"));
  const Logging logging = start();
  SupLogger& other = SupLogger::get_instance("LoggingOther");
  EXPECT_EQ(standard_error_of([&] {
              SUP_LOG(logger(), log_level::debug) << "a";
              SUP_LOG(logger(), log_level::trace) << "b";
              SUP_LOG(other, log_level::warning) << "c";
              SUP_LOG(other, log_level::error) << "d";
            }),
            "");
  EXPECT_EQ(folder.log(), "DEBUG  LoggingTest: a\nERROR  LoggingOther: d\n");
}

// Verifies that trace level can be asked for, by the root and by one category, and reads TRACE in the file.
TEST(ZolLogging, trace_level) {
  const SettingsFolder folder;
  folder.write_settings(folder.settings("TRACE", "log4cpp.appender.F.threshold=TRACE\n"));
  const Logging logging = start();
  EXPECT_TRUE(logger().is_trace_enabled());
  folder.empty_log();
  SUP_LOG(logger(), log_level::trace) << "deep";
  EXPECT_EQ(folder.log(), "TRACE  LoggingTest: deep\n");
  folder.write_settings(folder.settings("INFO", "log4cpp.category.LoggingTest=TRACE\n"));
  zol_logging_reload(logging.get());
  EXPECT_TRUE(logger().is_trace_enabled());
  EXPECT_FALSE(SupLogger::get_instance("LoggingOther").is_debug_enabled());
}

// Verifies that a threshold of an appender holds back what its categories let through.
TEST(ZolLogging, threshold_of_an_appender) {
  const SettingsFolder folder;
  folder.write_settings(folder.settings("DEBUG", "log4cpp.appender.F.threshold=ERROR\n"));
  const Logging logging = start();
  SUP_LOG(logger(), log_level::warning) << "held back";
  SUP_LOG(logger(), log_level::error) << "let through";
  EXPECT_EQ(folder.log(), "ERROR  LoggingTest: let through\n");
}

// Verifies that a category made after the settings were read takes its level from them.
TEST(ZolLogging, level_of_a_later_category) {
  const SettingsFolder folder;
  folder.write_settings(folder.settings("WARN", "log4cpp.category.MadeLater=DEBUG\n"));
  const Logging logging = start();
  EXPECT_TRUE(SupLogger::get_instance("MadeLater").is_debug_enabled());
  EXPECT_FALSE(SupLogger::get_instance("MadeLaterStill").is_info_enabled());
}

// Verifies that a reload forgets the level of a category that the file no longer names, and leaves no file
// open.
TEST(ZolLogging, reload_starts_afresh) {
  const SettingsFolder folder;
  folder.write_settings(folder.settings("INFO", "log4cpp.category.LoggingTest=DEBUG\n"));
  const Logging logging = start();
  EXPECT_TRUE(logger().is_debug_enabled());
  folder.write_settings(folder.settings("INFO"));
  zol_logging_reload(logging.get());
  EXPECT_FALSE(logger().is_debug_enabled());
  const int open = zol_test::open_descriptors();
  for (int i = 0; i < 5; ++i)
    zol_logging_reload(logging.get());
  EXPECT_EQ(zol_test::open_descriptors(), open);
  folder.empty_log();
  SUP_LOG(logger(), log_level::info) << "once";
  EXPECT_EQ(folder.log(), "INFO   LoggingTest: once\n");
}

struct BrokenRow {
  const char* name;
  const char* text;
  const char* error;
};

class BrokenSettings : public testing::TestWithParam<BrokenRow> {};

// Verifies that a broken file gives one error line with the reason, and that level and log file stay in use.
TEST_P(BrokenSettings, keep_the_old_ones) {
  const SettingsFolder folder;
  folder.write_settings(folder.settings("DEBUG", "log4cpp.appender.F.append=false\n"));
  const Logging logging = start();
  folder.empty_log();
  SUP_LOG(logger(), log_level::debug) << "before";
  folder.write_settings(GetParam().text);
  EXPECT_EQ(standard_error_of([&] { zol_logging_reload(logging.get()); }), "");
  SUP_LOG(logger(), log_level::debug) << "after";
  EXPECT_EQ(folder.log(), "DEBUG  LoggingTest: before\nERROR  Logging: read_file: " + folder.settings_path() +
                              ": " + GetParam().error +
                              "; the log settings stay as they were\nDEBUG  LoggingTest: after\n");
}

constexpr char console[] =
    "log4cpp.appender.A=ConsoleAppender\nlog4cpp.appender.A.layout=PatternLayout\n"
    "log4cpp.appender.A.layout.ConversionPattern=%m%n\nlog4cpp.rootCategory=";

std::string with_console(const char* root) {
  return std::string(console) + root;
}

const std::string unknown_level = with_console("LOUD, A\n");
const std::string unknown_appender = with_console("INFO, B\n");
const std::string second_category = with_console("FATAL, A\nlog4cpp.category.LoggingTest=LOUD\n");

INSTANTIATE_TEST_SUITE_P(
    Rows, BrokenSettings,
    testing::Values(
        BrokenRow{"empty", "", "Unable to find category: rootCategory"},
        BrokenRow{"garbage", "\x01\x02 no settings", "Unable to find category: rootCategory"},
        BrokenRow{"level", unknown_level.c_str(),
                  "unknown priority name: 'LOUD' for category 'rootCategory'"},
        BrokenRow{"appender", unknown_appender.c_str(), "Appender 'B' not found for category 'rootCategory'"},
        BrokenRow{"later_line", second_category.c_str(),
                  "unknown priority name: 'LOUD' for category 'LoggingTest'"},
        BrokenRow{"no_layout", "log4cpp.rootCategory=INFO, A\nlog4cpp.appender.A=ConsoleAppender\n",
                  "Missing layout property for appender 'A'"},
        BrokenRow{"type", "log4cpp.rootCategory=INFO, A\nlog4cpp.appender.A=NoSuch\n",
                  "Appender 'A' has unknown type 'NoSuch'"},
        BrokenRow{"no_file_name", "log4cpp.rootCategory=INFO, A\nlog4cpp.appender.A=FileAppender\n",
                  "appender 'A' has no fileName"},
        BrokenRow{"log_file",
                  "log4cpp.rootCategory=INFO, A\nlog4cpp.appender.A=FileAppender\n"
                  "log4cpp.appender.A.fileName=/proc/none/x.log\n",
                  "can't open log file /proc/none/x.log: No such file or directory"}),
    [](const testing::TestParamInfo<BrokenRow>& row) { return row.param.name; });

// Verifies that a file that is broken at the start leaves logging on standard error, with one error line.
TEST(ZolLogging, broken_from_the_start) {
  const SettingsFolder folder;
  folder.write_settings("nonsense");
  Logging logging;
  const std::string lines = standard_error_of([&] { logging = start(); });
  EXPECT_THAT(lines, HasSubstr("ERROR  Logging: read_file: " + folder.settings_path() + ": Unable to find"));
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 1) << lines;
  EXPECT_TRUE(logger().is_info_enabled());
}

// Verifies that a file that has gone keeps its settings, with one error line.
TEST(ZolLogging, file_that_has_gone) {
  const SettingsFolder folder;
  folder.write_settings(folder.settings("DEBUG"));
  const Logging logging = start();
  folder.empty_log();
  std::filesystem::remove(folder.settings_path());
  zol_logging_reload(logging.get());
  EXPECT_EQ(folder.log(), "ERROR  Logging: read_file: " + folder.settings_path() +
                              ": No such file or directory; the log settings stay as they were\n");
  EXPECT_TRUE(logger().is_debug_enabled());
}

// Verifies that a reload looks the key up anew: another file takes over, and a key taken away leads back to
// standard error.
TEST(ZolLogging, reload_follows_the_key) {
  SettingsFolder folder;
  folder.write_settings(folder.settings("INFO"));
  const Logging logging = start();
  folder.write("other.conf", folder.settings("DEBUG"));
  folder.value = folder.path("other.conf");
  zol_logging_reload(logging.get());
  EXPECT_TRUE(logger().is_debug_enabled());
  folder.value.clear();
  const std::string lines = standard_error_of([&] { zol_logging_reload(logging.get()); });
  EXPECT_THAT(lines, HasSubstr("the key Test.log_config_file is not set"));
  EXPECT_FALSE(logger().is_debug_enabled());
}

// Verifies that after the end logging goes on, on standard error at info level, with the files closed, and
// that a null handle is allowed everywhere.
TEST(ZolLogging, goes_on_after_the_end) {
  const SettingsFolder folder;
  const int open = zol_test::open_descriptors();
  folder.write_settings(folder.settings("DEBUG"));
  Logging logging = start();
  logging.reset();
  EXPECT_EQ(zol_test::open_descriptors(), open);
  EXPECT_FALSE(logger().is_debug_enabled());
  EXPECT_THAT(standard_error_of([] { SUP_LOG(logger(), log_level::info) << "still"; }), HasSubstr("still\n"));
  EXPECT_THAT(folder.log(), Not(HasSubstr("still")));
  zol_logging_and_watch_fini(nullptr);
  zol_logging_reload(nullptr);
  zol_logging_watch_on(nullptr, nullptr);
}

// Verifies that lines of several threads arrive whole and complete while the settings change.
TEST(ZolLogging, threads_log_while_settings_change) {
  constexpr int thread_count = 3;
  constexpr int lines_each = 500;
  const SettingsFolder folder;
  folder.write_settings(folder.settings("ERROR"));
  const Logging logging = start();
  std::vector<std::thread> threads;
  for (int i = 0; i < thread_count; ++i)
    threads.emplace_back([] {
      for (int line = 0; line < lines_each; ++line)
        SUP_LOG(logger(), log_level::error) << "line of a thread";
    });
  for (int i = 0; i < 20; ++i)
    zol_logging_reload(logging.get());
  for (std::thread& thread : threads)
    thread.join();
  std::istringstream log(folder.log());
  std::string line;
  int count = 0;
  while (std::getline(log, line)) {
    EXPECT_EQ(line, "ERROR  LoggingTest: line of a thread");
    ++count;
  }
  EXPECT_EQ(count, thread_count * lines_each);
}

}  // namespace
