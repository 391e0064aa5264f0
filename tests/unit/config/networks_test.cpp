#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "config/zol_networks.h"
#include "sup_logger.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"

namespace zol {
namespace {

using Addresses = std::set<std::string>;

unsigned ip(const char* dotted) {
  return inet_addr(dotted);
}

std::string interfaces(const std::string& rows) {
  return "Networking: { interfaces = ( " + rows + " ); };\n";
}

std::string row(const std::string& interface, const std::string& external, bool is_private) {
  return "{ interface = \"" + interface + "\"; external_ip = \"" + external +
         "\"; is_private = " + (is_private ? "true" : "false") + "; }";
}

const std::string inside = row("10.0.0.1", "10.0.0.1", true);
const std::string outside = row("172.16.0.1", "198.51.100.1", false);
const std::string second_outside = row("172.16.0.2", "198.51.100.2", false);

std::string possible(const std::string& addresses) {
  return "SharedNetworkData: { possible_floating_ips = ( " + addresses + " ); };\n";
}

// This node's hop, with this mode and these floating addresses, in the company of another one.
std::string hop(const std::string& mode, const std::string& floating, const std::string& more = "") {
  return "General: { hop_id = \"hop-1\"; };\nHopData: { hops = ( { hop_id = \"hop-1\"; ha_mode = \"" + mode +
         "\"; floating_ips = ( " + floating +
         " ); is_ucpe = true; routing_id = 11; zol_ips = ( \"10.0.0.1\" ); }, { hop_id = \"hop-2\"; "
         "routing_id = 22; "
         "zol_ips = ( \"10.9.0.2\", \"203.0.113.2\" ); } ); " +
         more + " };\n";
}

const std::string cluster =
    "clusters = ( { internal_site_id = \"s\"; virtual_router_id = 1; hops = ( { hop_id = \"hop-1\"; priority "
    "= 1; } ); } );";

struct Node {
  explicit Node(const std::string& text) : config(text) {}

  zol_test::ScopedConfig config;
  ZOLNetworks networks;
};

// Verifies that the rows are read with their members and don't float.
TEST(ZOLNetworks, ReadsInterfaces) {
  const Node node(interfaces(inside + ", " + outside));
  ASSERT_EQ(node.networks.interfaces.size(), 2u);
  EXPECT_EQ(node.networks.interfaces[1].interface, "172.16.0.1");
  EXPECT_EQ(node.networks.interfaces[1].external_ip, "198.51.100.1");
  EXPECT_FALSE(node.networks.interfaces[1].is_private);
  EXPECT_TRUE(node.networks.interfaces[0].is_private);
  EXPECT_FALSE(node.networks.interfaces[0].is_floating);
  EXPECT_EQ(node.networks.my_ips, (Addresses{"10.0.0.1", "172.16.0.1", "198.51.100.1"}));
}

// Verifies that a node without interfaces has no addresses and the pair of zeros.
TEST(ZOLNetworks, NoConfiguration) {
  const Node node("");
  EXPECT_TRUE(node.networks.interfaces.empty());
  EXPECT_EQ(node.networks.get_traffic_out_internal_ip(), "0.0.0.0");
  EXPECT_EQ(node.networks.get_traffic_out_external_ip(), "0.0.0.0");
  EXPECT_EQ(node.networks.get_my_hop_floating_ip(), "");
  EXPECT_FALSE(node.networks.was_hop_map_parsed());
}

// Verifies that the last interface that isn't private gives the outgoing pair, which is logged.
TEST(ZOLNetworks, LastPublicInterfaceIsTheOutgoingPair) {
  zol_test::LogCapture log;
  const Node node(interfaces(outside + ", " + second_outside + ", " + inside));
  EXPECT_EQ(node.networks.get_traffic_out_internal_ip(), "172.16.0.2");
  EXPECT_EQ(node.networks.get_traffic_out_external_ip(), "198.51.100.2");
  EXPECT_TRUE(log.contains(log_level::notice,
                           "read_configuration: Saving outgoing interface ips 172.16.0.2 -> 198.51.100.2"))
      << log.all();
}

// Verifies that a reload reads everything anew, and logs the outgoing pair only when it changes.
TEST(ZOLNetworks, Reload) {
  Node node(interfaces(outside) + possible("\"203.0.113.9\""));
  zol_test::LogCapture log;
  node.config.configurator().reload_configuration("", 0);
  EXPECT_EQ(node.networks.interfaces.size(), 2u);
  EXPECT_EQ(log.count("Saving outgoing interface ips"), 0);
  node.config.write_file(interfaces(second_outside));
  node.config.configurator().reload_configuration("", 0);
  EXPECT_EQ(node.networks.interfaces.size(), 1u);
  EXPECT_EQ(node.networks.my_ips, (Addresses{"172.16.0.2", "198.51.100.2"}));
  EXPECT_TRUE(node.networks.possible_floating_ips.empty());
  EXPECT_EQ(node.networks.get_traffic_out_internal_ip(), "172.16.0.2");
  EXPECT_EQ(log.count("Saving outgoing interface ips"), 1);
}

// Verifies that every reload is wanted and the service behind it isn't judged.
TEST(ZOLNetworks, NeedReconf) {
  Node node("");
  bool enabled = false;
  EXPECT_TRUE(node.networks.need_reconf(enabled));
  EXPECT_FALSE(enabled);
}

// Verifies that a row without external_ip or is_private is logged and left out.
TEST(ZOLNetworks, IncompleteRowIsLeftOut) {
  zol_test::LogCapture log;
  const Node node(
      interfaces("{ interface = \"1.1.1.1\"; is_private = false; }, "
                 "{ interface = \"2.2.2.2\"; external_ip = \"3.3.3.3\"; }, " +
                 outside));
  ASSERT_EQ(node.networks.interfaces.size(), 1u);
  EXPECT_EQ(node.networks.my_ips, (Addresses{"172.16.0.1", "198.51.100.1"}));
  EXPECT_TRUE(log.contains(log_level::error, "Key Networking.interfaces.[0] is missing external_ip"))
      << log.all();
  EXPECT_TRUE(log.contains(log_level::error, "Key Networking.interfaces.[1] is missing is_private"))
      << log.all();
}

// Verifies that a row without interface is logged and stays, with an empty one.
TEST(ZOLNetworks, RowWithoutInterfaceStays) {
  zol_test::LogCapture log;
  const Node node(interfaces("{ external_ip = \"3.3.3.3\"; is_private = false; }"));
  ASSERT_EQ(node.networks.interfaces.size(), 1u);
  EXPECT_EQ(node.networks.interfaces[0].interface, "");
  EXPECT_EQ(node.networks.get_traffic_out_external_ip(), "3.3.3.3");
  EXPECT_TRUE(log.contains(log_level::error, "Key Networking.interfaces.[0] is missing interface"))
      << log.all();
}

// Verifies that a possible floating address that is no text is logged and left out.
TEST(ZOLNetworks, BadPossibleFloatingAddress) {
  zol_test::LogCapture log;
  const Node node(possible("\"203.0.113.9\", 5"));
  EXPECT_EQ(node.networks.possible_floating_ips, (Addresses{"203.0.113.9"}));
  EXPECT_TRUE(log.contains(log_level::error, "Key SharedNetworkData.possible_floating_ips.[1] is missing"))
      << log.all();
}

// Verifies that without a hop map the possible floating addresses are in force and get rows of their own.
TEST(ZOLNetworks, PossibleFloatingAddressesWithoutHopMap) {
  const Node node(interfaces(outside) + possible("\"203.0.113.9\", \"203.0.113.10\""));
  EXPECT_EQ(node.networks.floating_ips, (Addresses{"203.0.113.10", "203.0.113.9"}));
  EXPECT_EQ(node.networks.get_my_hop_floating_ip(), "203.0.113.10");
  ASSERT_EQ(node.networks.interfaces.size(), 3u);
  const interface_info_t& added = node.networks.interfaces[1];
  EXPECT_EQ(added.interface, "203.0.113.10");
  EXPECT_EQ(added.external_ip, "203.0.113.10");
  EXPECT_FALSE(added.is_private);
  EXPECT_TRUE(added.is_floating);
  EXPECT_EQ(node.networks.my_ips, (Addresses{"172.16.0.1", "198.51.100.1"}));
}

// Verifies that a parsed hop map's floating addresses go before the possible ones.
TEST(ZOLNetworks, FloatingAddressesOfTheHop) {
  const Node node(interfaces(outside) + possible("\"203.0.113.9\"") + hop("managed", "\"203.0.113.20\""));
  EXPECT_EQ(node.networks.floating_ips, (Addresses{"203.0.113.20"}));
  EXPECT_TRUE(node.networks.was_hop_map_parsed());
}

// Verifies that a floating address that equals a static one adds no row.
TEST(ZOLNetworks, FloatingAddressThatIsStatic) {
  const Node node(interfaces(outside) + possible("\"198.51.100.1\""));
  EXPECT_EQ(node.networks.interfaces.size(), 1u);
  EXPECT_EQ(node.networks.floating_ips, (Addresses{"198.51.100.1"}));
}

// Verifies that with no floating addresses and two static external ones the outgoing one is entered.
TEST(ZOLNetworks, OutgoingAddressFloatsAmongTwo) {
  const Node two(interfaces(outside + ", " + second_outside));
  EXPECT_EQ(two.networks.floating_ips, (Addresses{"198.51.100.2"}));
  const Node one(interfaces(outside));
  EXPECT_TRUE(one.networks.floating_ips.empty());
}

// Verifies that a node that doesn't hold the pair's address keeps its own outgoing pair.
TEST(ZOLNetworks, OutgoingPairWithoutThePairsAddress) {
  const Node node(interfaces(outside) + hop("autonomous", "\"203.0.113.20\""));
  EXPECT_EQ(node.networks.get_traffic_out_internal_ip(), "172.16.0.1");
  EXPECT_EQ(node.networks.get_traffic_out_external_ip(), "198.51.100.1");
}

// Verifies which rows each of the queries gives, with a floating row among them.
TEST(ZOLNetworks, Queries) {
  const Node node(interfaces(inside + ", " + outside + ", " + second_outside) + possible("\"203.0.113.9\""));
  const ZOLNetworks& networks = node.networks;
  EXPECT_EQ(networks.get_private_interfaces(), (Addresses{"10.0.0.1"}));
  EXPECT_EQ(networks.get_my_static_ips(),
            (Addresses{"10.0.0.1", "172.16.0.1", "198.51.100.1", "172.16.0.2", "198.51.100.2"}));
  EXPECT_EQ(networks.get_static_external_ips(), (Addresses{"198.51.100.1", "198.51.100.2"}));
  EXPECT_EQ(networks.get_static_internal_ips(), (Addresses{"172.16.0.1", "172.16.0.2"}));
  EXPECT_EQ(networks.get_preallocated_interfaces(), (std::vector<std::string>{"172.16.0.1", "172.16.0.2"}));
  EXPECT_EQ(networks.get_interfaces(false).size(), 3u);
  EXPECT_EQ(networks.get_interfaces(true).size(), 4u);
  EXPECT_EQ(networks.get_interfaces(true).begin()->interface, "10.0.0.1");
}

// Verifies the order of handed-out rows.
TEST(ZOLNetworks, InterfaceOrder) {
  EXPECT_TRUE((interface_t{"a", "z"} < interface_t{"b", "a"}));
  EXPECT_TRUE((interface_t{"a", "a"} < interface_t{"a", "b"}));
  EXPECT_FALSE((interface_t{"a", "a", true} < interface_t{"a", "a", false}));
}

// Verifies that the interface of any row is an address of this node, private or not, floating too.
TEST(ZOLNetworks, IsMyPrivateIp) {
  const Node node(interfaces(inside + ", " + outside) + possible("\"203.0.113.9\""));
  EXPECT_TRUE(node.networks.is_my_private_ip(ip("10.0.0.1")));
  EXPECT_TRUE(node.networks.is_my_private_ip(ip("172.16.0.1")));
  EXPECT_TRUE(node.networks.is_my_private_ip(ip("203.0.113.9")));
  EXPECT_FALSE(node.networks.is_my_private_ip(ip("198.51.100.1")));
}

// Verifies that only a private address of another hop lies in the private network.
TEST(ZOLNetworks, IsPrivateNetwork) {
  const Node node(hop("", ""));
  EXPECT_TRUE(node.networks.is_private_network(ip("10.9.0.2")));
  EXPECT_FALSE(node.networks.is_private_network(ip("203.0.113.2"))) << "public";
  EXPECT_FALSE(node.networks.is_private_network(ip("10.0.0.1"))) << "this node's own";
  EXPECT_FALSE(node.networks.is_private_network(ip("10.9.0.3"))) << "no hop's";
}

// Verifies that the questions about hops are answered by the hop map.
TEST(ZOLNetworks, HopQueries) {
  const Node node(hop("", ""));
  EXPECT_TRUE(node.networks.is_ucpe(""));
  EXPECT_TRUE(node.networks.is_ucpe("hop-1"));
  EXPECT_FALSE(node.networks.is_ucpe("hop-2"));
  EXPECT_EQ(node.networks.get_all_routing_ids(), (std::set<int>{11, 22}));
}

// Verifies that only autonomous floating addresses are dynamic.
TEST(ZOLNetworks, HasDynamicFloatingIps) {
  EXPECT_TRUE(Node(hop("autonomous", "\"203.0.113.20\"")).networks.has_dynamic_floating_ips());
  EXPECT_FALSE(Node(hop("managed", "\"203.0.113.20\"")).networks.has_dynamic_floating_ips());
  EXPECT_FALSE(Node(hop("autonomous", "")).networks.has_dynamic_floating_ips());
}

// Verifies when an alias goes: never on a clustered or autonomous node, always on a managed one.
TEST(ZOLNetworks, ShouldRemoveVrrpAlias) {
  EXPECT_FALSE(Node(hop("autonomous", "\"203.0.113.20\"")).networks.should_remove_vrrp_alias());
  EXPECT_FALSE(Node(hop("managed", "\"203.0.113.20\"", cluster)).networks.should_remove_vrrp_alias());
  EXPECT_TRUE(Node(hop("managed", "\"203.0.113.20\"")).networks.should_remove_vrrp_alias());
}

// Verifies that the process has one instance.
TEST(ZOLNetworks, Instance) {
  const zol_test::ScopedConfig config(interfaces(outside));
  ZOLNetworks* first = ZOLNetworks::instance();
  EXPECT_EQ(ZOLNetworks::instance(), first);
}

}  // namespace
}  // namespace zol
