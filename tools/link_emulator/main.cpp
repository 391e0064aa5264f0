// link_emulator: a link between two TUN devices that delays, loses, doubles, reorders and spoils packets by a
// seeded dice, and writes down what it did to each: the truth beside which measurements are held.
#include <sched.h>
#include <sys/mman.h>

#include <cstdio>
#include <exception>

#include "link_emulator/emulator.h"

namespace {

// A place before ordinary processes; false where the machine doesn't grant it.
bool take_realtime() {
  constexpr int low_priority = 10;
  const sched_param parameters{low_priority};
  return sched_setscheduler(0, SCHED_FIFO, &parameters) == 0 && mlockall(MCL_CURRENT | MCL_FUTURE) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  emulator::Options options;
  if (!emulator::parse_options(argc, argv, options))
    return 2;
  try {
    emulator::Emulator link(options);
    const bool realtime = options.realtime && take_realtime();
    printf("{\"event\":\"ready\",\"realtime\":%s}\n", realtime ? "true" : "false");
    fflush(stdout);
    link.run();
    link.print_summary();
    return 0;
  } catch (const std::exception& error) {
    fprintf(stderr, "link_emulator: %s\n", error.what());
    return 1;
  }
}
