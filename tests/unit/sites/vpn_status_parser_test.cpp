// What the parsers of the three protocols share: the run of a command and the comparison with the
// configuration.
#include "sites/vpn_status_parser.h"

#include <gmock/gmock.h>
#include <sys/resource.h>

#include <ctime>

#include "sup_logger.h"
#include "tests/unit/sites/status_parser_fixture.h"

namespace zol {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// Keeps each line; a line of "bad" isn't understood.
class Printed : public VPNStatusParser {
 public:
  explicit Printed(std::string command) : command_(std::move(command)) { parse(); }

  bool parse_line(const std::string& line) override {
    lines.push_back(line);
    return line != "bad\n";
  }
  std::string vpn_status_command() override { return command_; }
  std::string get_protocol() override { return "test"; }
  using VPNStatusParser::parse;
  using VPNStatusParser::store;

  std::vector<std::string> lines;

 private:
  std::string command_;
};

class VPNStatusParserTest : public zol_test::StatusParserTest {
 protected:
  static VPNConnInfo parsed(const std::string& right, VPNConnState state) {
    VPNConnInfo conn;
    conn.right = right;
    conn.right_id = "@parsed";
    conn.name = "seen";
    conn.internal_id = "77";
    conn.state = state;
    conn.state_timestamp = 5;
    return conn;
  }
  static std::vector<std::string> rights(const std::vector<VPNConnInfo>& conns) {
    std::vector<std::string> all;
    for (const VPNConnInfo& conn : conns)
      all.push_back(conn.right);
    return all;
  }
};

// Verifies that the command's output arrives line by line, the line feeds with it, and the last line even
// without one.
TEST_F(VPNStatusParserTest, Lines) {
  EXPECT_THAT(Printed("printf 'one\\n\\ntwo'").lines, ElementsAre("one\n", "\n", "two"));
  EXPECT_THAT(Printed("echo to stderr >&2").lines, IsEmpty());
}

// Verifies that a line that isn't understood is logged with its number, counted from 0, and that the others
// are read.
TEST_F(VPNStatusParserTest, LineNotUnderstood) {
  const Printed parser("printf 'one\\nbad\\ntwo\\n'");
  EXPECT_THAT(parser.lines, SizeIs(3));
  EXPECT_EQ(log.count("Couldn't parse"), 1);
  EXPECT_TRUE(log.contains(log_level::debug, "parse: Couldn't parse VPN status of line #1 Line : bad"));
}

// Verifies that 1023 bytes with the line feed are one line, and that a longer line arrives as two.
TEST_F(VPNStatusParserTest, LongLines) {
  const auto sizes = [](int bytes) {
    const std::string count = std::to_string(bytes);
    std::vector<std::size_t> all;
    for (const std::string& line : Printed("printf '%0" + count + "d\\n' 0").lines)
      all.push_back(line.size());
    return all;
  };
  EXPECT_THAT(sizes(1022), ElementsAre(1023U));
  EXPECT_THAT(sizes(1023), ElementsAre(1023U, 1U));
  EXPECT_THAT(sizes(2500), ElementsAre(1023U, 1023U, 455U));
}

// Verifies that an empty command isn't run and leaves what was parsed.
TEST_F(VPNStatusParserTest, EmptyCommand) {
  Printed parser("");
  parser.entries["key"] = parsed("a", Established);
  parser.parse();
  EXPECT_THAT(parser.entries, SizeIs(1));
  EXPECT_THAT(parser.lines, IsEmpty());
}

// Verifies that a new run starts from nothing, also when the command fails.
TEST_F(VPNStatusParserTest, RunStartsFromNothing) {
  Printed parser("exit 9");
  parser.entries["key"] = parsed("a", Established);
  parser.parse();
  EXPECT_THAT(parser.entries, IsEmpty());
}

// Verifies that a command that can't be run is logged, and leaves what was parsed.
TEST_F(VPNStatusParserTest, CommandCannotBeRun) {
  Printed parser("echo never");
  parser.lines.clear();
  parser.entries["key"] = parsed("a", Established);
  rlimit former{};
  getrlimit(RLIMIT_NOFILE, &former);
  const rlimit none{0, former.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  parser.parse();
  setrlimit(RLIMIT_NOFILE, &former);
  EXPECT_TRUE(
      log.contains(log_level::error,
                   "parse: Failed to run VPN status command: echo never; Error (24) : Too many open files"))
      << log.all();
  EXPECT_THAT(parser.entries, SizeIs(1));
  EXPECT_THAT(parser.lines, IsEmpty());
}

// Verifies that one more report on a connection is merged.
TEST_F(VPNStatusParserTest, ReportsMerge) {
  Printed parser("");
  parser.store("key", parsed("a", Connecting));
  parser.store("key", parsed("b", Established));
  parser.store("key", parsed("", Disconnected));
  parser.store("other", parsed("c", Disconnected));
  ASSERT_THAT(parser.entries, SizeIs(2));
  EXPECT_EQ(parser.entries.at("key").state, Established);
  EXPECT_EQ(parser.entries.at("key").right, "b");
}

// Verifies that an expected connection that was parsed is given as it was parsed, also when it is down.
TEST_F(VPNStatusParserTest, ExpectedAndParsed) {
  zol_test::TestSites::add_conn(sites.add("1", "test"), "@peer", "a");
  for (const VPNConnState state : {Disconnected, Connecting, Established}) {
    Printed parser("");
    parser.entries["key"] = parsed("a", state);
    const auto conns = parser.get_connections_info_status(&sites);
    ASSERT_THAT(conns, SizeIs(1));
    EXPECT_EQ(conns[0].right_id, "@parsed");
    EXPECT_EQ(conns[0].state, state);
    EXPECT_EQ(conns[0].state_timestamp, 5);
  }
}

// Verifies that a parsed connection that isn't expected is kept unless it is down.
TEST_F(VPNStatusParserTest, ParsedAndNotExpected) {
  Printed parser("");
  parser.entries["1"] = parsed("a", Disconnected);
  parser.entries["2"] = parsed("b", Connecting);
  parser.entries["3"] = parsed("c", Established);
  EXPECT_THAT(rights(parser.get_connections_info_status(&sites)), ElementsAre("b", "c"));
}

// Verifies that an expected connection that wasn't parsed is given as down since now, and that the table's
// own record stays as it was.
TEST_F(VPNStatusParserTest, ExpectedAndNotParsed) {
  VPNConnInfo& conn = zol_test::TestSites::add_conn(sites.add("1", "test"), "@peer", "a");
  conn.state = Established;
  conn.state_timestamp = 7;
  const long before = time(nullptr);
  const auto conns = Printed("").get_connections_info_status(&sites);
  ASSERT_THAT(conns, SizeIs(1));
  EXPECT_EQ(conns[0].right_id, "@peer");
  EXPECT_EQ(conns[0].name, "site-1");
  EXPECT_EQ(conns[0].state, Disconnected);
  EXPECT_GE(conns[0].state_timestamp, before);
  EXPECT_EQ(conn.state, Established);
  EXPECT_EQ(conn.state_timestamp, 7);
}

// Verifies that only the sites of the protocol that accept connections are expected, and none of remote
// access.
TEST_F(VPNStatusParserTest, WhichSitesAreExpected) {
  for (const char* id : {"1", "2", "3", "4"})
    zol_test::TestSites::add_conn(sites.add(id, "test"), "@peer", id);
  sites.site_services["1"]->accept_connections = false;
  sites.site_services["2"]->protocol = "other";
  sites.site_services["3"]->type = "remote_access";
  EXPECT_THAT(rights(Printed("").get_connections_info_status(&sites)), ElementsAre("4"));
}

// Verifies the order: the parsed ones by their keys, then the expected ones by id and address.
TEST_F(VPNStatusParserTest, Order) {
  SiteService& site = sites.add("1", "test");
  for (const char* right : {"z", "y"})
    zol_test::TestSites::add_conn(site, "@peer", right);
  zol_test::TestSites::add_conn(site, "@a", "zz");
  Printed parser("");
  parser.entries["1"] = parsed("m", Established);
  parser.entries["0"] = parsed("n", Established);
  EXPECT_THAT(rights(parser.get_connections_info_status(&sites)), ElementsAre("n", "m", "zz", "y", "z"));
}

// Verifies that an expected connection stands under its id and address without anything between.
TEST_F(VPNStatusParserTest, ExpectedKey) {
  Printed parser("");
  VPNStatusParser::ExpectedEntries expected;
  parser.add_expected_entry(expected, {std::make_shared<VPNConnInfo>(parsed("right", Established)), false});
  ASSERT_EQ(expected.count("@parsedright"), 1U);
  EXPECT_FALSE(expected.begin()->second.found);
}

// Verifies that each connection given is told in the log, with its address as the log shows addresses.
TEST_F(VPNStatusParserTest, LogsWhatItGives) {
  config.set("General: { zol_id = \"node\"; mask_client_address = true; };");
  zol_test::TestSites::add_conn(sites.add("1", "test"), "@peer", "192.0.2.9");
  Printed parser("");
  parser.entries["1"] = parsed("203.0.113.7", Established);
  parser.get_connections_info_status(&sites);
  EXPECT_TRUE(
      log.contains(log_level::debug,
                   "get_connections_info_status: Adding connected vpn connection seen : 203.0.113.x 77"));
  EXPECT_TRUE(
      log.contains(log_level::debug,
                   "get_connections_info_status: Adding expected disconnected vpn connection site-1 : "
                   "192.0.2.x 1"));
}

}  // namespace
}  // namespace zol
