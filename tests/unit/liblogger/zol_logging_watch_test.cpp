#include <event2/event.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "settings_folder.h"
#include "sup_logger.h"

namespace {

using zol_test::SettingsFolder;

SupLogger& logger() {
  return SupLogger::get_instance("WatchTest");
}

class ZolLoggingWatch : public testing::Test {
 protected:
  ZolLoggingWatch() : base_(event_base_new()) {
    folder_.write_settings(folder_.settings("INFO"));
    logging_ = zol_logging_init_and_watch(zol_test::log_key);
    zol_logging_watch_on(logging_, base_);
  }
  ~ZolLoggingWatch() override {
    zol_logging_and_watch_fini(logging_);
    event_base_free(base_);
  }
  // The kernel queues a change at once, so one look at the loop is enough.
  void look() { event_base_loop(base_, EVLOOP_NONBLOCK); }

  SettingsFolder folder_;
  event_base* base_;
  zol_logging_handle* logging_ = nullptr;
};

// Verifies that a file that is written anew is read again when the loop runs, and not before.
TEST_F(ZolLoggingWatch, file_written_anew) {
  folder_.write_settings(folder_.settings("DEBUG"));
  EXPECT_FALSE(logger().is_debug_enabled());
  look();
  EXPECT_TRUE(logger().is_debug_enabled());
}

// Verifies that a file put in place by a rename is seen, twice over, since the watch is on the folder.
TEST_F(ZolLoggingWatch, file_replaced_by_rename) {
  for (const char* level : {"DEBUG", "WARN"}) {
    folder_.write("new.conf", folder_.settings(level));
    std::filesystem::rename(folder_.path("new.conf"), folder_.settings_path());
    look();
    EXPECT_EQ(logger().is_debug_enabled(), std::string(level) == "DEBUG");
    EXPECT_EQ(logger().is_info_enabled(), std::string(level) == "DEBUG");
  }
}

// Verifies that a change of another file in the folder reads nothing.
TEST_F(ZolLoggingWatch, other_file) {
  folder_.empty_log();
  folder_.write("other.conf", "x");
  look();
  EXPECT_EQ(folder_.log(), "");
}

// Verifies that several changes between two looks are one reading.
TEST_F(ZolLoggingWatch, several_changes_are_one_reading) {
  folder_.empty_log();
  for (int i = 0; i < 3; ++i)
    folder_.write_settings(folder_.settings("INFO"));
  look();
  EXPECT_EQ(folder_.log(),
            "INFO   Logging: read_file: log settings taken from " + folder_.settings_path() + "\n");
}

// Verifies that a broken change keeps the level, with one error line, and that a mended one is taken.
TEST_F(ZolLoggingWatch, broken_change) {
  folder_.empty_log();
  folder_.write_settings("nonsense");
  look();
  EXPECT_THAT(folder_.log(), testing::MatchesRegex("ERROR  Logging: read_file: [^\n]*\n"));
  EXPECT_TRUE(logger().is_info_enabled());
  folder_.write_settings(folder_.settings("DEBUG"));
  look();
  EXPECT_TRUE(logger().is_debug_enabled());
}

// Verifies that a file that comes into being after the start is taken.
TEST_F(ZolLoggingWatch, file_that_comes_later) {
  folder_.value = folder_.path("later.conf");
  zol_logging_reload(logging_);
  folder_.write("later.conf", folder_.settings("DEBUG"));
  look();
  EXPECT_TRUE(logger().is_debug_enabled());
}

// Verifies that a reload moves the watch to the folder that the key names now, and leaves the old one.
TEST_F(ZolLoggingWatch, watch_follows_the_key) {
  const std::string old_path = folder_.settings_path();
  std::filesystem::create_directory(folder_.path("sub"));
  folder_.write("sub/log.conf", folder_.settings("WARN"));
  folder_.value = folder_.path("sub/log.conf");
  zol_logging_reload(logging_);
  EXPECT_FALSE(logger().is_info_enabled());
  folder_.write_settings(folder_.settings("DEBUG"));
  look();
  EXPECT_FALSE(logger().is_info_enabled());
  folder_.write("sub/log.conf", folder_.settings("DEBUG"));
  look();
  EXPECT_TRUE(logger().is_debug_enabled());
}

// Verifies that a reload moves the watch to the folder that has the name now.
TEST_F(ZolLoggingWatch, another_folder_of_the_name) {
  std::filesystem::create_directory(folder_.path("sub"));
  folder_.write("sub/log.conf", folder_.settings("INFO"));
  folder_.value = folder_.path("sub/log.conf");
  zol_logging_reload(logging_);
  std::filesystem::rename(folder_.path("sub"), folder_.path("former"));
  std::filesystem::create_directory(folder_.path("sub"));
  folder_.write("sub/log.conf", folder_.settings("INFO"));
  zol_logging_reload(logging_);
  folder_.write("sub/log.conf", folder_.settings("DEBUG"));
  look();
  EXPECT_TRUE(logger().is_debug_enabled());
}

// Verifies that a watch put on a second loop leaves the first.
TEST_F(ZolLoggingWatch, put_on_another_loop) {
  event_base* second = event_base_new();
  zol_logging_watch_on(logging_, second);
  folder_.write_settings(folder_.settings("DEBUG"));
  look();
  EXPECT_FALSE(logger().is_debug_enabled());
  event_base_loop(second, EVLOOP_NONBLOCK);
  EXPECT_TRUE(logger().is_debug_enabled());
  zol_logging_watch_on(logging_, base_);
  event_base_free(second);
}

// Verifies that a folder that doesn't exist is said once at the start and stops nothing.
TEST(ZolLoggingWatchFolder, missing_folder) {
  SettingsFolder folder;
  folder.value = folder.path("none/log.conf");
  testing::internal::CaptureStderr();
  zol_logging_handle* logging = zol_logging_init_and_watch(zol_test::log_key);
  const std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_THAT(lines, testing::HasSubstr("changes of " + folder.value +
                                        " can't be watched: No such file or directory"));
  EXPECT_THAT(lines, testing::HasSubstr("there is no file " + folder.value));
  zol_logging_and_watch_fini(logging);
}

}  // namespace
