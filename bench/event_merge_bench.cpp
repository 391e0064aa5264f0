// A storm of failures at the event queue: each event is of another port and is taken in by the one that
// waits. The making and the end of each event count, as a failure record on the loop costs them. `behind` is
// the same with 100 events before it that take nothing in.
#include <benchmark/benchmark.h>
#include <log4cpp/Category.hh>

#include <cstddef>
#include <cstdint>

#include "reporting/zol_event_types.h"
#include "reporting/zol_events.h"
#include "sup_logger.h"
#include "tests/support/lone_monitor.h"

namespace {

constexpr std::size_t queue_before = 100;

void prepare() {
  static const bool ready = [] {
    zol_test::lone_config();
    log4cpp::Category::getRoot().setPriority(log4cpp::Priority::ERROR);
    SupLogger::get_instance("ZOLEvents").refresh_threshold();
    return true;
  }();
  static_cast<void>(ready);
}

void merge(benchmark::State& state, std::size_t before) {
  prepare();
  for (auto _ : state) {
    zol_monitor::ZOLEvents events;
    for (std::size_t i = 0; i < before; ++i)
      events.invoke(new zol_monitor::NextHopEvent);
    for (std::int64_t i = 0; i < state.range(0); ++i)
      events.invoke(new zol_monitor::FailuresEvent("192.0.2.1", static_cast<std::uint16_t>(i)));
    if (events.queue.size() != before + 1)
      state.SkipWithError("the events weren't merged");
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void merged(benchmark::State& state) {
  merge(state, 0);
}
BENCHMARK(merged)->RangeMultiplier(10)->Range(1000, 10000)->Unit(benchmark::kMillisecond);

void behind(benchmark::State& state) {
  merge(state, queue_before);
}
BENCHMARK(behind)->RangeMultiplier(10)->Range(1000, 10000)->Unit(benchmark::kMillisecond);

}  // namespace
