// A node with a hop map from a text of the test's.
#pragma once

#include <string>

#include "config/zol_networks.h"
#include "tests/support/config_fixture.h"

namespace zol_test {

// The overlay of the tests: this node "a", its cluster mate "b", "c" of the same cluster that is being
// removed, "d" of another group, and "e" outside every cluster.
inline const std::string overlay = R"(
hops = (
  { hop_id = "a"; ha_mode = "autonomous"; secured = true; is_direct = true; routing_id = 1; fqdn = "a.example";
    metadata = "{\"n\":1}"; zol_ips = ( "10.0.0.1", "198.51.100.1" ); floating_ips = ( "203.0.113.1" );
    communication_groups = ( "g1", "g2" ); },
  { hop_id = "b"; tcp_obscured = true; routing_id = 2; fqdn = "b.example"; metadata = "mb";
    zol_ips = ( "10.0.0.2" ); communication_groups = ( "g2", "g3" ); },
  { hop_id = "c"; is_being_removed = true; routing_id = 3; zol_ips = ( "10.0.0.3" );
    communication_groups = ( "g1" ); },
  { hop_id = "d"; is_ucpe = true; tcp_obscured = true; zol_ips = ( "10.0.0.4" ); communication_groups = ( "g9" ); },
  { hop_id = "e"; routing_id = 5; zol_ips = ( "10.0.0.5" ); communication_groups = ( "g1" ); }
);
clusters = (
  { internal_site_id = "s1"; virtual_router_id = 51; hops = (
    { hop_id = "a"; priority = 3; }, { hop_id = "b"; priority = 7; }, { hop_id = "c"; priority = 5; },
    { hop_id = "gone"; priority = 2; } ); },
  { internal_site_id = "s2"; virtual_router_id = 52; hops = (
    { hop_id = "d"; priority = 1; }, { hop_id = "e"; priority = 2; } ); },
  { internal_site_id = "s3"; virtual_router_id = 53; hops = ( ); }
);
)";

// Gives a HopData group and this node's id; interfaces and more may follow.
inline std::string hop_config(const std::string& hop_data, const std::string& my_id = "a",
                              const std::string& more = "") {
  return "General: { hop_id = \"" + my_id + "\"; };\nHopData: { " + hop_data + " };\n" + more;
}

inline std::string one_interface(const std::string& address) {
  return "Networking: { interfaces = ( { interface = \"" + address + "\"; external_ip = \"" + address +
         "\"; is_private = false; } ); };\n";
}

struct Node {
  explicit Node(const std::string& text) : config(text) {}

  ScopedConfig config;
  zol::ZOLNetworks networks;
  zol::HopMap& map = networks.hop_map;
};

}  // namespace zol_test
