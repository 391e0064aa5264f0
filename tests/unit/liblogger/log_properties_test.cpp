#include "lib/liblogger/log_properties.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "settings_folder.h"

namespace {

using sup_logger::LogProperties;
using testing::ElementsAre;
using testing::HasSubstr;

// Verifies that trace is written as log4cpp can store it, for the root, a category and a threshold, and that
// other levels and names stay.
TEST(LogProperties, trace_in_log4cpp_terms) {
  const LogProperties properties(
      "log4cpp.rootCategory = TRACE, A\n"
      "log4j.category.Monitor=trace\n"
      "log4cpp.category.Other=DEBUG, TRACE\n"
      "log4cpp.appender.A.threshold=TRACE\n");
  EXPECT_EQ(properties.text_for_log4cpp(false),
            "log4cpp.appender.A.threshold=NOTSET\n"
            "log4cpp.category.Monitor=799\n"
            "log4cpp.category.Other=DEBUG, TRACE\n"
            "log4cpp.rootCategory=799, A\n");
}

// Verifies that comments, blank lines and lines without a setting are left out.
TEST(LogProperties, leaves_out_what_is_no_setting) {
  EXPECT_EQ(
      LogProperties("# all\n\nnonsense\n  log4cpp.rootCategory = INFO, A # why\r\n").text_for_log4cpp(false),
      "log4cpp.rootCategory=INFO, A\n");
}

// Verifies that with kept files every file appender appends, and no other one.
TEST(LogProperties, keeps_files) {
  const LogProperties properties(
      "log4cpp.appender.A=FileAppender\nlog4cpp.appender.A.append=false\n"
      "log4cpp.appender.B=ConsoleAppender\nlog4cpp.appender.C=org.apache.log4j.RollingFileAppender\n");
  EXPECT_THAT(properties.appenders(), ElementsAre("A", "B", "C"));
  EXPECT_EQ(properties.text_for_log4cpp(true),
            "log4cpp.appender.A=FileAppender\nlog4cpp.appender.A.append=true\n"
            "log4cpp.appender.B=ConsoleAppender\nlog4cpp.appender.C=org.apache.log4j.RollingFileAppender\n"
            "log4cpp.appender.C.append=true\n");
  EXPECT_THAT(properties.text_for_log4cpp(false), HasSubstr("log4cpp.appender.A.append=false\n"));
}

// Verifies that only a pattern layout has a pattern.
TEST(LogProperties, pattern_of_an_appender) {
  const LogProperties properties(
      "log4cpp.appender.A.layout=PatternLayout\nlog4cpp.appender.A.layout.ConversionPattern=%m%n\n"
      "log4cpp.appender.B.layout=BasicLayout\nlog4cpp.appender.B.layout.ConversionPattern=%m%n\n");
  EXPECT_EQ(properties.pattern_of("A"), "%m%n");
  EXPECT_EQ(properties.pattern_of("B"), "");
  EXPECT_EQ(properties.pattern_of("C"), "");
}

// Verifies that a log file that can't be opened is an error that names it.
TEST(LogProperties, log_file_that_cannot_be_opened) {
  const zol_test::SettingsFolder folder;
  const LogProperties properties(
      "log4cpp.appender.A=FileAppender\nlog4cpp.appender.A.fileName=" + folder.path("none/x.log") + "\n");
  try {
    properties.check_log_files();
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr(folder.path("none/x.log") + ": No such file or directory"));
  }
}

// Verifies that a file appender without a file is an error, and that a name from the environment is left to
// log4cpp.
TEST(LogProperties, log_file_without_name) {
  EXPECT_THROW(LogProperties("log4cpp.appender.A=FileAppender\n").check_log_files(), std::runtime_error);
  EXPECT_NO_THROW(
      LogProperties("log4cpp.appender.A=FileAppender\nlog4cpp.appender.A.fileName=${HOME}/x/y/z\n")
          .check_log_files());
  EXPECT_NO_THROW(LogProperties("log4cpp.appender.A=ConsoleAppender\n").check_log_files());
}

}  // namespace
