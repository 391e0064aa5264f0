// A setting that is remembered until the tree changes.
#include "config/cached_setting.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/config_fixture.h"

namespace {

using zol::CachedSetting;
using zol_test::ScopedConfig;

// Verifies that the value of the tree is given, and that a missing key and one of another type leave it.
TEST(CachedSetting, FollowsTheTree) {
  ScopedConfig config("a = 7; b = \"text\";");
  int value = 1;
  EXPECT_TRUE(CachedSetting<int>("a").lookup(value));
  EXPECT_EQ(value, 7);
  EXPECT_FALSE(CachedSetting<int>("b").lookup(value));
  EXPECT_FALSE(CachedSetting<int>("c.d").lookup(value));
  EXPECT_EQ(value, 7);
}

// Verifies that a file that is read anew is seen: a changed, a vanished and an added key.
TEST(CachedSetting, SeesAReload) {
  ScopedConfig config("a = 7; b = 8;");
  CachedSetting<int> a("a"), b("b"), c("c");
  int value = 0;
  EXPECT_TRUE(a.lookup(value) && b.lookup(value));
  EXPECT_FALSE(c.lookup(value));
  config.set("a = 9; c = 10;");
  EXPECT_TRUE(a.lookup(value));
  EXPECT_EQ(value, 9);
  EXPECT_FALSE(b.lookup(value));
  EXPECT_TRUE(c.lookup(value));
  EXPECT_EQ(value, 10);
}

// Verifies that an edit of the tree in memory is seen.
TEST(CachedSetting, SeesAnEdit) {
  ScopedConfig config("a = 7; l = (1);");
  CachedSetting<int> a("a"), second("l.[1]");
  int value = 0;
  EXPECT_TRUE(a.lookup(value));
  EXPECT_FALSE(second.lookup(value));
  EXPECT_TRUE(config.configurator().del_value("a"));
  EXPECT_TRUE(config.configurator().add_list_element("l", 5));
  EXPECT_FALSE(a.lookup(value));
  EXPECT_TRUE(second.lookup(value));
  EXPECT_EQ(value, 5);
}

// Verifies that a tree put in place of another is seen.
TEST(CachedSetting, SeesAnotherTree) {
  CachedSetting<std::string> setting("name");
  std::string name;
  {
    ScopedConfig first("name = \"one\";");
    EXPECT_TRUE(setting.lookup(name));
    EXPECT_EQ(name, "one");
  }
  ScopedConfig second("name = \"two\";");
  EXPECT_TRUE(setting.lookup(name));
  EXPECT_EQ(name, "two");
}

}  // namespace
