#include "config/zol_configurator.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "config/zol_conf_consts.h"
#include "sup_logger.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"
#include "zol_settings.h"

namespace {

using zol::AConfigurator;
using zol::ConfigListIterator;
using zol::TheConfigurator;
using zol_test::LogCapture;
using zol_test::ScopedConfig;

std::string file_text(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

bool file_can_be_locked(const std::string& path, int operation) {
  const int fd = open((path + ".lock").c_str(), O_RDWR);
  const bool taken = fd != -1 && flock(fd, operation | LOCK_NB) == 0;
  close(fd);
  return taken;
}

// Verifies that the tree is there after construction and that a missing key leaves the target alone.
TEST(Configurator, ReadsTheFile) {
  ScopedConfig config("General: { zol_id = \"node-1\"; };");
  std::string id;
  EXPECT_TRUE(TheConfigurator::get_configuration()->config.lookupValue("General.zol_id", id));
  EXPECT_EQ(id, "node-1");
  EXPECT_FALSE(TheConfigurator::get_configuration()->config.lookupValue("General.other", id));
  EXPECT_EQ(id, "node-1");
}

// Verifies that a missing file throws FileNotFound with the file's name.
TEST(Configurator, MissingFile) {
  ScopedConfig folder("");
  const std::string path = folder.folder() + "/absent.conf";
  try {
    AConfigurator configurator(path.c_str(), false);
    FAIL() << "no exception";
  } catch (const FileNotFound& failure) {
    EXPECT_EQ(failure.what(), "Could not open configuration file - " + path);
  }
  EXPECT_TRUE(file_can_be_locked(path, LOCK_EX));
}

// Verifies that a null file name is a logic error and an empty one a file that isn't found.
TEST(Configurator, NullAndEmptyName) {
  EXPECT_THROW(AConfigurator(nullptr, false), std::logic_error);
  try {
    AConfigurator configurator("", false);
    FAIL() << "no exception";
  } catch (const FileNotFound& failure) {
    EXPECT_STREQ(failure.what(), "Could not open configuration file - ");
  }
  std::filesystem::remove(".lock");
}

// Verifies that a syntax error goes through the constructor unchanged.
TEST(Configurator, ParseErrorAtStart) {
  ScopedConfig config("a = 1;");
  config.write_file("a = = 1;");
  EXPECT_THROW(AConfigurator((config.folder() + "/zol.conf").c_str(), false), libconfig::ParseException);
}

// Verifies that reading releases the lock file, which stays beside the file.
TEST(Configurator, ReadUnlocks) {
  ScopedConfig config("a = 1;");
  EXPECT_TRUE(std::filesystem::exists(config.folder() + "/zol.conf.lock"));
  EXPECT_TRUE(file_can_be_locked(config.folder() + "/zol.conf", LOCK_EX));
}

// Verifies that saving writes the tree to the file and gives 1.
TEST(Configurator, Save) {
  ScopedConfig config("a = 1;");
  config.configurator().config.lookup("a") = 2;
  EXPECT_EQ(config.configurator().save_configuration(), 1);
  EXPECT_EQ(file_text(config.folder() + "/zol.conf"), "a = 2;\n");
  EXPECT_TRUE(file_can_be_locked(config.folder() + "/zol.conf", LOCK_EX));
}

// Verifies that print_on_save writes to standard output and leaves the file alone.
TEST(Configurator, PrintOnSave) {
  ScopedConfig config("a = 1;");
  const std::string path = config.folder() + "/zol.conf";
  AConfigurator configurator(path.c_str(), true);
  configurator.config.lookup("a") = 2;
  testing::internal::CaptureStdout();
  EXPECT_EQ(configurator.save_configuration(), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "a = 2;\n");
  EXPECT_EQ(file_text(path), "a = 1;");
}

// Verifies that a file that can't be written is logged and gives 0, with the lock released.
TEST(Configurator, SaveFails) {
  ScopedConfig config("a = 1;");
  const std::string path = config.folder() + "/zol.conf";
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  LogCapture log;
  EXPECT_EQ(config.configurator().save_configuration(), 0);
  EXPECT_TRUE(log.contains(log_level::error, "Error saving configuration: FileIOException")) << log.all();
  EXPECT_TRUE(file_can_be_locked(path, LOCK_EX));
}

// Verifies that the injected configurator comes before the static one, which is built once from zol.conf in
// the working directory and throws as long as that isn't there.
TEST(Configurator, StaticConfigurator) {
  ScopedConfig folder("General: { zol_id = \"from-file\"; };");
  const std::string empty = folder.folder() + "/empty";
  std::filesystem::create_directory(empty);
  EXPECT_EXIT(
      {
        TheConfigurator::set_configurator(nullptr);
        const bool moved = chdir(empty.c_str()) == 0;
        bool not_found = false;
        try {
          TheConfigurator::get_configuration();
        } catch (const FileNotFound& failure) {
          not_found = std::string(failure.what()) == "Could not open configuration file - zol.conf";
        }
        std::string library_value;
        const bool library_has_none = !zol_utils::lookup_setting("General.zol_id", library_value);
        const bool back = chdir(folder.folder().c_str()) == 0;
        AConfigurator* first = TheConfigurator::get_configuration();
        std::string id;
        const bool read = first->config.lookupValue("General.zol_id", id) && id == "from-file";
        const bool once = first == zol::get_static_configurator();
        TheConfigurator::set_configurator(&folder.configurator());
        const bool injected = TheConfigurator::get_configuration() == &folder.configurator();
        _exit(moved && not_found && library_has_none && back && read && once && injected ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

// Verifies that the closed libraries read the same tree, each type.
TEST(Configurator, LibrariesReadTheTree) {
  ScopedConfig config("General: { zol_id = \"n\"; mask = true; number = 7; };");
  std::string text;
  bool flag = false;
  int number = 0;
  EXPECT_TRUE(zol_utils::lookup_setting("General.zol_id", text));
  EXPECT_TRUE(zol_utils::lookup_setting("General.mask", flag));
  EXPECT_TRUE(zol_utils::lookup_setting("General.number", number));
  EXPECT_EQ(text, "n");
  EXPECT_TRUE(flag);
  EXPECT_EQ(number, 7);
  EXPECT_FALSE(zol_utils::lookup_setting("General.absent", text));
  EXPECT_FALSE(zol_utils::lookup_setting("General.zol_id", number));
}

// Verifies that only the configured base port is that of a neighbouring node.
TEST(Configurator, IsAdjacentZol) {
  ScopedConfig config("IPTables: { internal_base_port = 8500; };");
  EXPECT_TRUE(TheConfigurator::is_adj_zol(8500));
  EXPECT_FALSE(TheConfigurator::is_adj_zol(8501));
  config.set("");
  EXPECT_FALSE(TheConfigurator::is_adj_zol(0));
}

// Verifies that an address is looked up among the high-availability clients, also behind one without address.
TEST(Configurator, IsHaAgentMonitorAddr) {
  ScopedConfig config(
      "HighAvailability: { clients = ( { ip_address = \"10.0.0.1\"; }, { }, { ip_address = \"10.0.0.2\"; } "
      "); };");
  EXPECT_TRUE(TheConfigurator::is_ha_agent_monitor_addr("10.0.0.1"));
  EXPECT_TRUE(TheConfigurator::is_ha_agent_monitor_addr("10.0.0.2"));
  EXPECT_FALSE(TheConfigurator::is_ha_agent_monitor_addr("10.0.0.3"));
  config.set("HighAvailability: { clients = ( ); };");
  EXPECT_FALSE(TheConfigurator::is_ha_agent_monitor_addr("10.0.0.1"));
}

// Verifies that the iterator walks a list and that the paths it gives lead to the members.
TEST(ConfigListIterator, WalksAList) {
  ScopedConfig config("Group: { rows = ( { name = \"a\"; }, { name = \"b\"; }, { name = \"c\"; } ); };");
  ConfigListIterator it("Group.rows");
  EXPECT_EQ(it.size(), 3);
  std::string names;
  for (int i = 0; i < it.size(); ++i, ++it) {
    std::string name;
    EXPECT_TRUE(config.configurator().config.lookupValue(*it + ".name", name));
    names += name;
  }
  EXPECT_EQ(names, "abc");
  EXPECT_EQ(it.index, -1);
  EXPECT_EQ(*it, "");
  EXPECT_EQ(it.type(), 0);
}

// Verifies that the paths of elements are libconfig's.
TEST(ConfigListIterator, PathAndType) {
  ScopedConfig config("Group: { rows = ( { }, 5, \"text\" ); };");
  ConfigListIterator it(std::string("Group.rows"));
  EXPECT_EQ(*it, "Group.rows.[0]");
  EXPECT_EQ(it.type(), libconfig::Setting::TypeGroup);
  ++it;
  EXPECT_EQ(*it, "Group.rows.[1]");
  EXPECT_EQ(it.type(), libconfig::Setting::TypeInt);
  ++it;
  EXPECT_EQ(it.type(), libconfig::Setting::TypeString);
}

// Verifies that a missing key has size -1, index -1 and an empty path.
TEST(ConfigListIterator, MissingKey) {
  ScopedConfig config("a = 1;");
  for (const char* key : {"absent", "a", ""}) {
    ConfigListIterator it(key);
    EXPECT_EQ(it.size(), -1) << key;
    EXPECT_EQ(it.index, -1) << key;
    EXPECT_EQ(*it, "") << key;
    EXPECT_EQ(it.type(), 0) << key;
    EXPECT_EQ((++it).index, -1) << key;
  }
}

// Verifies that an empty list has size 0 and index -1.
TEST(ConfigListIterator, EmptyList) {
  ScopedConfig config("rows = ( );");
  ConfigListIterator it("rows");
  EXPECT_EQ(it.size(), 0);
  EXPECT_EQ(it.index, -1);
  EXPECT_EQ(*it, "");
}

// Verifies that an iterator can walk another tree than the process's.
TEST(ConfigListIterator, OtherConfigurator) {
  ScopedConfig config("rows = ( 1 );");
  const std::string path = config.folder() + "/zol.conf";
  AConfigurator other(path.c_str(), false);
  other.add_list_element("rows", 2);
  EXPECT_EQ(ConfigListIterator(&other, "rows").size(), 2);
  EXPECT_EQ(ConfigListIterator("rows").size(), 1);
}

}  // namespace
