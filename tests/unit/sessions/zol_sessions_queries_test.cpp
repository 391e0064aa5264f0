#include <gtest/gtest.h>

#include "sessions/zol_sessions.h"
#include "tests/unit/sessions/sessions_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::SessionPtr;
using zol_monitor::traffic_dir_t;
using zol_monitor::ZOLSessions;

class QueriesTest : public SessionsTest {
 protected:
  // An In session of "net-a"; each gets a peer of its own.
  SessionPtr add(const std::string& domain, bool accepted, bool is_private) {
    const std::uint8_t number = next_++;
    const SessionPtr session = identify_in(Uuid(number), {"198.51.100.20", number});
    session->domain_name = domain;
    session->accepted_locally = accepted;
    session->is_private_network = is_private;
    return session;
  }

  std::uint8_t next_ = 1;
};

// Verifies, for each direction, which sessions count in it.
TEST_F(QueriesTest, ShouldCounterUpdated) {
  const struct {
    bool accepted;
    bool is_private;
    bool target;
    bool public_hop;
    bool private_hop;
  } rows[] = {
      {true, false, true, false, false},
      {true, true, true, false, false},
      {false, false, false, true, false},
      {false, true, false, false, true},
  };
  for (const auto& row : rows) {
    const SessionPtr session = add("d", row.accepted, row.is_private);
    EXPECT_EQ(ZOLSessions::should_counter_updated(*session, traffic_dir_t::target), row.target);
    EXPECT_EQ(ZOLSessions::should_counter_updated(*session, traffic_dir_t::public_hop), row.public_hop);
    EXPECT_EQ(ZOLSessions::should_counter_updated(*session, traffic_dir_t::private_hop), row.private_hop);
    EXPECT_FALSE(ZOLSessions::should_counter_updated(*session, static_cast<traffic_dir_t>(3)));
  }
}

// Verifies that only new sessions with an In leg of the network, direction and domain are counted.
TEST_F(QueriesTest, NewCounts) {
  add("shop.example", true, false);
  add("shop.example", false, false);
  add("mail.example", false, true);
  add("shop.example", true, false)->state = 1;
  add("shop.example", true, false)->network_id = "net-b";
  identify_out(Uuid(99))->accepted_locally = true;
  EXPECT_EQ(table_.get_new_count("net-a", traffic_dir_t::target), 1U);
  EXPECT_EQ(table_.get_new_count("net-a", traffic_dir_t::public_hop), 1U);
  EXPECT_EQ(table_.get_new_count("net-a", traffic_dir_t::private_hop), 1U);
  EXPECT_EQ(table_.get_new_count("net-b", traffic_dir_t::target), 1U);
  EXPECT_EQ(table_.get_new_count("net-c", traffic_dir_t::target), 0U);
  EXPECT_EQ(table_.get_domain_new_count("net-a", ""), 3U);
  EXPECT_EQ(table_.get_domain_new_count("net-a", "shop.example"), 2U);
  EXPECT_EQ(table_.get_domain_new_count("net-a", "other.example"), 0U);
  EXPECT_EQ(table_.get_domain_new_count("net-a", "shop.example", traffic_dir_t::target), 1U);
  EXPECT_EQ(table_.get_domain_new_count("net-a", "mail.example", traffic_dir_t::target), 0U);
  EXPECT_EQ(table_.get_domain_new_count("net-a", "", traffic_dir_t::private_hop), 1U);
}

// Verifies that the queries answer the same while a report is made, take out of the sessions the same, and
// see the table as it is once the report has ended.
TEST_F(QueriesTest, WhileAReportIsMade) {
  const SessionPtr shop = add("shop.example", true, false);
  const SessionPtr mail = add("mail.example", false, true);
  add("shop.example", true, false)->state = 1;
  add("", true, false)->network_id = "net-b";
  const SessionPtr out_only = identify_out(Uuid(99));
  out_only->network_id = "net-a";
  for (const SessionPtr& session : {shop, mail, out_only}) {
    session->out->termination_reason = zol_monitor::STR_CONNECTION_REFUSED;
    session->http_counters.update(static_cast<zol::http_notification_t>(0));
  }
  table_.begin_report();
  EXPECT_EQ(table_.get_domain_new_count("net-a", ""), 2U);
  EXPECT_EQ(table_.get_domain_new_count("net-a", "shop.example"), 1U);
  EXPECT_EQ(table_.get_domain_new_count("net-a", "other.example"), 0U);
  EXPECT_EQ(table_.get_domain_new_count("net-a", "mail.example", traffic_dir_t::private_hop), 1U);
  EXPECT_EQ(table_.get_new_count("net-b", traffic_dir_t::target), 1U);
  EXPECT_EQ(table_.get_new_count("net-c", traffic_dir_t::target), 0U);
  EXPECT_EQ(table_.get_target_failure_by_domain_count("net-a", "shop.example").accepted, 1U);
  const auto failures = table_.get_target_failure_by_domain_count("net-a", "");
  EXPECT_EQ(failures.accepted + failures.public_network + failures.private_network, 2U);
  EXPECT_TRUE(table_.get_http_counters("net-b", "").accepted.is_empty());
  EXPECT_FALSE(table_.get_http_counters("net-a", "mail.example").private_network.is_empty());
  EXPECT_TRUE(mail->http_counters.is_empty());
  EXPECT_FALSE(shop->http_counters.is_empty());
  shop->state = 1;
  EXPECT_EQ(table_.get_domain_new_count("net-a", "shop.example"), 0U);
  table_.end_report();
  add("shop.example", true, false);
  EXPECT_EQ(table_.get_domain_new_count("net-a", "shop.example"), 1U);
}

// Verifies that a session that has told all it had to tell is heard again in the report after its next
// message, and that one whose leg ended meanwhile is not.
TEST_F(QueriesTest, NewsAfterAReport) {
  const SessionPtr session = add("shop.example", true, false);
  session->state = 1;
  add("mail.example", true, false)->state = 1;
  table_.begin_report();
  table_.end_report();
  table_.update_http_counters(session->session_id, static_cast<zol::http_notification_t>(0));
  table_.begin_report();
  EXPECT_EQ(table_.get_http_counters("net-a", "shop.example").accepted.total_requests(), 1U);
  EXPECT_TRUE(table_.get_http_counters("net-a", "mail.example").accepted.is_empty());
  table_.end_report();

  const Uuid failed(77);
  table_.set_out_termination_reason(ip("198.51.100.20"), 40000, failed,
                                    {ip("192.0.2.9"), 443, zol::FR_CONNECTION_REFUSED});
  table_.get(failed)->network_id = "net-a";
  table_.get(failed)->state = 1;
  table_.begin_report();
  const auto failures = table_.get_target_failure_by_domain_count("net-a", "");
  EXPECT_EQ(failures.accepted + failures.public_network + failures.private_network, 1U);
  table_.end_report();
}

// Verifies that, while a report is made, a session counts as often as it has In entries, and no longer once
// the kernel has reported the end of its last.
TEST_F(QueriesTest, NewSessionWithTwoInEntries) {
  const Uuid uuid(5);
  const SessionPtr session = identify_in(uuid, {"198.51.100.20", 1});
  identify_in(uuid, {"198.51.100.20", 2});
  ASSERT_EQ(table_.in_sessions.size(), 2U);
  const auto count_in_a_report = [this] {
    table_.begin_report();
    const std::uint32_t count = table_.get_domain_new_count("net-a", "");
    table_.end_report();
    return count;
  };
  session->network_id = "net-a";
  EXPECT_EQ(count_in_a_report(), 2U);
  table_.erase(Connection({"198.51.100.20", 1}, proxy_peer));
  EXPECT_EQ(count_in_a_report(), 1U);
  EXPECT_EQ(table_.get_domain_new_count("net-a", ""), 1U);
}

// Verifies that a session displaced from its key by another one counts no longer.
TEST_F(QueriesTest, DisplacedSessionInAReport) {
  const SessionPtr first = identify_in(Uuid(5), {"198.51.100.20", 1});
  first->network_id = "net-a";
  identify_in(Uuid(6), {"198.51.100.20", 1})->network_id = "net-a";
  table_.begin_report();
  EXPECT_EQ(table_.get_domain_new_count("net-a", ""), 1U);
  table_.end_report();
}

// Verifies that each failed target counts once, in the slot of what this node is to the session.
TEST_F(QueriesTest, TargetFailures) {
  const auto fail = [](const SessionPtr& session) {
    session->out->termination_reason = zol_monitor::STR_RESOLUTION_FAILURE;
  };
  fail(add("shop.example", true, true));
  fail(add("shop.example", true, false));
  fail(add("shop.example", true, false));
  fail(add("shop.example", false, false));
  fail(add("shop.example", false, false));
  fail(add("shop.example", false, true));
  const auto counts = table_.get_target_failure_by_domain_count("net-a", "shop.example");
  EXPECT_EQ(counts.accepted, 3U);
  EXPECT_EQ(counts.public_network, 2U);
  EXPECT_EQ(counts.private_network, 1U);
  const auto again = table_.get_target_failure_by_domain_count("net-a", "");
  EXPECT_EQ(again.accepted + again.public_network + again.private_network, 0U);
}

// Verifies which sessions are no failed targets, and that they aren't marked as counted.
TEST_F(QueriesTest, NoTargetFailures) {
  const SessionPtr reset = add("shop.example", true, false);
  reset->out->termination_reason = zol_monitor::STR_RST_FROM_CLIENT_SIDE;
  const SessionPtr hop = add("shop.example", true, false);
  hop->out->termination_reason = zol_monitor::STR_CONNECTION_REFUSED;
  hop->is_next_hop_zol = true;
  const SessionPtr other_domain = add("mail.example", true, false);
  other_domain->out->termination_reason = zol_monitor::STR_CONNECTION_REFUSED;
  const SessionPtr other_network = add("shop.example", true, false);
  other_network->out->termination_reason = zol_monitor::STR_CONNECTION_REFUSED;
  other_network->network_id = "net-b";
  EXPECT_EQ(table_.get_target_failure_by_domain_count("net-a", "shop.example").accepted, 0U);
  for (const auto& session : {reset, hop, other_domain, other_network})
    EXPECT_FALSE(session->target_failure_counted);
  EXPECT_EQ(table_.get_target_failure_by_domain_count("net-a", "").accepted, 1U);
  EXPECT_TRUE(other_domain->target_failure_counted);
}

// Verifies that a failure without an In leg counts, since it is known by its uuid.
TEST_F(QueriesTest, TargetFailureWithoutLegs) {
  const Uuid uuid(50);
  table_.set_out_termination_reason(1, 2, uuid, {.address = 3, .port = 443, .reason = zol::FR_PEER_TIMEOUT});
  table_.get(uuid)->network_id = "net-a";
  EXPECT_EQ(table_.get_target_failure_by_domain_count("net-a", "").public_network, 1U);
}

// Verifies that HTTP messages are summed by slot and are taken out of the sessions.
TEST_F(QueriesTest, HttpCounters) {
  add("shop.example", true, true)->http_counters.update(zol::HTTP_GET_REQUEST);
  add("shop.example", true, false)->http_counters.update(zol::HTTP_GET_REQUEST);
  add("shop.example", false, false)->http_counters.update(zol::HTTP_POST_REQUEST);
  add("shop.example", false, true)->http_counters.update(zol::HTTP_2XX_RESPONSE);
  add("mail.example", true, false)->http_counters.update(zol::HTTP_5XX_RESPONSE);
  const auto sums = table_.get_http_counters("net-a", "shop.example");
  EXPECT_EQ(sums.accepted.get_counter(zol::HTTP_GET_REQUEST), 2U);
  EXPECT_EQ(sums.public_network.get_counter(zol::HTTP_POST_REQUEST), 1U);
  EXPECT_EQ(sums.private_network.get_counter(zol::HTTP_2XX_RESPONSE), 1U);
  EXPECT_EQ(sums.accepted.total_responses(), 0U);
  const auto again = table_.get_http_counters("net-a", "shop.example");
  EXPECT_TRUE(again.accepted.is_empty() && again.public_network.is_empty() &&
              again.private_network.is_empty());
  EXPECT_EQ(table_.get_http_counters("net-b", "").accepted.total_responses(), 0U);
  EXPECT_EQ(table_.get_http_counters("net-a", "").accepted.get_counter(zol::HTTP_5XX_RESPONSE), 1U);
}

// Verifies that the snapshot holds the sessions with an In leg.
TEST_F(QueriesTest, Snapshot) {
  const SessionPtr session = add("shop.example", true, false);
  identify_out(Uuid(99));
  const std::list<SessionPtr> snapshot = table_.get_zol_sessions();
  ASSERT_EQ(snapshot.size(), 1U);
  EXPECT_EQ(snapshot.front(), session);
}

}  // namespace
}  // namespace zol_test
