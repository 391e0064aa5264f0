// Editing the tree in memory.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "config/zol_configurator.h"
#include "sup_logger.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using libconfig::Setting;

class ConfigEdit : public testing::Test {
 protected:
  Setting& at(const std::string& key) { return tree.config.lookup(key); }

  zol_test::ScopedConfig config{
      "scalar = 1;\n"
      "Group: { member = \"m\"; Inner: { deep = 2; }; list = ( 1, \"two\", { three = 3; } ); array = [ 4, 5 "
      "]; };\n"
      "top_list = ( );\n"
      "top_array = [ ];\n"};
  zol::AConfigurator& tree = config.configurator();
};

// Verifies that a value is removed at the root and inside groups.
TEST_F(ConfigEdit, DelValue) {
  EXPECT_TRUE(tree.del_value("scalar"));
  EXPECT_FALSE(tree.config.exists("scalar"));
  EXPECT_TRUE(tree.del_value("Group.Inner.deep"));
  EXPECT_FALSE(tree.config.exists("Group.Inner.deep"));
  EXPECT_TRUE(tree.config.exists("Group.Inner"));
  EXPECT_TRUE(tree.del_value("Group.Inner"));
  EXPECT_FALSE(tree.config.exists("Group.Inner"));
}

// Verifies that removing what isn't there is a success.
TEST_F(ConfigEdit, DelMissingValue) {
  EXPECT_TRUE(tree.del_value("absent"));
  EXPECT_TRUE(tree.del_value("Absent.member"));
}

// Verifies that a removal that libconfig refuses is logged and false.
TEST_F(ConfigEdit, DelValueFails) {
  zol_test::LogCapture log;
  EXPECT_FALSE(tree.del_value("Group.list.[1]"));
  EXPECT_TRUE(log.contains(log_level::error, "Failed removing configuration parameter Group.list.[1]"))
      << log.all();
  EXPECT_FALSE(tree.del_value(""));
  EXPECT_EQ(tree.get_list_size("Group.list"), 3);
}

// Verifies that nothing reaches the disk before the save.
TEST_F(ConfigEdit, DiskIsLeftAlone) {
  tree.del_value("scalar");
  std::ifstream file(config.folder() + "/zol.conf");
  std::stringstream text;
  text << file.rdbuf();
  EXPECT_NE(text.str().find("scalar = 1;"), std::string::npos);
}

// Verifies that a branch is walked where it exists and made of groups where it doesn't.
TEST_F(ConfigEdit, AddBranch) {
  std::string leaf;
  Setting& parent = tree.add_branch("Group.New.Newer.leaf", leaf);
  EXPECT_EQ(leaf, "leaf");
  EXPECT_EQ(parent.getPath(), "Group.New.Newer");
  EXPECT_TRUE(at("Group.New").isGroup());
  EXPECT_FALSE(tree.config.exists("Group.New.Newer.leaf"));
  EXPECT_TRUE(tree.add_branch("single", leaf).isRoot());
  EXPECT_EQ(leaf, "single");
  EXPECT_EQ(tree.add_branch("Group.list.[2].leaf", leaf).getPath(), "Group.list.[2]");
}

// Verifies that a key is a list or an array only with that type.
TEST_F(ConfigEdit, HasKey) {
  EXPECT_TRUE(tree.has_list_key("Group.list"));
  EXPECT_FALSE(tree.has_list_key("Group.array"));
  EXPECT_TRUE(tree.has_array_key("Group.array"));
  EXPECT_FALSE(tree.has_array_key("Group.list"));
  for (const char* key : {"absent", "scalar", "Group", ""}) {
    EXPECT_FALSE(tree.has_list_key(key)) << key;
    EXPECT_FALSE(tree.has_array_key(key)) << key;
  }
}

// Verifies that a list or array is added at the root and below a new branch, and not over an existing key.
TEST_F(ConfigEdit, AddKey) {
  EXPECT_TRUE(tree.add_list_key("new_list"));
  EXPECT_TRUE(tree.has_list_key("new_list"));
  EXPECT_TRUE(tree.add_array_key("A.B.new_array"));
  EXPECT_TRUE(tree.has_array_key("A.B.new_array"));
  EXPECT_FALSE(tree.add_list_key("new_list"));
  EXPECT_FALSE(tree.add_list_key("scalar"));
  EXPECT_FALSE(tree.add_array_key("Group.list"));
  EXPECT_FALSE(tree.add_list_key("scalar.below"));
  EXPECT_FALSE(tree.add_list_key("bad name!"));
  EXPECT_FALSE(tree.add_list_key(""));
}

// Verifies that a list is removed by the list operation only, and that its absence is a success.
TEST_F(ConfigEdit, DelKey) {
  EXPECT_TRUE(tree.del_list_key("Group.array"));
  EXPECT_TRUE(tree.has_array_key("Group.array"));
  EXPECT_TRUE(tree.del_array_key("Group.array"));
  EXPECT_FALSE(tree.config.exists("Group.array"));
  EXPECT_TRUE(tree.del_list_key("Group.list"));
  EXPECT_FALSE(tree.config.exists("Group.list"));
  EXPECT_TRUE(tree.del_list_key("absent"));
  EXPECT_TRUE(tree.del_array_key("absent"));
}

// Verifies that clearing leaves an empty list or array, makes a missing one, and refuses another type.
TEST_F(ConfigEdit, ClearKey) {
  EXPECT_TRUE(tree.clear_list_key("Group.list"));
  EXPECT_EQ(tree.get_list_size("Group.list"), 0);
  EXPECT_TRUE(tree.clear_array_key("Group.array"));
  EXPECT_EQ(tree.get_array_size("Group.array"), 0);
  EXPECT_TRUE(tree.clear_list_key("fresh"));
  EXPECT_EQ(tree.get_list_size("fresh"), 0);
  EXPECT_FALSE(tree.clear_list_key("scalar"));
  EXPECT_FALSE(tree.clear_array_key("scalar"));
}

// Verifies that each overload appends an element of its type to a list.
TEST_F(ConfigEdit, AddListElement) {
  EXPECT_TRUE(tree.add_list_element("top_list", 1));
  EXPECT_TRUE(tree.add_list_element("top_list", 5000000000L));
  EXPECT_TRUE(tree.add_list_element("top_list", true));
  EXPECT_TRUE(tree.add_list_element("top_list", 0.5F));
  EXPECT_TRUE(tree.add_list_element("top_list", "text"));
  EXPECT_TRUE(tree.add_list_element("top_list", std::string("string")));
  EXPECT_TRUE(tree.add_list_element_group("top_list"));
  EXPECT_TRUE(tree.add_list_element_list("top_list"));
  EXPECT_TRUE(tree.add_list_element_array("top_list"));
  ASSERT_EQ(tree.get_list_size("top_list"), 9);
  const int types[] = {1, 2, 5, 3, 4, 4, 6, 8, 7};
  for (int i = 0; i < 9; ++i)
    EXPECT_EQ(tree.get_list_element_type("top_list", i), types[i]) << i;
  EXPECT_EQ(static_cast<int>(at("top_list.[0]")), 1);
  EXPECT_EQ(static_cast<long long>(at("top_list.[1]")), 5000000000LL);
  EXPECT_TRUE(static_cast<bool>(at("top_list.[2]")));
  EXPECT_EQ(static_cast<double>(at("top_list.[3]")), 0.5);
  EXPECT_STREQ(at("top_list.[4]"), "text");
  EXPECT_STREQ(at("top_list.[5]"), "string");
}

// Verifies that an element isn't added to what is no list.
TEST_F(ConfigEdit, AddListElementElsewhere) {
  for (const char* key : {"absent", "scalar", "Group", "top_array", ""}) {
    EXPECT_FALSE(tree.add_list_element(key, 1)) << key;
    EXPECT_FALSE(tree.add_list_element(key, "text")) << key;
    EXPECT_FALSE(tree.add_list_element_group(key)) << key;
    EXPECT_FALSE(tree.add_list_element_list(key)) << key;
    EXPECT_FALSE(tree.add_list_element_array(key)) << key;
  }
  EXPECT_FALSE(tree.add_list_element("top_list", static_cast<const char*>(nullptr)));
  EXPECT_EQ(tree.get_list_size("top_list"), 0);
}

// Verifies that each overload appends an element of its type to an array, and that an array keeps to one
// type.
TEST_F(ConfigEdit, AddArrayElement) {
  const auto fresh = [&] { EXPECT_TRUE(tree.clear_array_key("top_array")); };
  EXPECT_TRUE(tree.add_array_element("top_array", 1));
  EXPECT_EQ(tree.get_array_element_type("top_array", 0), 1);
  EXPECT_FALSE(tree.add_array_element("top_array", "text"));
  EXPECT_EQ(tree.get_array_size("top_array"), 1);
  fresh();
  EXPECT_TRUE(tree.add_array_element("top_array", 5000000000L));
  EXPECT_EQ(tree.get_array_element_type("top_array", 0), 2);
  fresh();
  EXPECT_TRUE(tree.add_array_element("top_array", true));
  EXPECT_EQ(tree.get_array_element_type("top_array", 0), 5);
  fresh();
  EXPECT_TRUE(tree.add_array_element("top_array", 0.5F));
  EXPECT_EQ(tree.get_array_element_type("top_array", 0), 3);
  fresh();
  EXPECT_TRUE(tree.add_array_element("top_array", "text"));
  EXPECT_TRUE(tree.add_array_element("top_array", std::string("string")));
  EXPECT_EQ(tree.get_array_element_type("top_array", 1), 4);
  for (const char* key : {"absent", "scalar", "Group", "top_list", ""})
    EXPECT_FALSE(tree.add_array_element(key, 1)) << key;
}

// Verifies the sizes, and -1 for another type.
TEST_F(ConfigEdit, Sizes) {
  EXPECT_EQ(tree.get_list_size("Group.list"), 3);
  EXPECT_EQ(tree.get_list_size("top_list"), 0);
  EXPECT_EQ(tree.get_list_size("Group.array"), -1);
  EXPECT_EQ(tree.get_array_size("Group.array"), 2);
  EXPECT_EQ(tree.get_array_size("Group.list"), -1);
  EXPECT_EQ(tree.get_list_size("absent"), -1);
  EXPECT_EQ(tree.get_array_size("absent"), -1);
}

// Verifies that the paths of elements lead back to them, and are empty where there is no element.
TEST_F(ConfigEdit, ElementKeys) {
  EXPECT_EQ(tree.get_list_element_key("Group.list", 2), "Group.list.[2]");
  EXPECT_EQ(tree.get_array_element_key("Group.array", 1), "Group.array.[1]");
  EXPECT_EQ(static_cast<int>(at(tree.get_array_element_key("Group.array", 1))), 5);
  EXPECT_EQ(tree.get_list_element_key("Group.list", 3), "");
  EXPECT_EQ(tree.get_list_element_key("Group.list", -1), "");
  EXPECT_EQ(tree.get_list_element_key("Group.array", 0), "");
  EXPECT_EQ(tree.get_list_element_key("absent", 0), "");
  EXPECT_EQ(tree.get_array_element_key("Group.list", 0), "");
}

// Verifies that the type of an element of an array is 0 where there is none.
TEST_F(ConfigEdit, ArrayElementType) {
  EXPECT_EQ(tree.get_array_element_type("Group.array", 0), 1);
  EXPECT_EQ(tree.get_array_element_type("Group.array", 2), 0);
  EXPECT_EQ(tree.get_array_element_type("top_array", 0), 0);
  EXPECT_EQ(tree.get_array_element_type("Group.list", 0), 0);
  EXPECT_EQ(tree.get_array_element_type("absent", 0), 0);
}

}  // namespace
