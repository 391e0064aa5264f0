// Identification records through the dispatcher: new sessions into an empty table and into one of 100,000,
// and records that only refine a session of the table.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/bench_monitor.h"

namespace {

constexpr std::uint32_t batch = 20000;

void new_sessions(benchmark::State& state) {
  auto& monitor = zol_test::lone_monitor();
  const auto held = static_cast<std::uint32_t>(state.range(0));
  std::vector<ipc_session_identification_msg_t> messages;
  for (std::uint32_t n = 0; n < batch; ++n)
    messages.push_back(zol_bench::identification(held + n, false));
  for (auto _ : state) {
    state.PauseTiming();
    zol_test::forget_sessions();
    zol_bench::fill(monitor, 0, held);
    state.ResumeTiming();
    for (auto& msg : messages)
      zol_bench::handle(monitor, msg);
  }
  state.SetItemsProcessed(state.iterations() * batch);
  zol_test::forget_sessions();
}
BENCHMARK(new_sessions)->Arg(0)->Arg(100000)->Unit(benchmark::kMillisecond);

void known_sessions(benchmark::State& state) {
  auto& monitor = zol_test::lone_monitor();
  const auto held = static_cast<std::uint32_t>(state.range(0));
  zol_test::forget_sessions();
  zol_bench::fill(monitor, 0, held);
  std::vector<ipc_session_identification_msg_t> messages;
  for (std::uint32_t n = 0; n < batch; ++n)
    messages.push_back(zol_bench::identification(n * 7919u % held, false));
  for (auto _ : state) {
    for (auto& msg : messages)
      zol_bench::handle(monitor, msg);
  }
  state.SetItemsProcessed(state.iterations() * batch);
  zol_test::forget_sessions();
}
BENCHMARK(known_sessions)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
