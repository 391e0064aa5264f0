#include "config/services.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>

#include "dual_zol_helper.h"
#include "shared_object.h"
#include "shared_records.h"
#include "sup_logger.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using testing::ElementsAre;
using zol::Service;
using zol::Services;
using zol_test::LogCapture;
using zol_test::ScopedConfig;
using zol_utils::ZolHistoricServices;
using Record = zol_utils::SharedObject<ZolHistoricServices>;

constexpr const char* record_type = "N9zol_utils19ZolHistoricServicesE";

struct Row {
  int id;
  const char* network;
  const char* host;
  const char* aux_host = "none";
  int external_port_in = 80;
  bool is_port_owned = true;
};

std::string config_text(const std::vector<Row>& rows, const std::string& unmarked = "unmarked.example") {
  std::string list;
  for (const Row& row : rows) {
    if (!list.empty())
      list += ",\n";
    list += "{ service_id = " + std::to_string(row.id) + "; logical_network_id = \"" + row.network +
            "\"; public_host = \"p" + std::to_string(row.id) + "\"; host = \"" + row.host +
            "\"; aux_host = \"" + row.aux_host +
            "\"; external_port_in = " + std::to_string(row.external_port_in) +
            "; internal_port = " + std::to_string(8000 + row.id) +
            "; external_port_out = 443; is_port_owned = " + (row.is_port_owned ? "true" : "false") +
            "; is_tcp = true; }";
  }
  return "MultipleTargets: { services = (" + list + "); };\nMonitoring: { unmarked_target = \"" + unmarked +
         "\"; };\nIPTables: { internal_port_range_start = 8000; internal_port_range_end = 8100; };\n";
}

const std::vector<Row> three_rows = {
    {1, "net-1", "one.example"}, {2, "net-2", "two.example"}, {9, "default", "unmarked.example"}};

class ServicesTest : public testing::Test {
 protected:
  ServicesTest() { zol_utils::shared_object_version = version; }
  ~ServicesTest() override {
    Record::drop_instance();
    zol_utils::shared_object_version.clear();
    zol_utils::shared_mem_enabled = true;
  }
  void reload(const std::vector<Row>& rows) {
    config.write_file(config_text(rows));
    config.configurator().reload_configuration("", 0);
  }

  const std::string version = "unit-services-" + std::to_string(getpid());
  ScopedConfig config{config_text(three_rows)};
};

class SharedServicesTest : public ServicesTest {
 protected:
  std::unique_ptr<Record> record = zol_utils::create_shared_record<ZolHistoricServices>(version);
};

// Verifies that the list is read in its order, with the line that says so.
TEST_F(SharedServicesTest, ReadsTheList) {
  LogCapture log;
  const Services services(true, true);
  const auto all = services.get_service_vec(false);
  ASSERT_EQ(all.size(), 3U);
  EXPECT_EQ(all[0].host, "one.example");
  EXPECT_EQ(all[1].service_id, 2);
  EXPECT_EQ(all[2].logical_network_id, "default");
  EXPECT_TRUE(log.contains(log_level::debug, "Read services")) << log.all();
  EXPECT_FALSE(log.contains(log_level::error, "")) << log.all();
}

// Verifies that read_conf replaces the list and that read_conf_do appends and gives the highest id.
TEST_F(SharedServicesTest, ReadConf) {
  Services services(false, false);
  services.read_conf();
  EXPECT_EQ(services.get_service_vec(false).size(), 3U);
  EXPECT_EQ(services.read_conf_do("MultipleTargets.services"), 9);
  EXPECT_EQ(services.get_service_vec(false).size(), 6U);
  EXPECT_EQ(services.read_conf_do("MultipleTargets.absent"), 0);
}

// Verifies that a missing unmarked target has its error line.
TEST_F(SharedServicesTest, UnmarkedTargetMissing) {
  config.set("MultipleTargets: { services = ( ); };");
  LogCapture log;
  const Services services(false, false);
  EXPECT_TRUE(log.contains(log_level::error, "Key is missing Monitoring.unmarked_target")) << log.all();
}

// Verifies that a listener is registered only with watch_reconf, and no longer than it lives.
TEST_F(SharedServicesTest, Registration) {
  {
    const Services watching(false, true);
    const Services still(false, false);
    reload({{5, "net-5", "five.example"}});
    EXPECT_EQ(watching.get_service_vec(false).size(), 1U);
    EXPECT_EQ(still.get_service_vec(false).size(), 3U);
  }
  reload(three_rows);
}

// Verifies that the object always wants its reload and leaves `enabled` alone.
TEST_F(SharedServicesTest, NeedReconf) {
  Services services(false, false);
  for (const bool before : {false, true}) {
    bool enabled = before;
    EXPECT_TRUE(services.need_reconf(enabled));
    EXPECT_EQ(enabled, before);
  }
}

// Verifies that a known id gives its service, with and without the historical ones.
TEST_F(SharedServicesTest, KnownId) {
  const Services services(true, true);
  EXPECT_EQ(services.get_by_service_id(2, false).host, "two.example");
  EXPECT_EQ(services.get_by_service_id(2, true).host, "two.example");
  EXPECT_EQ(&services.find_by_service_id(2, true), &services.find_by_service_id(2, false));
}

// Verifies that an unknown id gives the service of the unmarked target, by its host and by its aux_host.
TEST_F(SharedServicesTest, UnknownId) {
  Services services(true, true);
  EXPECT_EQ(services.get_by_service_id(77, true).service_id, 9);
  reload({{1, "net-1", "one.example"}, {8, "by-aux", "main.example", "unmarked.example"}});
  EXPECT_EQ(services.get_by_service_id(77, true).service_id, 8);
}

// Verifies that an unknown id without a service for unmarked traffic gives a default service.
TEST_F(SharedServicesTest, UnknownIdWithoutUnmarked) {
  config.set(config_text({{1, "net-1", "one.example"}}));
  const Services services(true, true);
  EXPECT_EQ(services.get_by_service_id(77, true), Service());
}

// Verifies that a service that leaves the configuration resolves as a historical one and not as a current
// one.
TEST_F(SharedServicesTest, RemovedServiceIsHistorical) {
  const Services services(true, true);
  reload({{1, "net-1", "one.example"}, {9, "default", "unmarked.example"}});
  const Service gone = services.get_by_service_id(2, true);
  EXPECT_EQ(gone.service_id, 2);
  EXPECT_EQ(gone.logical_network_id, "net-2");
  EXPECT_EQ(gone.host, "two.example");
  EXPECT_EQ(gone.external_port_in, 80);
  EXPECT_EQ(gone.internal_port, 0);
  EXPECT_FALSE(gone.is_port_owned);
  EXPECT_EQ(services.get_by_service_id(2, false).service_id, 9);
}

// Verifies that a historical service stays through later reloads.
TEST_F(SharedServicesTest, HistoricalServiceStays) {
  const Services services(true, true);
  reload({{1, "net-1", "one.example"}});
  reload({{3, "net-3", "three.example"}});
  EXPECT_EQ(services.get_by_service_id(1, true).logical_network_id, "net-1");
  EXPECT_EQ(services.get_by_service_id(2, true).logical_network_id, "net-2");
}

// Verifies that a service that comes back with its id leaves the historical table.
TEST_F(SharedServicesTest, ServiceComesBack) {
  const Services services(true, true);
  reload({{1, "net-1", "one.example"}});
  EXPECT_EQ(services.get_service_vec(true).size(), 3U);
  reload({{1, "net-1", "one.example"}, {2, "net-2b", "new.example"}});
  EXPECT_EQ(services.get_by_service_id(2, true).host, "new.example");
  EXPECT_EQ(services.get_service_vec(true).size(), 3U);
  EXPECT_EQ(services.get_service_vec(true).front().service_id, 9);
}

// Verifies that a historical service without a logical network counts as unknown.
TEST_F(SharedServicesTest, HistoricalWithoutNetwork) {
  config.set(config_text({{1, "", "one.example"}, {9, "default", "unmarked.example"}}));
  const Services services(true, true);
  reload({{9, "default", "unmarked.example"}});
  EXPECT_EQ(services.get_by_service_id(1, true).service_id, 9);
}

// Verifies the order of a vector with historical services: those first.
TEST_F(SharedServicesTest, ServiceVector) {
  const Services services(true, true);
  reload({{1, "net-1", "one.example"}});
  std::vector<int> ids;
  for (const Service& service : services.get_service_vec(true))
    ids.push_back(service.service_id);
  EXPECT_THAT(ids, ElementsAre(2, 9, 1));
  EXPECT_TRUE(services.get_service_vec(true).front().is_port_owned);
}

// Verifies the look-up by host and by aux_host, the first match winning.
TEST_F(SharedServicesTest, ByHost) {
  config.set(config_text({{1, "a", "x", "y"}, {2, "b", "y", "z"}}));
  const Services services(false, false);
  EXPECT_EQ(services.get_by_host("y").service_id, 1);
  EXPECT_EQ(services.get_by_host("z").service_id, 2);
  EXPECT_EQ(services.get_by_host("absent"), Service());
}

// Verifies that a port has a service by its public or its inner port.
TEST_F(SharedServicesTest, ExternalPortHasService) {
  const Services services(false, false);
  EXPECT_TRUE(services.external_port_has_service(80));
  EXPECT_TRUE(services.external_port_has_service(8002));
  EXPECT_FALSE(services.external_port_has_service(443));
}

// Verifies that a port is shared by two services that own it, and not by one with one that doesn't.
TEST_F(SharedServicesTest, IsSharedPort) {
  config.set(config_text({{1, "a", "x", "", 80, true},
                          {2, "b", "y", "", 80, true},
                          {3, "c", "z", "", 81, true},
                          {4, "d", "w", "", 81, false},
                          {5, "e", "v", "", 82, true}}));
  const Services services(false, false);
  EXPECT_TRUE(services.is_shared_port(80));
  EXPECT_FALSE(services.is_shared_port(81));
  EXPECT_FALSE(services.is_shared_port(82));
  EXPECT_FALSE(services.is_shared_port(83));
}

// Verifies the bounds of the inner ports.
TEST_F(ServicesTest, IsInternalPort) {
  EXPECT_FALSE(Services::is_internal_port(7999));
  EXPECT_TRUE(Services::is_internal_port(8000));
  EXPECT_TRUE(Services::is_internal_port(8100));
  EXPECT_FALSE(Services::is_internal_port(8101));
}

// Verifies that each missing bound has its error line and makes the answer no.
TEST_F(ServicesTest, IsInternalPortWithoutKeys) {
  config.set("");
  LogCapture log;
  EXPECT_FALSE(Services::is_internal_port(0));
  const std::string text =
      "is_internal_port: Couldn't retrive configuration parameter IPTables.internal_port_range_";
  EXPECT_TRUE(log.contains(log_level::error, text + "start")) << log.all();
  EXPECT_TRUE(log.contains(log_level::error, text + "end")) << log.all();
  config.set("IPTables: { internal_port_range_start = 0; };");
  EXPECT_FALSE(Services::is_internal_port(0));
}

// Verifies that the target of a network comes from the current services, the historical ones, the unmarked
// target.
TEST_F(SharedServicesTest, TargetByNetwork) {
  const Services services(true, true);
  EXPECT_EQ(services.get_target_by_logical_net_id("net-1"), "one.example");
  reload({{2, "net-2", "moved.example"}});
  EXPECT_EQ(services.get_target_by_logical_net_id("net-2"), "moved.example");
  EXPECT_EQ(services.get_target_by_logical_net_id("net-1"), "one.example");
  EXPECT_EQ(services.get_target_by_logical_net_id("absent"), "unmarked.example");
}

// Verifies that an empty host is no target: a historical service of the network goes before it, and then the
// unmarked target, whatever host a second service of the network has.
TEST_F(SharedServicesTest, TargetByNetworkWithoutHost) {
  const Services services(true, true);
  reload({{3, "net-1", ""}, {4, "net-1", "second.example"}, {5, "net-2", "two.example"}});
  EXPECT_EQ(services.get_target_by_logical_net_id("net-1"), "one.example");
  config.set(config_text({{6, "net-3", ""}, {7, "net-3", "second.example"}}));
  const Services first_start(false, false);
  EXPECT_EQ(first_start.get_target_by_logical_net_id("net-3"), "unmarked.example");
}

// Verifies the set of networks with and without the historical ones.
TEST_F(SharedServicesTest, LogicalNetworkIds) {
  const Services services(true, true);
  reload({{2, "net-2", "two.example"}});
  EXPECT_THAT(services.get_logical_network_ids(false), ElementsAre("net-2"));
  EXPECT_THAT(services.get_logical_network_ids(true), ElementsAre("default", "net-1", "net-2"));
}

// Verifies that a reload writes the historical table to the shared record, byte for byte.
TEST_F(SharedServicesTest, WritesTheRecord) {
  const Services services(true, true);
  EXPECT_EQ(record->data->block[0], 0);
  reload({{1, "net-1", "one.example"}, {9, "default", "unmarked.example"}});
  constexpr unsigned char expected[] = {0x01, 0x00, 0x00, 0x00,             // count
                                        0x02,                               // service_id
                                        0x50, 0x00,                         // external_port_in 80
                                        'n',  'e',  't',  '-',  '2', 0x00,  // logical_network_id
                                        't',  'w',  'o',  '.',  'e', 'x',
                                        'a',  'm',  'p',  'l',  'e', 0x00,  // host
                                        'p',  '2',  0x00, 0x00};            // public_host, and the rest
  EXPECT_EQ(std::memcmp(record->data->block, expected, sizeof(expected)), 0);
}

// Verifies that the record is left alone without the right to write it.
TEST_F(SharedServicesTest, DoesntWriteTheRecord) {
  const Services services(false, true);
  reload({{1, "net-1", "one.example"}});
  EXPECT_EQ(record->data->block[0], 0);
}

// Verifies that the historical table survives a restart.
TEST_F(SharedServicesTest, SurvivesARestart) {
  {
    const Services before(true, true);
    reload({{1, "net-1", "one.example"}});
  }
  const Services after(true, true);
  EXPECT_EQ(after.get_by_service_id(2, true).logical_network_id, "net-2");
  EXPECT_EQ(after.get_by_service_id(9, true).host, "unmarked.example");
  const Services reader(false, false);
  EXPECT_EQ(reader.get_by_service_id(2, true).logical_network_id, "net-2");
}

// Verifies that a table that doesn't fit leaves the last good copy in the record.
TEST_F(SharedServicesTest, OverflowKeepsTheRecord) {
  const Services services(true, true);
  reload({{1, "net-1", "one.example"}});
  const ZolHistoricServices good = *record->data;
  const std::string long_host(4090, 'h');
  reload({{1, "net-1", long_host.c_str()}});
  LogCapture log;
  reload({});
  EXPECT_TRUE(log.contains(log_level::fatal, "not enough memory space for all hostorical data")) << log.all();
  EXPECT_EQ(std::memcmp(record->data->block, good.block, sizeof(good.block)), 0);
  EXPECT_EQ(services.get_by_service_id(1, true).host, long_host);
}

// Verifies that a damaged record is logged and that what is whole in it is kept.
TEST_F(SharedServicesTest, DamagedRecord) {
  std::memset(record->data->block, 'x', sizeof(record->data->block));
  LogCapture log;
  const Services services(true, true);
  EXPECT_TRUE(
      log.contains(log_level::error, "HistoricalServices::deserialize: the block ends within record 0"))
      << log.all();
  EXPECT_EQ(services.get_service_vec(false).size(), 3U);
}

// Verifies that with shared memory off the services work without the record, with a debug line at each use.
TEST_F(SharedServicesTest, SharedMemoryOff) {
  zol_utils::shared_mem_enabled = false;
  LogCapture log;
  const Services services(true, true);
  reload({{1, "net-1", "one.example"}});
  EXPECT_EQ(services.get_by_service_id(2, true).logical_network_id, "net-2");
  EXPECT_EQ(log.count(std::string("Shared memory disabled for: ") + record_type), 3) << log.all();
  EXPECT_EQ(record->data->block[0], 0);
}

// Verifies that a missing record costs error lines only.
TEST_F(ServicesTest, MissingRecord) {
  LogCapture log;
  const Services services(true, true);
  reload({{1, "net-1", "one.example"}});
  EXPECT_EQ(services.get_by_service_id(2, true).logical_network_id, "net-2");
  EXPECT_TRUE(log.contains(log_level::error, "FATAL: Failed to open SharedObject shm")) << log.all();
}

// Verifies that a lock that can't be had is logged with the function that asked.
TEST_F(SharedServicesTest, LockFails) {
  sem_wait(&record->data->header.lock);
  record->data->header.owner_pid = getppid();
  zol_utils::shared_lock_wait_ms = 10;
  LogCapture log;
  const Services services(true, true);
  zol_utils::shared_lock_wait_ms = 200;
  const std::string text = std::string(": Failed locking shared memory for ") + record_type + " object";
  EXPECT_TRUE(log.contains(log_level::error, "Services" + text)) << log.all();
  EXPECT_TRUE(log.contains(log_level::error, "reconfigure" + text)) << log.all();
  EXPECT_EQ(services.get_service_vec(false).size(), 3U);
}

// Verifies that a record that couldn't be read at the start isn't overwritten before it has been taken over.
TEST_F(SharedServicesTest, LockFailsAtTheStart) {
  {
    const Services earlier(true, true);
    reload({{3, "net-3", "former.example"}});
    reload({{1, "net-1", "one.example"}});
  }
  sem_wait(&record->data->header.lock);
  record->data->header.owner_pid = getppid();
  zol_utils::shared_lock_wait_ms = 10;
  config.set(config_text({{3, "net-3", "three.example"}}));
  const Services services(true, true);
  zol_utils::shared_lock_wait_ms = 200;
  sem_post(&record->data->header.lock);
  reload({{4, "net-4", "four.example"}});
  const Services next(true, true);
  for (const Services* each : {&services, &next}) {
    EXPECT_EQ(each->get_by_service_id(2, true).logical_network_id, "net-2");
    EXPECT_EQ(each->get_by_service_id(3, true).host, "three.example") << "the newer one";
    EXPECT_EQ(each->get_service_vec(true).size(), 4U);
  }
}

// Verifies that a configured or historical public entry keeps its id.
TEST_F(SharedServicesTest, AllocKnownEntries) {
  Services services(true, true);
  EXPECT_EQ(services.alloc_service_id("p2", 80), 2);
  reload({{1, "net-1", "one.example"}});
  EXPECT_EQ(services.alloc_service_id("p2", 80), 2);
  EXPECT_EQ(services.alloc_service_id("p9", 80), 9);
}

// Verifies that a new entry gets the next id above all current and historical ones, and keeps it.
TEST_F(SharedServicesTest, AllocNewEntries) {
  Services services(true, true);
  EXPECT_EQ(services.alloc_service_id("new", 80), 10);
  EXPECT_EQ(services.alloc_service_id("p2", 81), 11);
  EXPECT_EQ(services.alloc_service_id("new", 80), 10);
  reload({{1, "net-1", "one.example"}});
  EXPECT_EQ(services.alloc_service_id("newer", 80), 10);
}

// Verifies that ids wrap at 8 bits.
TEST_F(SharedServicesTest, AllocWraps) {
  config.set(config_text({{255, "net", "host.example"}}));
  Services services(true, true);
  EXPECT_EQ(services.alloc_service_id("new", 80), 0);
  EXPECT_EQ(services.alloc_service_id("newer", 80), 1);
}

// Verifies that the services of another version are kept apart and given back without the used ones.
TEST_F(SharedServicesTest, DualZolServices) {
  Services services(true, true);
  const auto saved = services.get_service_vec(false);
  services.dual_zol_save_services(saved);
  const auto left = services.dual_zol_remove_used_services({saved[0]});
  ASSERT_EQ(left.size(), 2U);
  EXPECT_EQ(left[0].service_id, 2);
  EXPECT_EQ(services.get_service_vec(true).size(), 3U);
}

// Runs the action in a child whose /run/zol names another version as the active one; its exit status.
int run_as_inactive_version(const std::function<bool()>& action) {
  const pid_t pid = fork();
  if (pid == 0) {
    std::error_code ignored;
    std::filesystem::create_directories("/run/zol", ignored);
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/run/zol", "tmpfs", 0, nullptr) != 0)
      _exit(77);
    std::ofstream("/run/zol/active_version") << "another-version\n";
    _exit(!zol_utils::DualZOLHelper::instance()->zol_is_running() && action() ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Verifies that an instance of an inactive version has no services, takes nothing from the record and leaves
// it alone, and that its new ids begin at 1 or are those that the other version has saved.
TEST_F(SharedServicesTest, InactiveVersion) {
  if (geteuid() != 0)
    GTEST_SKIP() << "a mount namespace of its own needs root";
  {
    const Services active(true, true);
    reload({{1, "net-1", "one.example"}, {9, "default", "unmarked.example"}});
  }
  const ZolHistoricServices before = *record->data;
  const int status = run_as_inactive_version([] {
    Services services(true, true);
    const bool empty = services.get_service_vec(true).empty();
    Service other;
    other.service_id = 44;
    other.public_host = "p44";
    other.external_port_in = 80;
    services.dual_zol_save_services({other});
    return empty && services.alloc_service_id("p44", 80) == 44 && services.alloc_service_id("new", 80) == 1;
  });
  if (status == 77)
    GTEST_SKIP() << "the kernel refuses a mount namespace";
  EXPECT_EQ(status, 0);
  EXPECT_EQ(std::memcmp(record->data->block, before.block, sizeof(before.block)), 0);
}

// Verifies that a version that becomes active while it runs takes over what was stored before it stores.
TEST_F(SharedServicesTest, BecomesActive) {
  if (geteuid() != 0)
    GTEST_SKIP() << "a mount namespace of its own needs root";
  {
    const Services earlier(true, true);
    reload({{1, "net-1", "one.example"}});
  }
  const int status = run_as_inactive_version([] {
    Services services(true, true);
    std::filesystem::remove("/run/zol/active_version");
    services.reconfigure();
    const Services next(true, true);
    return services.get_by_service_id(2, true).logical_network_id == "net-2" &&
           next.get_by_service_id(2, true).logical_network_id == "net-2";
  });
  if (status == 77)
    GTEST_SKIP() << "the kernel refuses a mount namespace";
  EXPECT_EQ(status, 0);
}

// Verifies that a version that becomes inactive keeps its tables over a reload.
TEST_F(SharedServicesTest, BecomesInactive) {
  if (geteuid() != 0)
    GTEST_SKIP() << "a mount namespace of its own needs root";
  Services services(true, true);
  config.set(config_text({{1, "net-1", "one.example"}}));
  const int status = run_as_inactive_version([&] {
    services.reconfigure();
    return services.get_service_vec(false).size() == 3 && services.alloc_service_id("new", 80) == 1;
  });
  if (status == 77)
    GTEST_SKIP() << "the kernel refuses a mount namespace";
  EXPECT_EQ(status, 0);
}

}  // namespace
