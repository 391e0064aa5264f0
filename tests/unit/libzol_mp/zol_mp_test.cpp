#include "zol_mp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace {

using testing::HasSubstr;
using testing::Not;

std::string profile() {
  const std::unique_ptr<char, decltype(&std::free)> text(mp_output(), &std::free);
  return text ? text.get() : std::string();
}

// Verifies that the profile holds the process's memory lines, and of its status only these.
TEST(ZolMp, memory_lines_of_the_process) {
  mp_enable();
  const std::string text = profile();
  EXPECT_THAT(text, HasSubstr("VmRSS:"));
  EXPECT_THAT(text, HasSubstr("VmSize:"));
  EXPECT_THAT(text, HasSubstr("RssAnon:"));
  EXPECT_THAT(text, Not(HasSubstr("Name:")));
  EXPECT_THAT(text, Not(HasSubstr("Threads:")));
}

// Verifies that the allocator's report follows, whole.
TEST(ZolMp, report_of_the_allocator) {
  const std::string text = profile();
  EXPECT_GT(text.find("<malloc version="), text.find("VmRSS:"));
  EXPECT_THAT(text, HasSubstr("</malloc>"));
}

// Verifies that one profile after the other can be taken, each a text of its own.
TEST(ZolMp, profile_can_be_repeated) {
  char* first = mp_output();
  char* second = mp_output();
  EXPECT_NE(first, second);
  std::free(first);
  EXPECT_THAT(second, HasSubstr("</malloc>"));
  std::free(second);
}

}  // namespace
