#include "stats/machine_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "stats_fixture.h"
#include "sup_logger.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using testing::UnorderedElementsAre;
using zol_monitor::MachineInfo;
using zol_test::LogCapture;
using zol_test::ScopedConfig;

const char* const zol_config = "General: { zol_id = \"node-7\"; external_ip = \"192.0.2.7\"; };";

std::vector<std::string> keys_of(const libvariant::Variant& map) {
  std::vector<std::string> keys;
  map.ForEach([&keys](std::string_view key, const libvariant::Variant&) { keys.emplace_back(key); });
  return keys;
}

TEST(MachineInfoTest, identity) {
  // Verifies that id and address are those of the configuration.
  ScopedConfig config(zol_config);
  LogCapture log;
  const MachineInfo info(false);
  EXPECT_EQ(info.id, "node-7");
  EXPECT_EQ(info.external_ip, "192.0.2.7");
  EXPECT_FALSE(info.is_kpa);
  EXPECT_TRUE(log.contains(log_level::debug, "Updated params: id = node-7, external ip = 192.0.2.7"));
}

TEST(MachineInfoTest, identity_of_kpa) {
  // Verifies that the KPA role has an identity of its own.
  ScopedConfig config(
      "General: { zol_id = \"node-7\"; external_ip = \"192.0.2.7\"; kpa_id = \"kpa-3\"; "
      "kpa_public_ip = \"192.0.2.3\"; };");
  const MachineInfo info(true);
  EXPECT_EQ(info.id, "kpa-3");
  EXPECT_EQ(info.external_ip, "192.0.2.3");
}

TEST(MachineInfoTest, missing_id) {
  // Verifies that without an id both are "N/A", with an error line.
  ScopedConfig config("General: { external_ip = \"192.0.2.7\"; };");
  LogCapture log;
  const MachineInfo info(false);
  EXPECT_EQ(info.id, "N/A");
  EXPECT_EQ(info.external_ip, "N/A");
  EXPECT_TRUE(log.contains(log_level::error, "Failed to reload configuration: "));
}

TEST(MachineInfoTest, missing_address) {
  // Verifies that without an address both are "N/A".
  ScopedConfig config("General: { zol_id = \"node-7\"; };");
  const MachineInfo info(false);
  EXPECT_EQ(info.id, "N/A");
  EXPECT_EQ(info.external_ip, "N/A");
}

TEST(MachineInfoTest, reports) {
  // Verifies that the identity is an object of two keys, and that the machine's report has them.
  ScopedConfig config(zol_config);
  LogCapture log;
  MachineInfo info(false);
  const libvariant::Variant report = info.generate_machine_info_id_report();
  EXPECT_THAT(keys_of(report), UnorderedElementsAre("id", "ip_address"));
  EXPECT_EQ(report.At("id").AsString(), "node-7");
  EXPECT_EQ(report.At("ip_address").AsString(), "192.0.2.7");
  const libvariant::Variant whole = info.generate_machine_info_report();
  EXPECT_EQ(whole.At("id").AsString(), "node-7");
  EXPECT_EQ(whole.At("ip_address").AsString(), "192.0.2.7");
  EXPECT_THAT(keys_of(whole), UnorderedElementsAre("id", "ip_address", "cpu", "ram"));
  EXPECT_THAT(keys_of(whole.At("cpu")), UnorderedElementsAre("total", "num-of-cores", "cores", "cpu-stats"));
  EXPECT_THAT(keys_of(whole.At("ram")), UnorderedElementsAre("total", "used"));
  EXPECT_GT(whole.At("ram").At("used").AsDouble(), 0.0);
  EXPECT_TRUE(log.contains(log_level::info, "print_process_cpu_and_ram: TCP memory consumption is : "));
}

TEST(MachineInfoTest, sampler) {
  // Verifies that the sampler's thread runs for who wants it alone.
  ScopedConfig config(
      "General: { zol_id = \"node-7\"; external_ip = \"192.0.2.7\"; max_thread_runtime_ms = 60000; };");
  EXPECT_EQ(MachineInfo(false).cpu_info.sampler, nullptr);
  EXPECT_NE(MachineInfo(false, true).cpu_info.sampler, nullptr);
}

TEST(MachineInfoTest, tcp_memory) {
  // Verifies that the eleventh word of the line of TCP is told, and that what is no number throws.
  zol_test::FakeCommands commands;
  LogCapture log;
  commands.add("cat",
               "test $1 = /proc/net/sockstat && printf 'sockets: used 13\\nTCP: inuse 1 orphan 2 tw 3 alloc "
               "4 mem 567\\nUDP: inuse 0 mem 9\\n'");
  MachineInfo::print_process_cpu_and_ram();
  EXPECT_TRUE(
      log.contains(log_level::info, "print_process_cpu_and_ram: TCP memory consumption is : 567 bytes"))
      << log.all();
  commands.add("cat", "echo 'TCP: inuse 1 orphan 2 tw 3 alloc 4 mem much'");
  EXPECT_THROW(MachineInfo::print_process_cpu_and_ram(), std::invalid_argument);
  commands.add("cat", "exit 1");
  EXPECT_THROW(MachineInfo::print_process_cpu_and_ram(), std::invalid_argument);
}

TEST(MachineInfoTest, report_without_tcp_memory) {
  // Verifies that the block can't be made when the memory of TCP can't be read: the process is to end with
  // that.
  ScopedConfig config(zol_config);
  zol_test::FakeCommands commands;
  commands.add("cat", "exit 1");
  MachineInfo info(false);
  EXPECT_THROW(info.generate_machine_info_report(), std::invalid_argument);
}

TEST(MachineInfoTest, reload) {
  // Verifies that a reload of the configuration reaches the object, and none does after its end.
  ScopedConfig config(zol_config);
  {
    MachineInfo info(false);
    bool enabled = false;
    EXPECT_TRUE(info.need_reconf(enabled));
    EXPECT_FALSE(enabled);
    config.write_file("General: { zol_id = \"node-8\"; external_ip = \"192.0.2.8\"; };");
    config.configurator().reload_configuration("", 0);
    EXPECT_EQ(info.id, "node-8");
    EXPECT_EQ(info.external_ip, "192.0.2.8");
  }
  LogCapture log;
  config.configurator().reload_configuration("", 0);
  EXPECT_FALSE(log.contains("Updated params"));
}

}  // namespace
