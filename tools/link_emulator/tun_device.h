// A TUN device (IPv4 packets without a header in front), see the kernel's networking/tuntap documentation.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace emulator {

class TunDevice {
 public:
  // `place` is "DEVICE", or "NAMESPACE:DEVICE" for a device in a named network namespace (ip-netns(8)). The
  // device goes with this object. Throws std::system_error.
  explicit TunDevice(const std::string& place);

  int fd() const { return fd_.get(); }  // non-blocking
  // The next packet that the kernel sends out of the device; false when none waits.
  bool receive(std::vector<unsigned char>& packet);
  // Hands a packet to the kernel as arrived on the device; false when it takes none, for the device is down.
  bool send(const std::vector<unsigned char>& packet);

 private:
  zol_utils::UniqueFd fd_;
};

}  // namespace emulator
