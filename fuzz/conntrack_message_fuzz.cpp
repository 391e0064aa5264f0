// Netlink messages of the kernel's connection tracking, as one datagram holds them, into the session table.
#include <cstdint>
#include <cstring>
#include <vector>

#include "conntrack/conntrack.h"
#include "fuzz/quiet_log.h"
#include "tests/support/lone_monitor.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zol_fuzz::quiet_log();
  zol_test::BareMonitor& monitor = zol_test::lone_monitor();
  zol_test::forget_sessions();
  // The kernel aligns its messages; the block is as large as the datagram, so that an overrun is seen.
  std::vector<std::uint32_t> block((size + 3) / 4);
  if (size != 0)
    std::memcpy(block.data(), data, size);
  const unsigned char uuid[16] = {1};
  monitor.sessions.set_session_identification(false, 0x0a00000a, 40000, 0, 0, uuid, 0x0a00000a, 40000, 80, 0,
                                              0, 0, false, "", "example.org", false, 0x0b00000b, 80);
  monitor.conntrack.parse_datagram(block.data(), size);
  return 0;
}
