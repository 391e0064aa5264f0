#include "sessions/zol_sessions.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sessions/sessions_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::leg_key;
using zol_monitor::LegPlace;
using zol_monitor::SessionPtr;

class LookupTest : public SessionsTest {
 protected:
  const Uuid one_{1};
  const Uuid two_{2};
};

// Verifies that a key is the address in its high half, in network order, and the port in its low half.
TEST_F(LookupTest, LegKey) {
  EXPECT_EQ(leg_key(0x04030201, 0x1234), 0x0403020100001234U);
  EXPECT_EQ(leg_key(0xffffffff, 0xffff), 0xffffffff0000ffffU);
}

// Verifies that keys that differ only in their high bits, or in their low ones, get different hashes.
TEST_F(LookupTest, HashMixesAllBits) {
  std::set<std::size_t> low_bits;
  for (std::uint32_t i = 0; i < 1024; ++i) {
    low_bits.insert(zol_monitor::LegKeyHash{}(leg_key(i << 22, 443)) & 0xfffff);
    low_bits.insert(zol_monitor::LegKeyHash{}(leg_key(0x0100000a, static_cast<std::uint16_t>(i))) & 0xfffff);
  }
  EXPECT_GT(low_bits.size(), 2000U);
}

// Verifies that a look-up by key finds what stands there, tells where, and says so at trace level.
TEST_F(LookupTest, ByKey) {
  const SessionPtr session = identify_in(one_);
  const std::uint64_t key = leg_key(ip(client_peer.address), client_peer.port);
  const LogCapture log;
  zol_monitor::LegMap::iterator node;
  EXPECT_EQ(table_.get(key, table_.in_sessions, &node), session);
  EXPECT_EQ(node->first, key);
  std::ostringstream hex;
  hex << std::hex << key;
  EXPECT_TRUE(log.contains(log_level::trace, "get: Got 0x" + hex.str())) << log.all();
  EXPECT_EQ(table_.get(key + 1, table_.in_sessions, &node), nullptr);
  EXPECT_EQ(node, table_.in_sessions.end());
  EXPECT_TRUE(log.contains(log_level::trace, "get: Couldn't get 0x")) << log.all();
}

// Verifies that an address or a port of 0 is never looked up, even when something stands under that key.
TEST_F(LookupTest, ZeroIsNeverLookedUp) {
  const SessionPtr session = identify_in(one_);
  table_.in_sessions[leg_key(0, 80)] = session;
  table_.in_sessions[leg_key(1, 0)] = session;
  table_.out_sessions[leg_key(0, 80)][leg_key(1, 1)] = session;
  EXPECT_EQ(table_.get(0, 80, table_.in_sessions), nullptr);
  EXPECT_EQ(table_.get(1, 0, table_.in_sessions), nullptr);
  EXPECT_EQ(table_.get_outbound(0, 80, 1, 1), nullptr);
  EXPECT_EQ(table_.get(0, 80, 0, 0, two_), nullptr);
}

// Verifies that an Out leg is found by its first pair and then its second, and where it stands.
TEST_F(LookupTest, Outbound) {
  const SessionPtr session = identify_out(one_);
  LegPlace place;
  EXPECT_EQ(
      table_.get_outbound(ip(hop_peer.address), hop_peer.port, ip(own_peer.address), own_peer.port, &place),
      session);
  EXPECT_EQ(place.endpoint, &session->out_info);
  EXPECT_EQ(place.map, &table_.out_sessions.begin()->second);
  EXPECT_EQ(place.node->second, session);
  EXPECT_EQ(place.outer_node, table_.out_sessions.begin());
  EXPECT_EQ(table_.get_outbound(ip(own_peer.address), own_peer.port, ip(hop_peer.address), hop_peer.port),
            nullptr);
  EXPECT_EQ(table_.get_outbound(ip(hop_peer.address), hop_peer.port, ip(own_peer.address), 1), nullptr);
}

// Verifies that a connection is found as an In leg by its source, and by its target.
TEST_F(LookupTest, ConnectionOfInLeg) {
  const SessionPtr session = identify_in(one_);
  for (const Connection& ct : {Connection(client_peer, proxy_peer), Connection(proxy_peer, client_peer)}) {
    LegPlace place;
    EXPECT_EQ(table_.get(ct, &place), session);
    EXPECT_EQ(place.endpoint, &session->in_info);
    EXPECT_EQ(place.map, &table_.in_sessions);
    EXPECT_EQ(place.node->second, session);
  }
}

// Verifies that a connection is found as an Out leg under each of the four pairs of its ends.
TEST_F(LookupTest, ConnectionOfOutLeg) {
  const Peer source = {"192.0.2.1", 50001};
  const Peer target = {"203.0.113.5", 443};
  const std::pair<Peer, Peer> pairs[] = {
      {target, target}, {target, source}, {source, target}, {source, source}};
  std::uint8_t number = 10;
  for (const auto& [first, second] : pairs) {
    table_.out_sessions.clear();
    const SessionPtr session = identify_out(Uuid(number++), first, second);
    LegPlace place;
    EXPECT_EQ(table_.get(Connection(source, target), &place), session) << int{number};
    EXPECT_EQ(place.endpoint, &session->out_info);
    EXPECT_EQ(place.node->second, session);
  }
}

// Verifies the order of the look-ups: In by source, In by target, then the Out pairs, the target's first.
TEST_F(LookupTest, OrderOfLookUps) {
  const Peer source = {"192.0.2.1", 50001};
  const Peer target = {"203.0.113.5", 443};
  const Connection ct(source, target);
  const auto found_is = [&](const Uuid& uuid) {
    return table_.get(ct) == table_.get(uuid) && table_.get(uuid);
  };
  identify_out(Uuid(14), source, source);
  EXPECT_TRUE(found_is(Uuid(14)));
  identify_out(Uuid(13), source, target);
  EXPECT_TRUE(found_is(Uuid(13)));
  identify_out(Uuid(12), target, source);
  EXPECT_TRUE(found_is(Uuid(12)));
  identify_out(Uuid(11), target, target);
  EXPECT_TRUE(found_is(Uuid(11)));
  identify_in(Uuid(10), target);
  EXPECT_TRUE(found_is(Uuid(10)));
  identify_in(Uuid(9), source);
  EXPECT_TRUE(found_is(Uuid(9)));
}

// Verifies that a connection whose mark says reversed is looked up in the session's direction.
TEST_F(LookupTest, ReversedConnection) {
  identify_in(one_, {"10.0.0.1", 1000});
  identify_in(two_, {"10.0.0.2", 2000});
  const Peer source = {"10.0.0.1", 1000};
  const Peer target = {"10.0.0.2", 2000};
  EXPECT_EQ(table_.get(Connection(source, target)), table_.get(one_));
  EXPECT_EQ(table_.get(Connection(source, target, 0x80)), table_.get(two_));
}

// Verifies that a connection of nobody's finds nothing.
TEST_F(LookupTest, UnknownConnection) {
  identify_in(one_);
  identify_out(one_);
  EXPECT_EQ(table_.get(Connection({"10.9.9.9", 1}, {"10.9.9.8", 2})), nullptr);
}

// Verifies that a message finds its session by the In key, by the Out keys, and by the uuid alone.
TEST_F(LookupTest, Message) {
  const SessionPtr session = identify_in(one_);
  identify_out(one_);
  EXPECT_EQ(table_.get(ip(client_peer.address), client_peer.port, 0, 0, one_), session);
  EXPECT_EQ(table_.get(ip(hop_peer.address), hop_peer.port, ip(own_peer.address), own_peer.port, one_),
            session);
  EXPECT_EQ(table_.get(ip("10.9.9.9"), 1, 0, 0, one_), session);
  EXPECT_EQ(table_.get(one_), session);
  EXPECT_EQ(table_.get(two_), nullptr);
}

// Verifies that keys of another session are logged as duplicates and the uuid decides.
TEST_F(LookupTest, DuplicateKeys) {
  identify_in(one_);
  const SessionPtr second = identify_in(two_, {"198.51.100.21", 40000});
  const LogCapture log;
  EXPECT_EQ(table_.get(ip(client_peer.address), client_peer.port, 0, 0, two_), second);
  EXPECT_TRUE(log.contains(log_level::notice, "Duplicate keys found: [198.51.100.20:40000]")) << log.all();
  EXPECT_EQ(table_.get(ip(client_peer.address), client_peer.port, 0, 0, Uuid(3)), nullptr);
}

// Verifies that Out keys of another session are duplicates too.
TEST_F(LookupTest, DuplicateOutKeys) {
  identify_out(one_);
  const LogCapture log;
  EXPECT_EQ(table_.get(ip(hop_peer.address), hop_peer.port, ip(own_peer.address), own_peer.port, two_),
            nullptr);
  EXPECT_TRUE(log.contains(log_level::notice, "Duplicate keys found: [203.0.113.5:15000]")) << log.all();
}

}  // namespace
}  // namespace zol_test
