// The tree as text.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/zol_configurator.h"
#include "sup_logger.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using testing::ElementsAre;
using zol_test::LogCapture;
using zol_test::ScopedConfig;

std::string text_of(ScopedConfig& config, const std::string& key) {
  std::string text;
  EXPECT_TRUE(config.configurator().get_value_as_a_string(key, text));
  return text;
}

// Verifies two blanks a level.
TEST(ConfigText, LevelSpaces) {
  EXPECT_EQ(zol::AConfigurator::level_spaces(0), "");
  EXPECT_EQ(zol::AConfigurator::level_spaces(3), "      ");
  EXPECT_EQ(zol::AConfigurator::level_spaces(-1), "");
}

// Verifies the text of each scalar type.
TEST(ConfigText, Scalars) {
  ScopedConfig config(
      "i = -5; big = 5000000000L; f = 0.1; whole = 3.0; s = \"a \\\"b\\\" \\\\c\"; yes = true; no = false;");
  EXPECT_EQ(text_of(config, "i"), "i = -5;\n");
  EXPECT_EQ(text_of(config, "big"), "big = 5000000000L;\n");
  EXPECT_EQ(text_of(config, "f"), "f = 0.1;\n");
  EXPECT_EQ(text_of(config, "whole"), "whole = 3.0;\n");
  EXPECT_EQ(text_of(config, "s"), "s = \"a \\\"b\\\" \\\\c\";\n");
  EXPECT_EQ(text_of(config, "yes"), "yes = true;\n");
  EXPECT_EQ(text_of(config, "no"), "no = false;\n");
}

// Verifies the text of a group with a group in it.
TEST(ConfigText, Group) {
  ScopedConfig config("Outer: { a = 1; Inner: { b = \"x\"; }; c = true; };");
  EXPECT_EQ(text_of(config, "Outer"),
            "Outer :\n"
            "{\n"
            "  a = 1;\n"
            "  Inner :\n"
            "  {\n"
            "    b = \"x\";\n"
            "  };\n"
            "  c = true;\n"
            "};\n");
}

// Verifies that the text of the root reads back as the same tree.
TEST(ConfigText, RootReadsBack) {
  ScopedConfig config("a = 1; G: { f = 0.3; big = 12L; s = \"q\\\"\"; };");
  const std::string text = text_of(config, "");
  ScopedConfig again(text);
  EXPECT_EQ(text_of(again, ""), text);
  EXPECT_EQ(again.configurator().config.lookup("G.big").getType(), libconfig::Setting::TypeInt64);
}

// Verifies that a missing key and a type without a text are logged and false.
TEST(ConfigText, Failures) {
  ScopedConfig config("G: { list = ( 1 ); after = 2; };");
  std::string text;
  LogCapture log;
  EXPECT_FALSE(config.configurator().get_value_as_a_string("absent", text));
  EXPECT_TRUE(log.contains("Couldn't find a parameter: absent")) << log.all();
  EXPECT_FALSE(config.configurator().get_value_as_a_string("G.list", text));
  EXPECT_TRUE(log.contains("Unsupported configuration parameter type: 8")) << log.all();
  EXPECT_EQ(text, "");
  EXPECT_FALSE(config.configurator().get_value_as_a_string("G", text));
  EXPECT_NE(text.find("after = 2;"), std::string::npos);
}

// Verifies that all scalars are listed with their paths, through groups, lists and arrays, and that the
// vector is cleared first.
TEST(ConfigText, ListAllKeys) {
  ScopedConfig config("a = 1; G: { b = true; s = \"x y\"; }; l = ( { c = 0.5; }, 7L ); r = [ false ];");
  std::vector<std::string> keys = {"stale"};
  EXPECT_TRUE(config.configurator().list_all_keys(keys));
  EXPECT_THAT(keys, ElementsAre("a=1", "G.b=true", "G.s=x y", "l.[0].c=0.5", "l.[1]=7", "r.[0]=false"));
}

// Verifies that one setting can be listed alone, behind what the vector holds.
TEST(ConfigText, ListSettingKeys) {
  ScopedConfig config("a = 1; G: { b = 2; };");
  std::vector<std::string> keys = {"first"};
  EXPECT_TRUE(config.configurator().list_setting_keys(config.configurator().config.lookup("G"), keys));
  EXPECT_THAT(keys, ElementsAre("first", "G.b=2"));
}

}  // namespace
