#include <gtest/gtest.h>

#include "sessions/zol_sessions.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sessions/sessions_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::leg_key;
using zol_monitor::SessionPtr;
using zol_monitor::SessionsErrorCounter;

class IdentificationTest : public SessionsTest {
 protected:
  unsigned long failopen_errors() const {
    return SessionsErrorCounter::get_counter(table_.error_counters.total, zol::FR_FAILOPEN_CONNECTION);
  }

  const Uuid one_{1};
  const Uuid two_{2};
};

// Verifies that a message for an unknown session creates it and keys its In leg.
TEST_F(IdentificationTest, CreatesAndKeysInLeg) {
  const LogCapture log;
  identify({.first = client_peer, .uuid = one_, .client = client_peer, .destination = "203.0.113.99"});
  const SessionPtr session = table_.get(one_);
  ASSERT_TRUE(session);
  EXPECT_EQ(table_.in_sessions.at(leg_key(ip(client_peer.address), client_peer.port)), session);
  EXPECT_EQ(session->in_info.address, ip(client_peer.address));
  EXPECT_EQ(session->in_info.port, client_peer.port);
  EXPECT_EQ(session->in_info.destination_ip, ip("203.0.113.99"));
  EXPECT_FALSE(session->in_info.is_erased);
  EXPECT_TRUE(session->out_info.is_erased);
  EXPECT_TRUE(table_.out_sessions.empty());
  EXPECT_TRUE(log.contains(log_level::debug, "Creating new session info. ID: " + one_.text() +
                                                 " for client: 198.51.100.20:40000."))
      << log.all();
}

// Verifies that an outbound message keys the Out leg under its first pair and then its second.
TEST_F(IdentificationTest, KeysOutLeg) {
  const SessionPtr session = identify_out(one_);
  EXPECT_EQ(table_.out_sessions.at(leg_key(ip(hop_peer.address), hop_peer.port))
                .at(leg_key(ip(own_peer.address), own_peer.port)),
            session);
  EXPECT_EQ(session->out_info.address, ip(hop_peer.address));
  EXPECT_EQ(session->out_info.port, hop_peer.port);
  EXPECT_FALSE(session->out_info.is_erased);
  EXPECT_TRUE(session->in_info.is_erased);
  EXPECT_TRUE(table_.in_sessions.empty());
}

// Verifies the debug lines of an identification.
TEST_F(IdentificationTest, DebugLines) {
  const LogCapture log;
  identify({.first = client_peer, .uuid = one_, .client = client_peer, .target = {"203.0.113.77", 8443}});
  identify({.outbound = true, .first = hop_peer, .second = own_peer, .uuid = one_});
  EXPECT_TRUE(log.contains(log_level::debug,
                           "set_session_identification Inbound Keys: [198.51.100.20:40000] "
                           "Session_ID: " +
                               one_.text() +
                               " Client info: [198.51.100.20:40000] Target info: "
                               "[203.0.113.77:8443]"))
      << log.all();
  EXPECT_TRUE(
      log.contains(log_level::debug, "set_session_identification Outbound Keys: [203.0.113.5:15000]"));
  EXPECT_TRUE(log.contains(log_level::debug, "set_info_in: Saving in session 0x"));
  EXPECT_TRUE(log.contains(log_level::debug, "set_info_out: Saving out session 0x"));
}

// Verifies that later messages refine the session: what they leave out stays.
TEST_F(IdentificationTest, LaterMessagesRefine) {
  identify({.first = client_peer,
            .uuid = one_,
            .client = client_peer,
            .service_port = 443,
            .retries = 2,
            .hop_order = 3,
            .user_agent = "probe/1",
            .domain_name = "shop.example",
            .target = {"203.0.113.77", 8443}});
  identify({.first = client_peer, .uuid = one_});
  const SessionPtr session = table_.get(one_);
  EXPECT_EQ(session->client_ip, ip(client_peer.address));
  EXPECT_EQ(session->client_port, client_peer.port);
  EXPECT_EQ(session->service_port, 443);
  EXPECT_EQ(session->retries_count, 2);
  EXPECT_EQ(session->hop_order, 3);
  EXPECT_EQ(session->user_agent, "probe/1");
  EXPECT_EQ(session->domain_name, "shop.example");
  EXPECT_EQ(session->target_ip, ip("203.0.113.77"));
  EXPECT_EQ(session->target_port, 8443);
  identify({.first = client_peer,
            .uuid = one_,
            .client = {"198.51.100.99", 0},
            .service_port = 80,
            .retries = 5,
            .hop_order = 4,
            .user_agent = "probe/2",
            .domain_name = "mail.example",
            .target = {"0.0.0.0", 9443}});
  EXPECT_EQ(session->client_ip, ip("198.51.100.99"));
  EXPECT_EQ(session->client_port, client_peer.port);
  EXPECT_EQ(session->service_port, 80);
  EXPECT_EQ(session->retries_count, 5);
  EXPECT_EQ(session->hop_order, 4);
  EXPECT_EQ(session->user_agent, "probe/2");
  EXPECT_EQ(session->domain_name, "mail.example");
  EXPECT_EQ(session->target_ip, ip("203.0.113.77"));
  EXPECT_EQ(session->target_port, 9443);
}

// Verifies that neither "unknown" nor an empty name wipes a detected domain.
TEST_F(IdentificationTest, DetectedDomainStays) {
  identify({.first = client_peer, .uuid = one_, .domain_name = "shop.example"});
  identify({.first = client_peer, .uuid = one_, .domain_name = "unknown"});
  identify({.first = client_peer, .uuid = one_, .domain_name = ""});
  EXPECT_EQ(table_.get(one_)->domain_name, "shop.example");
}

// Verifies that the first fail-open of a session counts once as an error.
TEST_F(IdentificationTest, FailopenCountsOnce) {
  identify({.first = client_peer, .uuid = one_, .failopen = true});
  EXPECT_TRUE(table_.get(one_)->failopen);
  EXPECT_EQ(failopen_errors(), 1U);
  identify({.first = client_peer, .uuid = one_, .failopen = true});
  EXPECT_EQ(failopen_errors(), 1U);
  EXPECT_EQ(table_.recovered_total, 0U);
  EXPECT_FALSE(table_.get(one_)->connection_recover);
}

// Verifies that a fail-open that comes with recover counts once as recovered, and not as an error.
TEST_F(IdentificationTest, RecoveredFailopen) {
  identify({.first = client_peer, .uuid = one_, .failopen = true, .recover = true});
  EXPECT_EQ(table_.recovered_period, 1U);
  EXPECT_EQ(table_.recovered_total, 1U);
  EXPECT_TRUE(table_.get(one_)->connection_recover);
  EXPECT_TRUE(table_.get(one_)->failopen);
  identify({.first = client_peer, .uuid = one_, .failopen = true, .recover = true});
  EXPECT_EQ(table_.recovered_total, 1U);
  EXPECT_EQ(failopen_errors(), 0U);
}

// Verifies that a session may count as an error first and as recovered later, and that recover alone is
// nothing.
TEST_F(IdentificationTest, FailopenThenRecover) {
  identify({.first = client_peer, .uuid = one_, .recover = true});
  EXPECT_EQ(table_.recovered_total, 0U);
  EXPECT_FALSE(table_.get(one_)->failopen);
  identify({.first = client_peer, .uuid = one_, .failopen = true});
  identify({.first = client_peer, .uuid = one_, .failopen = true, .recover = true});
  EXPECT_EQ(failopen_errors(), 1U);
  EXPECT_EQ(table_.recovered_period, 1U);
}

// Verifies that a message whose keys point at another session leaves that one alone and goes by the uuid.
TEST_F(IdentificationTest, DuplicateKeysFallBackToUuid) {
  const SessionPtr older = identify_in(one_);
  const LogCapture log;
  identify({.first = client_peer, .uuid = two_, .client = client_peer, .domain_name = "new.example"});
  EXPECT_TRUE(log.contains(log_level::notice, "Duplicate keys found: ["));
  EXPECT_EQ(older->domain_name, "unknown");
  EXPECT_EQ(table_.get(two_)->domain_name, "new.example");
}

// Verifies that a reused In key goes to the new session and takes the older one's leg away.
TEST_F(IdentificationTest, ReusedInKey) {
  const SessionPtr older = identify_in(one_);
  identify_out(one_);
  const SessionPtr newer = identify_in(two_);
  EXPECT_TRUE(older->in_info.is_erased);
  EXPECT_FALSE(newer->in_info.is_erased);
  EXPECT_EQ(table_.in_sessions.size(), 1U);
  EXPECT_EQ(table_.in_sessions.begin()->second, newer);
  EXPECT_EQ(table_.get(one_), older);  // its Out leg lives
  EXPECT_EQ(table_.finished_sessions.reported_count, 0U);
}

// Verifies that an older session without an Out leg is reported the moment its In key is reused.
TEST_F(IdentificationTest, ReusedInKeyReportsTheOlder) {
  identify_in(one_);
  identify_in(two_);
  EXPECT_EQ(table_.get(one_), nullptr);
  EXPECT_EQ(table_.finished_sessions.reported_count, 1U);
  EXPECT_EQ(table_.finished_sessions.sessions.AsList().at(0).At("session_id").AsString(), one_.text());
}

// Verifies that a repeated In message of one session keeps its entry and refreshes the leg.
TEST_F(IdentificationTest, RepeatedInMessage) {
  const SessionPtr session = identify_in(one_);
  session->in_info.is_erased = true;
  identify({.first = client_peer, .uuid = one_, .destination = "203.0.113.99"});
  EXPECT_FALSE(session->in_info.is_erased);
  EXPECT_EQ(session->in_info.destination_ip, ip("203.0.113.99"));
  identify({.first = client_peer, .uuid = one_});
  EXPECT_EQ(session->in_info.destination_ip, ip("203.0.113.99"));
  EXPECT_EQ(table_.in_sessions.size(), 1U);
  EXPECT_EQ(table_.finished_sessions.reported_count, 0U);
}

// Verifies that a reused Out key goes to the new session, and that the older one is reported if it has no In
// leg.
TEST_F(IdentificationTest, ReusedOutKey) {
  identify_out(one_);
  const SessionPtr newer = identify_out(two_);
  EXPECT_EQ(table_.out_sessions.begin()->second.begin()->second, newer);
  EXPECT_EQ(table_.get(one_), nullptr);
  EXPECT_EQ(table_.finished_sessions.reported_count, 1U);
}

// Verifies that a repeated Out message keeps the entry, with and without recover, and never ends the session.
TEST_F(IdentificationTest, RepeatedOutMessage) {
  const SessionPtr session = identify_out(one_);
  for (const bool recover : {false, true}) {
    identify({.outbound = true, .first = hop_peer, .second = own_peer, .uuid = one_, .recover = recover});
    EXPECT_FALSE(session->out_info.is_erased);
    EXPECT_EQ(table_.out_sessions.begin()->second.begin()->second, session);
    EXPECT_EQ(table_.get(one_), session);
  }
  EXPECT_EQ(table_.finished_sessions.reported_count, 0U);
  table_.erase(out_connection());
  EXPECT_TRUE(session->out_info.is_erased);
}

// Verifies that with recover the entry is saved anew, and without it is left as it stands.
TEST_F(IdentificationTest, RecoverSavesAnew) {
  identify_out(one_);
  const LogCapture log;
  identify({.outbound = true, .first = hop_peer, .second = own_peer, .uuid = one_});
  EXPECT_FALSE(log.contains("set_info_out: Saving out session"));
  identify({.outbound = true, .first = hop_peer, .second = own_peer, .uuid = one_, .recover = true});
  EXPECT_TRUE(log.contains("set_info_out: Saving out session"));
}

// Verifies that sessions to one next hop share the outer entry.
TEST_F(IdentificationTest, SharedOuterEntry) {
  identify_out(one_);
  identify_out(two_, hop_peer, {"192.0.2.1", 50001});
  EXPECT_EQ(table_.out_sessions.size(), 1U);
  EXPECT_EQ(table_.out_sessions.begin()->second.size(), 2U);
}

// Verifies that an identification fills the site fields, with what it tells of the client.
TEST_F(IdentificationTest, FillsSites) {
  configure("", true);
  sites_.records.emplace(client_peer.address, site_record(client_peer.address));
  identify({.first = client_peer, .uuid = one_});
  EXPECT_FALSE(table_.get(one_)->in->is_site);
  identify({.first = client_peer, .uuid = one_, .client = client_peer});
  EXPECT_TRUE(table_.get(one_)->in->is_site);
  identify({.first = {"198.51.100.30", 1}, .uuid = two_, .client = client_peer});
  EXPECT_TRUE(table_.get(two_)->in->is_site);
}

}  // namespace
}  // namespace zol_test
