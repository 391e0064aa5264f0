// Sites on the local network, by the kernel's ARP table.
#include "sites/direct_status_parser.h"

#include <gmock/gmock.h>
#include <sched.h>

#include <cstdlib>
#include <ctime>

#include "sup_logger.h"
#include "tests/unit/exec/exec_fixture.h"
#include "tests/unit/sites/status_parser_fixture.h"
#include "tests/unit/sites/vpn_config.h"

namespace zol {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::SizeIs;
using zol_test::bare_entry;
using zol_test::bare_site;
using zol_test::list_of;

class OnlyLines : public DirectStatusParser {
 public:
  OnlyLines() : DirectStatusParser(NoCommand()) {}
};

zol_test::Members entry(const std::string& primary_ip, const std::string& secondary_ip) {
  const auto block = [](const std::string& ip) {
    return "{ site_ip = \"" + ip + R"("; gw_ip = "10.3.0.1"; netmask = "255.255.255.0"; })";
  };
  return bare_entry.with("route_based",
                         "{ primary = " + block(primary_ip) + "; secondary = " + block(secondary_ip) + "; }");
}

zol_test::Members lan_site(const std::vector<std::string>& entries) {
  return bare_site.with("protocol", "\"lan\"")
      .with("accept_connections", "true")
      .with("name", "\"branch\"")
      .with("vpn_group", "\"grp\"")
      .with("entry_points", list_of(entries));
}

class DirectStatusParserTest : public testing::Test {
 protected:
  // The list is the process's own; each test reads it anew.
  ~DirectStatusParserTest() override { forget_sites(); }

  void configure(const std::vector<std::string>& site_texts) {
    node = std::make_unique<zol_test::VpnNode>(site_texts);
    forget_sites();
  }
  static void forget_sites() {
    ZOLVPNSitesConf& confs = *ZOLVPNSitesConf::instance();
    const auto list = confs.find("");
    if (list == confs.end())
      return;
    delete list->second;
    confs.erase(list);
  }

  std::unique_ptr<zol_test::VpnNode> node;
  zol_test::LogCapture log;
  zol_test::TestSites sites;
};

// Verifies the protocol and the command.
TEST_F(DirectStatusParserTest, Command) {
  configure({});
  OnlyLines parser;
  EXPECT_EQ(parser.get_protocol(), "lan");
  EXPECT_EQ(parser.vpn_status_command(), "arp -ne | tail -n +2 | grep -v incomplete | awk '{ print $1 }'");
}

// Verifies what is kept of a local peer, under the address of a primary site's block or of a secondary's.
TEST_F(DirectStatusParserTest, Mapping) {
  configure({lan_site({entry("10.3.0.7", "10.4.0.7").text()}).text(),
             lan_site({entry("10.3.0.8", "10.4.0.8").text()})
                 .with("internal_id", "\"18\"")
                 .with("primary", "false")
                 .text()});
  const OnlyLines parser;
  EXPECT_THAT(parser.site_mapping, ElementsAre(Key("10.3.0.7"), Key("10.4.0.8")));
  const auto& peer = parser.site_mapping.at("10.3.0.7");
  EXPECT_EQ(peer.ip, "203.0.113.7");
  EXPECT_EQ(peer.id, "hq.site");
  EXPECT_EQ(peer.internal_id, "17");
  EXPECT_EQ(peer.name, "branch");
  EXPECT_EQ(peer.vpn_group, "grp");
}

// Verifies that only enabled entries of local sites that accept connections are looked for, and none without
// an address.
TEST_F(DirectStatusParserTest, WhatIsNotLookedFor) {
  configure({lan_site({entry("10.3.0.1", "").with("enabled", "false").text(), entry("10.3.0.2", "").text(),
                       entry("", "10.4.0.2").text()})
                 .text(),
             lan_site({entry("10.3.0.3", "").text()})
                 .with("internal_id", "\"18\"")
                 .with("protocol", "\"gre\"")
                 .text(),
             lan_site({entry("10.3.0.4", "").text()})
                 .with("internal_id", "\"19\"")
                 .with("accept_connections", "false")
                 .text()});
  EXPECT_THAT(OnlyLines().site_mapping, ElementsAre(Key("10.3.0.2")));
}

// Verifies that the list of sites is made when nobody has read it yet, and taken as it is otherwise.
TEST_F(DirectStatusParserTest, ListOfSites) {
  configure({lan_site({entry("10.3.0.7", "").text()}).text()});
  const OnlyLines first;
  ZOLVPNSites* const list = ZOLVPNSitesConf::instance()->at("");
  ASSERT_NE(list, nullptr);
  node->set(zol_test::VpnNode::text({}));
  EXPECT_THAT(OnlyLines().site_mapping, SizeIs(1));
  EXPECT_EQ(ZOLVPNSitesConf::instance()->at(""), list);
}

// Verifies that a peer in the table is up since now, under the address that is configured.
TEST_F(DirectStatusParserTest, PeerInTable) {
  configure({lan_site({entry("10.3.0.7", "").text()}).text()});
  OnlyLines parser;
  const long before = time(nullptr);
  EXPECT_TRUE(parser.parse_line("10.3.0.7\n"));
  EXPECT_TRUE(parser.parse_line("10.3.0.7"));
  ASSERT_THAT(parser.entries, ElementsAre(Key("203.0.113.7")));
  const VPNConnInfo& conn = parser.entries.at("203.0.113.7");
  EXPECT_EQ(conn.internal_id, "17");
  EXPECT_EQ(conn.protocol, "lan");
  EXPECT_EQ(conn.right_id, "hq.site");
  EXPECT_EQ(conn.right, "203.0.113.7");
  EXPECT_EQ(conn.peer_ip, "203.0.113.7");
  EXPECT_EQ(conn.name, "branch");
  EXPECT_EQ(conn.left, "");
  EXPECT_EQ(conn.group, "grp");
  EXPECT_EQ(conn.priority, 0);
  EXPECT_EQ(conn.state, Established);
  EXPECT_GE(conn.state_timestamp, before);
  EXPECT_THAT(conn.established_tunnels, IsEmpty());
}

// Verifies that an address of somebody else isn't understood, with a line for debugging.
TEST_F(DirectStatusParserTest, OtherAddress) {
  configure({});
  OnlyLines parser;
  EXPECT_FALSE(parser.parse_line("10.3.0.9\n"));
  EXPECT_TRUE(log.contains(log_level::debug, "parse_line: ip is not peer local ip: 10.3.0.9"));
  EXPECT_THAT(parser.entries, IsEmpty());
}

// Verifies that what is no address isn't understood, with an error.
TEST_F(DirectStatusParserTest, NoAddress) {
  configure({});
  OnlyLines parser;
  for (const char* text : {"arp:", "10.3.0", ""}) {
    log.clear();
    EXPECT_FALSE(parser.parse_line(std::string(text) + "\n"));
    EXPECT_TRUE(
        log.contains(log_level::error, std::string("parse_line: Invalid input from arp command: ") + text));
  }
}

// Verifies that the expected connection is the one of the same address.
TEST_F(DirectStatusParserTest, ExpectedByAddress) {
  configure({lan_site({entry("10.3.0.7", "").text()}).text()});
  SiteService& site = sites.add("17", "lan");
  zol_test::TestSites::add_conn(site, "other", "203.0.113.7");
  zol_test::TestSites::add_conn(site, "hq.site", "203.0.113.8");
  OnlyLines parser;
  parser.parse_line("10.3.0.7\n");
  const auto conns = parser.get_connections_info_status(&sites);
  ASSERT_THAT(conns, SizeIs(2));
  EXPECT_EQ(conns[0].right_id, "hq.site");
  EXPECT_EQ(conns[0].state, Established);
  EXPECT_EQ(conns[1].right, "203.0.113.8");
  EXPECT_EQ(conns[1].state, Disconnected);
}

// Verifies, against the kernel's own table in a network of its own, that the heading and a neighbour that
// doesn't answer are left out.
TEST_F(DirectStatusParserTest, RealTable) {
  if (geteuid() != 0)
    GTEST_SKIP() << "a network of its own needs root";
  configure(
      {lan_site({entry("10.3.0.7", "").text(), entry("10.3.0.8", "").with("ip", "\"203.0.113.8\"").text()})
           .text()});
  EXPECT_TRUE(zol_test::holds_in_own_process([] {
    const char* const set_up =
        "ip link add lan0 type veth peer name lan1 && ip addr add 10.3.0.1/24 dev lan0 && "
        "ip link set lan0 up && ip link set lan1 up && "
        "ip neigh add 10.3.0.7 lladdr 02:00:00:00:00:07 dev lan0 && "
        "ip neigh add 10.3.0.9 lladdr 02:00:00:00:00:09 dev lan0 && "
        "ip neigh add 10.3.0.8 dev lan0 nud incomplete";
    if (unshare(CLONE_NEWNET) != 0 || system(set_up) != 0)
      return false;
    zol_test::LogCapture own_log;
    const DirectStatusParser parser;
    return parser.entries.size() == 1 && parser.entries.count("203.0.113.7") == 1 &&
           own_log.contains("ip is not peer local ip: 10.3.0.9") && !own_log.contains("Invalid input");
  }));
}

// Verifies that an empty table gives nothing and is no error.
TEST_F(DirectStatusParserTest, EmptyRealTable) {
  if (geteuid() != 0)
    GTEST_SKIP() << "a network of its own needs root";
  configure({lan_site({entry("10.3.0.7", "").text()}).text()});
  EXPECT_TRUE(zol_test::holds_in_own_process([] {
    if (unshare(CLONE_NEWNET) != 0)
      return false;
    zol_test::LogCapture own_log;
    const DirectStatusParser parser;
    return parser.entries.empty() && !own_log.contains("Invalid input");
  }));
}

}  // namespace
}  // namespace zol
