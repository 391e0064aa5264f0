// The entries of the session report, key by key.
#include <gtest/gtest.h>

#include <set>

#include "dual_zol_helper.h"
#include "sessions/finished_sessions.h"
#include "tests/unit/sessions/sessions_fixture.h"

namespace zol_test {
namespace {

using libvariant::Variant;
using Kind = libvariant::Variant::Kind;

std::set<std::string> keys_of(const Variant& map) {
  std::set<std::string> keys;
  map.ForEach([&keys](std::string_view key, const Variant&) { keys.emplace(key); });
  return keys;
}

const std::set<std::string> leg_keys = {"incoming_bytes",
                                        "outgoing_bytes",
                                        "incoming_throughput",
                                        "outgoing_throughput",
                                        "termination_type",
                                        "retransmissions",
                                        "rtt",
                                        "received_window_scale",
                                        "sent_window_scale",
                                        "congestion_window",
                                        "slow_start_threshold",
                                        "unacked",
                                        "mss",
                                        "read_idle_time_ms",
                                        "write_congestion_time_ms",
                                        "read_utilization_percentage",
                                        "write_utilization_percentage"};
const std::set<std::string> site_keys = {"gateway_ip", "site_id", "entry_id", "metadata"};

class SessionRecordTest : public SessionsTest {
 protected:
  SessionRecordTest() {
    session_->start_time_ms = 1700000000000;
    session_->in->end_time_ms = 1700000004000;
    session_->out->end_time_ms = 1700000002000;
    session_->network_id = "net-a";
  }

  const Variant& record() {
    finished_.insert_session(session_, &services_, "hop.example", "edge.example");
    return finished_.sessions.AsList().back();
  }

  const Uuid uuid_{1};
  zol_monitor::SessionPtr session_ =
      std::make_shared<zol_monitor::SessionInfo>(uuid_, ip(client_peer.address), client_peer.port);
  zol_monitor::FinishedSessionsInfo finished_;
};

void expect_number(const Variant& map, const char* key, Kind kind, std::uint64_t value) {
  EXPECT_EQ(map.At(key).AsUnsigned(), value) << key;
  EXPECT_EQ(map.At(key).kind(), kind) << key;
}

// Verifies every key of a TCP record with its value and kind.
TEST_F(SessionRecordTest, TcpRecord) {
  session_->next_hop_ip = ip(hop_peer.address);
  session_->domain_name = "shop.example";
  session_->user_agent = "probe/1";
  session_->service_port = 443;
  session_->hop_order = 2;
  session_->failopen = true;
  session_->retries_count = 3;
  const Variant& map = record();
  EXPECT_EQ(keys_of(map), (std::set<std::string>{"session_id",     "ip_proto",
                                                 "direction",      "next_hop",
                                                 "next_hop_cname", "hop_location",
                                                 "next_hop_ip",    "ip",
                                                 "source_port",    "start_time",
                                                 "end_time",       "domain_name",
                                                 "user_agent",     "vbn_id",
                                                 "service_port",   "hop_order",
                                                 "failopen",       "connection_recover",
                                                 "retries_count",  "zol_version",
                                                 "in_if",          "out_if"}));
  EXPECT_EQ(map.At("session_id").AsString(), uuid_.text());
  expect_number(map, "ip_proto", Kind::Signed, 6);
  EXPECT_EQ(map.At("next_hop_ip").AsString(), "203.0.113.5");
  EXPECT_EQ(map.At("ip").AsString(), "198.51.100.20");
  expect_number(map, "source_port", Kind::Signed, 40000);
  EXPECT_EQ(map.At("start_time").AsString(), "2023-11-14T22:13:20.000Z");
  EXPECT_EQ(map.At("end_time").AsString(), "2023-11-14T22:13:24.000Z");
  EXPECT_EQ(map.At("domain_name").AsString(), "shop.example");
  EXPECT_EQ(map.At("user_agent").AsString(), "probe/1");
  EXPECT_EQ(map.At("vbn_id").AsString(), "net-a");
  expect_number(map, "service_port", Kind::Signed, 443);
  expect_number(map, "hop_order", Kind::Signed, 3);
  EXPECT_EQ(map.At("failopen"), Variant(true));
  EXPECT_EQ(map.At("connection_recover"), Variant(false));
  expect_number(map, "retries_count", Kind::Signed, 3);
  EXPECT_EQ(map.At("zol_version").AsString(), zol_utils::DualZOLHelper::instance()->get_zol_version());
}

// Verifies that a recovered session says so, and that an unknown user agent has no key.
TEST_F(SessionRecordTest, RecoverAndNoUserAgent) {
  session_->connection_recover = true;
  const Variant& map = record();
  EXPECT_EQ(map.At("connection_recover"), Variant(true));
  EXPECT_FALSE(map.Contains("user_agent"));
}

// Verifies that addresses in the report are never masked.
TEST_F(SessionRecordTest, AddressesAreNotMasked) {
  config_.set("General: { mask_client_address = true; };");
  EXPECT_EQ(record().At("ip").AsString(), "198.51.100.20");
}

// Verifies the largest hop order, which is no 16-bit number any more.
TEST_F(SessionRecordTest, LargestHopOrder) {
  session_->hop_order = 65535;
  EXPECT_EQ(record().At("hop_order").AsInt(), 65536);
}

// Verifies the direction for each pair of legs.
TEST_F(SessionRecordTest, Direction) {
  const auto direction = [this](bool in_site, bool out_site) {
    session_->in->is_site = in_site;
    session_->out->is_site = out_site;
    return record().At("direction").AsString();
  };
  EXPECT_EQ(direction(false, false), "internet_to_internet");
  EXPECT_EQ(direction(true, false), "site_to_internet");
  EXPECT_EQ(direction(false, true), "internet_to_site");
  EXPECT_EQ(direction(true, true), "site_to_site");
}

// Verifies the location of this node in the hop chain.
TEST_F(SessionRecordTest, HopLocation) {
  const auto location = [this](bool next_hop_zol, bool accepted) {
    session_->is_next_hop_zol = next_hop_zol;
    session_->accepted_locally = accepted;
    return record().At("hop_location").AsString();
  };
  EXPECT_EQ(location(true, true), "IN");
  EXPECT_EQ(location(true, false), "MID");
  EXPECT_EQ(location(false, true), "INOUT");
  EXPECT_EQ(location(false, false), "OUT");
}

// Verifies that the next hop is the named hop for a node, else the target of the logical network.
TEST_F(SessionRecordTest, NextHop) {
  session_->is_next_hop_zol = true;
  EXPECT_EQ(record().At("next_hop").AsString(), "hop.example");
  EXPECT_EQ(record().At("next_hop_cname").AsString(), "edge.example");
  session_->is_next_hop_zol = false;
  EXPECT_EQ(record().At("next_hop").AsString(), "origin.example");
  EXPECT_EQ(record().At("next_hop_cname").AsString(), "");
  EXPECT_TRUE(record().At("next_hop_cname").IsString());
  session_->network_id = "net-unheard-of";
  EXPECT_EQ(record().At("next_hop").AsString(), "unmarked.example");
}

// Verifies every key of a leg with its value and kind.
TEST_F(SessionRecordTest, LegFigures) {
  auto& leg = *session_->in;
  leg.first_bytes = 5000;
  leg.second_bytes = 700;
  leg.termination_reason = zol_monitor::STR_FIN_FROM_CLIENT_SIDE;
  leg.tcp_info = {.rtt = 21999,
                  .total_retrans = 2,
                  .sent_wscale = 7,
                  .received_wscale = 9,
                  .cwnd = 10,
                  .ssthresh = 11,
                  .unacked = 12,
                  .mss = 1448};
  leg.read_idle_time_ms = 1000;
  leg.write_congestion_time_ms = 3000;
  leg.destination_ip = ip("203.0.113.99");
  const Variant& in = record().At("in_if");
  std::set<std::string> expected = leg_keys;
  expected.insert("destination_ip");
  EXPECT_EQ(keys_of(in), expected);
  expect_number(in, "incoming_bytes", Kind::Unsigned, 5000);
  expect_number(in, "outgoing_bytes", Kind::Unsigned, 700);
  expect_number(in, "incoming_throughput", Kind::Unsigned, 10000);  // 5000 bytes in 4 seconds
  expect_number(in, "outgoing_throughput", Kind::Unsigned, 1400);
  EXPECT_EQ(in.At("termination_type").AsString(), "FIN Received");
  expect_number(in, "retransmissions", Kind::Signed, 2);
  expect_number(in, "rtt", Kind::Unsigned, 21);
  expect_number(in, "received_window_scale", Kind::Signed, 9);
  expect_number(in, "sent_window_scale", Kind::Signed, 7);
  expect_number(in, "congestion_window", Kind::Signed, 10);
  expect_number(in, "slow_start_threshold", Kind::Signed, 11);
  expect_number(in, "unacked", Kind::Unsigned, 12);
  expect_number(in, "mss", Kind::Signed, 1448);
  expect_number(in, "read_idle_time_ms", Kind::Unsigned, 1000);
  expect_number(in, "write_congestion_time_ms", Kind::Unsigned, 3000);
  expect_number(in, "read_utilization_percentage", Kind::Unsigned, 75);
  expect_number(in, "write_utilization_percentage", Kind::Unsigned, 25);
  EXPECT_EQ(in.At("destination_ip").AsString(), "203.0.113.99");
}

// Verifies what the Out leg has for itself: its own duration, its view of the ending, its port.
TEST_F(SessionRecordTest, OutLeg) {
  session_->out->first_bytes = 5000;
  session_->out->port = 50000;
  session_->out->termination_reason = zol_monitor::STR_FIN_FROM_CLIENT_SIDE;
  const Variant& out = record().At("out_if");
  std::set<std::string> expected = leg_keys;
  expected.insert("source_port");
  EXPECT_EQ(keys_of(out), expected);
  expect_number(out, "source_port", Kind::Signed, 50000);
  expect_number(out, "incoming_throughput", Kind::Unsigned, 20000);  // in 2 seconds
  EXPECT_EQ(out.At("termination_type").AsString(), "FIN Sent");
}

// Verifies that a leg that ended as it began has throughput and utilisation 0.
TEST_F(SessionRecordTest, NoDuration) {
  session_->in->end_time_ms = session_->start_time_ms;
  session_->in->first_bytes = session_->in->second_bytes = 5000;
  const Variant& in = record().At("in_if");
  for (const char* key : {"incoming_throughput", "outgoing_throughput", "read_utilization_percentage",
                          "write_utilization_percentage"})
    EXPECT_EQ(in.At(key), Variant(0)) << key;
}

// Verifies that an idle time as long as the session, or longer, gives utilisation 0.
TEST_F(SessionRecordTest, IdleAsLongAsTheSession) {
  session_->in->read_idle_time_ms = 4000;
  session_->in->write_congestion_time_ms = 4001;
  const Variant& in = record().At("in_if");
  EXPECT_EQ(in.At("read_utilization_percentage"), Variant(0));
  EXPECT_EQ(in.At("write_utilization_percentage"), Variant(0));
}

// Verifies that a leg never used idle gives 100.
TEST_F(SessionRecordTest, NeverIdle) {
  EXPECT_EQ(record().At("in_if").At("read_utilization_percentage"), Variant(100));
}

// Verifies that durations are cut to 32 bits and the utilisation is reckoned in 32 bits, wrapping.
TEST_F(SessionRecordTest, ThirtyTwoBits) {
  session_->in->end_time_ms = session_->start_time_ms + (std::uint64_t{1} << 32) + 1000;
  session_->in->first_bytes = 1000;
  const Variant cut = record().At("in_if");
  EXPECT_EQ(cut.At("incoming_throughput"), Variant(8000));
  session_->in->end_time_ms = session_->start_time_ms + 50000000;
  session_->in->read_idle_time_ms = 0;
  const std::uint32_t duration = 50000000;
  EXPECT_EQ(record().At("in_if").At("read_utilization_percentage"), Variant(duration * 100U / duration));
  EXPECT_LT(record().At("in_if").At("read_utilization_percentage").AsUnsigned(), 100U);
}

// Verifies that a leg without an end time is reported with the epoch and a wrapped duration.
TEST_F(SessionRecordTest, NoEndTime) {
  session_->in->end_time_ms = 0;
  session_->in->first_bytes = 1000000000;
  const Variant map = record();
  EXPECT_EQ(map.At("end_time").AsString(), "1970-01-01T00:00:00.000Z");
  const auto duration = static_cast<std::uint32_t>(0 - session_->start_time_ms);
  EXPECT_EQ(map.At("in_if").At("incoming_throughput"), Variant(1000000000UL * 8000 / duration));
}

// Verifies that the site keys of a leg come all together, with its gateway.
TEST_F(SessionRecordTest, SiteKeys) {
  session_->out->gateway_ip = "gw";
  session_->out->site_id = "site";
  session_->out->entry_id = "entry";
  session_->out->metadata = "meta";
  session_->in->site_id = "not shown";
  const Variant& map = record();
  const Variant& out = map.At("out_if");
  EXPECT_EQ(out.At("gateway_ip").AsString(), "gw");
  EXPECT_EQ(out.At("site_id").AsString(), "site");
  EXPECT_EQ(out.At("entry_id").AsString(), "entry");
  EXPECT_EQ(out.At("metadata").AsString(), "meta");
  for (const auto& key : site_keys)
    EXPECT_FALSE(map.At("in_if").Contains(key)) << key;
}

// Verifies that a reversed session reports its legs swapped, and each leg's counters swapped.
TEST_F(SessionRecordTest, ReversedSession) {
  session_->in_info.port = 1;
  session_->out_info.port = 2;
  session_->out_info.first_bytes = 10;
  session_->out_info.second_bytes = 20;
  session_->out_info.destination_ip = ip("203.0.113.99");
  session_->set_reversed_io(true);
  const Variant& map = record();
  EXPECT_EQ(map.At("in_if").At("incoming_bytes"), Variant(20));
  EXPECT_EQ(map.At("in_if").At("outgoing_bytes"), Variant(10));
  EXPECT_EQ(map.At("in_if").At("destination_ip").AsString(), "203.0.113.99");
  EXPECT_EQ(map.At("out_if").At("source_port"), Variant(1));
  EXPECT_EQ(map.At("end_time").AsString(), "2023-11-14T22:13:22.000Z");
}

class NonTcpRecordTest : public SessionsTest {
 protected:
  NonTcpRecordTest() {
    flow_->start_time_ms = 1700000000000;
    flow_->last_seen_ms = 1700000004000;
    flow_->bytes = 5000;
    flow_->network_id = "net-a";
  }

  const Variant& record() {
    finished_.insert_non_tcp_session(flow_);
    return finished_.sessions.AsList().back();
  }

  std::shared_ptr<zol_monitor::NonTCPSessionInfo> flow_ =
      std::make_shared<zol_monitor::NonTCPSessionInfo>(17, ip("10.1.0.2"), ip("10.2.0.3"), 5353, 53);
  zol_monitor::FinishedSessionsInfo finished_;
};

// Verifies every key of a non-TCP record.
TEST_F(NonTcpRecordTest, Record) {
  const Variant& map = record();
  EXPECT_EQ(keys_of(map),
            (std::set<std::string>{"session_id", "ip_proto", "ip", "zol_version", "start_time", "end_time",
                                   "vbn_id", "service_port", "source_port", "direction", "in_if", "out_if"}));
  EXPECT_EQ(map.At("session_id").AsString(), "[overlay-7@56666666]:10.1.0.2==>10.2.0.3");
  expect_number(map, "ip_proto", Kind::Unsigned, 17);
  EXPECT_EQ(map.At("ip").AsString(), "10.1.0.2");
  EXPECT_EQ(map.At("zol_version").AsString(), zol_utils::DualZOLHelper::instance()->get_zol_version());
  EXPECT_EQ(map.At("start_time").AsString(), "2023-11-14T22:13:20.000Z");
  EXPECT_EQ(map.At("end_time").AsString(), "2023-11-14T22:13:24.000Z");
  EXPECT_EQ(map.At("vbn_id").AsString(), "net-a");
  expect_number(map, "service_port", Kind::Signed, 53);
  expect_number(map, "source_port", Kind::Signed, 5353);
  EXPECT_EQ(map.At("direction").AsString(), "client_to_target");
  EXPECT_EQ(keys_of(map.At("in_if")), (std::set<std::string>{"incoming_bytes", "destination_ip"}));
  expect_number(map.At("in_if"), "incoming_bytes", Kind::Unsigned, 5000);
  EXPECT_EQ(map.At("in_if").At("destination_ip").AsString(), "10.2.0.3");
  EXPECT_EQ(keys_of(map.At("out_if")), (std::set<std::string>{"outgoing_bytes"}));
  expect_number(map.At("out_if"), "outgoing_bytes", Kind::Unsigned, 5000);
}

// Verifies that ports of 0 have no keys, and that a reversed flow runs from target to client.
TEST_F(NonTcpRecordTest, NoPortsReversed) {
  flow_->src_port = flow_->dst_port = 0;
  flow_->set_reversed_io(true);
  const Variant& map = record();
  EXPECT_FALSE(map.Contains("service_port"));
  EXPECT_FALSE(map.Contains("source_port"));
  EXPECT_EQ(map.At("direction").AsString(), "target_to_client");
}

// Verifies that in GXE mode the network is a dummy, the direction tells of sites, and legs have site keys.
TEST_F(NonTcpRecordTest, GxeMode) {
  configure("", true);
  flow_->in->is_site = true;
  flow_->in->gateway_ip = "gw";
  const Variant& map = record();
  EXPECT_EQ(map.At("vbn_id").AsString(), "Dummy");
  EXPECT_EQ(map.At("direction").AsString(), "site_to_internet");
  EXPECT_EQ(map.At("in_if").At("gateway_ip").AsString(), "gw");
  for (const auto& key : site_keys) {
    EXPECT_TRUE(map.At("in_if").Contains(key)) << key;
    EXPECT_FALSE(map.At("out_if").Contains(key)) << key;
  }
}

}  // namespace
}  // namespace zol_test
