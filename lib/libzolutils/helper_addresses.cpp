// IPv4 addresses of zol::Helper: their texts, and what the kernel knows of them; netdevice(7).
#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cstring>

#include "common/unique_fd.h"
#include "zol_helper.h"
#include "zol_settings.h"

namespace zol {

namespace {

constexpr const char* mask_client_address_key = "General.mask_client_address";
constexpr std::uint16_t discard_port = 9;

bool parse_address(const std::string& text, in_addr& address) {
  return text.find('\0') == std::string::npos && ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

std::string to_text(in_addr address) {
  std::array<char, INET_ADDRSTRLEN> text;
  return ::inet_ntop(AF_INET, &address, text.data(), text.size()) ? text.data() : "";
}

bool is_in_range(std::uint32_t host_order, std::uint32_t network, int prefix) {
  return (host_order ^ network) >> (32 - prefix) == 0;
}

}  // namespace

bool Helper::is_valid_ip_address(const std::string& text) {
  in_addr address;
  return parse_address(text, address);
}

bool Helper::is_private_address(const std::string& text) {
  in_addr address;
  return parse_address(text, address) && is_private_address(address.s_addr);
}

bool Helper::is_private_address(std::uint32_t address) {
  const std::uint32_t host_order = ntohl(address);
  return is_in_range(host_order, 0x0a000000, 8) || is_in_range(host_order, 0xac100000, 12) ||
         is_in_range(host_order, 0xc0a80000, 16);
}

std::string Helper::make_anonymous_address(std::uint32_t address) {
  std::string text = to_text(in_addr{address});
  bool masked = false;
  if (zol_utils::lookup_setting(mask_client_address_key, masked) && masked)
    text.replace(text.rfind('.') + 1, std::string::npos, "x");
  return text;
}

std::string Helper::make_anonymous_address(const std::string& address) {
  in_addr parsed;
  return parse_address(address, parsed) ? make_anonymous_address(parsed.s_addr) : address;
}

std::string Helper::make_log_addr(std::uint32_t address) {
  return make_anonymous_address(address);
}

std::string Helper::make_log_addr(const std::string& address) {
  return make_anonymous_address(address);
}

// Connecting a datagram socket sends nothing: it makes the kernel choose a route and, with it, the source.
std::string Helper::internal_ip_get(const std::string& destination) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(discard_port);
  if (!parse_address(destination, address.sin_addr))
    return {};
  const zol_utils::UniqueFd probe(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  socklen_t length = sizeof(address);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (!probe || ::connect(probe.get(), generic, length) != 0 ||
      ::getsockname(probe.get(), generic, &length) != 0)
    return {};
  return to_text(address.sin_addr);
}

bool Helper::lookup_device_ipv4(const std::string& device, in_addr& address) {
  ifreq request{};
  if (device.empty() || device.size() >= sizeof(request.ifr_name))
    return false;
  std::memcpy(request.ifr_name, device.data(), device.size());
  request.ifr_addr.sa_family = AF_INET;
  const zol_utils::UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket || ::ioctl(socket.get(), SIOCGIFADDR, &request) != 0)
    return false;
  sockaddr_in found;
  std::memcpy(&found, &request.ifr_addr, sizeof(found));
  address = found.sin_addr;
  return true;
}

bool Helper::lookup_device_ipv4(const std::string& device, std::string& address) {
  in_addr found;
  if (!lookup_device_ipv4(device, found))
    return false;
  address = to_text(found);
  return true;
}

}  // namespace zol
