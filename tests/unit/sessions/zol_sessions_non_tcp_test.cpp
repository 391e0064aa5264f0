#include <gtest/gtest.h>

#include "sessions/zol_sessions.h"
#include "tests/unit/sessions/sessions_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::ZOLSessions;

class NonTcpTest : public SessionsTest {
 protected:
  void traffic(std::uint64_t bytes, bool not_reversed = true, const std::string& network = "net-a") {
    table_.update_non_tcp_traffic(17, ip("10.1.0.2"), ip("10.2.0.3"), bytes, 5353, 53, not_reversed, network);
  }
  zol_monitor::NonTCPSessionInfo& flow() {
    return *table_.non_tcp_sessions.at("[17]:10.1.0.2:5353==>10.2.0.3:53");
  }
};

// Verifies that a key has the ports unless both are 0.
TEST_F(NonTcpTest, Key) {
  const std::uint32_t src = ip("10.1.0.2");
  const std::uint32_t dst = ip("10.2.0.3");
  EXPECT_EQ(ZOLSessions::gen_non_tcp_key(1, src, dst, 0, 0), "[1]:10.1.0.2==>10.2.0.3");
  EXPECT_EQ(ZOLSessions::gen_non_tcp_key(17, src, dst, 5353, 53), "[17]:10.1.0.2:5353==>10.2.0.3:53");
  EXPECT_EQ(ZOLSessions::gen_non_tcp_key(17, src, dst, 0, 53), "[17]:10.1.0.2:0==>10.2.0.3:53");
  EXPECT_EQ(ZOLSessions::gen_non_tcp_key(17, src, dst, 5353, 0), "[17]:10.1.0.2:5353==>10.2.0.3:0");
}

// Verifies that no record is made for a flow without bytes.
TEST_F(NonTcpTest, SilentFlow) {
  traffic(0);
  EXPECT_TRUE(table_.non_tcp_sessions.empty());
}

// Verifies that the first bytes make a record with the network, and that later ones add up in it.
TEST_F(NonTcpTest, Traffic) {
  traffic(100);
  traffic(11, true, "net-b");
  ASSERT_EQ(table_.non_tcp_sessions.size(), 1U);
  EXPECT_EQ(flow().bytes, 111U);
  EXPECT_EQ(flow().network_id, "net-a");
  EXPECT_FALSE(flow().is_reversed());
}

// Verifies that a flow against the session's direction puts the record into the reversed state.
TEST_F(NonTcpTest, ReversedFlow) {
  traffic(100, false);
  EXPECT_TRUE(flow().is_reversed());
}

// Verifies that in GXE mode both ends of a flow are looked up among the sites.
TEST_F(NonTcpTest, Sites) {
  configure("", true);
  sites_.records.emplace("10.1.0.2", site_record("10.1.0.2"));
  traffic(100);
  EXPECT_TRUE(flow().in->is_site);
  EXPECT_FALSE(flow().out->is_site);
}

// Verifies that flows that have ended move to the finished list, and living ones stay.
TEST_F(NonTcpTest, EndedFlows) {
  traffic(100);
  table_.update_non_tcp_traffic(1, ip("10.1.0.2"), ip("10.2.0.3"), 7, 0, 0, true, "net-a");
  flow().last_seen_ms -= 30001;
  table_.update_non_tcp_sessions();
  ASSERT_EQ(table_.non_tcp_sessions.size(), 1U);
  EXPECT_EQ(table_.non_tcp_sessions.begin()->second->protonum, 1U);
  ASSERT_EQ(table_.finished_sessions.non_tcp_count, 1U);
  EXPECT_EQ(table_.finished_sessions.sessions.AsList().at(0).At("ip_proto").AsInt(), 17);
}

}  // namespace
}  // namespace zol_test
