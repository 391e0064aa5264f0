#include "stats/machine_ram_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "stats_fixture.h"
#include "sup_logger.h"

namespace {

using libvariant::Variant;
using zol_monitor::MachineRamInfo;
using zol_test::FakeProc;

class MachineRamInfoTest : public zol_test::StatsFixture {};

const char* const meminfo =
    "MemTotal:        8000 kB\n"
    "MemFree:         1000 kB\n"
    "MemAvailable:    7777 kB\n"
    "Buffers:          500 kB\n"
    "Cached:          2500 kB\n"
    "SwapCached:      6666 kB\n";

TEST_F(MachineRamInfoTest, report) {
  // Verifies that files and buffers count as free, and that the node's shared figure is the percentage.
  zol_utils::ZolStatusData& status = status_record();
  FakeProc proc;
  proc.write("meminfo", meminfo);
  MachineRamInfo info;
  const Variant report = info.generate_ram_info_report();
  EXPECT_EQ(report.Size(), 2U);
  EXPECT_EQ(report.At("total").AsDouble(), 8000.0);
  EXPECT_EQ(report.At("used").AsDouble(), 4000.0);
  EXPECT_EQ(report.At("total").kind(), Variant::Kind::Double);
  EXPECT_EQ(status.ram_usage, 50.0);
  EXPECT_TRUE(log_.contains(log_level::debug, "read_mem: Total RAM used: 50"));
}

TEST_F(MachineRamInfoTest, no_figures) {
  // Verifies that no file, no total and odd numbers give an empty map, an error line and the last figures.
  zol_utils::ZolStatusData& status = status_record();
  FakeProc proc;
  MachineRamInfo info;
  info.total = 5;
  info.used = 4;
  for (const char* text : {"-", "", "MemTotal: 0 kB\nMemFree: 5 kB\n", "MemFree: 5 kB\n",
                           "MemTotal: many kB\n", "MemTotal: 8000 kB\nCached:"}) {
    log_.clear();
    if (*text != '-')
      proc.write("meminfo", text);
    EXPECT_EQ(info.generate_ram_info_report().Size(), 0U) << text;
    EXPECT_TRUE(log_.contains(log_level::error, "Couldn't read RAM information.")) << text;
    EXPECT_EQ(info.total, 5.0) << text;
    EXPECT_EQ(info.used, 4.0) << text;
  }
  EXPECT_EQ(status.ram_usage, 0.0);
}

TEST_F(MachineRamInfoTest, locked_record) {
  // Verifies that the report is whole when the shared record's lock can't be had.
  hold_lock();
  FakeProc proc;
  proc.write("meminfo", meminfo);
  MachineRamInfo info;
  EXPECT_EQ(info.generate_ram_info_report().At("used").AsDouble(), 4000.0);
  EXPECT_TRUE(log_.contains(log_level::error,
                            "read_mem: Failed locking shared memory for N9zol_utils13ZolStatusDataE object"));
}

TEST_F(MachineRamInfoTest, parameter) {
  // Verifies that one number is read from each word, and a word that is none is told.
  std::istringstream words("12 4.5 kB");
  double value = 0;
  EXPECT_TRUE(MachineRamInfo::read_parameter(words, value));
  EXPECT_EQ(value, 12.0);
  EXPECT_TRUE(MachineRamInfo::read_parameter(words, value));
  EXPECT_EQ(value, 4.5);
  EXPECT_FALSE(MachineRamInfo::read_parameter(words, value));
  EXPECT_FALSE(MachineRamInfo::read_parameter(words, value));
  EXPECT_EQ(value, 4.5);
}

TEST_F(MachineRamInfoTest, real_machine) {
  // Verifies that this machine's own figures are read.
  MachineRamInfo info;
  EXPECT_TRUE(info.read_mem());
  EXPECT_GT(info.used, 0.0);
  EXPECT_LT(info.used, info.total);
}

}  // namespace
