#include "stats/machine_cpu_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "lib/libzolutils/helper_internal.h"
#include "stats_fixture.h"
#include "sup_logger.h"
#include "tests/support/config_fixture.h"
#include "zol_helper.h"

namespace {

using libvariant::Variant;
using testing::UnorderedElementsAre;
using zol_monitor::MachineCpuInfo;
using zol_monitor::read_cpu_idle_time;
using zol_test::FakeProc;
using zol_test::ScopedConfig;

class MachineCpuInfoTest : public zol_test::StatsFixture {
 protected:
  // As if the last reading had been so many ticks ago.
  static void set_last_reading(double ticks_ago, std::uint64_t idle) {
    MachineCpuInfo::previous_ticks = static_cast<double>(zol::Helper::get_timestamp_ms()) / 10.0 - ticks_ago;
    MachineCpuInfo::previous_idle = idle;
  }
};

std::vector<std::string> keys_of(const Variant& map) {
  std::vector<std::string> keys;
  map.ForEach([&keys](std::string_view key, const Variant&) { keys.emplace_back(key); });
  return keys;
}

// The folder in which the versions of the node's programs are told, while it lives.
class TwoVersions {
 public:
  TwoVersions() : former_(zol_utils::run_folder()) {
    proc_.write("instances/zol_monitor-1.0.0.pid", "");
    proc_.write("instances/zol_monitor-1.1.0.pid", "");
    zol_utils::set_run_folder(proc_.folder());
  }
  ~TwoVersions() { zol_utils::set_run_folder(former_); }
  TwoVersions(const TwoVersions&) = delete;
  TwoVersions& operator=(const TwoVersions&) = delete;

 private:
  FakeProc proc_;
  std::string former_;
};

// --- idle ticks ---

TEST_F(MachineCpuInfoTest, idle_time) {
  // Verifies that the fourth column of the machine's line is taken, also when the others are great.
  FakeProc proc;
  proc.write("stat", "cpu  99999999999 2 3 18000000000000000000 5 6 7 8 9 10\ncpu0 1 2 3 4 5 6 7 8 9 10\n");
  unsigned long long idle = 0;
  EXPECT_TRUE(read_cpu_idle_time(idle));
  EXPECT_EQ(idle, 18000000000000000000ULL);
}

TEST_F(MachineCpuInfoTest, no_idle_time) {
  // Verifies that no file, a short line and another first line give nothing.
  FakeProc proc;
  unsigned long long idle = 17;
  EXPECT_FALSE(read_cpu_idle_time(idle));
  for (const char* text : {"", "cpu  1 2 3\n", "cpu  1 2 x 4\n", "intr 1 2 3 4\n"}) {
    proc.write("stat", text);
    EXPECT_FALSE(read_cpu_idle_time(idle)) << text;
  }
  EXPECT_EQ(idle, 17U);
}

// --- usage ---

TEST_F(MachineCpuInfoTest, first_reading) {
  // Verifies that the first reading of the program is 0 and is remembered for all instances.
  FakeProc proc;
  proc.write("stat", "cpu  1 2 3 4000 5 6 7 8 9 10\n");
  MachineCpuInfo info(false);
  info.usage = 7;
  EXPECT_TRUE(info.read_cpu());
  EXPECT_EQ(info.usage, 0.0);
  EXPECT_EQ(MachineCpuInfo::previous_idle, 4000U);
  EXPECT_NEAR(MachineCpuInfo::previous_ticks, static_cast<double>(zol::Helper::get_timestamp_ms()) / 10,
              6000);
  EXPECT_FALSE(log_.contains("Total CPU usage"));
}

TEST_F(MachineCpuInfoTest, usage) {
  // Verifies that usage is what isn't idle of the time that has gone by on all cores, and is shared.
  zol_utils::ZolStatusData& status = status_record();
  FakeProc proc;
  MachineCpuInfo info(false);
  info.num_of_cores = 4;
  set_last_reading(1000000, 500000);
  proc.write("stat", "cpu  1 2 3 3500000 5 6 7 8 9 10\n");
  EXPECT_TRUE(info.read_cpu());
  EXPECT_NEAR(info.usage, 25.0, 0.5);
  EXPECT_EQ(status.cpu_usage, info.usage);
  EXPECT_EQ(MachineCpuInfo::previous_idle, 3500000U);
  EXPECT_TRUE(log_.contains(log_level::debug, "read_cpu: Total CPU usage: "));
  EXPECT_FALSE(log_.contains("Negative"));
}

TEST_F(MachineCpuInfoTest, negative_usage) {
  // Verifies that more idle time than has gone by is told, and isn't clamped.
  zol_utils::ZolStatusData& status = status_record();
  FakeProc proc;
  MachineCpuInfo info(false);
  info.num_of_cores = 1;
  set_last_reading(1000000, 0);
  proc.write("stat", "cpu  1 2 3 2000000 5 6 7 8 9 10\n");
  EXPECT_TRUE(info.read_cpu());
  EXPECT_NEAR(info.usage, -100.0, 1.0);
  EXPECT_EQ(status.cpu_usage, info.usage);
  EXPECT_TRUE(log_.contains(log_level::error, "Negative total machine CPU usage: = -"));
  EXPECT_TRUE(log_.contains("Timestamp difference = 1e+06 CPU idle time difference = 2000000")) << log_.all();
}

TEST_F(MachineCpuInfoTest, whole_ticks) {
  // Verifies that the time that has gone by counts in whole ticks.
  FakeProc proc;
  proc.write("stat", "cpu  1 2 3 200000 5 6 7 8 9 10\n");
  MachineCpuInfo info(false);
  set_last_reading(100.25, 0);
  EXPECT_TRUE(info.read_cpu());
  const std::string log = log_.all();
  const std::size_t place = log.find("Timestamp difference = ");
  ASSERT_NE(place, std::string::npos) << log;
  std::istringstream words(log.substr(place));
  std::string number;
  words >> number >> number >> number >> number;
  EXPECT_GE(std::stol(number), 100) << log;
  EXPECT_EQ(number.find_first_not_of("0123456789"), std::string::npos) << number;
}

TEST_F(MachineCpuInfoTest, clock_set_back) {
  // Verifies that a clock that was set back by an hour gives a finite figure and is followed.
  FakeProc proc;
  MachineCpuInfo info(false);
  set_last_reading(-360000, 100);
  proc.write("stat", "cpu  1 2 3 200 5 6 7 8 9 10\n");
  EXPECT_TRUE(info.read_cpu());
  EXPECT_GE(info.usage, 100.0);
  EXPECT_LT(info.usage, 101.0);
}

TEST_F(MachineCpuInfoTest, two_readings_at_once) {
  // Verifies that readings within one tick don't divide by zero: each leaves a share or the figure before.
  FakeProc proc;
  proc.write("stat", "cpu  1 2 3 200 5 6 7 8 9 10\n");
  MachineCpuInfo info(false);
  for (int i = 0; i < 1000; ++i) {
    ASSERT_TRUE(info.read_cpu());
    ASSERT_GE(info.usage, 0.0);
    ASSERT_LE(info.usage, 100.0);
  }
}

TEST_F(MachineCpuInfoTest, locked_record) {
  // Verifies that the figure stands when the shared record's lock can't be had.
  hold_lock();
  FakeProc proc;
  proc.write("stat", "cpu  1 2 3 200 5 6 7 8 9 10\n");
  MachineCpuInfo info(false);
  set_last_reading(1000, 200);
  EXPECT_TRUE(info.read_cpu());
  EXPECT_DOUBLE_EQ(info.usage, 100.0);
  EXPECT_TRUE(log_.contains(log_level::error,
                            "read_cpu: Failed locking shared memory for N9zol_utils13ZolStatusDataE object"));
}

// --- the report ---

TEST_F(MachineCpuInfoTest, report) {
  // Verifies each key of the map, the empty list of cores, and zeros without a sampler.
  MachineCpuInfo info(false);
  EXPECT_EQ(info.sampler, nullptr);
  EXPECT_EQ(info.num_of_cores, static_cast<unsigned long>(sysconf(_SC_NPROCESSORS_ONLN)));
  const Variant report = info.generate_cpu_info_report();
  EXPECT_THAT(keys_of(report), UnorderedElementsAre("total", "num-of-cores", "cores", "cpu-stats"));
  EXPECT_EQ(report.At("total").kind(), Variant::Kind::Double);
  EXPECT_EQ(report.At("num-of-cores").kind(), Variant::Kind::Unsigned);
  EXPECT_EQ(report.At("num-of-cores").AsUnsigned(), info.num_of_cores);
  EXPECT_TRUE(report.At("cores").IsList());
  EXPECT_EQ(report.At("cores").Size(), 0U);
  const Variant& stats = report.At("cpu-stats");
  EXPECT_THAT(keys_of(stats),
              UnorderedElementsAre("steal-average-pc", "steal-variance", "clock-skew-ms", "num-of-samples"));
  EXPECT_EQ(stats.At("steal-average-pc").kind(), Variant::Kind::Double);
  EXPECT_EQ(stats.At("steal-variance").kind(), Variant::Kind::Double);
  EXPECT_EQ(stats.At("clock-skew-ms").kind(), Variant::Kind::Signed);
  EXPECT_EQ(stats.At("num-of-samples").kind(), Variant::Kind::Signed);
  stats.ForEach([](std::string_view key, const Variant& value) { EXPECT_EQ(value.AsDouble(), 0.0) << key; });
}

TEST_F(MachineCpuInfoTest, report_of_samples) {
  // Verifies that the samples since the last report are told, and only once.
  const ScopedConfig config("General: { max_thread_runtime_ms = 60000; };");
  MachineCpuInfo info(true);
  ASSERT_NE(info.sampler, nullptr);
  info.sampler->stop();
  info.sampler->samples = {{10.0, 500}, {20.0, 0}};
  Variant stats = info.generate_cpu_info_report().At("cpu-stats");
  EXPECT_DOUBLE_EQ(stats.At("steal-average-pc").AsDouble(), 15.0);
  EXPECT_DOUBLE_EQ(stats.At("steal-variance").AsDouble(), 25.0);
  EXPECT_EQ(stats.At("clock-skew-ms").AsInt(), 500);
  EXPECT_EQ(stats.At("num-of-samples").AsInt(), 2);
  stats = info.generate_cpu_info_report().At("cpu-stats");
  EXPECT_EQ(stats.At("num-of-samples").AsInt(), 0);
  EXPECT_EQ(stats.At("steal-average-pc").AsDouble(), 0.0);
}

TEST_F(MachineCpuInfoTest, no_report) {
  // Verifies that without the kernel's figures the map is empty, without a word.
  FakeProc nothing;
  MachineCpuInfo info(false);
  EXPECT_EQ(info.generate_cpu_info_report().Size(), 0U);
  EXPECT_FALSE(log_.contains("Couldn't calculate CPU average usage."));
}

TEST_F(MachineCpuInfoTest, dual_installation) {
  // Verifies that where two versions are installed there is a sampler in any case, and a failure is told.
  const ScopedConfig config("General: { max_thread_runtime_ms = 60000; };");
  const TwoVersions installed;
  MachineCpuInfo info(false);
  EXPECT_NE(info.sampler, nullptr);
  info.sampler.reset();
  EXPECT_EQ(info.generate_cpu_info_report().Size(), 0U);
  EXPECT_TRUE(log_.contains(log_level::error, "Couldn't calculate CPU average usage."));
}

TEST_F(MachineCpuInfoTest, no_cores) {
  // Verifies that an unknown number of cores is fatal.
  EXPECT_EQ(MachineCpuInfo::require_cores(3), 3U);
  EXPECT_THROW(
      {
        try {
          MachineCpuInfo::require_cores(0);
        } catch (const std::runtime_error& failure) {
          EXPECT_STREQ(failure.what(), "Could not determine number of CPU cores. Aborting.");
          throw;
        }
      },
      std::runtime_error);
  EXPECT_TRUE(log_.contains(log_level::error, "Could not determine number of CPU cores. Aborting."));
}

}  // namespace
