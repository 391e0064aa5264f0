#include "tests/unit/probes/tun_wire.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace zol_test {

namespace {

constexpr int patience_ms = 20000;

void set_address(int socket, ifreq& request, unsigned long what, const char* address) {
  sockaddr_in in{};
  in.sin_family = AF_INET;
  in.sin_addr.s_addr = inet_addr(address);
  std::memcpy(&request.ifr_addr, &in, sizeof in);
  if (ioctl(socket, what, &request) != 0)
    throw std::runtime_error("tun: can't set an address");
}

}  // namespace

TunWire::TunWire(const std::string& device, const std::string& address)
    : fd_(open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK)) {
  ifreq request{};
  device.copy(request.ifr_name, sizeof request.ifr_name - 1);
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  if (!fd_ || ioctl(fd_.get(), TUNSETIFF, &request) != 0)
    throw std::runtime_error("tun: can't make a device");
  const zol_utils::UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  set_address(socket.get(), request, SIOCSIFADDR, address.c_str());
  set_address(socket.get(), request, SIOCSIFNETMASK, "255.255.255.0");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  if (ioctl(socket.get(), SIOCSIFFLAGS, &request) != 0)
    throw std::runtime_error("tun: can't raise the device");
}

bool TunWire::has_packet() const {
  pollfd waiting{fd_.get(), POLLIN, 0};
  return poll(&waiting, 1, 0) == 1;
}

std::optional<Bytes> TunWire::read() const {
  pollfd waiting{fd_.get(), POLLIN, 0};
  while (poll(&waiting, 1, patience_ms) == 1) {
    Bytes packet(65536);
    const ssize_t size = ::read(fd_.get(), packet.data(), packet.size());
    if (size < 20 || packet[0] >> 4 != 4)
      continue;  // the kernel greets each device with some IPv6
    packet.resize(static_cast<std::size_t>(size));
    return packet;
  }
  return std::nullopt;
}

void TunWire::write(const Bytes& packet) const {
  if (::write(fd_.get(), packet.data(), packet.size()) != static_cast<ssize_t>(packet.size()))
    throw std::runtime_error("tun: can't write a packet");
}

}  // namespace zol_test
