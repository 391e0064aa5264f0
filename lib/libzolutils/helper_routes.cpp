// What zol::Helper asks the kernel about routes and configured addresses; rtnetlink(7), getifaddrs(3).
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <memory>

#include "common/unique_fd.h"
#include "zol_helper.h"

namespace zol {

namespace {

struct RouteRequest {
  nlmsghdr header;
  rtmsg route;
  rtattr attribute;
  in_addr destination;
};
static_assert(sizeof(RouteRequest) == 16 + 12 + 8, "no padding between the parts of the message");

RouteRequest route_request(in_addr destination) {
  RouteRequest request{};
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.route.rtm_family = AF_INET;
  request.route.rtm_dst_len = 32;
  request.attribute.rta_len = RTA_LENGTH(sizeof(destination));
  request.attribute.rta_type = RTA_DST;
  request.destination = destination;
  return request;
}

// The index of the device in the kernel's answer, 0 when it has none: no route.
unsigned output_device(const char* answer, std::size_t size) {
  nlmsghdr header;
  if (size < NLMSG_LENGTH(sizeof(rtmsg)))
    return 0;
  std::memcpy(&header, answer, sizeof(header));
  if (header.nlmsg_type != RTM_NEWROUTE || header.nlmsg_len > size)
    return 0;
  std::size_t at = NLMSG_LENGTH(sizeof(rtmsg));
  while (at + sizeof(rtattr) <= header.nlmsg_len) {
    rtattr attribute;
    std::memcpy(&attribute, answer + at, sizeof(attribute));
    if (attribute.rta_len < sizeof(rtattr) || attribute.rta_len > header.nlmsg_len - at)
      return 0;
    if (attribute.rta_type == RTA_OIF && attribute.rta_len == RTA_LENGTH(sizeof(unsigned))) {
      unsigned index;
      std::memcpy(&index, answer + at + RTA_LENGTH(0), sizeof(index));
      return index;
    }
    at += RTA_ALIGN(attribute.rta_len);
  }
  return 0;
}

struct FreeAddresses {
  void operator()(ifaddrs* list) const { ::freeifaddrs(list); }
};

// The kernel labels an alias "<device>:<name>".
bool is_alias(const ifaddrs& entry) {
  return std::strchr(entry.ifa_name, ':') != nullptr;
}

}  // namespace

std::string Helper::dst_dev_get(const std::string& destination) {
  in_addr address;
  if (destination.find('\0') != std::string::npos || ::inet_pton(AF_INET, destination.c_str(), &address) != 1)
    return {};
  const RouteRequest request = route_request(address);
  const zol_utils::UniqueFd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  std::array<char, 8192> answer;
  if (!socket || ::send(socket.get(), &request, sizeof(request), 0) != sizeof(request))
    return {};
  const ssize_t size = ::recv(socket.get(), answer.data(), answer.size(), MSG_DONTWAIT);
  std::array<char, IF_NAMESIZE> name;
  const unsigned index = size > 0 ? output_device(answer.data(), static_cast<std::size_t>(size)) : 0;
  return index != 0 && ::if_indextoname(index, name.data()) != nullptr ? name.data() : "";
}

std::set<std::string> Helper::get_machine_static_ips(bool without_loopback, bool without_aliases) {
  ifaddrs* list = nullptr;
  std::set<std::string> addresses;
  if (::getifaddrs(&list) != 0)
    return addresses;
  const std::unique_ptr<ifaddrs, FreeAddresses> owner(list);
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET ||
        (without_loopback && (entry->ifa_flags & IFF_LOOPBACK) != 0) || (without_aliases && is_alias(*entry)))
      continue;
    sockaddr_in address;
    std::memcpy(&address, entry->ifa_addr, sizeof(address));
    std::array<char, INET_ADDRSTRLEN> text;
    if (::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size()) != nullptr)
      addresses.insert(text.data());
  }
  return addresses;
}

}  // namespace zol
