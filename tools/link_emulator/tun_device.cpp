#include "link_emulator/tun_device.h"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace emulator {

namespace {

constexpr std::size_t largest_packet = 65535;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

zol_utils::UniqueFd open_or_fail(const char* path, int flags) {
  zol_utils::UniqueFd fd(open(path, flags | O_CLOEXEC));
  if (!fd)
    fail(path);
  return fd;
}

zol_utils::UniqueFd open_here(const std::string& device) {
  zol_utils::UniqueFd fd = open_or_fail("/dev/net/tun", O_RDWR | O_NONBLOCK);
  ifreq request{};
  if (device.empty() || device.size() >= sizeof request.ifr_name) {
    errno = EINVAL;
    fail("the device name " + device);
  }
  std::memcpy(request.ifr_name, device.data(), device.size());
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  if (ioctl(fd.get(), TUNSETIFF, &request) != 0)
    fail("making the device " + device);
  return fd;
}

zol_utils::UniqueFd open_in(const std::string& space, const std::string& device) {
  const zol_utils::UniqueFd home = open_or_fail("/proc/thread-self/ns/net", O_RDONLY);
  const zol_utils::UniqueFd there = open_or_fail(("/run/netns/" + space).c_str(), O_RDONLY);
  if (setns(there.get(), CLONE_NEWNET) != 0)
    fail("entering the namespace " + space);
  zol_utils::UniqueFd fd = open_here(device);
  if (setns(home.get(), CLONE_NEWNET) != 0)
    fail("leaving the namespace " + space);
  return fd;
}

}  // namespace

TunDevice::TunDevice(const std::string& place) {
  const std::size_t colon = place.find(':');
  fd_ = colon == std::string::npos ? open_here(place)
                                   : open_in(place.substr(0, colon), place.substr(colon + 1));
}

bool TunDevice::receive(std::vector<unsigned char>& packet) {
  packet.resize(largest_packet);
  const ssize_t got = read(fd_.get(), packet.data(), packet.size());
  packet.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
  return got > 0;
}

bool TunDevice::send(const std::vector<unsigned char>& packet) {
  return write(fd_.get(), packet.data(), packet.size()) == static_cast<ssize_t>(packet.size());
}

}  // namespace emulator
