// The table of sites from the configuration, and what survives a reload.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sites/site_table.h"

namespace {

using zol::Connecting;
using zol::Disconnected;
using zol::Established;
using zol::SiteService;
using zol::Subnet;
using zol_test::bare_entry;
using zol_test::bare_site;
using zol_test::list_of;
using zol_test::local_address;
using zol_test::Members;
using zol_test::middle_mile;
using zol_test::MiddleMileNode;
using zol_test::SiteTable;

const std::string two_ways =
    R"({ primary = { site_ip = "169.254.0.2"; gw_ip = "169.254.0.1"; netmask = "255.255.255.252"; };
         secondary = { site_ip = "169.254.1.2"; gw_ip = "169.254.1.1"; netmask = "255.255.255.252"; }; })";

Members site_with(const Members& entry) {
  return bare_site.with("entry_points", list_of({entry.text()}));
}

std::string text(const std::string& value) {
  return "\"" + value + "\"";
}

struct Read {
  explicit Read(const std::vector<std::string>& sites, const std::string& vpn_members = local_address,
                const std::string& rest = "")
      : node(sites, vpn_members, rest) {
    table.init();
  }
  const SiteService& site(const std::string& id = "17") { return *table.site_services.at(id); }
  const zol::VPNConnInfo& conn() { return *site().entries.front(); }

  MiddleMileNode node;
  SiteTable table;
};

// Verifies every field of a site.
TEST(SiteServicesConfTest, SiteFields) {
  Read read({bare_site.with("name", text("Harbour"))
                 .with("accept_connections", "true")
                 .with("vpn_group", text("Branch"))
                 .with("protocol", text("gre"))
                 .with("subnets", R"(( "10.2.0.0/16", "10.1.0.0/16", "10.2.3.4/16" ))")
                 .text()});
  ASSERT_EQ(read.table.site_services.size(), 1u);
  const SiteService& site = read.site();
  EXPECT_EQ(site.name, "Harbour");
  EXPECT_EQ(site.internal_id, "17");
  EXPECT_TRUE(site.accept_connections);
  EXPECT_EQ(site.type, "site");
  EXPECT_EQ(site.vpn_group, "Branch");
  EXPECT_TRUE(site.bgp_enabled);
  EXPECT_EQ(site.metadata, "floor 2");
  EXPECT_TRUE(site.primary);
  EXPECT_EQ(site.protocol, "gre");
  EXPECT_EQ(site.subnets, (std::set<Subnet>{Subnet("10.1.0.0/16"), Subnet("10.2.0.0/16")}));
  EXPECT_TRUE(site.entries.empty());
}

// Verifies every field of a connection, at the primary block of a primary site.
TEST(SiteServicesConfTest, ConnectionFields) {
  Read read({site_with(bare_entry.with("vti", text("vti3")).with("route_based", two_ways))
                 .with("name", text("Harbour"))
                 .with("vpn_group", text("Branch"))
                 .with("protocol", text("ipsec"))
                 .text()});
  ASSERT_EQ(read.site().entries.size(), 1u);
  const zol::VPNConnInfo& conn = read.conn();
  EXPECT_TRUE(conn.enabled);
  EXPECT_EQ(conn.internal_id, "17");
  EXPECT_EQ(conn.protocol, "ipsec");
  EXPECT_EQ(conn.name, "Harbour");
  EXPECT_EQ(conn.group, "Branch");
  EXPECT_EQ(conn.right, "203.0.113.7");
  EXPECT_EQ(conn.right_id, "@hq.site");
  EXPECT_EQ(conn.priority, 4);
  EXPECT_EQ(conn.vti_interface, "vti3");
  EXPECT_EQ(conn.peer_internal_ip, "169.254.0.2");
  EXPECT_EQ(conn.gateway_ip, "169.254.0.1");
  EXPECT_EQ(conn.peer_ip + conn.left + conn.lease_ip, "");
  EXPECT_EQ(conn.state, Disconnected);
  EXPECT_EQ(conn.state_timestamp, 0);
}

// Verifies that a secondary site takes the secondary block, and a disabled entry is there as such.
TEST(SiteServicesConfTest, SecondarySite) {
  Read read({site_with(bare_entry.with("enabled", "false").with("route_based", two_ways))
                 .with("primary", "false")
                 .text()});
  EXPECT_FALSE(read.site().primary);
  EXPECT_FALSE(read.conn().enabled);
  EXPECT_EQ(read.conn().peer_internal_ip, "169.254.1.2");
  EXPECT_EQ(read.conn().gateway_ip, "169.254.1.1");
}

// Verifies that "@" goes in front of a textual identity over IPsec and nowhere else.
TEST(SiteServicesConfTest, TextualIdentity) {
  const auto right_id = [](const std::string& protocol, const char* as_text) {
    return Read({site_with(bare_entry.with("id_as_text", as_text)).with("protocol", text(protocol)).text()})
        .conn()
        .right_id;
  };
  EXPECT_EQ(right_id("ipsec", "true"), "@hq.site");
  EXPECT_EQ(right_id("ipsec", "false"), "hq.site");
  EXPECT_EQ(right_id("gre", "true"), "hq.site");
  EXPECT_EQ(right_id("lan", "true"), "hq.site");
}

// Verifies that a site without a protocol is one over IPsec.
TEST(SiteServicesConfTest, WithoutProtocol) {
  Read read({site_with(bare_entry).text()});
  EXPECT_EQ(read.site().protocol, "ipsec");
  EXPECT_EQ(read.conn().protocol, "ipsec");
  EXPECT_EQ(read.conn().right_id, "@hq.site");
}

// Verifies that the entry points of a remote access site make no connections.
TEST(SiteServicesConfTest, RemoteAccess) {
  Read read({site_with(bare_entry).with("type", text("remote_access")).text()});
  EXPECT_TRUE(read.site().entries.empty());
}

// Verifies that of two sites with one id the second one stands.
TEST(SiteServicesConfTest, SameId) {
  Read read({bare_site.with("name", text("first")).text(),
             bare_site.with("name", text("second")).with("subnets", R"(( "10.0.0.0/8" ))").text()});
  ASSERT_EQ(read.table.site_services.size(), 1u);
  EXPECT_EQ(read.site().name, "second");
  EXPECT_EQ(read.site().subnets.size(), 1u);
}

// Verifies that a site without a required key is left out with its error, and the others are read.
TEST(SiteServicesConfTest, RefusedSite) {
  const zol_test::LogCapture log;
  Read read({bare_site.without("metadata").text(), bare_site.with("internal_id", text("18")).text()});
  EXPECT_EQ(read.table.site_services.size(), 1u);
  EXPECT_TRUE(read.table.site_services.contains("18"));
  EXPECT_TRUE(log.contains(log_level::error, " vpn site VPNIPsec.sites.[0] is missing metadata key."))
      << log.all();
}

// Verifies that a bad subnet is left out with an error, and the rest of its site is read.
TEST(SiteServicesConfTest, BadSubnet) {
  const zol_test::LogCapture log;
  Read read({bare_site.with("subnets", R"(( "10.0.0.0/8", "nonsense", "", "10.0.0.0/33" ))").text()});
  EXPECT_EQ(read.site().subnets, (std::set<Subnet>{Subnet("10.0.0.0/8")}));
  EXPECT_TRUE(log.contains(log_level::error, "bad subnet format1: nonsense")) << log.all();
  EXPECT_TRUE(log.contains(log_level::error, "bad subnet format2: 10.0.0.0/33")) << log.all();
}

// Verifies that a bad address inside a tunnel is left out with an error.
TEST(SiteServicesConfTest, BadTunnelAddress) {
  const zol_test::LogCapture log;
  Read read({site_with(bare_entry.with("route_based",
                                       R"({ primary = { site_ip = "nonsense"; gw_ip = "1.2.3.4"; }; })"))
                 .text()});
  EXPECT_TRUE(read.table.conf_subnets.empty());
  EXPECT_TRUE(log.contains(log_level::error, "address nonsense of site 17 is left out")) << log.all();
}

// Verifies that a node outside the middle mile reads nothing, and one inside says that it reads.
TEST(SiteServicesConfTest, OnlyInTheMiddleMile) {
  MiddleMileNode node({bare_site.text()}, local_address);
  SiteTable table;
  {
    const zol_test::LogCapture log;
    table.init();
    EXPECT_TRUE(log.contains(log_level::info, "Reading configuration")) << log.all();
  }
  EXPECT_EQ(table.site_services.size(), 1u);
  node.set(MiddleMileNode::text({bare_site.text()}));
  const zol_test::LogCapture log;
  table.reconfigure();
  EXPECT_TRUE(table.site_services.empty());
  EXPECT_FALSE(log.contains("Reading configuration")) << log.all();
}

// Verifies that the first local address means this node, and the routing id is read.
TEST(SiteServicesConfTest, LocalAddressAndRoutingId) {
  Read read({}, R"(icmp_local_address_group = "g"; icmp_local_addresses = ( "10.0.0.1", "10.0.0.2" );)",
            "SharedNetworkData: { routing_id = 21; };");
  EXPECT_EQ(read.table.local_ips, (std::set<std::string>{"10.0.0.1"}));
  EXPECT_EQ(read.table.routing_id, 21);
  read.node.set(MiddleMileNode::text({}, "", middle_mile));
  read.table.reconfigure();
  EXPECT_TRUE(read.table.local_ips.empty());
  EXPECT_EQ(read.table.routing_id, 0);
}

// --- the number of tunnels

Members site_of_tunnels(const std::string& id, int subnets, const std::string& other_sites,
                        const char* route_based, const char* default_gateway) {
  std::vector<std::string> list;
  for (int i = 0; i < subnets; ++i)
    list.push_back(text("10." + std::to_string(i) + ".0.0/16"));
  return bare_site.with("internal_id", text(id))
      .with("subnets", list_of(list))
      .with("other_sites", other_sites)
      .with("route_based_enabled", route_based)
      .with("default_gateway", default_gateway);
}

int tunnels_of(const Members& site, const std::string& vpn_members = local_address) {
  Read read({site.text(), site_of_tunnels("north-1", 2, "( )", "true", "true").text(),
             site_of_tunnels("north-2", 3, "( )", "true", "true").text(),
             site_of_tunnels("south-1", 7, "( )", "true", "true").text()},
            vpn_members);
  return read.site("it").total_tunnels;
}

// Verifies each case of the number of tunnels.
TEST(SiteServicesConfTest, TotalTunnels) {
  const std::string two_local =
      R"(icmp_local_address_group = "g"; icmp_local_addresses = ( "10.0.0.1", "10.0.0.2" );)";
  EXPECT_EQ(tunnels_of(site_of_tunnels("it", 3, "( \"north\" )", "true", "true")), 1) << "route based";
  EXPECT_EQ(tunnels_of(site_of_tunnels("it", 0, "( )", "true", "false")), 1) << "route based, no subnets";
  EXPECT_EQ(tunnels_of(site_of_tunnels("it", 3, "( \"north\" )", "false", "true")), 3) << "default gateway";
  EXPECT_EQ(tunnels_of(site_of_tunnels("it", 3, "( )", "false", "false")), 3) << "one local address";
  EXPECT_EQ(tunnels_of(site_of_tunnels("it", 3, "( )", "false", "false"), two_local), 6);
  EXPECT_EQ(tunnels_of(site_of_tunnels("it", 3, "( \"north\" )", "false", "false"), two_local), 6 + 3 * 5);
  EXPECT_EQ(tunnels_of(site_of_tunnels("it", 3, "( \"north-2\", \"south\" )", "false", "false")),
            3 + 3 * 3 + 3 * 7);
  EXPECT_EQ(tunnels_of(site_of_tunnels("it", 3, "( \"nowhere\" )", "false", "false")), 3);
  EXPECT_EQ(tunnels_of(site_of_tunnels("it", 2, "( \"i\" )", "false", "false")), 2 + 2 * 2) << "itself";
}

// Verifies that a plain site without local addresses and other sites has no tunnels.
TEST(SiteServicesConfTest, NoTunnels) {
  EXPECT_EQ(tunnels_of(site_of_tunnels("it", 3, "( )", "false", "false"), ""), 0);
}

// --- the configured subnets

const zol::VPNConnInfo* owner(SiteTable& table, const char* ip) {
  const zol::SiteSubnet* found = table.conf_subnets.look_up(inet_addr(ip));
  return found == nullptr ? nullptr : found->conn.get();
}

// Verifies that a connection's inner address beats the wider subnet of another site, whatever their order.
TEST(SiteServicesConfTest, HostBeatsSubnet) {
  for (const char* wide_id : {"1", "9"}) {
    Read read({site_with(bare_entry.with("route_based",
                                         R"({ primary = { site_ip = "10.0.0.9"; gw_ip = "10.0.0.8"; }; })"))
                   .with("internal_id", text("5"))
                   .text(),
               site_with(bare_entry)
                   .with("internal_id", text(wide_id))
                   .with("subnets", R"(( "10.0.0.0/24" ))")
                   .text()});
    EXPECT_EQ(owner(read.table, "10.0.0.9")->internal_id, "5") << wide_id;
    EXPECT_EQ(owner(read.table, "10.0.0.8")->internal_id, wide_id) << wide_id;
  }
}

// Verifies that of those that claim one subnet the last connection of the last site has it.
TEST(SiteServicesConfTest, LastClaimWins) {
  const auto claiming = [](const char* id) {
    return bare_site.with("internal_id", text(id))
        .with("subnets", R"(( "10.0.0.0/24" ))")
        .with("entry_points", list_of({bare_entry.with("ip", text("first")).text(),
                                       bare_entry.with("ip", text("last")).text()}))
        .text();
  };
  Read read({claiming("2"), claiming("1")});
  EXPECT_EQ(owner(read.table, "10.0.0.1")->internal_id, "2");
  EXPECT_EQ(owner(read.table, "10.0.0.1")->right, "last");
}

// --- reloads

std::shared_ptr<SiteService> site_of(const std::string& id, const std::string& type) {
  auto site = std::make_shared<SiteService>();
  site->internal_id = id;
  site->type = type;
  return site;
}

// Verifies that clients of a remote access site stay over a reload as the same objects unless they are down,
// and that their leased addresses are known then.
TEST(SiteServicesConfTest, RemoteAccessClientsSurvive) {
  Read read({bare_site.with("type", text("remote_access")).text()});
  const std::shared_ptr<SiteService> old_site = read.table.site_services.at("17");
  SiteService& before = *old_site;
  const auto up = zol_test::add_conn(before, "up", "%any", Established);
  up->lease_ip = "10.7.7.7";
  const auto connecting = zol_test::add_conn(before, "connecting", "%any", Connecting);
  zol_test::add_conn(before, "down", "%any", Disconnected);
  read.table.reconfigure();
  ASSERT_EQ(read.site().entries.size(), 2u);
  EXPECT_NE(&read.site(), &before);
  EXPECT_EQ(read.site().entries.front(), up);
  EXPECT_EQ(read.site().entries.back(), connecting);
  EXPECT_EQ(owner(read.table, "10.7.7.7"), up.get());
}

// Verifies that a configured connection takes what was seen of its predecessor, and nothing of another.
TEST(SiteServicesConfTest, ConnectionsAreEnriched) {
  SiteTable table;
  const auto before = site_of("s1", "site");
  const auto seen = zol_test::add_conn(*before, "id", "right", Established);
  seen->peer_ip = "198.51.100.7";
  seen->left = "192.0.2.1";
  seen->bgp_subnets = {Subnet("10.0.0.0/8")};
  zol_test::add_conn(*before, "gone", "right", Established);
  table.site_services["s1"] = before;
  const auto after = site_of("s1", "site");
  const auto same = zol_test::add_conn(*after, "id", "right");
  const auto other = zol_test::add_conn(*after, "id", "elsewhere");
  table.set_new_site_services({{"s1", after}});
  EXPECT_EQ(table.site_services.at("s1"), after);
  ASSERT_EQ(after->entries.size(), 2u) << "a site's connections are the configured ones";
  EXPECT_EQ(same->peer_ip, "198.51.100.7");
  EXPECT_EQ(same->left, "192.0.2.1");
  EXPECT_EQ(same->bgp_subnets.size(), 1u);
  EXPECT_EQ(other->peer_ip, "");
}

// Verifies that a reload reads the sites anew on an ordinary node.
TEST(SiteServicesConfTest, ReloadReadsTheSites) {
  Read read({bare_site.text()});
  read.node.set(MiddleMileNode::text({bare_site.with("internal_id", text("18")).text()}, "", middle_mile));
  read.table.reconfigure();
  EXPECT_FALSE(read.table.site_services.contains("17"));
  EXPECT_TRUE(read.table.site_services.contains("18"));
}

}  // namespace
