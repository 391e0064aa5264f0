// The record of one VPN connection.
#include "sites/vpn_conn_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/config_fixture.h"

namespace zol {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// "@peer" is QHBlZXI= in base64.
constexpr const char* zol_name = "site@12@QHBlZXI=@peer.example@198.51.100.1@vti3@grp";

class VPNConnInfoTest : public testing::Test {
 protected:
  zol_test::ScopedConfig config_{"General: { zol_id = \"node\"; };"};
};

// Verifies the text of each state, and of a number that is none.
TEST_F(VPNConnInfoTest, StateTexts) {
  EXPECT_STREQ(vpn_conn_state_str(Disconnected), "disconnected");
  EXPECT_STREQ(vpn_conn_state_str(Connecting), "connecting");
  EXPECT_STREQ(vpn_conn_state_str(Established), "connected");
  EXPECT_STREQ(vpn_conn_state_str(3), "disconnected");
  EXPECT_STREQ(vpn_conn_state_str(-1), "disconnected");
}

// Verifies that the states are ordered and have their numbers.
TEST_F(VPNConnInfoTest, StateNumbers) {
  EXPECT_EQ(Disconnected, 0);
  EXPECT_EQ(Connecting, 1);
  EXPECT_EQ(Established, 2);
}

// Verifies that each argument of the long constructor goes to its field.
TEST_F(VPNConnInfoTest, FromFields) {
  const VPNConnInfo conn("12", "gre", "@peer", "peer.example", "203.0.113.7", "site", "198.51.100.1", "grp",
                         "10.0.0.2", "10.9.0.3", "vti3", 4, Connecting, 1700000000);
  EXPECT_TRUE(conn.enabled);
  EXPECT_EQ(conn.internal_id, "12");
  EXPECT_EQ(conn.protocol, "gre");
  EXPECT_EQ(conn.right_id, "@peer");
  EXPECT_EQ(conn.right, "peer.example");
  EXPECT_EQ(conn.peer_ip, "203.0.113.7");
  EXPECT_EQ(conn.name, "site");
  EXPECT_EQ(conn.left, "198.51.100.1");
  EXPECT_EQ(conn.group, "grp");
  EXPECT_EQ(conn.peer_internal_ip, "10.0.0.2");
  EXPECT_EQ(conn.lease_ip, "10.9.0.3");
  EXPECT_EQ(conn.gateway_ip, "");
  EXPECT_EQ(conn.vti_interface, "vti3");
  EXPECT_EQ(conn.priority, 4);
  EXPECT_EQ(conn.state, Connecting);
  EXPECT_EQ(conn.state_timestamp, 1700000000);
  EXPECT_THAT(conn.established_tunnels, IsEmpty());
  EXPECT_THAT(conn.bgp_subnets, IsEmpty());
}

// Verifies that a connection's name is taken apart, and that what the name doesn't tell comes from the
// arguments.
TEST_F(VPNConnInfoTest, FromName) {
  const VPNConnInfo conn(zol_name, "ipsec", Established, 1700000001U, "203.0.113.7", "", "10.9.0.3");
  EXPECT_TRUE(conn.enabled);
  EXPECT_EQ(conn.name, "site");
  EXPECT_EQ(conn.internal_id, "12");
  EXPECT_EQ(conn.right_id, "@peer");
  EXPECT_EQ(conn.right, "peer.example");
  EXPECT_EQ(conn.left, "198.51.100.1");
  EXPECT_EQ(conn.vti_interface, "vti3");
  EXPECT_EQ(conn.group, "grp");
  EXPECT_EQ(conn.protocol, "ipsec");
  EXPECT_EQ(conn.state, Established);
  EXPECT_EQ(conn.state_timestamp, 1700000001);
  EXPECT_EQ(conn.peer_ip, "203.0.113.7");
  EXPECT_EQ(conn.lease_ip, "10.9.0.3");
  EXPECT_EQ(conn.peer_internal_ip, "");
  EXPECT_EQ(conn.gateway_ip, "");
}

// Verifies that a time beyond the range of a signed 32-bit number stays what it is.
TEST_F(VPNConnInfoTest, LateTime) {
  const VPNConnInfo conn(zol_name, "ipsec", Established, 4294967295U, "", "", "");
  EXPECT_EQ(conn.state_timestamp, 4294967295L);
}

// Verifies that an id given beside the name comes before the name's.
TEST_F(VPNConnInfoTest, OverriddenId) {
  const VPNConnInfo conn(zol_name, "ipsec", Established, 1, "", "@client", "");
  EXPECT_EQ(conn.right_id, "@client");
}

// Verifies that a name that can't be taken apart is both the name and the id, whatever id is given beside it.
TEST_F(VPNConnInfoTest, UnknownName) {
  const VPNConnInfo conn("tunnel-a", "ipsec", Connecting, 5, "203.0.113.7", "@client", "10.9.0.3");
  EXPECT_EQ(conn.name, "tunnel-a");
  EXPECT_EQ(conn.right_id, "tunnel-a");
  EXPECT_EQ(conn.right, "");
  EXPECT_EQ(conn.internal_id, "");
  EXPECT_EQ(conn.vti_interface, "");
  EXPECT_EQ(conn.protocol, "ipsec");
  EXPECT_EQ(conn.state, Connecting);
  EXPECT_EQ(conn.peer_ip, "203.0.113.7");
  EXPECT_EQ(conn.lease_ip, "10.9.0.3");
}

[[noreturn]] void unfold_as_measurement_agent() {
  zol_test::ScopedConfig config("General: { kpa_id = \"agent\"; };");
  const VPNConnInfo conn("dc-7@12@203.0.113.7@10.0.0.2@vti3", "ipsec", Established, 9, "192.0.2.1", "@id",
                         "10.9.0.3");
  const bool as_told = conn.name == "dc-7@12@203.0.113.7@10.0.0.2@vti3" && conn.internal_id == "12" &&
                       conn.vti_interface == "vti3" && conn.right_id == "203.0.113.7" &&
                       conn.right == "dc-7" && conn.peer_internal_ip == "10.0.0.2" && conn.left.empty() &&
                       conn.group.empty() && conn.peer_ip == "192.0.2.1" && conn.lease_ip == "10.9.0.3" &&
                       conn.state == Established && conn.state_timestamp == 9;
  const VPNConnInfo other(zol_name, "ipsec", Established, 9, "", "@id", "");
  config.set("General: { zol_id = \"node\"; };");
  const VPNConnInfo later(zol_name, "ipsec", Established, 9, "", "", "");
  std::exit(as_told && other.name == zol_name && other.right_id == zol_name && later.name == zol_name ? 0
                                                                                                      : 1);
}

// Verifies that a measurement agent takes names of its own grammar apart, treats a ZOL's name as unknown, and
// stays what it was when its process began.
TEST(VPNConnInfoDeathTest, MeasurementAgent) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a new process, which hasn't read its role yet
  EXPECT_EXIT(unfold_as_measurement_agent(), testing::ExitedWithCode(0), "");
}

VPNConnInfo conn_of(const std::string& right_id, const std::string& right) {
  VPNConnInfo conn;
  conn.right_id = right_id;
  conn.right = right;
  return conn;
}

// Verifies that two records are of one connection only with the same peer, by its id and by its address.
TEST_F(VPNConnInfoTest, Matching) {
  const VPNConnInfo conn = conn_of("@a", "peer");
  EXPECT_TRUE(conn.is_matching_conn(conn_of("@a", "peer")));
  EXPECT_FALSE(conn.is_matching_conn(conn_of("a", "peer")));
  EXPECT_FALSE(conn.is_matching_conn(conn_of("@a", "other")));
  EXPECT_FALSE(conn_of("", "peer").is_matching_conn(conn_of("", "peer")));
  EXPECT_FALSE(conn_of("@a", "").is_matching_conn(conn_of("@a", "")));
}

// Verifies that merging a state keeps the higher one.
TEST_F(VPNConnInfoTest, MergesStateUpwards) {
  for (const VPNConnState before : {Disconnected, Connecting, Established}) {
    for (const VPNConnState now : {Disconnected, Connecting, Established}) {
      VPNConnInfo conn;
      conn.state = before;
      conn.update(now, 0, false);
      EXPECT_EQ(conn.state, std::max(before, now));
    }
  }
}

// Verifies that merging a time keeps the earliest that is known.
TEST_F(VPNConnInfoTest, MergesEarliestTime) {
  VPNConnInfo conn;
  conn.update(Disconnected, 0, false);
  EXPECT_EQ(conn.state_timestamp, 0);
  conn.update(Disconnected, 20, false);
  EXPECT_EQ(conn.state_timestamp, 20);
  conn.update(Disconnected, 30, false);
  EXPECT_EQ(conn.state_timestamp, 20);
  conn.update(Disconnected, 0, false);
  EXPECT_EQ(conn.state_timestamp, 20);
  conn.update(Disconnected, 10, false);
  EXPECT_EQ(conn.state_timestamp, 10);
}

// Verifies that a forced update replaces state and time, also by lower ones and by 0.
TEST_F(VPNConnInfoTest, ForcedUpdate) {
  VPNConnInfo conn;
  conn.update(Established, 10, false);
  conn.update(Disconnected, 30, true);
  EXPECT_EQ(conn.state, Disconnected);
  EXPECT_EQ(conn.state_timestamp, 30);
  conn.update(Connecting, 0, true);
  EXPECT_EQ(conn.state_timestamp, 0);
}

VPNConnInfo full(const std::string& prefix, int number) {
  VPNConnInfo conn(prefix + "internal", prefix + "protocol", prefix + "right_id", prefix + "right",
                   prefix + "peer_ip", prefix + "name", prefix + "left", prefix + "group",
                   prefix + "peer_internal_ip", prefix + "lease_ip", prefix + "vti", number, Connecting,
                   number);
  conn.gateway_ip = prefix + "gateway";
  conn.enabled = number % 2 == 0;
  conn.insert_established_tunnel(prefix + "tunnel");
  conn.bgp_subnets.insert(Subnet("10.0." + std::to_string(number) + ".0/24"));
  return conn;
}

// Verifies that a merge takes what the other report is to tell, and leaves what the configuration tells.
TEST_F(VPNConnInfoTest, MergesRecord) {
  VPNConnInfo conn = full("a-", 4);
  VPNConnInfo other = full("b-", 3);
  other.state = Established;
  conn.update(other);
  EXPECT_EQ(conn.state, Established);
  EXPECT_EQ(conn.state_timestamp, 3);
  EXPECT_EQ(conn.right_id, "b-right_id");
  EXPECT_EQ(conn.right, "b-right");
  EXPECT_EQ(conn.peer_ip, "b-peer_ip");
  EXPECT_EQ(conn.left, "b-left");
  EXPECT_EQ(conn.peer_internal_ip, "b-peer_internal_ip");
  EXPECT_EQ(conn.lease_ip, "b-lease_ip");
  EXPECT_THAT(conn.established_tunnels, ElementsAre("a-tunnel", "b-tunnel"));
  EXPECT_THAT(conn.bgp_subnets, ElementsAre(Subnet("10.0.3.0/24")));
  EXPECT_TRUE(conn.enabled);
  EXPECT_EQ(conn.internal_id, "a-internal");
  EXPECT_EQ(conn.protocol, "a-protocol");
  EXPECT_EQ(conn.name, "a-name");
  EXPECT_EQ(conn.group, "a-group");
  EXPECT_EQ(conn.gateway_ip, "a-gateway");
  EXPECT_EQ(conn.vti_interface, "a-vti");
  EXPECT_EQ(conn.priority, 4);
}

// Verifies that what the other report doesn't know stays, its routes too.
TEST_F(VPNConnInfoTest, KeepsWhatOtherLacks) {
  VPNConnInfo conn = full("a-", 4);
  conn.update(VPNConnInfo());
  const VPNConnInfo before = full("a-", 4);
  EXPECT_EQ(conn.state, Connecting);
  EXPECT_EQ(conn.state_timestamp, 4);
  EXPECT_EQ(conn.right_id, before.right_id);
  EXPECT_EQ(conn.right, before.right);
  EXPECT_EQ(conn.peer_ip, before.peer_ip);
  EXPECT_EQ(conn.left, before.left);
  EXPECT_EQ(conn.peer_internal_ip, before.peer_internal_ip);
  EXPECT_EQ(conn.lease_ip, before.lease_ip);
  EXPECT_EQ(conn.established_tunnels, before.established_tunnels);
  EXPECT_EQ(conn.bgp_subnets, before.bgp_subnets);
}

// Verifies that a merge with routes takes these, also when there are none.
TEST_F(VPNConnInfoTest, MergesRoutes) {
  VPNConnInfo conn = full("a-", 4);
  conn.update(full("b-", 3), {Subnet("10.7.0.0/16")});
  EXPECT_THAT(conn.bgp_subnets, ElementsAre(Subnet("10.7.0.0/16")));
  EXPECT_EQ(conn.right_id, "b-right_id");
  conn.update(full("b-", 3), {});
  EXPECT_THAT(conn.bgp_subnets, IsEmpty());
}

// Verifies that a newly configured connection takes what was seen of its predecessor, and nothing that was
// configured.
TEST_F(VPNConnInfoTest, EnrichedAfterReload) {
  VPNConnInfo conn = full("new-", 4);
  VPNConnInfo before = full("old-", 3);
  before.state = Established;
  conn.reconf_enrich(before);
  EXPECT_EQ(conn.state, Established);
  EXPECT_EQ(conn.state_timestamp, 3);
  EXPECT_EQ(conn.peer_ip, "old-peer_ip");
  EXPECT_EQ(conn.left, "old-left");
  EXPECT_EQ(conn.lease_ip, "old-lease_ip");
  EXPECT_THAT(conn.established_tunnels, ElementsAre("new-tunnel", "old-tunnel"));
  EXPECT_THAT(conn.bgp_subnets, ElementsAre(Subnet("10.0.3.0/24")));
  EXPECT_EQ(conn.right_id, "new-right_id");
  EXPECT_EQ(conn.right, "new-right");
  EXPECT_EQ(conn.peer_internal_ip, "new-peer_internal_ip");
  EXPECT_EQ(conn.gateway_ip, "new-gateway");
  EXPECT_EQ(conn.name, "new-name");
  EXPECT_EQ(conn.group, "new-group");
  EXPECT_EQ(conn.vti_interface, "new-vti");
}

// Verifies that a tunnel without an identity isn't counted, and that one counts once.
TEST_F(VPNConnInfoTest, EstablishedTunnels) {
  VPNConnInfo conn;
  conn.insert_established_tunnel("");
  EXPECT_THAT(conn.established_tunnels, IsEmpty());
  conn.insert_established_tunnel("1x0");
  conn.insert_established_tunnel("1x0");
  conn.insert_established_tunnel("0x0");
  EXPECT_THAT(conn.established_tunnels, ElementsAre("0x0", "1x0"));
}

// Verifies that the name of a connection is the one that it came from.
TEST_F(VPNConnInfoTest, ConnectionName) {
  EXPECT_EQ(VPNConnInfo(zol_name, "ipsec", Established, 1, "", "", "").get_connection_name(), zol_name);
}

}  // namespace
}  // namespace zol
