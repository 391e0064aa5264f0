#include "ha/route_message.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <array>
#include <cstring>

#include "sup_logger.h"

namespace zol {

namespace {

constexpr std::uint16_t last_attribute = 24;  // what comes after concerns no route of ours
constexpr std::uint8_t longest_prefix = 32;
constexpr std::uint32_t link_local_bits = 0xa9fe0000;  // 169.254.0.0

using Attributes = std::array<const nlattr*, last_attribute + 1>;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("RouteReader");
  return l;
}

bool is_sound(const nlattr* attribute, mnl_attr_data_type type, const char* complaint) {
  if (mnl_attr_validate(attribute, type) >= 0)
    return true;
  SUP_LOG(logger(), log_level::error) << "data_ipv4_attr_cb" << complaint;
  return false;
}

int data_ipv4_attr_cb(const nlattr* attribute, void* data) {
  if (mnl_attr_type_valid(attribute, last_attribute) < 0)
    return MNL_CB_OK;
  const std::uint16_t type = mnl_attr_get_type(attribute);
  switch (type) {
    case RTA_DST:
    case RTA_SRC:
    case RTA_IIF:
    case RTA_OIF:
    case RTA_GATEWAY:
    case RTA_PRIORITY:
    case RTA_PREFSRC:
    case RTA_FLOW:
    case RTA_TABLE:
      if (!is_sound(attribute, MNL_TYPE_U32, ": mnl_attr_validate u32"))
        return MNL_CB_ERROR;
      break;
    case RTA_METRICS:
      if (!is_sound(attribute, MNL_TYPE_NESTED, ": mnl_attr_validate nested"))
        return MNL_CB_ERROR;
      break;
    default:
      break;
  }
  (*static_cast<Attributes*>(data))[type] = attribute;
  return MNL_CB_OK;
}

// False for a destination that doesn't fit its length.
bool read_destination(const rtmsg& header, const nlattr* destination, Subnet& subnet) {
  if (header.rtm_dst_len > longest_prefix || (header.rtm_dst_len > 0 && destination == nullptr)) {
    SUP_LOG(logger(), log_level::error)
        << "decode_route: bad destination, length " << static_cast<unsigned>(header.rtm_dst_len);
    return false;
  }
  subnet = Subnet(header.rtm_dst_len == 0 ? 0 : mnl_attr_get_u32(destination), header.rtm_dst_len);
  return true;
}

}  // namespace

std::optional<RouteMessage> decode_route(const nlmsghdr* message) {
  if (message->nlmsg_len < MNL_NLMSG_HDRLEN + sizeof(rtmsg)) {
    SUP_LOG(logger(), log_level::error) << "decode_route: short message, " << message->nlmsg_len << " bytes";
    return std::nullopt;
  }
  if (message->nlmsg_type != RTM_NEWROUTE && message->nlmsg_type != RTM_DELROUTE)
    return std::nullopt;
  const auto& header = *static_cast<const rtmsg*>(mnl_nlmsg_get_payload(message));
  if (header.rtm_family != AF_INET)
    return std::nullopt;
  Attributes attributes{};
  if (mnl_attr_parse(message, sizeof header, data_ipv4_attr_cb, &attributes) < 0)
    return std::nullopt;
  if (attributes[RTA_TABLE] == nullptr || attributes[RTA_MULTIPATH] != nullptr)
    return std::nullopt;
  RouteMessage route;
  if (!read_destination(header, attributes[RTA_DST], route.subnet))
    return std::nullopt;
  route.table = mnl_attr_get_u32(attributes[RTA_TABLE]);
  route.added = message->nlmsg_type == RTM_NEWROUTE;
  route.has_gateway = attributes[RTA_GATEWAY] != nullptr;
  if (route.has_gateway)
    route.gateway = mnl_attr_get_u32(attributes[RTA_GATEWAY]);
  if (attributes[RTA_OIF] != nullptr)
    route.oif = mnl_attr_get_u32(attributes[RTA_OIF]);
  return route;
}

bool is_link_local_gateway(std::uint32_t address) {
  return (ntohl(address) & link_local_bits) == link_local_bits;
}

}  // namespace zol
