// Why an IPsec tunnel went down: questions to the node's helper program, a real child each.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "sup_logger.h"
#include "tests/unit/exec/exec_fixture.h"
#include "tests/unit/sites/conn_agg_fixture.h"

namespace zol {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using zol_test::lines_of;

constexpr const char* helper = "/opt/zol/get_pluto_fail_reason.sh";

class VPNConnReasonTest : public zol_test::ConnAggTest {
 protected:
  void SetUp() override {
    if (!folders_.mounted())
      GTEST_SKIP() << folders_.reason();
    make_agg();
  }

  // The helper notes what it is asked and then runs the text.
  void helper_does(const std::string& text) const {
    zol_test::write_program(helper, "#!/bin/sh\nfor a; do printf '[%s]' \"$a\" >> " + folder.file("asked") +
                                        "; done\necho >> " + folder.file("asked") + "\n" + text + "\n");
  }
  std::vector<std::string> asked() const { return lines_of(folder.file("asked")); }

  static VPNConnInfo ipsec(VPNConnState state, const std::string& right_id = "@peer") {
    VPNConnInfo conn;
    conn.protocol = "ipsec";
    conn.right_id = right_id;
    conn.right = "peer.example";
    conn.name = "site";
    conn.internal_id = "12";
    conn.state = state;
    return conn;
  }
  static std::string name_of(const std::string& right_id = "@peer") {
    return ipsec(Disconnected, right_id).get_connection_name();
  }
  void goes_down(const std::string& right_id = "@peer") {
    agg->tick(ipsec(Established, right_id));
    agg->tick(ipsec(Disconnected, right_id));
  }
  bool answered() {
    return run_until([this] { return agg->log_queries.empty(); });
  }
  const ConnLog& incident(const std::string& right_id = "@peer") const {
    return agg->incidents.at(name_of(right_id)).front();
  }

 private:
  zol_test::NodeFolders folders_;
};

// Verifies that the line of a failure waits for the reason and then has it at its end, and that the failure
// is kept for the report.
TEST_F(VPNConnReasonTest, ReasonBehindLine) {
  helper_does("echo 'STATE_MAIN_I1: no response'; echo 'peer is silent'; echo 'a third line'");
  const std::uint64_t before_ms = Helper::get_timestamp_ms();
  goes_down();
  EXPECT_THAT(agg->log_lines, SizeIs(2));
  EXPECT_THAT(agg->log_queries, SizeIs(1));
  ASSERT_TRUE(answered());
  EXPECT_THAT(
      agg->log_lines.back(),
      EndsWith(": site - peer.example, status changed from connected to disconnected peer is silent"));
  EXPECT_THAT(lines_of(agg->log_path), SizeIs(3));
  ASSERT_THAT(agg->incidents, SizeIs(1));
  EXPECT_EQ(incident().conn_name, name_of());
  EXPECT_EQ(incident().log_text, "STATE_MAIN_I1: no response");
  EXPECT_EQ(incident().reason, "peer is silent");
  EXPECT_TRUE(incident().short_query);
  EXPECT_GE(incident().timestamp_ms, before_ms);
  EXPECT_LE(incident().timestamp_ms, Helper::get_timestamp_ms());
}

// Verifies what the helper is told of a change of state: the time in seconds, the name and "short"; and the
// words of the command, and its limit of 2000 ms.
TEST_F(VPNConnReasonTest, ShortQuestion) {
  helper_does("echo unknown");
  goes_down();
  const std::string seconds = std::to_string(agg->log_queries.front().timestamp_ms / 1000);
  EXPECT_EQ(agg->cmd, "/opt/zol/get_pluto_fail_reason.sh \"" + seconds + "\" \"" + name_of() + "\" short");
  EXPECT_EQ(agg->timeout_ms, 2000U);
  EXPECT_TRUE(agg->timeout_timer.is_pending());
  ASSERT_TRUE(answered());
  EXPECT_THAT(asked(), ElementsAre("[" + seconds + "][" + name_of() + "][short]"));
}

// Verifies that a name reaches the helper as it is, whatever the shell would make of its characters.
TEST_F(VPNConnReasonTest, NameIsNotRun) {
  helper_does("echo unknown");
  VPNConnInfo conn = ipsec(Connecting);
  conn.name = R"($(touch made) `touch made` "; touch made; \" $HOME\)";
  agg->tick(conn);
  conn.state = Disconnected;
  agg->tick(conn);
  ASSERT_TRUE(answered());
  EXPECT_THAT(asked(), ElementsAre(HasSubstr("[" + conn.get_connection_name() + "]")));
  EXPECT_FALSE(std::filesystem::exists("made"));
}

// Verifies that a failure that the helper knows nothing of is an incident all the same, and that its line
// says so.
TEST_F(VPNConnReasonTest, UnknownReason) {
  helper_does("echo unknown");
  goes_down();
  ASSERT_TRUE(answered());
  EXPECT_TRUE(log.contains(log_level::warning, "Pluto failure reason not found for \"" + name_of() + "\""));
  EXPECT_THAT(agg->log_lines.back(), EndsWith("to disconnected unknown"));
  EXPECT_EQ(incident().reason, "unknown");
  EXPECT_EQ(incident().log_text, "no match");
}

// Verifies that a helper that prints nothing, or one line, leaves the line and the incident without a reason.
TEST_F(VPNConnReasonTest, BadOutput) {
  for (const char* text : {"true", "echo 'only one line'"}) {
    log.clear();
    agg->clear();
    helper_does(text);
    goes_down();
    ASSERT_TRUE(answered());
    EXPECT_TRUE(log.contains(log_level::error, "Bad output from ipsec fail reason parser!")) << text;
    EXPECT_THAT(agg->log_lines.back(), EndsWith("from connected to disconnected"));
    EXPECT_EQ(incident().reason, "");
    EXPECT_EQ(incident().log_text, "");
  }
}

// Verifies that a helper that fails, is killed, or isn't there ends in an unknown reason.
TEST_F(VPNConnReasonTest, HelperFails) {
  for (const char* text : {"echo text; echo reason; exit 3", "kill -9 $$", ""}) {
    log.clear();
    agg->clear();
    helper_does(text);
    if (*text == '\0')
      std::filesystem::remove(helper);
    goes_down();
    ASSERT_TRUE(answered());
    EXPECT_TRUE(
        log.contains(log_level::warning, "Failed to get pluto log failure reason for \"" + name_of() + "\""))
        << text;
    EXPECT_THAT(agg->log_lines.back(), EndsWith("to disconnected unknown"));
    EXPECT_EQ(incident().reason, "unknown");
    EXPECT_EQ(incident().log_text, "failed to execute");
  }
}

// Verifies that a helper that hangs, even one that ignores SIGTERM, is ended by the limit, and that the queue
// goes on behind it.
TEST_F(VPNConnReasonTest, HelperHangs) {
  helper_does("case $2 in *" + Helper::deserialize_strings(name_of("@stuck"), '@')[2] +
              "*) trap '' TERM; exec sleep 1000;; esac; echo text; echo reason");
  goes_down("@stuck");
  const int stuck = agg->pid;
  goes_down("@other");
  EXPECT_THAT(agg->log_queries, SizeIs(2));
  ASSERT_TRUE(answered());
  EXPECT_EQ(incident("@stuck").log_text, "failed to execute");
  EXPECT_EQ(incident("@other").reason, "reason");
  EXPECT_TRUE(zol_test::ends(stuck));
  EXPECT_THAT(agg->log_lines, SizeIs(5));
  EXPECT_THAT(agg->log_lines.back(), EndsWith("to disconnected reason"));
}

// Verifies that questions are asked one at a time, in the order of the failures.
TEST_F(VPNConnReasonTest, OneAtATime) {
  helper_does("mkdir " + folder.file("running") + " || echo overlap >> " + folder.file("asked") +
              "; echo text; echo reason; rmdir " + folder.file("running"));
  for (const char* right_id : {"@c", "@a", "@b"})
    goes_down(right_id);
  ASSERT_TRUE(answered());
  EXPECT_THAT(asked(),
              ElementsAre(HasSubstr(name_of("@c")), HasSubstr(name_of("@a")), HasSubstr(name_of("@b"))));
  EXPECT_THAT(agg->incidents, SizeIs(3));
  EXPECT_THAT(agg->log_lines, SizeIs(7));
}

// Verifies that two failures of one connection are two incidents, in their order.
TEST_F(VPNConnReasonTest, IncidentsOfOneConnection) {
  helper_does("echo text; wc -l < " + folder.file("asked"));
  goes_down();
  goes_down();
  ASSERT_TRUE(answered());
  const auto& list = agg->incidents.at(name_of());
  ASSERT_THAT(list, SizeIs(2));
  EXPECT_EQ(list.front().reason, "1");
  EXPECT_EQ(list.back().reason, "2");
}

// Verifies that a tunnel that isn't mentioned any more is asked about as well.
TEST_F(VPNConnReasonTest, UnmentionedIsAskedAbout) {
  helper_does("echo text; echo reason");
  agg->tick(ipsec(Established));
  agg->clear_tick();
  agg->set_conn_disconnected();
  ASSERT_TRUE(answered());
  EXPECT_THAT(agg->log_lines.back(), EndsWith("from connected to disconnected reason"));
  EXPECT_EQ(incident().reason, "reason");
}

// Verifies that each minute the helper is asked, with "long", about the IPsec connections that aren't up, and
// that what it finds is an incident without a line in the log.
TEST_F(VPNConnReasonTest, MinuteQuestions) {
  helper_does("echo text; echo reason");
  agg->tick(ipsec(Connecting, "@waiting"));
  agg->tick(ipsec(Disconnected, "@down"));
  agg->tick(ipsec(Established, "@up"));
  VPNConnInfo other = ipsec(Disconnected, "@gre");
  other.protocol = "gre";
  agg->tick(other);
  const std::size_t lines = agg->log_lines.size();
  agg->get_passed_minute_failures();
  EXPECT_TRUE(log.contains(log_level::info, "Checking pluto failures in the passed minute"));
  EXPECT_THAT(agg->log_queries, SizeIs(2));
  EXPECT_TRUE(agg->minute_timer.is_pending());
  ASSERT_TRUE(answered());
  EXPECT_THAT(asked(), ElementsAre(MatchesRegex("\\[[0-9]+\\]\\[site@12@.*\\]\\[long\\]"),
                                   HasSubstr(name_of("@waiting"))));
  EXPECT_THAT(asked().front(), HasSubstr(name_of("@down")));
  EXPECT_EQ(agg->log_lines.size(), lines);
  EXPECT_THAT(agg->incidents, SizeIs(2));
  EXPECT_EQ(incident("@down").log_text, "text");
  EXPECT_EQ(incident("@down").log, "");
  EXPECT_FALSE(incident("@down").short_query);
}

// Verifies that a minute in which the helper finds nothing makes no incident.
TEST_F(VPNConnReasonTest, MinuteWithoutMatch) {
  helper_does("echo unknown");
  agg->tick(ipsec(Disconnected));
  agg->get_passed_minute_failures();
  ASSERT_TRUE(answered());
  EXPECT_THAT(asked(), SizeIs(1));
  EXPECT_THAT(agg->incidents, IsEmpty());
  EXPECT_THAT(agg->log_lines, SizeIs(1));
}

// Verifies that a minute adds nothing while earlier questions wait, and still charges the timer.
TEST_F(VPNConnReasonTest, MinuteWhileAsking) {
  helper_does("echo text; echo reason");
  goes_down();
  agg->minute_timer.del(false);
  agg->get_passed_minute_failures();
  EXPECT_THAT(agg->log_queries, SizeIs(1));
  EXPECT_FALSE(log.contains("Checking pluto failures"));
  EXPECT_TRUE(agg->minute_timer.is_pending());
  ASSERT_TRUE(answered());
  EXPECT_THAT(asked(), SizeIs(1));
}

// Verifies that a minute without connections to ask about says nothing.
TEST_F(VPNConnReasonTest, MinuteWithNothingToAsk) {
  agg->tick(ipsec(Established));
  agg->get_passed_minute_failures();
  EXPECT_THAT(agg->log_queries, IsEmpty());
  EXPECT_FALSE(log.contains("Checking pluto failures"));
}

// Verifies that the timer's callback is the question of the minute.
TEST_F(VPNConnReasonTest, MinuteTimerAsks) {
  helper_does("echo text; echo reason");
  agg->tick(ipsec(Disconnected));
  agg->minute_timer.charge(0);
  ASSERT_TRUE(run_until([this] { return !agg->incidents.empty(); }));
  EXPECT_TRUE(agg->minute_timer.is_pending());
}

// Verifies that failures whose questions can't be started are logged without a reason, one after the other.
TEST_F(VPNConnReasonTest, QuestionCannotBeStarted) {
  helper_does("echo text; echo reason");
  EXPECT_TRUE(zol_test::holds_in_own_process([this] {
    const rlimit none{0, 0};
    if (setrlimit(RLIMIT_NPROC, &none) != 0 || syscall(SYS_setuid, 65534) != 0)
      return false;
    goes_down("@a");
    goes_down("@b");
    agg->get_passed_minute_failures();
    return agg->log_queries.empty() && agg->incidents.empty() && agg->log_lines.size() == 5 &&
           agg->log_lines.back().ends_with("from connected to disconnected") &&
           log.count("Failed to run reason query : /opt/zol/get_pluto_fail_reason.sh") == 4;
  }));
}

// Verifies that the end of the object ends the helper and logs what still waits for a reason.
TEST_F(VPNConnReasonTest, EndWhileAsking) {
  helper_does("exec sleep 1000");
  goes_down("@a");
  goes_down("@b");
  const int pid = agg->pid;
  const std::string output = agg->output_path;
  agg.reset();
  EXPECT_TRUE(zol_test::ends(pid));
  EXPECT_FALSE(std::filesystem::exists(output));
  EXPECT_THAT(lines_of(folder.file("vpnconn.log")),
              ElementsAre(EndsWith("Started"), EndsWith("to connected"), EndsWith("to connected"),
                          EndsWith("from connected to disconnected"),
                          EndsWith("from connected to disconnected"), EndsWith("Stopped")));
}

}  // namespace
}  // namespace zol
