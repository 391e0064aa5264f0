#include "stats/machine_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
  MachineInfo info(false);
  const libvariant::Variant report = info.generate_machine_info_id_report();
  EXPECT_THAT(keys_of(report), UnorderedElementsAre("id", "ip_address"));
  EXPECT_EQ(report.At("id").AsString(), "node-7");
  EXPECT_EQ(report.At("ip_address").AsString(), "192.0.2.7");
  const libvariant::Variant whole = info.generate_machine_info_report();
  EXPECT_EQ(whole.At("id").AsString(), "node-7");
  EXPECT_EQ(whole.At("ip_address").AsString(), "192.0.2.7");
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
