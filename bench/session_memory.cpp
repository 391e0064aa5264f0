// What a live session costs: the process's own size at 0 and at 100,000 sessions of two legs.
#include <malloc.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "bench/bench_monitor.h"

namespace {

constexpr std::uint32_t sessions = 100000;

// Kilobytes that the process holds in memory.
long resident_kb() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == "VmRSS:") {
      long kb = 0;
      status >> kb;
      return kb;
    }
  }
  return 0;
}

}  // namespace

int main() {
  auto& monitor = zol_test::lone_monitor();
  zol_bench::fill(monitor, 0, 1000);  // what the program needs once
  zol_test::forget_sessions();
  malloc_trim(0);
  const long before = resident_kb();
  zol_bench::fill(monitor, 0, sessions);
  const long after = resident_kb();
  const double each = (after - before) * 1024.0 / sessions;
  const auto msg = zol_bench::identification(0, false);
  const auto strings = std::strlen(msg.domain_name) + std::strlen(msg.user_agent);
  std::printf(
      "%u sessions: %ld kB before, %ld kB after, %.0f bytes each, %.0f beyond the text of its strings\n",
      sessions, before, after, each, each - static_cast<double>(strings));
  return monitor.sessions.sessions_by_id.size() == sessions ? 0 : 1;
}
