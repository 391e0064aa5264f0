// Decodes the kernel's route messages: bytes in, record or error out; no socket and no state.
//
// rtnetlink(7), linux/rtnetlink.h: an rtmsg of 12 bytes, then attributes. The caller has checked that the
// whole message is there (mnl_nlmsg_ok); nothing else is trusted.
#pragma once

#include <cstdint>
#include <optional>

#include "config/subnet.h"

struct nlmsghdr;

namespace zol {

// What a message says of a route. Addresses in network order.
struct RouteMessage {
  Subnet subnet;  // the destination; 0.0.0.0/0 for a default route
  std::uint32_t table = 0;
  std::uint32_t gateway = 0;  // with has_gateway
  std::uint32_t oif = 0;      // index of the interface, 0 without one
  bool has_gateway = false;
  bool added = false;  // RTM_NEWROUTE, else RTM_DELROUTE
};

// Nothing for what isn't for us: another type of message, another family than AF_INET, no table, several next
// hops (RTA_MULTIPATH). Nothing too, with an error line, for a broken message: an attribute of the wrong
// size, a prefix length above 32, no destination for a length above 0.
std::optional<RouteMessage> decode_route(const nlmsghdr* message);

// A gateway of the link-local range as the node's routing daemon marks it: all bits of 169.254.0.0 are set.
// The address in network order.
bool is_link_local_gateway(std::uint32_t address);

}  // namespace zol
