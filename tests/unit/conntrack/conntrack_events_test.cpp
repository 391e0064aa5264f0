// What an event does to the session table.
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>

#include "conntrack/nfconntrack.h"
#include "conntrack/none_tcp_nfct_container.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/conntrack/conntrack_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::NoneTcpNFCTContainer;
using zol_monitor::SessionPtr;

constexpr Flow in_event = {
    .source = client_peer, .target = own_in_peer, .mark = in_mark, .tcp_state = tcp_established};
constexpr Flow out_event = {
    .source = own_out_peer, .target = hop_peer, .mark = out_mark, .tcp_state = tcp_established};
constexpr Peer loopback = {"127.0.0.1", 5000};

Flow reversed(const Flow& flow, std::uint32_t mark) {
  return {.source = flow.target, .target = flow.source, .mark = mark, .tcp_state = flow.tcp_state};
}

// Verifies that the first marked event of an In leg gives the session its network and counts it, once.
TEST_F(ConntrackTest, InLegFixesTheNetwork) {
  const SessionPtr session = identify_in();
  EXPECT_EQ(feed(in_event), MNL_CB_OK);
  EXPECT_EQ(session->network_id, "net-a");
  EXPECT_TRUE(session->accepted_locally);
  EXPECT_FALSE(session->is_private_network);
  EXPECT_EQ(events_.new_tcp_connections, 1u);
  EXPECT_EQ(events_.new_udp_connections, 0u);
  feed(in_event);
  EXPECT_EQ(events_.new_tcp_connections, 1u);
}

// Verifies the debug line of a detection.
TEST_F(ConntrackTest, DetectionIsLogged) {
  identify_in();
  LogCapture log;
  feed(in_event);
  EXPECT_TRUE(log.contains(log_level::debug, "Detected: 198.51.100.20:40000 on id: net-a")) << log.all();
}

// Verifies that a session that came in on an internal port wasn't accepted here, and whose network it came
// over.
TEST_F(ConntrackTest, SessionOfAPreviousHop) {
  const SessionPtr to_peer = identify_in(1);
  feed({.source = client_peer, .target = {"10.9.0.2", 15443}, .mark = in_mark, .tcp_state = tcp_established});
  EXPECT_FALSE(to_peer->accepted_locally);
  EXPECT_TRUE(to_peer->is_private_network);

  const Peer second = {"198.51.100.21", 40001};
  const SessionPtr to_public = identify_in(2, second);
  feed({.source = second, .target = {"192.0.2.1", 15443}, .mark = in_mark, .tcp_state = tcp_established});
  EXPECT_FALSE(to_public->accepted_locally);
  EXPECT_FALSE(to_public->is_private_network);
}

// Verifies that a reversed In leg is judged by the source of the session's direction.
TEST_F(ConntrackTest, ReversedSessionIsJudgedByItsSource) {
  const Peer own = {"10.9.0.2", 15443};
  const SessionPtr session = identify_in();
  feed({.source = client_peer, .target = own, .mark = service_mark | 0xa0, .tcp_state = tcp_established});
  EXPECT_EQ(session->network_id, "net-a");
  EXPECT_FALSE(session->accepted_locally);
  EXPECT_TRUE(session->is_private_network);
}

// Verifies that an Out leg tells the next hop and neither fixes the network nor counts.
TEST_F(ConntrackTest, OutLegTellsTheNextHop) {
  const SessionPtr session = identify_out();
  feed(out_event);
  EXPECT_EQ(session->next_hop_ip, ip(hop_peer.address));
  EXPECT_EQ(session->next_hop_port, hop_peer.port);
  EXPECT_TRUE(session->is_next_hop_zol);
  EXPECT_TRUE(session->network_id.empty());
  EXPECT_EQ(events_.new_tcp_connections, 0u);
}

// Verifies that a connection that is In and Out at once is treated as an Out leg.
TEST_F(ConntrackTest, ForwardedConnectionIsAnOutLeg) {
  const SessionPtr session = identify_out();
  feed({.source = own_out_peer,
        .target = hop_peer,
        .mark = service_mark | 0x30,
        .tcp_state = tcp_established});
  EXPECT_EQ(session->next_hop_ip, ip(hop_peer.address));
  EXPECT_TRUE(session->network_id.empty());
}

// Verifies that a mark without service id changes nothing but the direction.
TEST_F(ConntrackTest, NoServiceId) {
  const SessionPtr session = identify_in();
  feed({.source = client_peer, .target = own_in_peer, .mark = 0x1, .tcp_state = tcp_established});
  EXPECT_TRUE(session->network_id.empty());
  EXPECT_EQ(events_.new_tcp_connections, 0u);
}

// Verifies that the session follows bit 3 of the nibble, in both directions.
TEST_F(ConntrackTest, ReversalFollowsTheNibble) {
  const SessionPtr session = identify_in();
  feed(reversed(in_event, service_mark | 0xa0));
  EXPECT_TRUE(session->is_reversed());
  feed(in_event);
  EXPECT_FALSE(session->is_reversed());
}

// Verifies that without a service id the session's direction is bit 3 of the mark while addresses follow
// bit 7.
TEST_F(ConntrackTest, ReversalWithoutServiceId) {
  const SessionPtr session = identify_in();
  feed({.source = client_peer, .target = own_in_peer, .mark = 0x80, .tcp_state = tcp_established});
  EXPECT_FALSE(session->is_reversed());
  feed({.source = client_peer, .target = own_in_peer, .mark = 0x0a, .tcp_state = tcp_established});
  EXPECT_TRUE(session->is_reversed());
}

// Verifies that a UDP connection of a known session, as a table dump may show it, counts as a new UDP
// connection.
TEST_F(ConntrackTest, UdpCounts) {
  identify_in();
  Flow flow = in_event;
  flow.protonum = IPPROTO_UDP;
  detect(flow);
  EXPECT_EQ(events_.new_tcp_connections, 0u);
  EXPECT_EQ(events_.new_udp_connections, 1u);
}

// Verifies that a protocol without a counter is logged.
TEST_F(ConntrackTest, UnknownProtocolIsLogged) {
  const SessionPtr session = identify_in();
  LogCapture log;
  Flow flow = in_event;
  flow.protonum = IPPROTO_SCTP;
  detect(flow);
  EXPECT_EQ(session->network_id, "net-a");
  EXPECT_EQ(events_.new_tcp_connections + events_.new_udp_connections, 0u);
  EXPECT_TRUE(log.contains(log_level::info, "Unknown protonum new connection: 132")) << log.all();
}

// Verifies that UDP events leave the sessions alone.
TEST_F(ConntrackTest, UdpEventIsPassedOver) {
  const SessionPtr session = identify_in();
  Flow flow = in_event;
  flow.protonum = IPPROTO_UDP;
  EXPECT_EQ(feed(flow), MNL_CB_OK);
  EXPECT_TRUE(session->network_id.empty());
}

// Verifies that a connection without source address or port is logged and dropped.
TEST_F(ConntrackTest, MissingSourceIsLogged) {
  for (const Peer source : {Peer{"0.0.0.0", 40000}, Peer{"198.51.100.20", 0}}) {
    LogCapture log;
    EXPECT_EQ(feed({.source = source, .target = own_in_peer, .mark = in_mark, .tcp_state = tcp_established}),
              MNL_CB_OK);
    EXPECT_TRUE(log.contains(log_level::error, "event_parser Failed to retrieve connection address"))
        << log.all();
  }
}

// Verifies that an event of no session changes nothing.
TEST_F(ConntrackTest, UnknownConnection) {
  EXPECT_EQ(feed(in_event), MNL_CB_OK);
  EXPECT_TRUE(data_.sessions.in_sessions.empty());
  EXPECT_EQ(events_.new_tcp_connections, 0u);
}

// Verifies that a delete message erases the leg, and that the last leg takes the session along.
TEST_F(ConntrackTest, DeleteErasesTheLegs) {
  SessionPtr session = identify_in();
  identify_out();
  feed(in_event);
  feed(out_event);
  session.reset();
  LogCapture log;
  EXPECT_EQ(feed(in_event, true), MNL_CB_OK);
  EXPECT_TRUE(log.contains(log_level::trace,
                           "event_parser_cb: Deleting [(6) 198.51.100.20:40000] => [192.0.2.1:443] 3 mark"))
      << log.all();
  EXPECT_TRUE(data_.sessions.in_sessions.empty());
  EXPECT_EQ(data_.sessions.sessions_by_id.size(), 1u);
  feed(out_event, true);
  EXPECT_TRUE(data_.sessions.out_sessions.empty());
  EXPECT_TRUE(data_.sessions.sessions_by_id.empty());
}

// Verifies that a delete message still tells why the leg ended before it erases it.
TEST_F(ConntrackTest, DeleteIsParsedFirst) {
  const SessionPtr session = identify_in();
  Flow flow = in_event;
  flow.mark |= fin_received;
  flow.tcp_state = tcp_fin_wait;
  feed(flow, true);
  EXPECT_EQ(session->in->termination_reason, 2u);
}

// Verifies that a delete message for a connection of no session leaves the table alone.
TEST_F(ConntrackTest, DeleteOfUnknownConnection) {
  identify_in();
  Flow flow = in_event;
  flow.source.port = 41000;
  EXPECT_EQ(feed(flow, true), MNL_CB_OK);
  EXPECT_EQ(data_.sessions.in_sessions.size(), 1u);
}

// Verifies that unmarked connections don't reach the table, not even to be erased.
TEST_F(ConntrackTest, UnmarkedConnection) {
  const SessionPtr session = identify_in();
  Flow flow = in_event;
  flow.mark = 0;
  feed(flow);
  feed(flow, true);
  EXPECT_TRUE(session->network_id.empty());
  EXPECT_EQ(data_.sessions.in_sessions.size(), 1u);
}

// Verifies that a marked connection from 127.0.0.1 to 127.0.0.1 is treated like an unmarked one.
TEST_F(ConntrackTest, LoopbackConnection) {
  const SessionPtr session = identify_in(1, loopback);
  const Flow flow = {
      .source = loopback, .target = {"127.0.0.1", 443}, .mark = in_mark, .tcp_state = tcp_established};
  feed(flow);
  feed(flow, true);
  EXPECT_TRUE(session->network_id.empty());
  EXPECT_EQ(data_.sessions.in_sessions.size(), 1u);
}

// Verifies that a connection with only one end at 127.0.0.1 is an ordinary one.
TEST_F(ConntrackTest, HalfLoopbackConnection) {
  const SessionPtr session = identify_in(1, loopback);
  feed({.source = loopback, .target = own_in_peer, .mark = in_mark, .tcp_state = tcp_established});
  EXPECT_EQ(session->network_id, "net-a");
}

constexpr Flow udp_event = {.source = client_peer, .target = own_in_peer, .protonum = IPPROTO_UDP};

// Verifies that an unmarked UDP connection that ends on a middle-mile node is kept for the next dump.
TEST_F(GxeConntrackTest, EndedUdpConnectionIsKept) {
  EXPECT_EQ(feed(udp_event, true), MNL_CB_OK);
  auto& kept = NoneTcpNFCTContainer::instance();
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(zol_monitor::nfconntrack_get_orig_port(kept.pop().get()), client_peer.port);
}

// Verifies that a marked loopback UDP connection is kept like an unmarked one.
TEST_F(GxeConntrackTest, EndedLoopbackUdpConnectionIsKept) {
  feed({.source = loopback, .target = {"127.0.0.1", 53}, .mark = in_mark, .protonum = IPPROTO_UDP}, true);
  EXPECT_EQ(NoneTcpNFCTContainer::instance().size(), 1u);
}

// Verifies that nothing is kept of new connections, of TCP connections and of marked ones.
TEST_F(GxeConntrackTest, OtherConnectionsAreNotKept) {
  feed(udp_event);
  feed({.source = client_peer, .target = own_in_peer}, true);
  feed({.source = client_peer, .target = own_in_peer, .mark = in_mark, .protonum = IPPROTO_UDP}, true);
  EXPECT_EQ(NoneTcpNFCTContainer::instance().size(), 0u);
}

// Verifies that an ordinary node keeps no ended connections.
TEST_F(ConntrackTest, EndedUdpConnectionIsNotKept) {
  feed(udp_event, true);
  EXPECT_EQ(NoneTcpNFCTContainer::instance().size(), 0u);
}

}  // namespace
}  // namespace zol_test
