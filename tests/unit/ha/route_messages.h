// Route messages as the kernel writes them: rtnetlink(7).
#pragma once

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace zol_test {

// One message, put together attribute by attribute.
class RouteBytes {
 public:
  explicit RouteBytes(std::uint16_t type = RTM_NEWROUTE, std::uint8_t prefix = 24,
                      std::uint8_t family = AF_INET) {
    header_.nlmsg_type = type;
    header_.nlmsg_len = NLMSG_HDRLEN + sizeof(rtmsg);
    rtmsg route{};
    route.rtm_family = family;
    route.rtm_dst_len = prefix;
    append(&route, sizeof route);
  }

  RouteBytes& attribute(std::uint16_t type, const void* value, std::uint16_t size) {
    const rtattr head = {static_cast<std::uint16_t>(RTA_LENGTH(size)), type};
    append(&head, sizeof head);
    append(value, size);
    body_.resize(NLMSG_ALIGN(body_.size()));
    return *this;
  }
  RouteBytes& number(std::uint16_t type, std::uint32_t value) {
    return attribute(type, &value, sizeof value);
  }
  RouteBytes& address(std::uint16_t type, const char* text) { return number(type, inet_addr(text)); }
  RouteBytes& flags(std::uint16_t value) {
    header_.nlmsg_flags = value;
    return *this;
  }
  // The head of an attribute whose length lies.
  RouteBytes& raw(std::uint16_t length, std::uint16_t type) {
    const rtattr head = {length, type};
    append(&head, sizeof head);
    return *this;
  }

  // 4-byte aligned, as large as the message.
  std::vector<std::uint32_t> block() const {
    nlmsghdr header = header_;
    header.nlmsg_len = static_cast<std::uint32_t>(NLMSG_HDRLEN + body_.size());
    std::vector<std::uint32_t> words((header.nlmsg_len + 3) / 4);
    std::memcpy(words.data(), &header, sizeof header);
    std::memcpy(reinterpret_cast<char*>(words.data()) + NLMSG_HDRLEN, body_.data(), body_.size());
    return words;
  }

 private:
  void append(const void* bytes, std::size_t size) {
    const char* begin = static_cast<const char*>(bytes);
    body_.insert(body_.end(), begin, begin + size);
  }

  nlmsghdr header_{};
  std::vector<char> body_;
};

inline RouteBytes route_bytes(const char* destination, std::uint8_t prefix, const char* gateway,
                              std::uint32_t table, std::uint16_t type = RTM_NEWROUTE) {
  RouteBytes bytes(type, prefix);
  bytes.number(RTA_TABLE, table);
  if (prefix > 0)
    bytes.address(RTA_DST, destination);
  if (gateway != nullptr)
    bytes.address(RTA_GATEWAY, gateway);
  return bytes;
}

}  // namespace zol_test
