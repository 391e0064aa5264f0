#include "stats/machine_cpu_stats.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "stats_fixture.h"
#include "sup_logger.h"
#include "tests/support/config_fixture.h"
#include "tests/unit/reporting/event_clock.h"
#include "zol_helper.h"

namespace {

bool is_mutex_refused = false;

extern "C" int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
extern "C" int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
  return is_mutex_refused ? EAGAIN : __real_pthread_mutex_init(mutex, attributes);
}

using testing::IsEmpty;
using testing::SizeIs;
using zol_monitor::CPUStat;
using zol_monitor::CPUStatSampler;
using zol_test::FakeProc;
using zol_test::ScopedConfig;

const char* const config_text = "General: { max_thread_runtime_ms = 60000; };";

// A sampler without a thread, whose samples the test takes itself.
class IdleSampler : public CPUStatSampler {
 public:
  IdleSampler() : CPUStatSampler(NotStarted{}) {}
};

// As if this thread's last sample had been so long ago.
void set_last_sample(long milliseconds_ago) {
  timespec& previous = CPUStatSampler::previous_sample;
  zol::Helper::get_clock(previous);
  previous.tv_sec -= milliseconds_ago / 1000;
  previous.tv_nsec -= milliseconds_ago % 1000 * 1000000;
  if (previous.tv_nsec < 0) {
    previous.tv_nsec += 1000000000;
    --previous.tv_sec;
  }
}

class CPUStatSamplerTest : public zol_test::StatsFixture {};

struct Stats {
  int skew = -1;
  double average = -1;
  double variance = -1;
  int count = -1;

  explicit Stats(CPUStatSampler& sampler) { sampler.get_stats(skew, average, variance, count); }
};

// --- one sample ---

TEST_F(CPUStatSamplerTest, first_sample) {
  // Verifies that the first sample holds the share since boot, and that the readings are remembered.
  IdleSampler sampler;
  sampler.add_stats(50, 1000);
  ASSERT_THAT(sampler.samples, SizeIs(1));
  EXPECT_DOUBLE_EQ(sampler.samples[0].steal_pc, 5.0);
  EXPECT_EQ(sampler.samples[0].clock_skew_ms, 0);
  EXPECT_EQ(sampler.last_steal, 50U);
  EXPECT_EQ(sampler.last_total, 1000U);
  EXPECT_TRUE(log_.contains(log_level::trace, "add_stats: CPU steal%: 5, clock skew 0"));
}

TEST_F(CPUStatSamplerTest, later_samples) {
  // Verifies that a later sample holds the share of its interval, also when nothing was taken.
  IdleSampler sampler;
  sampler.add_stats(50, 1000);
  sampler.add_stats(75, 1100);
  sampler.add_stats(75, 1200);
  ASSERT_THAT(sampler.samples, SizeIs(3));
  EXPECT_DOUBLE_EQ(sampler.samples[1].steal_pc, 25.0);
  EXPECT_EQ(sampler.samples[2].steal_pc, 0.0);
}

TEST_F(CPUStatSamplerTest, no_time) {
  // Verifies that an interval of no ticks counts as one tick and is told.
  IdleSampler sampler;
  sampler.add_stats(50, 1000);
  EXPECT_FALSE(log_.contains("uptime interval is zero"));
  sampler.add_stats(52, 1000);
  EXPECT_TRUE(log_.contains(log_level::info, "add_stats: uptime interval is zero"));
  EXPECT_DOUBLE_EQ(sampler.samples[1].steal_pc, 200.0);
  sampler.add_stats(52, 1000);
  EXPECT_EQ(sampler.samples[2].steal_pc, 0.0);
}

TEST_F(CPUStatSamplerTest, steal_runs_back) {
  // Verifies that a counter that has become smaller is logged as the greatest int.
  IdleSampler sampler;
  sampler.add_stats(50, 1000);
  sampler.add_stats(40, 1100);
  EXPECT_TRUE(log_.contains(log_level::trace, "add_stats: CPU steal%: 2147483647, clock skew 0"));
}

TEST_F(CPUStatSamplerTest, bounded) {
  // Verifies that five minutes without a report leave the last 120 samples.
  IdleSampler sampler;
  for (unsigned second = 1; second <= 300; ++second)
    sampler.add_stats(0, second * 100);
  EXPECT_THAT(sampler.samples, SizeIs(120));
  sampler.samples.front().steal_pc = 77;
  sampler.add_stats(1, 30100);
  EXPECT_THAT(sampler.samples, SizeIs(120));
  EXPECT_EQ(sampler.samples.front().steal_pc, 0.0);
  EXPECT_DOUBLE_EQ(sampler.samples.back().steal_pc, 1.0);
  EXPECT_EQ(Stats(sampler).count, 120);
}

// --- the kernel's file ---

TEST_F(CPUStatSamplerTest, reading) {
  // Verifies that steal and the total without the guests' columns are taken from the machine's line.
  FakeProc proc;
  proc.write("stat", "cpu0 1 1 1 1 1 1 1 1 1 1\ncpu  10 20 30 40 50 60 70 80 1000 2000\n");
  IdleSampler sampler;
  sampler.retrive_stats();
  EXPECT_EQ(sampler.last_steal, 80U);
  EXPECT_EQ(sampler.last_total, 360U);
  ASSERT_THAT(sampler.samples, SizeIs(1));
  EXPECT_DOUBLE_EQ(sampler.samples[0].steal_pc, 80.0 / 360 * 100);
}

TEST_F(CPUStatSamplerTest, no_file) {
  // Verifies that a missing file is told with its path.
  FakeProc proc;
  IdleSampler sampler;
  sampler.retrive_stats();
  EXPECT_THAT(sampler.samples, IsEmpty());
  EXPECT_TRUE(log_.contains(log_level::error, "retrive_stats: Couldn't open " + proc.folder() + "/stat"));
  EXPECT_TRUE(log_.contains(log_level::error, "No such file or directory"));
}

TEST_F(CPUStatSamplerTest, no_line) {
  // Verifies that a file without the machine's line gives no sample, without a word.
  FakeProc proc;
  IdleSampler sampler;
  for (const char* text : {"", "cpu0 1 2 3 4 5 6 7 8 9 10\n", "cpu"}) {
    proc.write("stat", text);
    sampler.retrive_stats();
  }
  EXPECT_THAT(sampler.samples, IsEmpty());
  EXPECT_FALSE(log_.contains(log_level::error, ""));
}

TEST_F(CPUStatSamplerTest, bad_line) {
  // Verifies that a line that is short or no numbers is told and gives no sample.
  FakeProc proc;
  IdleSampler sampler;
  for (const char* text : {"cpu  1 2 3 4 5 6 7 8 9\n", "cpu  1 2 3 x 5 6 7 8 9 10\n", "cpu ", "cpu  \n"}) {
    log_.clear();
    proc.write("stat", text);
    sampler.retrive_stats();
    EXPECT_TRUE(log_.contains(log_level::error,
                              "retrive_stats: An error occurred while trying to parse the CPU stats: "))
        << text;
  }
  EXPECT_THAT(sampler.samples, IsEmpty());
}

TEST_F(CPUStatSamplerTest, long_lines) {
  // Verifies that lines beyond the buffer before the machine's line don't hide it.
  FakeProc proc;
  proc.write("stat", std::string(20000, '7') + "\ncpu  10 20 30 40 50 60 70 80 90 100\n");
  IdleSampler sampler;
  sampler.retrive_stats();
  EXPECT_EQ(sampler.last_steal, 80U);
}

TEST_F(CPUStatSamplerTest, real_machine) {
  // Verifies that this machine's own line is read.
  IdleSampler sampler;
  sampler.retrive_stats();
  ASSERT_THAT(sampler.samples, SizeIs(1));
  EXPECT_GT(sampler.last_total, 0U);
  EXPECT_GE(sampler.samples[0].steal_pc, 0.0);
  EXPECT_LE(sampler.samples[0].steal_pc, 100.0);
}

// --- the clock ---

TEST_F(CPUStatSamplerTest, clock_skew) {
  // Verifies that what the time between samples exceeds a second by is the skew, and is told.
  IdleSampler sampler;
  EXPECT_EQ(sampler.get_clock_skew(), 0);
  EXPECT_EQ(sampler.get_clock_skew(), 0);
  EXPECT_FALSE(log_.contains("Clock skew detected"));
  set_last_sample(3500);
  const int skew = sampler.get_clock_skew();
  EXPECT_GE(skew, 2500);
  EXPECT_LT(skew, 60000);
  EXPECT_TRUE(log_.contains(log_level::warning,
                            "get_clock_skew: Clock skew detected: " + std::to_string(skew) + " msec"));
  set_last_sample(3500);
  sampler.add_stats(0, 100);
  EXPECT_GE(sampler.samples.back().clock_skew_ms, 2500);
}

TEST_F(CPUStatSamplerTest, exact_skews) {
  // Verifies that a second between samples is no skew, that each millisecond beyond it is, and that a report
  // has the sum of them.
  zol_test::EventClock clock;
  IdleSampler sampler;
  unsigned long long total = 0;
  for (const int between_ms : {0, 1000, 1001, 999, 3500, 1, 61000}) {
    clock.advance_ms(between_ms);
    sampler.add_stats(0, total += 100);
    EXPECT_EQ(sampler.samples.back().clock_skew_ms, between_ms > 1000 ? between_ms - 1000 : 0) << between_ms;
  }
  EXPECT_EQ(log_.count("get_clock_skew: Clock skew detected: "), 3);
  EXPECT_TRUE(log_.contains(log_level::warning, "get_clock_skew: Clock skew detected: 1 msec"));
  EXPECT_TRUE(log_.contains(log_level::warning, "get_clock_skew: Clock skew detected: 2500 msec"));
  EXPECT_EQ(Stats(sampler).skew, 1 + 2500 + 60000);
}

TEST_F(CPUStatSamplerTest, no_clock) {
  // Verifies that a clock that can't be read is no skew, and that the time until the next reading counts.
  zol_test::EventClock clock;
  IdleSampler sampler;
  sampler.get_clock_skew();
  clock.advance_ms(2000);
  clock.is_broken = true;
  EXPECT_EQ(sampler.get_clock_skew(), 0);
  clock.is_broken = false;
  clock.advance_ms(1000);
  EXPECT_EQ(sampler.get_clock_skew(), 2000);
}

// --- what is told of the samples ---

TEST_F(CPUStatSamplerTest, variance) {
  // Verifies mean, sum of skews and the population variance.
  double mean = -1;
  int skew = -1;
  EXPECT_DOUBLE_EQ(CPUStatSampler::calc_variance(
                       {{2, 5}, {4, 0}, {4, 7}, {4, 0}, {5, 0}, {5, 0}, {7, 0}, {9, 0}}, mean, skew),
                   4.0);
  EXPECT_DOUBLE_EQ(mean, 5.0);
  EXPECT_EQ(skew, 12);
  EXPECT_EQ(CPUStatSampler::calc_variance({{3, 1}}, mean, skew), 0.0);
  EXPECT_DOUBLE_EQ(mean, 3.0);
  EXPECT_EQ(CPUStatSampler::calc_variance({}, mean, skew), 0.0);
  EXPECT_EQ(mean, 0.0);
  EXPECT_EQ(skew, 0);
}

TEST_F(CPUStatSamplerTest, stats) {
  // Verifies that the samples are condensed and consumed, and that without any the outputs are left alone.
  IdleSampler sampler;
  sampler.samples = {{1, 10}, {3, 20}};
  const Stats first(sampler);
  EXPECT_EQ(first.skew, 30);
  EXPECT_DOUBLE_EQ(first.average, 2.0);
  EXPECT_DOUBLE_EQ(first.variance, 1.0);
  EXPECT_EQ(first.count, 2);
  EXPECT_TRUE(log_.contains(log_level::debug, "get_stats: CPU avg steal%: 2, variance: 1, clock skew: 30ms"));
  const Stats second(sampler);
  EXPECT_EQ(second.skew, -1);
  EXPECT_EQ(second.average, -1.0);
  EXPECT_EQ(second.variance, -1.0);
  EXPECT_EQ(second.count, -1);
  EXPECT_TRUE(log_.contains(log_level::debug, "get_stats: No results"));
}

// --- the mutex ---

TEST_F(CPUStatSamplerTest, no_mutex) {
  // Verifies that a mutex that can't be made is told.
  is_mutex_refused = true;
  const IdleSampler sampler;
  is_mutex_refused = false;
  EXPECT_TRUE(log_.contains(log_level::fatal,
                            "Failed to initialize pthread mutex: 11 : Resource temporarily unavailable"));
}

TEST_F(CPUStatSamplerTest, lock_failures) {
  // Verifies that a mutex that can't be taken or given up is told, and the samples are left alone.
  IdleSampler sampler;
  sampler.samples = {{1, 10}};
  pthread_mutexattr_t checking;
  pthread_mutexattr_init(&checking);
  pthread_mutexattr_settype(&checking, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_destroy(&sampler.mutex);
  ASSERT_EQ(pthread_mutex_init(&sampler.mutex, &checking), 0);
  pthread_mutexattr_destroy(&checking);
  EXPECT_TRUE(sampler.lock());
  EXPECT_FALSE(sampler.lock());
  EXPECT_TRUE(
      log_.contains(log_level::error, "Failed to lock pthread mutex: 35 : Resource deadlock avoided"));
  sampler.add_stats(1, 2);
  EXPECT_THAT(sampler.samples, SizeIs(1));
  EXPECT_EQ(Stats(sampler).count, -1);
  EXPECT_THAT(sampler.samples, SizeIs(1));
  EXPECT_TRUE(sampler.unlock());
#if !defined(__SANITIZE_THREAD__)  // the sanitizer reports what this does on purpose
  EXPECT_FALSE(sampler.unlock());
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to unlock pthread mutex: 1 : Operation not permitted"));
#endif
}

// --- the thread ---

// Waits until the thread has taken samples; false after a minute without.
bool wait_for_samples(CPUStatSampler& sampler, std::size_t number) {
  for (int pass = 0; pass < 60000; ++pass) {
    if (!sampler.lock())
      return false;
    const bool there = sampler.samples.size() >= number;
    sampler.unlock();
    if (there)
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

TEST_F(CPUStatSamplerTest, thread) {
  // Verifies that the thread samples by itself, a second apart and without a skew of its own making, until it
  // is stopped, and each step is told.
  const ScopedConfig config(config_text);
  const auto before = std::chrono::steady_clock::now();
  {
    CPUStatSampler sampler;
    EXPECT_EQ(sampler.thread.name, "CPU stats sampler");
    EXPECT_TRUE(wait_for_samples(sampler, 2));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(990));
    EXPECT_GE(Stats(sampler).count, 2);
  }
  EXPECT_TRUE(log_.contains(log_level::info, "stop: Stopping sampler"));
  EXPECT_TRUE(log_.contains(log_level::info, "stop: CPU stats sampler stopped"));
}

TEST_F(CPUStatSamplerTest, start_twice) {
  // Verifies that a running sampler isn't started again.
  const ScopedConfig config(config_text);
  CPUStatSampler sampler;
  sampler.start();
  sampler.stop();
  EXPECT_TRUE(log_.contains(log_level::error, "start: Already is running"));
}

TEST_F(CPUStatSamplerTest, restart) {
  // Verifies that a stopped sampler can be stopped again, and started again.
  const ScopedConfig config(config_text);
  CPUStatSampler sampler;
  EXPECT_TRUE(wait_for_samples(sampler, 1));
  sampler.stop();
  sampler.stop();
  EXPECT_EQ(log_.count("stop: Stopping sampler"), 1);
  EXPECT_GE(Stats(sampler).count, 1);
  sampler.start();
  EXPECT_TRUE(wait_for_samples(sampler, 1));
  sampler.stop();
  EXPECT_FALSE(log_.contains("Already is running"));
}

TEST_F(CPUStatSamplerTest, stop_wakes) {
  // Verifies that a stop doesn't wait for the end of the sleep: ten of them take less than a sleep each.
  const ScopedConfig config(config_text);
  const auto before = std::chrono::steady_clock::now();
  for (int i = 0; i < 10; ++i) {
    CPUStatSampler sampler;
    EXPECT_TRUE(wait_for_samples(sampler, 1));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(9));
}

TEST_F(CPUStatSamplerTest, no_run_time_limit) {
  // Verifies that the missing setting of the thread's run time is fatal.
  const ScopedConfig config("General: { };");
  EXPECT_THROW(CPUStatSampler(), std::runtime_error);
}

TEST_F(CPUStatSamplerTest, reports_while_sampling) {
  // Verifies that no sample is lost or told twice while one thread adds and another takes.
  IdleSampler sampler;
  constexpr int number = 20000;
  int told = 0;
  bool is_done = false;
  std::thread adding([&sampler] {
    for (int i = 1; i <= number; ++i) {
      while (sampler.lock() && sampler.samples.size() >= CPUStatSampler::max_samples) {
        sampler.unlock();
        std::this_thread::yield();
      }
      sampler.unlock();
      sampler.add_stats(0, static_cast<unsigned long long>(i) * 100);
    }
  });
  while (!is_done) {
    const Stats taken(sampler);
    told += taken.count > 0 ? taken.count : 0;
    is_done = told >= number;
    std::this_thread::yield();
  }
  adding.join();
  EXPECT_EQ(told, number);
  EXPECT_EQ(Stats(sampler).count, -1);
}

}  // namespace
