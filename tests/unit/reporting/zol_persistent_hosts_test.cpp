#include "reporting/zol_persistent_hosts.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using zol::PersistentHosts;
using zol_test::LogCapture;

class Hosts : public PersistentHosts {
 public:
  using PersistentHosts::PersistentHosts;

  void persistent_hosts_save_internal(hosts_t& changed) override {
    steps += "save ";
    for (const auto& [host, address] : add)
      changed[host].push_back(address);
  }
  void persistent_hosts_load_internal(hosts_t& loaded) override {
    steps += "load ";
    shown = loaded;
  }
  void lock() override { steps += "lock "; }
  void unlock() override { steps += "unlock "; }

  std::list<std::pair<std::string, std::string>> add;
  hosts_t shown;
  std::string steps;
};

class PersistentHostsTest : public testing::Test {
 protected:
  PersistentHostsTest() : old_program_(program_invocation_name) {
    folder_ = (std::filesystem::temp_directory_path() / "zol_hosts_XXXXXX").string();
    if (mkdtemp(folder_.data()) == nullptr)
      throw std::runtime_error("no folder for a test");
    program_ = folder_ + "/prog";
    program_invocation_name = program_.data();
  }
  ~PersistentHostsTest() override {
    program_invocation_name = old_program_;
    std::filesystem::remove_all(folder_);
  }

  std::string file() const { return folder_ + "/prog_client_persistent_hosts.txt"; }
  void write(const std::string& text) const { std::ofstream(file()) << text; }
  std::string read() const {
    std::ostringstream text;
    text << std::ifstream(file()).rdbuf();
    return text.str();
  }

  std::string folder_;

 private:
  std::string program_;
  char* old_program_;
};

TEST_F(PersistentHostsTest, file_names) {
  // Verifies that the path comes from the program's, with and without a client name.
  EXPECT_EQ(Hosts("client").file_name, file());
  EXPECT_EQ(Hosts().file_name, folder_ + "/persistent_hosts.txt");
}

TEST_F(PersistentHostsTest, file_name_without_folder) {
  // Verifies that a program that was found by its name keeps the base file in the working directory.
  char name[] = "prog";
  char* before = std::exchange(program_invocation_name, name);
  EXPECT_EQ(Hosts().file_name, "./persistent_hosts.txt");
  EXPECT_EQ(Hosts("client").file_name, "prog_client_persistent_hosts.txt");
  program_invocation_name = before;
}

TEST_F(PersistentHostsTest, load) {
  // Verifies that pairs are read in order, without duplicates, and shown under the lock.
  write("b.example 192.0.2.2\na.example 192.0.2.9\nb.example 192.0.2.1\nb.example 192.0.2.2\n");
  Hosts hosts("client");
  hosts.persistent_hosts_load();
  EXPECT_THAT(hosts.hosts, ElementsAre(Pair("a.example", ElementsAre("192.0.2.9")),
                                       Pair("b.example", ElementsAre("192.0.2.2", "192.0.2.1"))));
  EXPECT_EQ(hosts.shown, hosts.hosts);
  EXPECT_EQ(hosts.steps, "lock load unlock ");
}

TEST_F(PersistentHostsTest, bad_lines) {
  // Verifies that lines with less than two words are left out, and further words ignored.
  write("\n   \nlonely\n  a.example\t192.0.2.1   and more\nb.example \n");
  Hosts hosts("client");
  hosts.persistent_hosts_load();
  EXPECT_THAT(hosts.hosts, ElementsAre(Pair("a.example", ElementsAre("192.0.2.1"))));
}

TEST_F(PersistentHostsTest, binary_file) {
  // Verifies that a file of any bytes is read without harm.
  std::string bytes;
  for (int i = 0; i < 4096; ++i)
    bytes += static_cast<char>(i * 37);
  write(bytes);
  Hosts hosts("client");
  hosts.persistent_hosts_load();
  for (const auto& [host, addresses] : hosts.hosts) {
    EXPECT_FALSE(host.empty());
    EXPECT_FALSE(addresses.empty());
  }
}

TEST_F(PersistentHostsTest, missing_file) {
  // Verifies that a missing file is a warning, and the owner is shown nothing.
  LogCapture log;
  Hosts hosts("client");
  hosts.persistent_hosts_load();
  EXPECT_TRUE(log.contains(log_level::warning, "Failed to open file " + file()));
  EXPECT_THAT(hosts.hosts, IsEmpty());
  EXPECT_EQ(hosts.steps, "lock load unlock ");
}

TEST_F(PersistentHostsTest, save) {
  // Verifies that a change is written, one line a pair, in map order, under the lock.
  Hosts hosts("client");
  hosts.add = {{"b.example", "192.0.2.2"}, {"b.example", "192.0.2.1"}, {"a.example", "192.0.2.3"}};
  hosts.persistent_hosts_save();
  EXPECT_EQ(read(), "a.example 192.0.2.3\nb.example 192.0.2.2\nb.example 192.0.2.1\n");
  EXPECT_EQ(hosts.hosts.size(), 2U);
  EXPECT_EQ(hosts.steps, "lock save unlock ");
}

TEST_F(PersistentHostsTest, save_unchanged) {
  // Verifies that nothing is written when nothing has changed.
  write("a.example 192.0.2.3\n");
  Hosts hosts("client");
  hosts.persistent_hosts_load();
  write("what another client wrote\n");
  LogCapture log;
  hosts.persistent_hosts_save();
  EXPECT_TRUE(log.contains(log_level::debug, "Skipping save persistent hosts" + file()));
  EXPECT_EQ(read(), "what another client wrote\n");
}

TEST_F(PersistentHostsTest, last_writer_wins) {
  // Verifies that a save replaces the whole file.
  write("old.example 192.0.2.200\nold.example 192.0.2.201\n");
  Hosts hosts("client");
  hosts.add = {{"a.example", "192.0.2.3"}};
  hosts.persistent_hosts_save();
  EXPECT_EQ(read(), "a.example 192.0.2.3\n");
}

TEST_F(PersistentHostsTest, file_cannot_be_written) {
  // Verifies that a failed save is a warning, and the map in memory is still the new one.
  ASSERT_EQ(mkdir(file().c_str(), 0700), 0);
  LogCapture log;
  Hosts hosts("client");
  hosts.add = {{"a.example", "192.0.2.3"}};
  hosts.persistent_hosts_save();
  EXPECT_TRUE(log.contains(log_level::warning, "Failed to open file " + file()));
  EXPECT_THAT(hosts.hosts, ElementsAre(Pair("a.example", ElementsAre("192.0.2.3"))));
}

}  // namespace
