// Why a leg ended, from the bits that the firewall rules leave in the mark.
#include <gtest/gtest.h>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/conntrack/conntrack_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::SessionPtr;

class CloseReasonTest : public ConntrackTest {
 protected:
  CloseReasonTest() : session_(identify_in()) { identify_out(); }

  static Flow in_leg(std::uint32_t bits, int state = tcp_fin_wait) {
    return {.source = client_peer, .target = own_in_peer, .mark = in_mark | bits, .tcp_state = state};
  }
  static Flow out_leg(std::uint32_t bits, int state = tcp_fin_wait) {
    return {.source = own_out_peer, .target = hop_peer, .mark = out_mark | bits, .tcp_state = state};
  }

  SessionPtr session_;
};

struct ReasonRow {
  const char* name;
  bool out;
  std::uint32_t bits;
  unsigned reason;
};

class CloseReasonTable : public CloseReasonTest, public testing::WithParamInterface<ReasonRow> {};

// Verifies the reason of each combination of role and mark bits on the first sight of the closing.
TEST_P(CloseReasonTable, FirstSight) {
  const ReasonRow& row = GetParam();
  detect(row.out ? out_leg(row.bits) : in_leg(row.bits));
  const auto& leg = row.out ? *session_->out : *session_->in;
  EXPECT_EQ(leg.termination_reason, row.reason);
  EXPECT_NE(leg.end_time_ms, 0u);
  const auto& other = row.out ? *session_->in : *session_->out;
  EXPECT_EQ(other.termination_reason, 0u);
  EXPECT_EQ(other.end_time_ms, 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Marks, CloseReasonTable,
    testing::Values(ReasonRow{"InFinReceived", false, fin_received, 2},
                    ReasonRow{"OutFinReceived", true, fin_received, 1}, ReasonRow{"InFinSent", false, 0, 1},
                    ReasonRow{"OutFinSent", true, 0, 2}, ReasonRow{"InRstReceived", false, rst_received, 4},
                    ReasonRow{"OutRstReceived", true, rst_received, 3},
                    ReasonRow{"InRstSent", false, rst_sent, 3}, ReasonRow{"OutRstSent", true, rst_sent, 4},
                    ReasonRow{"InRstBeatsFin", false, fin_received | rst_sent, 3},
                    ReasonRow{"InRstReceivedBeatsSent", false, rst_received | rst_sent, 4},
                    ReasonRow{"OutRstReceivedBeatsSent", true, rst_received | rst_sent, 3}),
    [](const auto& row) { return row.param.name; });

// Verifies that an established connection has no close reason, whatever its mark says.
TEST_F(CloseReasonTest, EstablishedIsNotClosing) {
  detect(in_leg(fin_received | rst_received, tcp_established));
  EXPECT_EQ(session_->in->termination_reason, 0u);
  EXPECT_EQ(session_->in->end_time_ms, 0u);
}

// Verifies that a connection without a service id gets no close reason.
TEST_F(CloseReasonTest, NoServiceId) {
  Flow flow = in_leg(0);
  flow.mark = 0x1 | rst_received;
  detect(flow);
  EXPECT_EQ(session_->in->termination_reason, 0u);
}

// Verifies that an RST seen after a FIN overrules it, and that the time of the end stays that of the first
// sight.
TEST_F(CloseReasonTest, RstOverrulesFinOfAnEarlierEvent) {
  detect(in_leg(fin_received));
  ASSERT_EQ(session_->in->termination_reason, 2u);
  session_->in->end_time_ms = 1234;
  detect(in_leg(fin_received | rst_received));
  EXPECT_EQ(session_->in->termination_reason, 4u);
  EXPECT_EQ(session_->in->end_time_ms, 1234u);
}

// Verifies that a reason that stands isn't worked out anew from FINs.
TEST_F(CloseReasonTest, FinDoesNotOverrule) {
  detect(in_leg(rst_received));
  ASSERT_EQ(session_->in->termination_reason, 4u);
  detect(in_leg(fin_received));
  EXPECT_EQ(session_->in->termination_reason, 4u);
}

// Verifies that a reversed In leg, nibble 10, reads as an In leg.
TEST_F(CloseReasonTest, ReversedLeg) {
  const Flow flow = {.source = own_in_peer,
                     .target = client_peer,
                     .mark = service_mark | 0xa0 | fin_received,
                     .tcp_state = tcp_fin_wait};
  detect(flow);
  EXPECT_EQ(session_->in_info.termination_reason, 2u);
}

// Verifies the debug line with the connection and the reason's number.
TEST_F(CloseReasonTest, LogLine) {
  LogCapture log;
  detect(in_leg(fin_received));
  EXPECT_TRUE(log.contains(log_level::debug,
                           "close_reason_diagnostics_parser [Diagnostics] Connection close reason for [IN] "
                           "198.51.100.20:40000->192.0.2.1:443 is 2"))
      << log.all();
}

}  // namespace
}  // namespace zol_test
