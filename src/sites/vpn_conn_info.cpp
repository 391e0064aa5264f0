#include "sites/vpn_conn_info.h"

#include <algorithm>
#include <utility>

#include "sites/zol_conn_name_parser.h"
#include "zol_helper.h"

namespace zol {

namespace {

// What a process is doesn't change while it runs.
bool is_measurement_agent() {
  static const bool is_kpa = Helper::is_kpa();
  return is_kpa;
}

void take_known(std::string& field, const std::string& other) {
  if (!other.empty())
    field = other;
}

}  // namespace

const char* vpn_conn_state_str(int state) {
  switch (state) {
    case Connecting:
      return "connecting";
    case Established:
      return "connected";
    default:
      return "disconnected";
  }
}

VPNConnInfo::VPNConnInfo(std::string internal_id_in, std::string protocol_in, std::string right_id_in,
                         std::string right_in, std::string peer_ip_in, std::string name_in,
                         std::string left_in, std::string group_in, std::string peer_internal_ip_in,
                         std::string lease_ip_in, std::string vti_interface_in, int priority_in,
                         VPNConnState state_in, long timestamp)
    : internal_id(std::move(internal_id_in)),
      protocol(std::move(protocol_in)),
      right_id(std::move(right_id_in)),
      right(std::move(right_in)),
      peer_ip(std::move(peer_ip_in)),
      name(std::move(name_in)),
      left(std::move(left_in)),
      group(std::move(group_in)),
      peer_internal_ip(std::move(peer_internal_ip_in)),
      lease_ip(std::move(lease_ip_in)),
      vti_interface(std::move(vti_interface_in)),
      priority(priority_in),
      state(state_in),
      state_timestamp(timestamp) {}

VPNConnInfo::VPNConnInfo(const std::string& conn_name, const std::string& protocol_in, VPNConnState state_in,
                         unsigned timestamp, const std::string& peer_ip_in,
                         const std::string& right_id_override, const std::string& lease_ip_in)
    : protocol(protocol_in),
      peer_ip(peer_ip_in),
      lease_ip(lease_ip_in),
      state(state_in),
      state_timestamp(timestamp) {
  const bool unfolded =
      is_measurement_agent() ? unfold_kpa_name(conn_name) : unfold_zol_name(conn_name, right_id_override);
  if (!unfolded)
    right_id = name = conn_name;
}

bool VPNConnInfo::unfold_zol_name(const std::string& conn_name, const std::string& right_id_override) {
  ZolConnNameParser parser;
  if (!parser.deserialize_conn_name(conn_name))
    return false;
  name = parser.get_vpn_site_name();
  internal_id = parser.get_internal_id();
  right_id = right_id_override.empty() ? parser.get_right_id() : right_id_override;
  right = parser.get_right();
  left = parser.get_left();
  group = parser.get_group();
  vti_interface = parser.get_vti_interface();
  return true;
}

bool VPNConnInfo::unfold_kpa_name(const std::string& conn_name) {
  KpaConnNameParser parser;
  if (!parser.deserialize_conn_name(conn_name))
    return false;
  name = parser.get_serialize_conn_name();
  internal_id = parser.get_internal_id();
  vti_interface = parser.get_vti_iface();
  right_id = parser.get_right();
  right = parser.get_dc_id();
  peer_internal_ip = parser.get_left();
  return true;
}

bool VPNConnInfo::is_matching_conn(const VPNConnInfo& other) const {
  return !other.right_id.empty() && other.right_id == right_id && !other.right.empty() &&
         other.right == right;
}

void VPNConnInfo::update(VPNConnState new_state, long timestamp, bool force) {
  if (force) {
    state = new_state;
    state_timestamp = timestamp;
    return;
  }
  state = std::max(state, new_state);
  if (timestamp != 0)
    state_timestamp = state_timestamp == 0 ? timestamp : std::min(state_timestamp, timestamp);
}

void VPNConnInfo::merge_seen(const VPNConnInfo& other) {
  update(other.state, other.state_timestamp, false);
  take_known(peer_ip, other.peer_ip);
  take_known(left, other.left);
  take_known(lease_ip, other.lease_ip);
  established_tunnels.insert(other.established_tunnels.begin(), other.established_tunnels.end());
  if (!other.bgp_subnets.empty())
    bgp_subnets = other.bgp_subnets;
}

void VPNConnInfo::update(const VPNConnInfo& other) {
  merge_seen(other);
  take_known(right_id, other.right_id);
  take_known(right, other.right);
  take_known(peer_internal_ip, other.peer_internal_ip);
}

void VPNConnInfo::update(const VPNConnInfo& other, const std::set<Subnet>& routes) {
  update(other);
  bgp_subnets = routes;
}

void VPNConnInfo::reconf_enrich(const VPNConnInfo& other) {
  merge_seen(other);
}

void VPNConnInfo::insert_established_tunnel(const std::string& tunnel) {
  if (!tunnel.empty())
    established_tunnels.insert(tunnel);
}

std::string VPNConnInfo::get_connection_name() const {
  return ZolConnNameParser::serialize_conn_name(name, internal_id, right_id, right, left, vti_interface,
                                                group);
}

}  // namespace zol
