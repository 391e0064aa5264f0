#include "stats/machine_cpu_stats.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include "stats/proc_folder.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

constexpr std::chrono::seconds sleep_between_samples{1};
constexpr std::int64_t expected_ms = 1000;
constexpr std::size_t line_size = 8192;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("CPUStatSampler");
  return instance;
}

struct CloseFile {
  void operator()(FILE* file) const { std::fclose(file); }
};

// The line of the whole machine; false when there is none.
bool find_cpu_line(FILE* file, std::array<char, line_size>& line) {
  while (std::fgets(line.data(), static_cast<int>(line.size()), file) != nullptr) {
    if (std::strncmp(line.data(), "cpu ", 4) == 0)
      return true;
  }
  return false;
}

void log_mutex_failure(int level, const char* text, int error) {
  SUP_LOG(logger(), level) << text << error << " : " << std::strerror(error);
}

}  // namespace

CPUStatSampler::CPUStatSampler() : CPUStatSampler(NotStarted{}) {
  start();
}

CPUStatSampler::CPUStatSampler(NotStarted) : thread("CPU stats sampler", run, this) {
  const int error = pthread_mutex_init(&mutex, nullptr);
  if (error != 0)
    log_mutex_failure(log_level::fatal, "Failed to initialize pthread mutex: ", error);
  samples.reserve(max_samples + 1);
}

CPUStatSampler::~CPUStatSampler() {
  stop();
  pthread_mutex_destroy(&mutex);
}

void CPUStatSampler::start() {
  if (thread.running) {
    SUP_LOG(logger(), log_level::error) << "start"
                                        << ": Already is running";
    return;
  }
  static_cast<void>(end_of_sleep_.try_acquire());
  try {
    if (thread.start(nullptr) != 0)
      thread.running = false;
  } catch (...) {
    thread.running = false;
    throw;
  }
}

void CPUStatSampler::stop() {
  if (!thread.running)
    return;
  SUP_LOG(logger(), log_level::info) << "stop"
                                     << ": Stopping sampler";
  thread.stop();
  end_of_sleep_.release();
  thread.join();
  SUP_LOG(logger(), log_level::info) << "stop"
                                     << ": CPU stats sampler stopped";
}

void CPUStatSampler::run(void* self) {
  auto* sampler = static_cast<CPUStatSampler*>(self);
  sampler->retrive_stats();
  static_cast<void>(sampler->end_of_sleep_.try_acquire_for(sleep_between_samples));
}

void CPUStatSampler::retrive_stats() {
  const std::string path = proc_file("stat");
  const std::unique_ptr<FILE, CloseFile> file(std::fopen(path.c_str(), "re"));
  if (!file) {
    SUP_LOG(logger(), log_level::error) << "retrive_stats"
                                        << ": Couldn't open " << path << " " << std::strerror(errno);
    return;
  }
  std::array<char, line_size> line{};
  if (!find_cpu_line(file.get(), line))
    return;
  unsigned long long user, nice, system, idle, iowait, irq, softirq, steal, guest, guest_nice;
  constexpr int columns = 10;
  // NOLINTNEXTLINE(cert-err34-c): the kernel's numbers fit
  if (std::sscanf(line.data() + 5, "%llu %llu %llu %llu %llu %llu %llu %llu %llu %llu", &user, &nice, &system,
                  &idle, &iowait, &irq, &softirq, &steal, &guest, &guest_nice) != columns) {
    SUP_LOG(logger(), log_level::error)
        << "retrive_stats"
        << ": An error occurred while trying to parse the CPU stats: " << std::strerror(errno);
    return;
  }
  // Guests' time is part of user and nice already.
  add_stats(steal, user + nice + system + idle + iowait + irq + softirq + steal);
}

void CPUStatSampler::add_stats(unsigned long long steal, unsigned long long total) {
  const std::uint64_t steal_diff = steal - last_steal;
  std::uint64_t total_diff = total - last_total;
  if (total_diff == 0) {
    SUP_LOG(logger(), log_level::info) << "add_stats"
                                       << ": uptime interval is zero";
    total_diff = 1;
  }
  CPUStat sample{};
  if (steal_diff != 0)
    sample.steal_pc = static_cast<double>(steal_diff) / static_cast<double>(total_diff) * 100.0;
  sample.clock_skew_ms = get_clock_skew();
  last_steal = steal;
  last_total = total;
  constexpr double greatest = std::numeric_limits<int>::max();
  SUP_LOG(logger(), log_level::trace)
      << "add_stats"
      << ": CPU steal%: " << static_cast<int>(std::min(sample.steal_pc, greatest)) << ", clock skew "
      << sample.clock_skew_ms;
  if (!lock())
    return;
  samples.push_back(sample);
  if (samples.size() > max_samples)
    samples.erase(samples.begin());
  unlock();
}

int CPUStatSampler::get_clock_skew() {
  timespec& previous = previous_sample;
  timespec now{};
  if (!zol::Helper::get_clock(now))
    return 0;
  int skew = 0;
  if (previous.tv_sec != 0 || previous.tv_nsec != 0) {
    const std::int64_t elapsed = zol::Helper::get_clock_diff_ms(previous, now);
    if (elapsed > expected_ms) {
      skew = static_cast<int>(std::min<std::int64_t>(elapsed - expected_ms, std::numeric_limits<int>::max()));
      SUP_LOG(logger(), log_level::warning) << "get_clock_skew"
                                            << ": Clock skew detected: " << skew << " msec";
    }
  }
  previous = now;
  return skew;
}

void CPUStatSampler::get_stats(int& clock_skew_ms, double& steal_average, double& steal_variance,
                               int& num_of_samples) {
  if (!lock())
    return;
  std::vector<CPUStat> taken;
  taken.reserve(max_samples + 1);
  taken.swap(samples);
  unlock();
  if (taken.empty()) {
    SUP_LOG(logger(), log_level::debug) << "get_stats"
                                        << ": No results";
    return;
  }
  steal_variance = calc_variance(taken, steal_average, clock_skew_ms);
  num_of_samples = static_cast<int>(taken.size());
  SUP_LOG(logger(), log_level::debug)
      << "get_stats"
      << ": CPU avg steal%: " << steal_average << ", variance: " << steal_variance
      << ", clock skew: " << clock_skew_ms << "ms";
}

double CPUStatSampler::calc_variance(const std::vector<CPUStat>& samples, double& mean, int& skew_sum) {
  mean = 0;
  skew_sum = 0;
  if (samples.empty())
    return 0;
  const auto count = static_cast<double>(samples.size());
  std::int64_t skews = 0;
  for (const CPUStat& sample : samples) {
    mean += sample.steal_pc;
    skews += sample.clock_skew_ms;
  }
  mean /= count;
  skew_sum = static_cast<int>(std::min<std::int64_t>(skews, std::numeric_limits<int>::max()));
  double squares = 0;
  for (const CPUStat& sample : samples)
    squares += (sample.steal_pc - mean) * (sample.steal_pc - mean);
  return squares / count;
}

bool CPUStatSampler::lock() {
  const int error = pthread_mutex_lock(&mutex);
  if (error != 0)
    log_mutex_failure(log_level::error, "Failed to lock pthread mutex: ", error);
  return error == 0;
}

bool CPUStatSampler::unlock() {
  const int error = pthread_mutex_unlock(&mutex);
  if (error != 0)
    log_mutex_failure(log_level::error, "Failed to unlock pthread mutex: ", error);
  return error == 0;
}

}  // namespace zol_monitor
