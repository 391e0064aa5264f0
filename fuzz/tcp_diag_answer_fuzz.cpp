// One datagram of the kernel's answer to a request for its TCP sockets.
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/quiet_log.h"
#include "sessions/tcp_diag_decoder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zol_fuzz::quiet_log();
  std::vector<std::uint32_t> block((size + 3) / 4);
  if (size != 0)
    std::memcpy(block.data(), data, size);
  const auto* bytes = reinterpret_cast<const std::byte*>(block.data());
  zol_monitor::ConnStatMap sockets;
  zol_monitor::decode_tcp_diag({bytes, size}, false, sockets);
  return 0;
}
