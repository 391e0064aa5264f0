// What the hypervisor does to this machine: CPU time that it takes away (the steal column of /proc/stat) and
// stops of the whole machine (delays of the clock), sampled once a second by a thread of its own.
//
// Who reports takes what has been sampled since the last report. At most the last 120 samples are kept.
//
// Logs under "CPUStatSampler". get_stats is the main thread's; the mutex guards `samples`, everything else
// belongs to the sampler's thread while it runs.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <ctime>
#include <semaphore>
#include <vector>

#include "core/zol_thread.h"

namespace zol_monitor {

struct CPUStat {
  double steal_pc;    // percent of the time since the last sample
  int clock_skew_ms;  // by how much that time exceeded a second
};

class CPUStatSampler {
 public:
  static constexpr std::size_t max_samples = 120;

  // Starts the thread. Throws std::runtime_error when General.max_thread_runtime_ms is missing.
  CPUStatSampler();
  // Stops the thread and waits for it; a sleeping one ends at once.
  virtual ~CPUStatSampler();
  CPUStatSampler(const CPUStatSampler&) = delete;
  CPUStatSampler& operator=(const CPUStatSampler&) = delete;

  void start();
  void stop();
  // What the thread does over and over: a sample, and a second's sleep.
  static void run(void* self);

  // Reads the machine's CPU line and adds a sample. Logs and adds none when there is no such line.
  void retrive_stats();
  // Adds a sample from absolute readings, in ticks. The first one compares against 0, that is, since boot.
  void add_stats(unsigned long long steal, unsigned long long total);
  // Milliseconds beyond a second since the last call in this thread.
  int get_clock_skew();

  // Takes all samples: the sum of the skews, mean and variance of the steal percentages, their number.
  // Without samples the four keep their values.
  void get_stats(int& clock_skew_ms, double& steal_average, double& steal_variance, int& num_of_samples);
  // The population variance of the steal percentages; 0 without samples.
  static double calc_variance(const std::vector<CPUStat>& samples, double& mean, int& skew_sum);

  // True on success; a failure is logged.
  bool lock();
  bool unlock();

  pthread_mutex_t mutex{};
  zol::Thread thread;
  std::uint64_t last_steal = 0;
  std::uint64_t last_total = 0;
  std::vector<CPUStat> samples;
  // When the calling thread took its last sample, zero before the first: each sampler's thread has its own.
  static inline thread_local timespec previous_sample{};

 protected:
  struct NotStarted {};
  explicit CPUStatSampler(NotStarted);

 private:
  std::binary_semaphore end_of_sleep_{0};
};

}  // namespace zol_monitor
