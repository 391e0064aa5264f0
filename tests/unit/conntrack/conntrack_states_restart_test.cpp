// The memory over a restart of the daemon: the record, the dump file, and the setting.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "dual_zol_helper.h"
#include "sup_logger.h"
#include "tests/unit/conntrack/states_fixture.h"

namespace zol_test {
namespace {

namespace fs = std::filesystem;

using zol_monitor::get_conntrack_states_dump_filename;
using zol_monitor::nfconntrack_get_orig_stats;
using zol_monitor::NfctHandle;
using zol_utils::ConntrackEntry;

constexpr std::uintmax_t dump_size = 8000000;

std::string content(const std::string& file) {
  std::ostringstream bytes;
  bytes << std::ifstream(file, std::ios::binary).rdbuf();
  return bytes.str();
}

// --- the record

// Verifies that reading takes used entries into the map and the others into the free list, and that what no
// connection was met for is dropped.
TEST_F(StatesTest, ReadTheRecord) {
  remember(3, "gone", {1, 1}, {1, 1});
  remember(99999, "gone too", {1, 1}, {1, 1});
  manager_->active = true;
  LogCapture log;
  manager_->read_ct_states();
  EXPECT_TRUE(log.contains(log_level::info, "Reading conntrack previous states from shared memory"));
  EXPECT_TRUE(log.contains(log_level::debug, "Successfully read 2 ct states from shared memory"))
      << log.all();
  EXPECT_TRUE(log.contains(log_level::trace, "removing conntrack entry with id gone"));
  EXPECT_TRUE(log.contains(log_level::debug,
                           "delete_non_existing_states: There are 0 existing connections on startup"));
  EXPECT_TRUE(manager_->states.empty());
  EXPECT_EQ(manager_->free_entries.size(), 100000U);
  EXPECT_EQ(entry(3).id[0], 0);
  EXPECT_EQ(entry(99999).id[0], 0);
}

// Verifies that a table that can't be read at the start costs no entry: its connections would be counted
// anew.
TEST_F(StatesTest, ReadTheRecordWithoutTheTable) {
  activate();
  remember(3, "maybe gone", {1, 1}, {1, 1});
  LogCapture log;
  {
    const NoDescriptors none;
    manager_->read_ct_states();
  }
  EXPECT_TRUE(log.contains(log_level::warning,
                           "read_ct_states: The connection table couldn't be read, keeping the states of "
                           "connections that may be gone"))
      << log.all();
  EXPECT_EQ(manager_->states.count("maybe gone"), 1U);
  EXPECT_EQ(manager_->free_entries.size(), 99999U);
}

// Verifies that reading again forgets what the process knew.
TEST_F(StatesTest, ReadTheRecordAgain) {
  activate();
  read({10, 1000}, {20, 2000});
  entry(0).id[0] = 0;
  manager_->read_ct_states();
  EXPECT_TRUE(manager_->states.empty());
  EXPECT_EQ(manager_->free_entries.size(), 100000U);
}

// Verifies that entries that were met stay and the others go.
TEST_F(StatesTest, DeleteNonExisting) {
  activate();
  read({10, 1000}, {20, 2000});
  remember(5, "gone", {1, 1}, {1, 1});
  manager_->states["gone"] = {&entry(5), false};
  LogCapture log;
  manager_->delete_non_existing_states();
  EXPECT_EQ(manager_->states.size(), 1U);
  EXPECT_EQ(manager_->states.count(tcp_flow_id), 1U);
  EXPECT_EQ(entry(5).id[0], 0);
  EXPECT_STREQ(entry(0).id, tcp_flow_id);
  EXPECT_TRUE(log.contains(log_level::debug,
                           "delete_non_existing_states: There are 1 existing connections on startup"));
}

// Verifies that an id without an end and a connection with two entries, as a damaged record has them, cost
// nothing but themselves.
TEST_F(StatesTest, DamagedRecord) {
  std::memset(entry(0).id, 'x', sizeof entry(0).id);
  remember(1, tcp_flow_id, {1, 100}, {1, 100});
  remember(2, tcp_flow_id, {2, 200}, {2, 200});
  manager_->active = true;
  const NfctHandle ct = read({3, 300}, {3, 300});
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 2, 200);
  EXPECT_EQ(manager_->states.size(), 2U);
  EXPECT_EQ(manager_->states.count(std::string(40, 'x')), 1U);
  EXPECT_EQ(entry(2).id[0], 0);
  EXPECT_EQ(manager_->free_entries.size(), 99998U);
}

// --- the dump file

// Verifies that the name is the base and this version's number.
TEST(StatesDump, FileName) {
  const std::string version = zol_utils::DualZOLHelper::instance()->get_zol_version_num();
  EXPECT_EQ(get_conntrack_states_dump_filename(zol_monitor::conntrack_states_dump_base),
            "/tmp/ct_states_shm.dmp-" + version);
  EXPECT_EQ(get_conntrack_states_dump_filename("here"), "here-" + version);
}

// Verifies that stopping writes the entries as they stand, for this user only, and forgets them.
TEST_F(StatesTest, StopWritesTheDump) {
  activate();
  read({10, 1000}, {20, 2000});
  remember(99999, "the last", {}, {});
  LogCapture log;
  manager_->stop();
  EXPECT_TRUE(log.contains(
      log_level::info,
      "write_conntrack_states_dump: Conntrack states were written successfully to " + dump_file()))
      << log.all();
  EXPECT_TRUE(manager_->states.empty());
  EXPECT_TRUE(manager_->free_entries.empty());
  const std::string bytes = content(dump_file());
  ASSERT_EQ(bytes.size(), dump_size);
  EXPECT_EQ(std::memcmp(bytes.data(), record_->data->entries.data(), bytes.size()), 0);
  EXPECT_EQ(bytes.substr(0, 34), tcp_flow_id);
  EXPECT_EQ(fs::status(dump_file()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

// Verifies that the manager's end writes the dump, and that an inactive manager has none to write.
TEST_F(StatesTest, EndWritesTheDump) {
  drop_manager();
  EXPECT_FALSE(fs::exists(dump_file()));
  make_manager();
  manager_->stop();
  EXPECT_FALSE(fs::exists(dump_file()));
  activate();
  drop_manager();
  EXPECT_EQ(fs::file_size(dump_file()), dump_size);
}

// Verifies that a file of an earlier stop, or a link that somebody has put there, is replaced and not written
// through.
TEST_F(StatesTest, DumpReplacesWhatIsThere) {
  const std::string other = config_.folder() + "/other";
  std::ofstream(other) << "not to be touched";
  fs::create_symlink(other, dump_file());
  manager_->write_conntrack_states_dump(dump_file());
  EXPECT_EQ(content(other), "not to be touched");
  EXPECT_FALSE(fs::is_symlink(dump_file()));
  EXPECT_EQ(fs::file_size(dump_file()), dump_size);
  remember(0, "newer", {}, {});
  manager_->write_conntrack_states_dump(dump_file());
  EXPECT_EQ(content(dump_file()).substr(0, 5), "newer");
}

// Verifies that a dump that can't be opened is logged.
TEST_F(StatesTest, DumpCantBeOpened) {
  LogCapture log;
  manager_->write_conntrack_states_dump(config_.folder() + "/missing/file");
  EXPECT_TRUE(log.contains(log_level::error,
                           "write_conntrack_states_dump: Could not open conntrack states dump file"));
}

// Verifies that a dump that doesn't fit is logged as such.
TEST_F(StatesTest, DumpCantBeWritten) {
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit usual = limit;
  limit.rlim_cur = 1000000;
  const auto former = std::signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &limit);
  LogCapture log;
  manager_->write_conntrack_states_dump(dump_file());
  setrlimit(RLIMIT_FSIZE, &usual);
  std::signal(SIGXFSZ, former);
  EXPECT_TRUE(
      log.contains(log_level::error,
                   "write_conntrack_states_dump: Could not write conntrack states dump file " + dump_file()))
      << log.all();
  EXPECT_FALSE(log.contains("written successfully"));
}

// Verifies that without the record neither direction touches the file.
TEST_F(StatesTest, DumpWithoutSharedMemory) {
  zol_utils::shared_mem_enabled = false;
  manager_->write_conntrack_states_dump(dump_file());
  EXPECT_FALSE(fs::exists(dump_file()));
  std::ofstream(dump_file()) << "something";
  manager_->read_conntrack_states_dump(dump_file());
  EXPECT_TRUE(fs::exists(dump_file()));
}

// Verifies that a dump is read into the record and removed.
TEST_F(StatesTest, ReadTheDump) {
  remember(0, "first", {1, 2}, {3, 4});
  remember(99999, "last", {5, 6}, {7, 8});
  manager_->write_conntrack_states_dump(dump_file());
  entry(0) = {};
  entry(99999) = {};
  remember(1, "newer", {}, {});
  LogCapture log;
  manager_->read_conntrack_states_dump(dump_file());
  EXPECT_TRUE(log.contains(log_level::info,
                           "read_conntrack_states_dump: Conntrack states dump file was read successfully"));
  EXPECT_TRUE(
      log.contains(log_level::info, "read_conntrack_states_dump: Removed conntrack states dump file"));
  EXPECT_STREQ(entry(0).id, "first");
  EXPECT_EQ(entry(0).repl_bytes, 4U);
  EXPECT_STREQ(entry(99999).id, "last");
  EXPECT_EQ(entry(99999).orig_packets, 5U);
  EXPECT_EQ(entry(1).id[0], 0);
  EXPECT_FALSE(fs::exists(dump_file()));
}

// Verifies that a missing dump is logged and leaves the record as it is.
TEST_F(StatesTest, NoDump) {
  remember(0, "stays", {}, {});
  LogCapture log;
  manager_->read_conntrack_states_dump(dump_file());
  EXPECT_TRUE(log.contains(log_level::warning,
                           "read_conntrack_states_dump: Could not open conntrack states dump file"));
  EXPECT_STREQ(entry(0).id, "stays");
}

// Verifies that a short dump is read as far as it goes, without the entry that was cut.
TEST_F(StatesTest, ShortDump) {
  remember(0, "first", {1, 2}, {3, 4});
  remember(1, "second", {1, 2}, {3, 4});
  manager_->write_conntrack_states_dump(dump_file());
  fs::resize_file(dump_file(), 80 + 50);
  remember(0, "former 0", {}, {});
  remember(1, "former 1", {}, {});
  remember(2, "former 2", {}, {});
  manager_->read_conntrack_states_dump(dump_file());
  EXPECT_STREQ(entry(0).id, "first");
  EXPECT_EQ(entry(0).orig_bytes, 2U);
  EXPECT_STREQ(entry(1).id, "former 1");
  EXPECT_STREQ(entry(2).id, "former 2");
  EXPECT_FALSE(fs::exists(dump_file()));
}

// Verifies that what follows the entries of a dump isn't read.
TEST_F(StatesTest, LongDump) {
  remember(99999, "last", {}, {});
  manager_->write_conntrack_states_dump(dump_file());
  std::ofstream(dump_file(), std::ios::app) << std::string(200, 'x');
  entry(99999) = {};
  manager_->read_conntrack_states_dump(dump_file());
  EXPECT_STREQ(entry(99999).id, "last");
}

// Verifies that neither a link, a pipe, a folder nor another user's file is taken for a dump.
TEST_F(StatesTest, ForeignDump) {
  const std::string base = config_.folder();
  remember(0, "foreign", {}, {});
  manager_->write_conntrack_states_dump(base + "/whole");
  entry(0) = {};
  fs::create_symlink(base + "/whole", base + "/link");
  mkfifo((base + "/pipe").c_str(), 0666);
  fs::create_directory(base + "/folder");
  std::vector<std::string> names = {"/link", "/pipe", "/folder"};
  if (geteuid() == 0) {
    fs::copy_file(base + "/whole", base + "/anothers");
    ASSERT_EQ(chown((base + "/anothers").c_str(), 65534, 65534), 0);
    names.emplace_back("/anothers");
  }
  for (const std::string& name : names) {
    LogCapture log;
    manager_->read_conntrack_states_dump(base + name);
    EXPECT_TRUE(log.contains(log_level::warning, "Could not open conntrack states dump file")) << name;
    EXPECT_EQ(entry(0).id[0], 0) << name;
    EXPECT_TRUE(fs::exists(fs::symlink_status(base + name))) << name;
  }
}

// Verifies that a dump that can't be removed is read and logged.
TEST_F(StatesTest, DumpCantBeRemoved) {
  if (geteuid() != 0)
    GTEST_SKIP() << "needs the right to give up its rights";
  remember(0, "first", {}, {});
  manager_->write_conntrack_states_dump(dump_file());
  entry(0) = {};
  constexpr uid_t nobody = 65534;
  ASSERT_EQ(chown(dump_file().c_str(), nobody, nobody), 0);
  fs::permissions(config_.folder(), fs::perms(0755));
  LogCapture log;
  ASSERT_EQ(seteuid(nobody), 0);
  manager_->read_conntrack_states_dump(dump_file());
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_STREQ(entry(0).id, "first");
  EXPECT_TRUE(
      log.contains("read_conntrack_states_dump: Could not remove conntrack dump file [" + dump_file() + "]"))
      << log.all();
  EXPECT_TRUE(fs::exists(dump_file()));
}

// Verifies that a start takes the dump of this version, and leaves that of another alone.
TEST_F(StatesTest, StartTakesTheDump) {
  const std::string others = dump_base() + "-0.0.1";
  remember(0, "of another version", {}, {});
  manager_->write_conntrack_states_dump(others);
  entry(0) = {};
  {
    LogCapture log;
    manager_->reconfigure();
    EXPECT_TRUE(log.contains(log_level::warning, "Could not open conntrack states dump file"));
    EXPECT_TRUE(log.contains(log_level::debug, "Successfully read 0 ct states from shared memory"));
  }
  read({10, 1000}, {20, 2000});
  drop_manager();
  std::memset(record_->data->entries.data(), 0, dump_size);
  make_manager();
  LogCapture log;
  manager_->reconfigure();
  EXPECT_TRUE(log.contains(log_level::debug, "Successfully read 1 ct states from shared memory"))
      << log.all();
  EXPECT_FALSE(fs::exists(dump_file()));
  EXPECT_EQ(fs::file_size(others), dump_size);
}

// --- the setting

// Verifies that the setting starts the manager once, with its line, and that nothing happens without a
// change.
TEST_F(StatesTest, SwitchedOn) {
  EXPECT_FALSE(manager_->active);
  bool enabled = false;
  EXPECT_TRUE(manager_->need_reconf(enabled));
  EXPECT_TRUE(enabled);
  LogCapture log;
  manager_->reconfigure();
  EXPECT_TRUE(manager_->active);
  EXPECT_TRUE(log.contains(log_level::info, "reconfigure: Conntrack States is active!")) << log.all();
  EXPECT_FALSE(manager_->need_reconf(enabled));
  EXPECT_TRUE(enabled);
  log.clear();
  manager_->reconfigure();
  manager_->reload(true);
  EXPECT_TRUE(log.records().empty()) << log.all();
}

// Verifies that a manager that isn't wanted does nothing.
TEST_F(StatesTest, NotWanted) {
  for (const char* setting :
       {"", "conntrack_states_enabled = false;", "conntrack_states_enabled = \"yes\";"}) {
    set_monitoring(setting);
    LogCapture log;
    bool enabled = true;
    EXPECT_FALSE(manager_->need_reconf(enabled)) << setting;
    EXPECT_FALSE(enabled);
    manager_->reconfigure();
    EXPECT_FALSE(manager_->active);
    EXPECT_TRUE(log.records().empty()) << log.all();
  }
}

// Verifies that the manager follows a reload of the configuration until its end.
TEST_F(StatesTest, RegisteredForReloads) {
  config_.write_file("Monitoring: { conntrack_states_enabled = true; };");
  config_.configurator().reload_configuration("", 0);
  EXPECT_TRUE(manager_->active);
  drop_manager();
  LogCapture log;
  config_.write_file("Monitoring: { conntrack_states_enabled = false; };");
  config_.configurator().reload_configuration("", 0);
  EXPECT_FALSE(log.contains("Conntrack States is"));
}

}  // namespace
}  // namespace zol_test
