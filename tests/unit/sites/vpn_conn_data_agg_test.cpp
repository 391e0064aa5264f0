// The share of time that connections are up, and the log of their changes.
#include "sites/vpn_conn_data_agg.h"

#include <event2/event.h>
#include <gmock/gmock.h>

#include "sup_logger.h"
#include "tests/unit/sites/conn_agg_fixture.h"

namespace zol {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using zol_test::lines_of;

constexpr const char* time_form = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z";

class VPNConnDataAggTest : public zol_test::ConnAggTest {
 protected:
  // A connection over a protocol whose failures nobody is asked about.
  static VPNConnInfo gre(VPNConnState state, const std::string& right_id = "@peer") {
    VPNConnInfo conn;
    conn.protocol = "gre";
    conn.right_id = right_id;
    conn.right = "peer.example";
    conn.name = "site";
    conn.state = state;
    return conn;
  }
  // The lines behind the first, without their time.
  std::vector<std::string> changes() const {
    std::vector<std::string> all;
    for (const std::string& line : agg->log_lines)
      all.push_back(line.substr(line.find(": ") + 2));
    all.erase(all.begin());
    return all;
  }
};

// Verifies that a log is begun beside the executable.
TEST_F(VPNConnDataAggTest, LogBegins) {
  make_agg();
  EXPECT_EQ(agg->log_path, folder.file("vpnconn.log"));
  EXPECT_THAT(lines_of(agg->log_path),
              ElementsAre(MatchesRegex(std::string(time_form) + " VPN Log Started")));
  EXPECT_TRUE(log.contains(log_level::warning, "Failed to open file " + agg->log_path));
}

// Verifies that a program called without a folder logs in the working directory.
TEST_F(VPNConnDataAggTest, LogInWorkingDirectory) {
  invoked_as("zol_monitor");
  make_agg();
  EXPECT_EQ(agg->log_path, "./vpnconn.log");
  std::filesystem::remove("vpnconn.log");
  agg.reset();
  std::filesystem::remove("vpnconn.log");
}

// Verifies that the end of the object is the log's last line.
TEST_F(VPNConnDataAggTest, LogEnds) {
  make_agg();
  agg.reset();
  EXPECT_THAT(
      lines_of(folder.file("vpnconn.log")),
      ElementsAre(EndsWith(" VPN Log Started"), MatchesRegex(std::string(time_form) + " VPN Log Stopped")));
}

// Verifies that the lines of an earlier process stay, in memory and in the file.
TEST_F(VPNConnDataAggTest, EarlierLinesStay) {
  folder.write("vpnconn.log", "one\n\ntwo\n");
  make_agg();
  EXPECT_THAT(agg->log_lines, ElementsAre("one", "", "two", EndsWith("Started")));
  EXPECT_THAT(lines_of(agg->log_path), ElementsAre("one", "", "two", EndsWith("Started")));
  EXPECT_FALSE(log.contains("Failed to open file"));
}

// Verifies that of a longer file the last lines are taken.
TEST_F(VPNConnDataAggTest, LongFileIsCut) {
  std::string text;
  for (int i = 0; i < 250; ++i)
    text += "line " + std::to_string(i) + "\n";
  folder.write("vpnconn.log", text);
  make_agg();
  ASSERT_EQ(agg->log_lines.size(), 100U);
  EXPECT_EQ(agg->log_lines.front(), "line 151");
  EXPECT_THAT(lines_of(agg->log_path), SizeIs(100));
}

// Verifies that the hundredth line stays and the next one drops the oldest, in memory and in the file.
TEST_F(VPNConnDataAggTest, HundredLines) {
  make_agg();
  for (int i = 0; i < 99; ++i)
    agg->tick(gre(i % 2 == 0 ? Established : Disconnected));
  ASSERT_EQ(agg->log_lines.size(), 100U);
  EXPECT_THAT(agg->log_lines.front(), EndsWith("Started"));
  agg->tick(gre(Disconnected));
  EXPECT_EQ(agg->log_lines.size(), 100U);
  EXPECT_THAT(agg->log_lines.front(), EndsWith("from disconnected to connected"));
  EXPECT_THAT(lines_of(agg->log_path), SizeIs(100));
  EXPECT_EQ(zol_test::text_of(agg->log_path), agg->get_vpn_log());
}

// Verifies that the answer for the command line is each line with a line feed.
TEST_F(VPNConnDataAggTest, LogAsText) {
  folder.write("vpnconn.log", "one\ntwo\n");
  make_agg();
  agg->log_lines.pop_back();
  EXPECT_EQ(agg->get_vpn_log(), "one\ntwo\n");
}

// Verifies that the lines stay in memory while the file can't be written, and reach it once it can.
TEST_F(VPNConnDataAggTest, UnwritableFile) {
  invoked_as(folder.file("missing/zol_monitor"));
  make_agg();
  agg->tick(gre(Established));
  EXPECT_EQ(log.count("Failed to open file " + folder.file("missing/vpnconn.log")), 3);  // read, two written
  EXPECT_THAT(agg->log_lines, SizeIs(2));
  std::filesystem::create_directories(folder.file("missing"));
  agg->tick(gre(Disconnected));
  EXPECT_THAT(lines_of(agg->log_path), SizeIs(3));
}

// Verifies that a file that isn't one is told, and that the log goes on in memory.
TEST_F(VPNConnDataAggTest, UnreadableFile) {
  std::filesystem::create_directories(folder.file("vpnconn.log"));
  make_agg();
  EXPECT_TRUE(log.contains(log_level::warning, "Failed to open file " + folder.file("vpnconn.log")));
  EXPECT_THAT(agg->log_lines, ElementsAre(EndsWith("Started")));
}

// Verifies that a full disk is told.
TEST_F(VPNConnDataAggTest, FullDisk) {
  make_agg();
  std::filesystem::remove(agg->log_path);
  std::filesystem::create_symlink("/dev/full", agg->log_path);
  agg->tick(gre(Established));
  EXPECT_TRUE(log.contains(log_level::warning, "Failed to write file " + agg->log_path));
  EXPECT_THAT(agg->log_lines, SizeIs(2));
}

// Verifies that a connection first seen down makes no line, and one first seen otherwise comes from
// "disconnected".
TEST_F(VPNConnDataAggTest, FirstSeen) {
  make_agg();
  agg->tick(gre(Disconnected, "@a"));
  EXPECT_THAT(changes(), IsEmpty());
  agg->tick(gre(Connecting, "@b"));
  agg->tick(gre(Established, "@c"));
  EXPECT_THAT(changes(), ElementsAre("site - peer.example, status changed from disconnected to connecting",
                                     "site - peer.example, status changed from disconnected to connected"));
}

// Verifies the whole line of a change, the time in front of it, and that no change makes none.
TEST_F(VPNConnDataAggTest, LineOfChange) {
  make_agg();
  agg->tick(gre(Connecting));
  agg->tick(gre(Connecting));
  agg->tick(gre(Established));
  agg->tick(gre(Established));
  agg->tick(gre(Disconnected));
  EXPECT_THAT(agg->log_lines.back(),
              MatchesRegex(std::string(time_form) +
                           ": site - peer.example, status changed from connected to disconnected"));
  EXPECT_THAT(changes(), ElementsAre(EndsWith("from disconnected to connecting"),
                                     EndsWith("from connecting to connected"),
                                     EndsWith("from connected to disconnected")));
}

// Verifies that the peer's address is told only when it says more than the configuration.
TEST_F(VPNConnDataAggTest, ResolvedAddress) {
  make_agg();
  VPNConnInfo conn = gre(Connecting);
  conn.peer_ip = "203.0.113.7";
  agg->tick(conn);
  conn.right = "203.0.113.7";
  conn.state = Established;
  agg->tick(conn);
  conn.peer_ip = "";
  conn.state = Disconnected;
  agg->tick(conn);
  EXPECT_THAT(
      changes(),
      ElementsAre(
          "site - peer.example (Resolved to 203.0.113.7), status changed from disconnected to connecting",
          "site - 203.0.113.7, status changed from connecting to connected",
          "site - 203.0.113.7, status changed from connected to disconnected"));
}

// Verifies that each cycle counts once, and those with the tunnel up for its share.
TEST_F(VPNConnDataAggTest, ShareOfTime) {
  make_agg();
  for (const VPNConnState state : {Established, Connecting, Established, Disconnected, Established})
    agg->tick(gre(state));
  EXPECT_EQ(agg->conn_data.at("@peer").total_ticks, 5);
  EXPECT_EQ(agg->conn_data.at("@peer").connected_ticks, 3);
  EXPECT_DOUBLE_EQ(agg->get_conn_pct(gre(Disconnected)), 0.6);
}

// Verifies that the share is 0 for a connection that was never seen and for one without a cycle.
TEST_F(VPNConnDataAggTest, ShareWithoutTicks) {
  make_agg();
  EXPECT_DOUBLE_EQ(agg->get_conn_pct(gre(Established)), 0.0);
  agg->tick(gre(Established));
  EXPECT_DOUBLE_EQ(agg->get_conn_pct(gre(Established)), 1.0);
  agg->clear();
  EXPECT_DOUBLE_EQ(agg->get_conn_pct(gre(Established)), 0.0);
}

// Verifies that a report begins the counts anew and forgets the incidents, and that the states stay known.
TEST_F(VPNConnDataAggTest, ClearedByReport) {
  make_agg();
  agg->tick(gre(Established));
  agg->incidents["name"].emplace_back();
  agg->clear();
  EXPECT_EQ(agg->conn_data.at("@peer").total_ticks, 0);
  EXPECT_EQ(agg->conn_data.at("@peer").connected_ticks, 0);
  EXPECT_THAT(agg->incidents, IsEmpty());
  agg->tick(gre(Established));
  EXPECT_THAT(changes(), SizeIs(1));
}

// Verifies that a report forgets a client that is down and gone, and nothing of one that is down and still
// seen, or that comes back.
TEST_F(VPNConnDataAggTest, GoneClientIsForgotten) {
  make_agg();
  const auto cycle = [this](const std::vector<VPNConnInfo>& seen) {
    agg->clear_tick();
    for (const VPNConnInfo& conn : seen)
      agg->tick(conn);
    agg->set_conn_disconnected();
  };
  cycle({gre(Disconnected, "@down"), gre(Established, "@goes"), gre(Connecting, "@hangs")});
  agg->clear();
  EXPECT_THAT(agg->conn_data, SizeIs(3));
  cycle({gre(Disconnected, "@down")});
  EXPECT_THAT(agg->conn_data, SizeIs(3)) << "the report may still ask";
  agg->clear();
  EXPECT_THAT(agg->conn_data, SizeIs(2));
  EXPECT_EQ(agg->conn_data.count("@goes"), 0U);
  EXPECT_DOUBLE_EQ(agg->get_conn_pct(gre(Disconnected, "@goes")), 0.0);
  const std::size_t lines = changes().size();
  cycle({gre(Disconnected, "@goes")});
  EXPECT_THAT(changes(), SizeIs(lines)) << "still down";
  cycle({gre(Established, "@goes")});
  EXPECT_THAT(changes().back(), EndsWith("from disconnected to connected"));
}

// Verifies that of a connection's failures the newest 1000 are kept when no report takes them.
TEST_F(VPNConnDataAggTest, NewestIncidentsStay) {
  make_agg();
  agg->incidents["name"].resize(999);
  agg->incidents["name"].front().reason = "oldest";
  agg->state = async_state::finished;
  for (const char* reason : {"last but one", "last"}) {
    agg->log_queries.push_back({"", "name", 1, "", "", false});
    agg->result = std::string("text\n") + reason;
    agg->handle_async_results();
    EXPECT_THAT(agg->incidents.at("name"), SizeIs(1000)) << reason;
  }
  EXPECT_EQ(agg->incidents.at("name").front().reason, "") << "the oldest went";
  EXPECT_EQ(agg->incidents.at("name").back().reason, "last");
  agg->state = async_state::idle;
}

// Verifies that a failure that 10000 questions wait before is logged at once, without a reason.
TEST_F(VPNConnDataAggTest, FullQueue) {
  make_agg();
  agg->log_queries.resize(9999);
  VPNConnInfo conn = gre(Established);
  conn.protocol = "ipsec";
  for (const std::size_t lines : {0, 1}) {
    agg->tick(conn);
    conn.state = Disconnected;
    agg->tick(conn);
    conn.state = Established;
    EXPECT_THAT(agg->log_queries, SizeIs(10000));
    EXPECT_EQ(agg->log_lines.size(), 2 + 2 * lines);
  }
  EXPECT_THAT(agg->log_lines.back(), EndsWith("from connected to disconnected"));
  EXPECT_EQ(
      log.count("Too many reason queries wait, not asking about \"" + conn.get_connection_name() + "\""), 1);
}

// Verifies that a connection that was up and isn't mentioned any more is down, once, without a count.
TEST_F(VPNConnDataAggTest, UnmentionedIsDown) {
  make_agg();
  agg->clear_tick();
  agg->tick(gre(Established));
  agg->set_conn_disconnected();
  EXPECT_THAT(changes(), SizeIs(1));
  agg->clear_tick();
  agg->set_conn_disconnected();
  EXPECT_THAT(changes(), ElementsAre(EndsWith("to connected"), EndsWith("from connected to disconnected")));
  EXPECT_EQ(agg->conn_data.at("@peer").info.state, Disconnected);
  EXPECT_EQ(agg->conn_data.at("@peer").total_ticks, 1);
  agg->clear_tick();
  agg->set_conn_disconnected();
  EXPECT_THAT(changes(), SizeIs(2));
}

// Verifies that a connection that was about to come up and isn't mentioned any more keeps its state.
TEST_F(VPNConnDataAggTest, UnmentionedConnecting) {
  make_agg();
  agg->tick(gre(Connecting));
  agg->clear_tick();
  agg->set_conn_disconnected();
  EXPECT_EQ(agg->conn_data.at("@peer").info.state, Connecting);
  EXPECT_THAT(changes(), SizeIs(1));
}

// Verifies that connections with one id share their counts, and that each change between them is logged.
TEST_F(VPNConnDataAggTest, SharedId) {
  make_agg();
  VPNConnInfo second = gre(Disconnected);
  second.right = "second.example";
  agg->tick(gre(Established));
  agg->tick(second);
  EXPECT_THAT(agg->conn_data, SizeIs(1));
  EXPECT_EQ(agg->conn_data.at("@peer").total_ticks, 2);
  EXPECT_EQ(agg->conn_data.at("@peer").connected_ticks, 1);
  EXPECT_EQ(agg->conn_data.at("@peer").info.right, "second.example");
  EXPECT_THAT(changes(), ElementsAre(EndsWith("to connected"), HasSubstr("second.example, status changed")));
}

// Verifies that an IPsec tunnel on its way up is logged at once: nobody is asked.
TEST_F(VPNConnDataAggTest, IpsecComesUp) {
  make_agg();
  VPNConnInfo conn = gre(Connecting);
  conn.protocol = "ipsec";
  agg->tick(conn);
  conn.state = Established;
  agg->tick(conn);
  EXPECT_THAT(changes(), SizeIs(2));
  EXPECT_THAT(agg->log_queries, IsEmpty());
}

// Verifies that a site as a whole has nothing to add to the report, and a connection without failures
// neither.
TEST_F(VPNConnDataAggTest, NothingToAdd) {
  make_agg();
  agg->incidents["12"].emplace_back();
  EXPECT_TRUE(agg->add_info("12").Empty());
  EXPECT_TRUE(agg->add_info("12", "name").Empty());
}

// Verifies that the failures of a connection are given in the order of their arrival, with their times.
TEST_F(VPNConnDataAggTest, Incidents) {
  make_agg();
  agg->incidents["name"] = {{"line", "name", 1700000000123, "peer is silent", "raw text", true},
                            {"", "name", 1700000001000, "unknown", "failed to execute", false}};
  const libvariant::Variant info = agg->add_info("12", "name");
  ASSERT_EQ(info.Size(), 1U);
  const auto& list = info.At("incidents").AsList();
  ASSERT_EQ(list.size(), 2U);
  EXPECT_EQ(list[0].Size(), 3U);
  EXPECT_EQ(list[0].At("timestamp").AsString(), "2023-11-14T22:13:20.123Z");
  EXPECT_EQ(list[0].At("log_text").AsString(), "raw text");
  EXPECT_EQ(list[0].At("reason").AsString(), "peer is silent");
  EXPECT_EQ(list[1].At("timestamp").AsString(), "2023-11-14T22:13:21.000Z");
}

// Verifies that the key of a connection is its name.
TEST_F(VPNConnDataAggTest, EntryKey) {
  make_agg();
  EXPECT_EQ(agg->gen_entry_key(gre(Established)), gre(Established).get_connection_name());
}

// Verifies that the timer of each minute is charged for ten seconds after the next full one.
TEST_F(VPNConnDataAggTest, MinuteTimer) {
  make_agg();
  timeval due{};
  ASSERT_NE(event_pending(&agg->minute_timer.ev, EV_TIMEOUT, &due), 0);
  const auto due_ms = static_cast<std::int64_t>(due.tv_sec) * 1000 + due.tv_usec / 1000;
  const auto wait_ms = due_ms - static_cast<std::int64_t>(Helper::get_timestamp_ms());
  EXPECT_NEAR(static_cast<double>(due_ms % 60000), 10000, 4000);
  EXPECT_GT(wait_ms, 5000);
  EXPECT_LE(wait_ms, 71000);
}

}  // namespace
}  // namespace zol
