// The classic BPF machine of linux/filter.h, as far as the filters here need it.
#pragma once

#include <linux/filter.h>

#include <cstdint>
#include <vector>

#include "tests/unit/probes/probe_packets.h"

namespace zol_test {

struct FilterRun {
  std::uint32_t accepted = 0;        // bytes of the packet; 0 drops it
  std::vector<std::int64_t> loaded;  // the offsets of the loads, in order; packet_type for that of the packet
};

inline constexpr std::int64_t packet_type = -1;

// `type` is the packet's PACKET_ number of linux/if_packet.h. A load from behind the packet drops it, as in
// the kernel. An instruction that it doesn't know, and a leap out of the program, throw std::logic_error.
FilterRun run_filter(const sock_filter* program, std::size_t count, const Bytes& packet, unsigned type);

template <typename Program>
FilterRun run_filter(const Program& program, const Bytes& packet, unsigned type = 0) {
  return run_filter(program.data(), program.size(), packet, type);
}

}  // namespace zol_test
