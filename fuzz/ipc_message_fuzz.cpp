// A sequence of IPC messages, each with its 16-bit length (little-endian) before it, through the dispatcher
// into the session table.
#include <cstdint>
#include <vector>

#include "fuzz/quiet_log.h"
#include "tests/support/lone_monitor.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zol_fuzz::quiet_log();
  zol_test::BareMonitor& monitor = zol_test::lone_monitor();
  zol_test::forget_sessions();
  while (size >= 2) {
    const std::size_t wanted = data[0] | data[1] << 8;
    data += 2;
    size -= 2;
    const std::size_t length = wanted < size ? wanted : size;
    std::vector<unsigned char> message(data, data + length);  // its own block, so that an overrun is seen
    monitor.handle_ipc_msg(message.data(), message.size());
    data += length;
    size -= length;
  }
  monitor.sessions.dump();
  return 0;
}
