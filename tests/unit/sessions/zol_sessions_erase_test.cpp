#include <gtest/gtest.h>

#include "sessions/zol_sessions.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sessions/sessions_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::SessionPtr;

class EraseTest : public SessionsTest {
 protected:
  std::string reported_id(std::size_t index) const {
    return table_.finished_sessions.sessions.AsList().at(index).At("session_id").AsString();
  }

  const Uuid one_{1};
  const Uuid two_{2};
  const Peer second_own_ = {"192.0.2.1", 50001};
};

// Verifies that a session is reported, and only then, when both of its legs have gone.
TEST_F(EraseTest, BothLegsGone) {
  const std::weak_ptr<zol_monitor::SessionInfo> session = identify_in(one_);
  identify_out(one_);
  table_.erase(in_connection());
  ASSERT_NE(table_.get(one_), nullptr);
  EXPECT_TRUE(table_.get(one_)->in_info.is_erased);
  EXPECT_TRUE(table_.in_sessions.empty());
  EXPECT_EQ(table_.finished_sessions.reported_count, 0U);
  table_.erase(out_connection());
  EXPECT_TRUE(table_.out_sessions.empty());
  EXPECT_TRUE(table_.sessions_by_id.empty());
  EXPECT_TRUE(session.expired());
  ASSERT_EQ(table_.finished_sessions.reported_count, 1U);
  EXPECT_EQ(reported_id(0), one_.text());
}

// Verifies that a leg that was never keyed counts as gone.
TEST_F(EraseTest, NeverKeyedLeg) {
  identify_in(one_);
  table_.erase(in_connection());
  EXPECT_EQ(table_.finished_sessions.reported_count, 1U);
}

// Verifies that the end of an unknown connection changes nothing.
TEST_F(EraseTest, UnknownConnection) {
  identify_in(one_);
  table_.erase(Connection({"10.9.9.9", 1}, {"10.9.9.8", 2}));
  EXPECT_EQ(table_.in_sessions.size(), 1U);
  EXPECT_NE(table_.get(one_), nullptr);
}

// Verifies that of two Out entries of a session under one outer key the last one ends the leg.
TEST_F(EraseTest, SecondOutEntryKeepsLeg) {
  const SessionPtr session = identify_out(one_);
  identify_out(one_, hop_peer, second_own_);
  const LogCapture log;
  table_.erase(out_connection(own_peer));
  EXPECT_FALSE(session->out_info.is_erased);
  EXPECT_TRUE(log.contains(log_level::debug, "erase: Found another connection for " + one_.text()))
      << log.all();
  EXPECT_EQ(table_.out_sessions.size(), 1U);
  table_.erase(out_connection(second_own_));
  EXPECT_TRUE(session->out_info.is_erased);
  EXPECT_TRUE(table_.out_sessions.empty());
}

// Verifies that another session's entry in the same inner map keeps the map, but not the leg.
TEST_F(EraseTest, OtherSessionInInnerMap) {
  const SessionPtr session = identify_out(one_);
  identify_out(two_, hop_peer, second_own_);
  const LogCapture log;
  table_.erase(out_connection(own_peer));
  EXPECT_TRUE(session->out_info.is_erased);
  EXPECT_FALSE(log.contains("Found another connection"));
  EXPECT_FALSE(log.contains("There are no more connections"));
  ASSERT_EQ(table_.out_sessions.size(), 1U);
  EXPECT_EQ(table_.out_sessions.begin()->second.size(), 1U);
}

// Verifies that an Out entry under another outer key doesn't keep the leg: the session then leaks, and says
// so.
TEST_F(EraseTest, EntryUnderOtherOuterKey) {
  identify_out(one_);
  identify_out(one_, {"203.0.113.6", 15000}, own_peer);
  const LogCapture log;
  table_.erase(out_connection());
  EXPECT_EQ(table_.get(one_), nullptr);
  EXPECT_TRUE(log.contains(log_level::error, "erase_if_unused Leaking session - ref-count: 2 Session info: "))
      << log.all();
  EXPECT_EQ(table_.finished_sessions.reported_count, 0U);
}

// Verifies that an entry that a dropped session left behind still counts for a session of the same id.
TEST_F(EraseTest, EntryOfDroppedSession) {
  const Peer other_hop = {"203.0.113.6", 15000};
  identify_out(one_);
  identify_out(one_, other_hop, own_peer);
  table_.erase(out_connection());  // dropped, with its entry under the other hop
  const SessionPtr newer = identify_out(one_, other_hop, second_own_);
  const LogCapture log;
  table_.erase(out_connection(second_own_, other_hop));
  EXPECT_FALSE(newer->out_info.is_erased);
  EXPECT_TRUE(log.contains("erase: Found another connection for " + one_.text())) << log.all();
}

// Verifies the trace lines of an erased Out leg, with the keys in hexadecimal.
TEST_F(EraseTest, TraceLines) {
  identify_out(one_);
  const LogCapture log;
  table_.erase(out_connection());
  EXPECT_TRUE(log.contains(log_level::trace, "Erasing 0x10200c00000c350")) << log.all();  // 192.0.2.1, 50000
  EXPECT_TRUE(log.contains(log_level::trace,
                           "erase: There are no more connections to 0x57100cb00003a98, erasing"));  // the hop
  EXPECT_TRUE(
      log.contains(log_level::trace, "erase_if_unused Erasing Session info object \nID: " + one_.text()));
}

// Verifies that a session without a network, or without an In address, is called problematic and reported
// anyway.
TEST_F(EraseTest, ProblematicSession) {
  identify_in(one_)->network_id.clear();
  identify_out(two_, hop_peer, second_own_);
  const LogCapture log;
  table_.erase(in_connection());
  EXPECT_EQ(log.count("erase_if_unused Problematic session info: \nID: " + one_.text()), 1) << log.all();
  table_.erase(out_connection(second_own_));
  EXPECT_EQ(log.count("erase_if_unused Problematic session info: \nID: " + two_.text()), 1) << log.all();
  EXPECT_TRUE(log.contains(log_level::error, "Problematic session info"));
  EXPECT_EQ(table_.finished_sessions.reported_count, 2U);
}

// Verifies that a complete session isn't called problematic.
TEST_F(EraseTest, NotProblematic) {
  identify_in(one_);
  const LogCapture log;
  table_.erase(in_connection());
  EXPECT_FALSE(log.contains("Problematic")) << log.all();
  EXPECT_FALSE(log.contains("Leaking"));
}

// Verifies that with the session report off, by 0 or by a missing key, sessions vanish without report or
// complaint.
TEST_F(EraseTest, NoSessionReport) {
  for (const char* config : {"Monitoring: { session_report_resolution_ms = 0; };", "Monitoring: { };"}) {
    const SessionPtr held = identify_in(one_);
    config_.set(config);
    const LogCapture log;
    table_.erase(in_connection());
    EXPECT_TRUE(table_.sessions_by_id.empty());
    EXPECT_TRUE(held->in_info.is_erased);
    EXPECT_EQ(table_.finished_sessions.reported_count, 0U);
    EXPECT_FALSE(log.contains("Leaking")) << log.all();
  }
}

// Verifies that a session that somebody else still holds is dropped unreported, as a leak.
TEST_F(EraseTest, LeakingSession) {
  const SessionPtr held = identify_in(one_);
  const LogCapture log;
  table_.erase(in_connection());
  EXPECT_EQ(table_.get(one_), nullptr);
  EXPECT_EQ(table_.finished_sessions.reported_count, 0U);
  EXPECT_TRUE(log.contains(
      log_level::error, "erase_if_unused Leaking session - ref-count: 2 Session info: \nID: " + one_.text()))
      << log.all();
}

// Verifies that a displaced session that a snapshot holds is a leak too.
TEST_F(EraseTest, LeakingDisplacedSession) {
  const SessionPtr held = identify_in(one_);
  const LogCapture log;
  identify_in(two_);
  EXPECT_TRUE(log.contains("erase_if_unused Leaking session - ref-count: 2")) << log.all();
  EXPECT_EQ(table_.finished_sessions.reported_count, 0U);
}

// Verifies that an expired pointer and a session with a living leg are left alone.
TEST_F(EraseTest, EraseIfUnusedLeavesAlone) {
  table_.erase_if_unused({});
  const SessionPtr session = identify_in(one_);
  table_.erase_if_unused(session);
  EXPECT_EQ(table_.get(one_), session);
  session->in_info.is_erased = true;
  session->out_info.is_erased = false;
  table_.erase_if_unused(session);
  EXPECT_EQ(table_.get(one_), session);
}

// Verifies that an older session doesn't take a newer one of the same id off the table.
TEST_F(EraseTest, NewerSessionOfSameId) {
  identify_in(one_);
  const auto newer = std::make_shared<zol_monitor::SessionInfo>(one_, ip("10.0.0.9"), 9);
  table_.sessions_by_id.begin()->second = newer;
  table_.erase(in_connection());
  EXPECT_EQ(table_.get(one_), newer);
}

// Verifies that the owner hears of each session that finishes once the report's limit is reached.
TEST_F(EraseTest, MaxSessionsNotify) {
  configure("session_report_max_sessions = 2;");
  for (std::uint8_t number = 1; number <= 3; ++number) {
    identify_in(Uuid(number));
    table_.erase(in_connection());
    EXPECT_EQ(events_.notified, number - 1);
  }
}

// Verifies that the record takes the next hop's names from the table.
TEST_F(EraseTest, NextHopNames) {
  table_.next_hop = "hop.example";
  table_.next_hop_cname = "edge.example";
  identify_in(one_)->is_next_hop_zol = true;
  table_.erase(in_connection());
  const auto& record = table_.finished_sessions.sessions.AsList().at(0);
  EXPECT_EQ(record.At("next_hop").AsString(), "hop.example");
  EXPECT_EQ(record.At("next_hop_cname").AsString(), "edge.example");
}

}  // namespace
}  // namespace zol_test
