// A device of the test's own, whose far end is the test: it reads what the kernel sends there, and what it
// writes arrives there. Linux tuntap.
#pragma once

#include <optional>
#include <string>

#include "lib/common/unique_fd.h"
#include "tests/unit/probes/probe_packets.h"

namespace zol_test {

class TunWire {
 public:
  // The device is up, with the address and a prefix of 24 bits, and goes with the object. Throws
  // std::runtime_error when the process may not.
  TunWire(const std::string& device, const std::string& address);

  // The next IPv4 packet that the kernel has sent to the device; nothing when none comes in a long time.
  std::optional<Bytes> read() const;
  // Whether a packet waits to be read at once.
  bool has_packet() const;
  // The packet arrives at the device.
  void write(const Bytes& packet) const;

 private:
  zol_utils::UniqueFd fd_;
};

}  // namespace zol_test
