// GRE tunnels as the node's tunnel keeper prints them.
#include "sites/gre_status_parser.h"

#include <gmock/gmock.h>

#include <ctime>

#include "tests/unit/sites/status_parser_fixture.h"

namespace zol {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* name = "site@12@cGVlcg==@h@l@vti3@g";  // the peer's id is "peer"
const std::string line = std::string(name) + ": ResolvedIP: 198.51.100.7 State: ";

class OnlyLines : public GREStatusParser {
 public:
  OnlyLines() : GREStatusParser(NoCommand()) {}
};

class GREStatusParserTest : public zol_test::StatusParserTest {
 protected:
  VPNConnState state_of(const std::string& text) {
    OnlyLines parser;
    EXPECT_TRUE(parser.parse_line(text));
    return parser.entries.at(name).state;
  }
};

// Verifies the protocol and the command.
TEST_F(GREStatusParserTest, Command) {
  OnlyLines parser;
  EXPECT_EQ(parser.get_protocol(), "gre");
  EXPECT_EQ(parser.vpn_status_command(), "/opt/gred/gred.sh status");
}

// Verifies that a line gives the connection of its name, with its address, up since now.
TEST_F(GREStatusParserTest, Line) {
  OnlyLines parser;
  const long before = time(nullptr);
  EXPECT_TRUE(parser.parse_line(line + "Established\n"));
  ASSERT_THAT(parser.entries, SizeIs(1));
  const VPNConnInfo& conn = parser.entries.at(name);
  EXPECT_EQ(conn.name, "site");
  EXPECT_EQ(conn.internal_id, "12");
  EXPECT_EQ(conn.right_id, "peer");
  EXPECT_EQ(conn.right, "h");
  EXPECT_EQ(conn.left, "l");
  EXPECT_EQ(conn.vti_interface, "vti3");
  EXPECT_EQ(conn.group, "g");
  EXPECT_EQ(conn.protocol, "gre");
  EXPECT_EQ(conn.peer_ip, "198.51.100.7");
  EXPECT_EQ(conn.state, Established);
  EXPECT_GE(conn.state_timestamp, before);
  EXPECT_THAT(conn.established_tunnels, ElementsAre(name));
}

// Verifies each state, and that any other text is one that is down.
TEST_F(GREStatusParserTest, States) {
  EXPECT_EQ(state_of(line + "Established\n"), Established);
  EXPECT_EQ(state_of(line + "Connecting\n"), Connecting);
  EXPECT_EQ(state_of(line + "Disconnected\n"), Disconnected);
  EXPECT_EQ(state_of(line + "established\n"), Disconnected);
  EXPECT_EQ(state_of(line + "Established \n"), Disconnected);
  EXPECT_EQ(state_of(line + "\n"), Disconnected);
  EXPECT_EQ(state_of(std::string(name) + ": no such words\n"), Disconnected);
}

// Verifies that the line feed belongs to the grammar: a line that was cut off isn't up.
TEST_F(GREStatusParserTest, CutLine) {
  EXPECT_EQ(state_of(line + "Established"), Disconnected);
}

// Verifies that the heading is no connection.
TEST_F(GREStatusParserTest, Heading) {
  OnlyLines parser;
  EXPECT_TRUE(parser.parse_line("GRED: 3 tunnels State: Established\n"));
  EXPECT_TRUE(parser.parse_line("GRED:\n"));
  EXPECT_THAT(parser.entries, IsEmpty());
}

// Verifies that a line without a name isn't understood.
TEST_F(GREStatusParserTest, NoName) {
  OnlyLines parser;
  for (const char* text : {"", "\n", "   \n", ": ResolvedIP: 198.51.100.7 State: Established\n"})
    EXPECT_FALSE(parser.parse_line(text)) << text;
  EXPECT_THAT(parser.entries, IsEmpty());
}

// Verifies that two lines of one connection merge, the highest state winning.
TEST_F(GREStatusParserTest, LinesMerge) {
  OnlyLines parser;
  parser.parse_line(line + "Established\n");
  parser.parse_line(line + "Connecting\n");
  ASSERT_THAT(parser.entries, SizeIs(1));
  EXPECT_EQ(parser.entries.at(name).state, Established);
}

// Verifies that the expected connection is the one of the same interface, whatever its id.
TEST_F(GREStatusParserTest, ExpectedByInterface) {
  SiteService& site = sites.add("12", "gre");
  zol_test::TestSites::add_conn(site, "other", "a").vti_interface = "vti3";
  zol_test::TestSites::add_conn(site, "peer", "h").vti_interface = "vti4";
  OnlyLines parser;
  parser.parse_line(line + "Connecting\n");
  const auto conns = parser.get_connections_info_status(&sites);
  ASSERT_THAT(conns, SizeIs(2));
  EXPECT_EQ(conns[0].vti_interface, "vti3");
  EXPECT_EQ(conns[0].right_id, "peer");
  EXPECT_EQ(conns[1].vti_interface, "vti4");
  EXPECT_EQ(conns[1].state, Disconnected);
}

// Verifies that a name absent from the configuration is kept unless it is down.
TEST_F(GREStatusParserTest, UnknownName) {
  for (const char* state : {"Established", "Connecting", "Disconnected"}) {
    OnlyLines parser;
    parser.parse_line(std::string("stray: ResolvedIP: 192.0.2.1 State: ") + state + "\n");
    EXPECT_EQ(parser.get_connections_info_status(&sites).size(),
              std::string(state) == "Disconnected" ? 0U : 1U)
        << state;
  }
}

// Verifies that the constructor runs the tunnel keeper with "status".
TEST_F(GREStatusParserTest, RunsCommand) {
  const zol_test::NodeFolders folders;
  if (!folders.mounted())
    GTEST_SKIP() << folders.reason();
  zol_test::write_program(
      "/opt/gred/gred.sh",
      "#!/bin/sh\n[ \"$*\" = status ] || exit 1\necho 'GRED: up'\necho '" + line + "Established'\n");
  EXPECT_THAT(GREStatusParser().entries, SizeIs(1));
}

// Verifies that without the tunnel keeper the expected connections are down.
TEST_F(GREStatusParserTest, NoCommand) {
  const zol_test::NodeFolders folders;
  if (!folders.mounted())
    GTEST_SKIP() << folders.reason();
  zol_test::TestSites::add_conn(sites.add("12", "gre"), "peer", "h");
  const auto conns = GREStatusParser().get_connections_info_status(&sites);
  ASSERT_THAT(conns, SizeIs(1));
  EXPECT_EQ(conns[0].state, Disconnected);
}

}  // namespace
}  // namespace zol
