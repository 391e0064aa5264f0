// IPsec tunnels as the IKE daemon's status shows them.
#include "sites/ipsec_status_parser.h"

#include <gmock/gmock.h>

#include <ctime>
#include <stdexcept>

#include "sup_logger.h"
#include "tests/unit/sites/status_parser_fixture.h"

namespace zol {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// The peer's id is "peer".
constexpr const char* name = "site@12@cGVlcg==@h@l@vti3@g";
const std::string quoted = "\"" + std::string(name) + "/1x0\"";
const std::string traffic = quoted + ", type=ESP, add_time=1700000000, inBytes=0, outBytes=0, id='@peer'\n";
const std::string quick =
    quoted +
    ":500 STATE_QUICK_I2 (sent QI2, IPsec SA established); EVENT_SA_REPLACE in 27000s; newest IPSEC; "
    "eroute owner; isakmp#1; idle;\n";
const std::string main_mode =
    quoted + ":500 STATE_MAIN_I4 (ISAKMP SA established); EVENT_SA_REPLACE in 10s;\n";
const std::string client = "\"site@12@@%any@l@@g\"[7]";  // of a template without an id
constexpr const char* output_log = "/var/log/zol/ipsec_output.log";

class OnlyLines : public IPsecStatusParser {
 public:
  OnlyLines() : IPsecStatusParser(NoCommand()) {}
};

class IPsecStatusParserTest : public zol_test::StatusParserTest {
 protected:
  // The one connection that a line gives.
  VPNConnInfo conn_of(const std::string& line) {
    OnlyLines parser;
    EXPECT_TRUE(parser.parse_line(line)) << line;
    EXPECT_THAT(parser.entries, SizeIs(1)) << line;
    return parser.entries.empty() ? VPNConnInfo() : parser.entries.begin()->second;
  }
};

// Verifies the protocol and the command, all 122 characters of it.
TEST_F(IPsecStatusParserTest, Command) {
  OnlyLines parser;
  EXPECT_EQ(parser.get_protocol(), "ipsec");
  EXPECT_EQ(parser.vpn_status_command(),
            "ipsec whack --trafficstatus --status | grep -e '#[0-9]*:' | awk -F '#[0-9]+:' "
            "'{ print substr($2, 2) }' | grep -v ZOLtoZOL");
  EXPECT_EQ(parser.vpn_status_command().size(), 122U);
}

// Verifies that a traffic line gives the connection of its name, up since the time that it tells.
TEST_F(IPsecStatusParserTest, TrafficLine) {
  const VPNConnInfo conn = conn_of(traffic);
  EXPECT_EQ(conn.name, "site");
  EXPECT_EQ(conn.internal_id, "12");
  EXPECT_EQ(conn.right_id, "peer");
  EXPECT_EQ(conn.right, "h");
  EXPECT_EQ(conn.left, "l");
  EXPECT_EQ(conn.vti_interface, "vti3");
  EXPECT_EQ(conn.group, "g");
  EXPECT_EQ(conn.protocol, "ipsec");
  EXPECT_EQ(conn.state, Established);
  EXPECT_EQ(conn.state_timestamp, 1700000000);
  EXPECT_EQ(conn.lease_ip, "");
  EXPECT_EQ(conn.peer_ip, "");
  EXPECT_THAT(conn.established_tunnels, ElementsAre("1x0"));
}

// Verifies that the lease of a peer that isn't a remote access client is nobody's, and that the peer's id is
// the name's.
TEST_F(IPsecStatusParserTest, LeaseOfSiteIsIgnored) {
  const VPNConnInfo conn = conn_of(quoted + ", add_time=5, id='@other', lease=10.1.2.3/32\n");
  EXPECT_EQ(conn.lease_ip, "");
  EXPECT_EQ(conn.right_id, "peer");
}

// Verifies that a remote access client's line gives its lease and its id.
TEST_F(IPsecStatusParserTest, RemoteAccessClient) {
  OnlyLines parser;
  ASSERT_TRUE(parser.parse_line(client +
                                " 203.0.113.9, type=ESP, add_time=1700000000, inBytes=1, outBytes=2, "
                                "id='@anna', lease=10.1.2.3/32\n"));
  ASSERT_EQ(parser.entries.count("\"site@12@@%any@l@@g\"[7"), 1U);
  const VPNConnInfo& conn = parser.entries.begin()->second;
  EXPECT_EQ(conn.right_id, "@anna");
  EXPECT_EQ(conn.lease_ip, "10.1.2.3");
  EXPECT_EQ(conn.right, "%any");
  EXPECT_EQ(conn.state, Established);
  EXPECT_THAT(conn.established_tunnels, IsEmpty());  // the only "/" is the lease's
  EXPECT_TRUE(
      log.contains(log_level::debug, "parse_line: timestamp 1700000000 lease_ip 10.1.2.3 and id @anna"));
}

// Verifies that the clients of one template are connections of their own.
TEST_F(IPsecStatusParserTest, ClientsOfTemplate) {
  OnlyLines parser;
  for (const char* number : {"7", "8"})
    parser.parse_line("\"site@12@@%any@l@@g\"[" + std::string(number) + "], add_time=5, id='@c" + number +
                      "', lease=10.1.2." + number + "/32\n");
  ASSERT_THAT(parser.entries, SizeIs(2));
  EXPECT_EQ(parser.entries.at("\"site@12@@%any@l@@g\"[7").lease_ip, "10.1.2.7");
  EXPECT_EQ(parser.entries.at("\"site@12@@%any@l@@g\"[8").right_id, "@c8");
}

// Verifies that a line with a time and no comma behind it isn't understood, and neither is one whose time is
// no number of seconds.
TEST_F(IPsecStatusParserTest, BadTime) {
  for (const char* rest : {"add_time=1700000000\n", "add_time=,\n", "add_time=x,\n", "add_time=-5,\n",
                           "add_time=1700000000x,\n", "add_time=4294967296,\n"}) {
    log.clear();
    OnlyLines parser;
    EXPECT_FALSE(parser.parse_line(quoted + ", " + rest)) << rest;
    EXPECT_TRUE(log.contains(log_level::error, "parse_line: Parsing error: timestamp")) << rest;
    EXPECT_THAT(parser.entries, IsEmpty());
  }
  EXPECT_EQ(IPsecStatusParser::extract_add_time("add_time=4294967295,"), 4294967295U);
  EXPECT_THROW(IPsecStatusParser::extract_add_time("add_time=5"), std::runtime_error);
}

// Verifies the state lines: up, on its way in either version of the protocol, and down for everything else.
TEST_F(IPsecStatusParserTest, StateLines) {
  EXPECT_EQ(conn_of(quick).state, Established);
  EXPECT_EQ(conn_of(main_mode).state, Connecting);
  EXPECT_EQ(conn_of(quoted + ":500 STATE_V2_ESTABLISHED_IKE_SA (established IKE SA); REKEY in 9s;\n").state,
            Connecting);
  EXPECT_EQ(conn_of(quoted + ":500 STATE_MAIN_I1 (sent MI1, expecting MR1); EVENT_RETRANSMIT in 5s;\n").state,
            Disconnected);
  EXPECT_EQ(conn_of(quoted + ":500 STATE_X (other) (IPsec SA established)\n").state, Disconnected);
  EXPECT_EQ(conn_of(quoted + ":500 IPsec SA established\n").state, Disconnected);
}

// Verifies that a state line is of now, and that only an established tunnel counts.
TEST_F(IPsecStatusParserTest, StateLineFields) {
  const long before = time(nullptr);
  EXPECT_GE(conn_of(quick).state_timestamp, before);
  EXPECT_THAT(conn_of(quick).established_tunnels, ElementsAre("1x0"));
  EXPECT_THAT(conn_of(main_mode).established_tunnels, IsEmpty());
}

// Verifies that two lines of one connection give the higher state, in either order, with the time of the
// earlier.
TEST_F(IPsecStatusParserTest, LinesMerge) {
  for (const bool main_first : {true, false}) {
    OnlyLines parser;
    parser.parse_line(main_first ? main_mode : quick);
    parser.parse_line(main_first ? quick : main_mode);
    parser.parse_line(traffic);
    ASSERT_THAT(parser.entries, SizeIs(1));
    EXPECT_EQ(parser.entries.at(name).state, Established);
    EXPECT_EQ(parser.entries.at(name).state_timestamp, 1700000000);
  }
}

// Verifies that the tunnels of one connection are counted together.
TEST_F(IPsecStatusParserTest, TunnelsOfConnection) {
  OnlyLines parser;
  for (const char* tunnel : {"1x0", "1x1", "2x0", "1x0"})
    parser.parse_line("\"" + std::string(name) + "/" + tunnel + "\", add_time=5, x\n");
  ASSERT_THAT(parser.entries, SizeIs(1));
  EXPECT_THAT(parser.entries.at(name).established_tunnels, ElementsAre("1x0", "1x1", "2x0"));
}

// Verifies that a line with " esp." tells the peer's address.
TEST_F(IPsecStatusParserTest, PeerAddress) {
  EXPECT_EQ(conn_of(quoted + " esp.c1d2e3f4@198.51.100.7 esp.5@192.0.2.1 tun.0@192.0.2.1\n").peer_ip,
            "198.51.100.7");
  EXPECT_EQ(conn_of(quoted + " esp.c1d2e3f4@198.51.100.7").peer_ip, "");  // cut off, maybe within
  EXPECT_EQ(conn_of(quoted + " esp.c1d2e3f4\n").peer_ip, "");
  EXPECT_EQ(IPsecStatusParser::extract_site_ip("a@b c"), "");
}

// Verifies what the lines of one connection have in common, in each of the forms.
TEST_F(IPsecStatusParserTest, Identity) {
  EXPECT_EQ(IPsecStatusParser::extract_conn_identity("\"abc/1x0\":500 x"), "abc");
  EXPECT_EQ(IPsecStatusParser::extract_conn_identity("\"abc\":500 a/b"), "abc");
  EXPECT_EQ(IPsecStatusParser::extract_conn_identity("\"abc\"[7] 1.2.3.4:500 x"), "\"abc\"[7");
  EXPECT_EQ(IPsecStatusParser::extract_conn_identity("\"abc/1x0\"[7] x"), "abc");
  EXPECT_EQ(IPsecStatusParser::extract_conn_identity("\"abc\" [7] x"), "abc");
}

// Verifies that a line without a connection is ignored, with an error in the log.
TEST_F(IPsecStatusParserTest, NoIdentity) {
  for (const char* line : {"", "\n", "no quotes\n", "\"one quote\n", "a/b\n", "/\"a\"\n", "\"abc\"[7 x\n",
                           "\"", "\"\"", "\"/\"", "\"/"}) {
    log.clear();
    OnlyLines parser;
    EXPECT_TRUE(parser.parse_line(line)) << line;
    EXPECT_THAT(parser.entries, IsEmpty()) << line;
    EXPECT_TRUE(log.contains(log_level::error, "extract_conn_identity")) << line;
  }
}

// Verifies the connection's name, in each of the forms.
TEST_F(IPsecStatusParserTest, Name) {
  EXPECT_EQ(IPsecStatusParser::extract_conn_name("\"abc/1x0\":500 x"), "abc");
  EXPECT_EQ(IPsecStatusParser::extract_conn_name("\"abc\":500 a/b"), "abc");
  EXPECT_EQ(IPsecStatusParser::extract_conn_name("\"abc\"[7] x"), "abc");
  EXPECT_EQ(IPsecStatusParser::extract_conn_name("x"), "");
}

// Verifies the tunnel's identity: "0x0" without any "/", and none when the "/" stands elsewhere.
TEST_F(IPsecStatusParserTest, Tunnel) {
  EXPECT_EQ(IPsecStatusParser::extract_tunnel_connection("\"abc/1x2\":500 x"), "1x2");
  EXPECT_EQ(IPsecStatusParser::extract_tunnel_connection("\"abc\":500 x"), "0x0");
  EXPECT_EQ(IPsecStatusParser::extract_tunnel_connection("\"abc\", lease=10.1.2.3/32"), "");
  EXPECT_EQ(IPsecStatusParser::extract_tunnel_connection("\"abc/1x2"), "");
}

// Verifies that a name that can't be taken apart is the id too.
TEST_F(IPsecStatusParserTest, UnknownName) {
  const VPNConnInfo conn = conn_of("\"plain\":500 STATE_QUICK_I2 (IPsec SA established);\n");
  EXPECT_EQ(conn.name, "plain");
  EXPECT_EQ(conn.right_id, "plain");
  EXPECT_THAT(conn.established_tunnels, ElementsAre("0x0"));
}

// Verifies that an expected connection whose id differs in the "@" is down beside the parsed one, and that
// the parsed one is kept only when it isn't down.
TEST_F(IPsecStatusParserTest, ExpectedByIdAndAddress) {
  zol_test::TestSites::add_conn(sites.add("12", "ipsec"), "@peer", "h");
  OnlyLines up;
  up.parse_line(quick);
  const auto conns = up.get_connections_info_status(&sites);
  ASSERT_THAT(conns, SizeIs(2));
  EXPECT_EQ(conns[0].right_id, "peer");
  EXPECT_EQ(conns[0].state, Established);
  EXPECT_EQ(conns[1].right_id, "@peer");
  EXPECT_EQ(conns[1].state, Disconnected);
  OnlyLines down;
  down.parse_line(quoted + ":500 STATE_MAIN_I1 (sent MI1);\n");
  EXPECT_THAT(down.get_connections_info_status(&sites), SizeIs(1));
  sites.site_services["12"]->entries.front()->right_id = "peer";
  EXPECT_THAT(up.get_connections_info_status(&sites), SizeIs(1));
}

// Verifies the whole pipeline over what the status command prints: only numbered lines, without their number,
// and none of the tunnels between nodes.
TEST_F(IPsecStatusParserTest, RunsCommand) {
  const zol_test::OwnProgram ipsec(
      "ipsec",
      "[ \"$*\" = 'whack --trafficstatus --status' ] || exit 1\n" +
          zol_test::here_document("000 using kernel interface: xfrm\n"
                                  "006 #2: " +
                                  traffic + "000 #1: " + main_mode + "000 \"" + std::string(name) +
                                  "\": 10.1.0.0/24===l...h\n"
                                  "000 #4: \"ZOLtoZOL-3\":500 STATE_QUICK_I2 (IPsec SA established);\n"
                                  "000 #12: \"other\":500 STATE_MAIN_I1 (sent MI1);\n"));
  const IPsecStatusParser parser;
  ASSERT_THAT(parser.entries, SizeIs(2));
  EXPECT_EQ(parser.entries.at(name).state, Established);
  EXPECT_EQ(parser.entries.at(name).state_timestamp, 1700000000);
  EXPECT_EQ(parser.entries.at("other").state, Disconnected);
}

// Verifies that with an empty status the result is what is expected, down.
TEST_F(IPsecStatusParserTest, EmptyStatus) {
  const zol_test::OwnProgram ipsec("ipsec", "exit 33");
  zol_test::TestSites::add_conn(sites.add("12", "ipsec"), "@peer", "h");
  IPsecStatusParser parser;
  EXPECT_THAT(parser.entries, IsEmpty());
  const auto conns = parser.get_connections_info_status(&sites);
  ASSERT_THAT(conns, SizeIs(1));
  EXPECT_EQ(conns[0].state, Disconnected);
}

class IPsecOutputLogTest : public IPsecStatusParserTest {
 protected:
  void SetUp() override {
    if (!folders_.mounted())
      GTEST_SKIP() << folders_.reason();
    std::filesystem::create_directories("/var/log/zol");
  }
  static void write_log(std::uintmax_t size) {
    std::ofstream(output_log) << "before\n";
    std::filesystem::resize_file(output_log, size);
  }
  static bool exists(const std::string& path) { return std::filesystem::exists(path); }

 private:
  zol_test::NodeFolders folders_;
};

// Verifies that each line is kept behind the time, after what was there.
TEST_F(IPsecOutputLogTest, KeepsLines) {
  write_log(7);
  const zol_test::OwnProgram ipsec("ipsec",
                                   zol_test::here_document("000 #1: not a connection\n000 #2: two\n"));
  const long before = time(nullptr);
  { const IPsecStatusParser parser; }
  const std::string text = zol_test::text_of(output_log);
  const std::string rest = text.substr(7);
  const long noted = std::stol(rest);
  EXPECT_TRUE(text.starts_with("before\n"));
  EXPECT_GE(noted, before);
  EXPECT_LE(noted, time(nullptr));
  EXPECT_TRUE(rest.starts_with(std::to_string(noted) + " | not a connection\n")) << rest;
  EXPECT_TRUE(rest.ends_with(" | two\n")) << rest;
}

// Verifies that a file of 30 MiB goes on, and that one byte more makes it the old one, in place of the last.
TEST_F(IPsecOutputLogTest, Rotates) {
  const zol_test::OwnProgram ipsec("ipsec", "exit 0");
  write_log(0x1e00000);
  { const IPsecStatusParser parser; }
  EXPECT_FALSE(exists(output_log + std::string(".1")));
  std::ofstream(output_log + std::string(".1")) << "older";
  write_log(0x1e00001);
  { const IPsecStatusParser parser; }
  EXPECT_EQ(std::filesystem::file_size(output_log + std::string(".1")), 0x1e00001U);
  EXPECT_EQ(std::filesystem::file_size(output_log), 0U);
}

// Verifies that nothing is kept below the debug level.
TEST(IPsecOutputLog, OnlyForDebugging) {
  const zol_test::NodeFolders folders;
  if (!folders.mounted())
    GTEST_SKIP() << folders.reason();
  const zol_test::ScopedConfig config("General: { zol_id = \"node\"; };");
  std::filesystem::create_directories("/var/log/zol");
  const zol_test::OwnProgram ipsec("ipsec", "echo '000 #1: \"site@12@cGVlcg==@h@l@vti3@g\" x'");
  ASSERT_FALSE(SupLogger::get_instance("IPsecStatusParser").is_debug_enabled());
  const IPsecStatusParser parser;
  EXPECT_THAT(parser.entries, SizeIs(1));
  EXPECT_FALSE(std::filesystem::exists(output_log));
}

// Verifies that a missing folder costs the copy and not the parse.
TEST_F(IPsecOutputLogTest, NoFolder) {
  std::filesystem::remove("/var/log/zol");
  const zol_test::OwnProgram ipsec("ipsec", "echo '000 #1: \"a\" x'");
  const IPsecStatusParser parser;
  EXPECT_THAT(parser.entries, SizeIs(1));
}

}  // namespace
}  // namespace zol
