#include "core/zol_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>

#include "config/zol_configurator.h"
#include "sup_logger.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"

using zol::Thread;
using zol_test::LogCapture;
using zol_test::ScopedConfig;

namespace {

// Lets a test wait until the body has been called so many times.
class Calls {
 public:
  static void body(void* self) { static_cast<Calls*>(self)->count(); }
  static void slow_body(void* self) {
    usleep(15000);
    static_cast<Calls*>(self)->count();
  }
  void wait_for(int number) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return calls_ >= number; });
  }

 private:
  void count() {
    const std::lock_guard lock(mutex_);
    ++calls_;
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  int calls_ = 0;
};

// Verifies that the body runs again and again until the thread is stopped, and that each step is told.
TEST(ZolThread, RunsBodyUntilStopped) {
  const ScopedConfig config("General: { max_thread_runtime_ms = 60000; };");
  LogCapture log;
  Calls calls;
  Thread thread("sampler", Calls::body, &calls);
  EXPECT_FALSE(thread.running);
  EXPECT_FALSE(thread.started);
  ASSERT_EQ(thread.start(nullptr), 0);
  EXPECT_EQ(thread.max_runtime_ms, 60000U);
  calls.wait_for(3);
  EXPECT_TRUE(thread.started);
  EXPECT_TRUE(thread.running);
  EXPECT_EQ(thread.stop(), 0);
  thread.join();
  EXPECT_FALSE(thread.running);
  EXPECT_TRUE(log.contains(log_level::info, "Thread sampler created successfully"));
  EXPECT_TRUE(log.contains(log_level::info, "Stopping thread sampler"));
  EXPECT_TRUE(log.contains(log_level::info, "Thread sampler stopped"));
  EXPECT_FALSE(log.contains("took too long"));
}

// Verifies that a body that takes too long is told by one warning each time, and that the thread goes on.
TEST(ZolThread, SlowBodyIsWarnedOfEachTime) {
  const ScopedConfig config("General: { max_thread_runtime_ms = 1; };");
  LogCapture log;
  Calls calls;
  Thread thread("sampler", Calls::slow_body, &calls);
  ASSERT_EQ(thread.start(nullptr), 0);
  calls.wait_for(3);
  thread.stop();
  thread.join();
  EXPECT_GE(log.count("thread sampler function took too long: "), 3) << log.all();
  EXPECT_TRUE(log.contains(log_level::warning, " ms"));
}

// Verifies that the configuration that is handed in is the one that is read.
TEST(ZolThread, TakesGivenConfiguration) {
  ScopedConfig given("General: { max_thread_runtime_ms = 17; };");
  zol::TheConfigurator::set_configurator(nullptr);
  Calls calls;
  Thread thread("given", Calls::body, &calls);
  ASSERT_EQ(thread.start(&given.configurator()), 0);
  EXPECT_EQ(thread.max_runtime_ms, 17U);
  thread.stop();
  thread.join();
}

// Verifies that a missing time limit is fatal and that no thread runs then.
TEST(ZolThread, MissingLimitThrows) {
  const ScopedConfig config("General: { };");
  Thread thread("sampler", Calls::body, nullptr);
  EXPECT_THAT([&] { thread.start(nullptr); },
              testing::ThrowsMessage<std::runtime_error>(
                  "ERROR couldn't find the critical configuration parameter: max_thread_runtime"));
  EXPECT_FALSE(thread.started);
}

// Verifies that a thread without a body loops and can be stopped.
TEST(ZolThread, NullBodyIsAllowed) {
  const ScopedConfig config("General: { max_thread_runtime_ms = 60000; };");
  Thread thread("idle", nullptr, nullptr);
  ASSERT_EQ(thread.start(nullptr), 0);
  while (!thread.started)
    sched_yield();
  thread.stop();
  thread.join();
  EXPECT_FALSE(thread.running);
}

// Verifies that a join that fails is told.
TEST(ZolThread, FailedJoinIsLogged) {
  LogCapture log;
  Thread thread("self", nullptr, nullptr);
  thread.thread = pthread_self();
  thread.join();
  EXPECT_TRUE(log.contains(log_level::error, "Thread join failed.")) << log.all();
}

}  // namespace
