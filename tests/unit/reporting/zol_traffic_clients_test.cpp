// The traffic report of an ordinary node: the clients detected in its networks.
#include "zol_traffic_fixture.h"

namespace {

using libvariant::Variant;
using testing::IsEmpty;
using zol_test::FilledStats;
using zol_test::IsJson;

constexpr const char* detected = "DetectedIPsReport: { enabled = true; }; ";
constexpr const char* with_diagnostics =
    "DetectedIPsReport: { enabled = true; }; traffic_report_diagnostics_enabled = true; ";

class TrafficClientsTest : public zol_test::TrafficTest {
 protected:
  // The one network's entry, over a snapshot of all sessions.
  Variant generate() {
    add_proxied(stats_, {});
    data_.conntrack.get_detected_ip_start();
    Variant entry = only(traffic_.generate_zol_traffic_report_gxs(stats_, &totals_));
    data_.conntrack.get_detected_ip_finished();
    return entry;
  }

  void add_ended_sessions(zol_monitor::SessionTerminationReason reason, int count) {
    for (int i = 0; i < count; ++i) {
      const zol_monitor::SessionPtr session = add_session({.client = "198.51.100.21"});
      session->in->tcp_info.rtt = 5999;
      session->in->tcp_info.total_retrans = 2;
      session->in->termination_reason = reason;
      session->out->tcp_info.rtt = 7000;
      session->out->tcp_info.total_retrans = 3;
      session->out->termination_reason = i == 0 ? reason : zol_monitor::STR_NONE;
    }
  }

  FilledStats stats_{&data_};
};

TEST_F(TrafficClientsTest, not_enabled) {
  // Verifies that without the setting there is no list, and the sessions, accepted here or elsewhere, are
  // marked as seen all the same.
  const zol_monitor::SessionPtr direct = add_session();
  const zol_monitor::SessionPtr indirect = add_session({.accepted = false});
  EXPECT_FALSE(generate().Contains("user-info"));
  EXPECT_EQ(direct->state, 1U);
  EXPECT_EQ(indirect->state, 1U);
  EXPECT_THAT(data_.conntrack.detected_sessions, IsEmpty());
}

TEST_F(TrafficClientsTest, no_clients) {
  // Verifies that with the setting both lists are there without a client.
  configure({.monitoring = detected});
  EXPECT_THAT(generate().At("user-info"), IsJson(R"({ "direct": [], "indirect": [] })"));
}

TEST_F(TrafficClientsTest, clients) {
  // Verifies that clients stand with their address and new sessions, those of accepted sessions under
  // `direct` and the others under `indirect`.
  configure({.monitoring = detected});
  add_session({.client = "198.51.100.21"});
  add_session({.client = "198.51.100.21"});
  add_session({.client = "198.51.100.22", .accepted = false});
  add_session({.network = "net-b", .client = "198.51.100.23"});
  EXPECT_THAT(generate().At("user-info"), IsJson(R"({ "direct": [{ "ip": "198.51.100.21", "count": 2 }],
                                                      "indirect": [{ "ip": "198.51.100.22", "count": 1 }] })"));
}

TEST_F(TrafficClientsTest, client_without_new_sessions) {
  // Verifies that a client is listed in the report that first sees its sessions, and in no later one.
  configure({.monitoring = detected});
  add_session();
  EXPECT_EQ(generate().At("user-info").At("direct").Size(), 1U);
  EXPECT_THAT(generate().At("user-info"), IsJson(R"({ "direct": [], "indirect": [] })"));
}

TEST_F(TrafficClientsTest, client_without_new_sessions_in_diagnostics) {
  // Verifies that with diagnostics on a client without new sessions is listed too.
  configure({.monitoring = with_diagnostics});
  add_session()->state = 1;
  const Variant client = only(generate().At("user-info").At("direct"));
  EXPECT_EQ(client.At("ip").AsString(), "198.51.100.20");
  EXPECT_EQ(client.At("count").AsInt(), 0);
}

TEST_F(TrafficClientsTest, diagnostics) {
  // Verifies that with diagnostics on a client has its own active sessions, its own traffic of all ways, and
  // the figures of its In legs as client and of its Out legs as server, round-trip times in milliseconds.
  configure({.monitoring = with_diagnostics});
  add_proxied(stats_, {.client = "198.51.100.21"}, 1);
  add_proxied(stats_, {.client = "198.51.100.21", .to_hop = true}, 2);
  add_udp(stats_, zol_test::in_leg, {.tx_packets = 7, .tx_bytes = 70, .rx_packets = 9, .rx_bytes = 90},
          "198.51.100.21");
  add_udp(stats_, zol_test::in_leg,
          {.tx_packets = 500, .tx_bytes = 5000, .rx_packets = 600, .rx_bytes = 6000}, "198.51.100.22");
  // Of ten In legs one ended with a FIN of the client, two with one of the target, three and four with a RST;
  // of their Out legs the first of each kind.
  add_ended_sessions(zol_monitor::STR_FIN_FROM_CLIENT_SIDE, 1);
  add_ended_sessions(zol_monitor::STR_FIN_FROM_TARGET_SIDE, 2);
  add_ended_sessions(zol_monitor::STR_RST_FROM_CLIENT_SIDE, 3);
  add_ended_sessions(zol_monitor::STR_RST_FROM_TARGET_SIDE, 4);
  EXPECT_THAT(only(generate().At("user-info").At("direct")), IsJson(R"({
    "ip": "198.51.100.21", "count": 10, "active-sessions-count": 3,
    "traffic": {
      "client-to-server": { "incoming-packets": 3, "incoming-bytes": 300,
                            "outgoing-packets": 6, "outgoing-bytes": 600 },
      "server-to-client": { "incoming-packets": 21, "incoming-bytes": 1290,
                            "outgoing-packets": 16, "outgoing-bytes": 970 } },
    "diagnostics": {
      "client": { "average-rtt": 5, "total-retransmit": 20, "incoming-fin": 1, "outgoing-fin": 2,
                  "incoming-rst": 3, "outgoing-rst": 4 },
      "server": { "average-rtt": 7, "total-retransmit": 30, "incoming-fin": 1, "outgoing-fin": 1,
                  "incoming-rst": 1, "outgoing-rst": 1 } } })"));
}

TEST_F(TrafficClientsTest, diagnostics_without_traffic_report) {
  // Verifies that with traffic reporting off the diagnostics have no traffic, and the rest stays.
  configure({.traffic_report = "enabled = false; ", .monitoring = with_diagnostics});
  add_session();
  const Variant client = only(generate().At("user-info").At("direct"));
  EXPECT_FALSE(client.Contains("traffic"));
  EXPECT_EQ(client.At("active-sessions-count").AsInt(), 1);
  EXPECT_TRUE(client.At("diagnostics").Contains("client"));
  EXPECT_TRUE(client.At("diagnostics").Contains("server"));
}

TEST_F(TrafficClientsTest, diagnostics_without_detected_clients) {
  // Verifies that the diagnostics alone list nobody.
  configure({.monitoring = "traffic_report_diagnostics_enabled = true; "});
  add_session();
  EXPECT_FALSE(generate().Contains("user-info"));
}

TEST_F(TrafficClientsTest, new_sessions_are_counted_before_the_walk) {
  // Verifies that the walk over the clients, which marks the sessions as seen, comes after the counts of new
  // sessions.
  configure({.monitoring = detected});
  add_session();
  Variant entry = generate();
  EXPECT_EQ(entry.At("new-sessions-count").AsInt(), 1);
  EXPECT_EQ(only(entry.At("domain-info")).At("new-sessions-count").AsInt(), 1);
  entry = generate();
  EXPECT_EQ(entry.At("new-sessions-count").AsInt(), 0);
}

}  // namespace
