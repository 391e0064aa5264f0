// The traffic report of an ordinary node: its networks as a whole, and their domains.
#include <string>

#include "config/zol_networks.h"
#include "zol_traffic_fixture.h"

namespace {

using libvariant::Variant;
using testing::IsEmpty;
using testing::SizeIs;
using zol_test::FilledStats;
using zol_test::IsJson;
using zol_test::LogCapture;

constexpr const char* by_domain = "domain_level_traffic = true; ";
constexpr auto http_get = zol::http_notification_t{};
constexpr const char* one_get = R"({ "requests": { "get": 1, "post": 0, "other": 0 },
                                     "responses": { "2xx": 0, "3xx": 0, "4xx": 0, "5xx": 0 } })";

class GxsTrafficTest : public zol_test::TrafficTest {
 protected:
  Variant network_report(zol_utils::TrafficStats* totals) {
    Variant entry = Variant::make_map();
    traffic_.generate_network_traffic_report(entry, "net-a", stats_, totals);
    return entry;
  }
  Variant generate() { return traffic_.generate_zol_traffic_report_gxs(stats_, &totals_); }

  FilledStats stats_{&data_};
};

// --- a network as a whole

TEST_F(GxsTrafficTest, network_without_traffic_report) {
  // Verifies that with traffic reporting off, or not set, a network has its numbers of sessions alone, and
  // that new sessions are summed up all the same.
  add_proxied(stats_, {});
  add_session();
  add_session({.domain = "a.example", .accepted = false});
  for (const char* setting : {"enabled = false; ", ""}) {
    configure({.traffic_report = setting});
    totals_ = {};
    EXPECT_THAT(network_report(&totals_),
                IsJson(R"({ "new-sessions-count": 2, "active-sessions-count": 1 })"));
    EXPECT_EQ(totals_.new_sessions, 2U);
    EXPECT_EQ(totals_.total_bytes, 0U);
    EXPECT_EQ(totals_.total_packets, 0U);
  }
}

TEST_F(GxsTrafficTest, network_without_counters) {
  // Verifies that a network that moved nothing has the sum alone, all zeros.
  EXPECT_THAT(network_report(&totals_), IsJson("{\"new-sessions-count\": 0, \"active-sessions-count\": 0, "
                                               "\"traffic\": {" +
                                               proxied_json(0) + "}}"));
}

TEST_F(GxsTrafficTest, network_to_target) {
  // Verifies that traffic to the target is direct, with TCP and UDP added up and the new sessions of accepted
  // ones.
  add_proxied(stats_, {});
  add_udp(stats_, zol_test::forwarded,
          {.tx_packets = 1, .tx_bytes = 1000, .rx_packets = 20, .rx_bytes = 3000});
  add_udp(stats_, zol_test::in_leg, {.tx_packets = 30, .tx_bytes = 4000, .rx_packets = 40, .rx_bytes = 5000});
  add_session();
  add_session({.accepted = false});
  const std::string streams = R"(
    "client-to-server": { "incoming-packets": 21, "incoming-bytes": 3100,
                          "outgoing-packets": 22, "outgoing-bytes": 1200 },
    "server-to-client": { "incoming-packets": 44, "incoming-bytes": 5400,
                          "outgoing-packets": 33, "outgoing-bytes": 4300 })";
  EXPECT_THAT(network_report(&totals_), IsJson("{\"new-sessions-count\": 2, \"active-sessions-count\": 3, "
                                               "\"direct\": {\"new-sessions-count\": 1, " +
                                               streams + "}, \"traffic\": {" + streams + "}}"));
  EXPECT_EQ(totals_.total_bytes, 3100U + 1200 + 5400 + 4300);
  EXPECT_EQ(totals_.total_packets, 21U + 22 + 44 + 33);
}

TEST_F(GxsTrafficTest, network_to_public_hop) {
  // Verifies that traffic to a public hop has a class of its own.
  add_proxied(stats_, {.to_hop = true});
  add_session();
  add_session({.accepted = false});
  add_session({.accepted = false, .private_network = true});
  add_session({.accepted = false});
  EXPECT_THAT(network_report(&totals_),
              IsJson("{\"new-sessions-count\": 4, \"active-sessions-count\": 1, \"indirect-public\": "
                     "{\"new-sessions-count\": 2, " +
                     proxied_json() + "}, \"traffic\": {" + proxied_json() + "}}"));
}

TEST_F(GxsTrafficTest, network_to_private_hop) {
  // Verifies that traffic to a private hop has a class of its own.
  add_proxied(stats_, {.to_hop = true, .private_network = true});
  add_session({.accepted = false, .private_network = true});
  add_session({.accepted = false});
  EXPECT_THAT(network_report(&totals_),
              IsJson("{\"new-sessions-count\": 2, \"active-sessions-count\": 1, \"indirect-private\": "
                     "{\"new-sessions-count\": 1, " +
                     proxied_json() + "}, \"traffic\": {" + proxied_json() + "}}"));
}

TEST_F(GxsTrafficTest, network_all_classes) {
  // Verifies that the sum is over all classes and UDP, whose bytes are in no class but the direct one.
  add_proxied(stats_, {}, 1);
  add_proxied(stats_, {.to_hop = true}, 2);
  add_proxied(stats_, {.to_hop = true, .private_network = true}, 4);
  add_udp(stats_, zol_test::in_leg, {.tx_packets = 7, .tx_bytes = 70, .rx_packets = 9, .rx_bytes = 90});
  const Variant report = network_report(&totals_);
  EXPECT_THAT(report.At("indirect-public"), IsJson("{\"new-sessions-count\": 0, " + proxied_json(2) + "}"));
  EXPECT_THAT(report.At("indirect-private"), IsJson("{\"new-sessions-count\": 0, " + proxied_json(4) + "}"));
  EXPECT_THAT(report.At("traffic"), IsJson(R"({
    "client-to-server": { "incoming-packets": 7, "incoming-bytes": 700,
                          "outgoing-packets": 14, "outgoing-bytes": 1400 },
    "server-to-client": { "incoming-packets": 37, "incoming-bytes": 2890,
                          "outgoing-packets": 28, "outgoing-bytes": 2170 } })"));
  EXPECT_THAT(report.At("direct").At("server-to-client"),
              IsJson(R"({ "incoming-packets": 13, "incoming-bytes": 490,
                          "outgoing-packets": 10, "outgoing-bytes": 370 })"));
  EXPECT_EQ(totals_.total_bytes, 700U + 1400 + 2890 + 2170);
}

TEST_F(GxsTrafficTest, network_without_totals) {
  // Verifies that nobody has to ask for the totals.
  add_proxied(stats_, {});
  EXPECT_TRUE(network_report(nullptr).Contains("traffic"));
}

TEST_F(GxsTrafficTest, totals_over_networks) {
  // Verifies that the totals of several networks add up.
  add_proxied(stats_, {});
  add_proxied(stats_, {}, 2, "net-b");
  add_session();
  add_session({.network = "net-b"});
  generate();
  EXPECT_EQ(totals_.total_packets, 30U);
  EXPECT_EQ(totals_.total_bytes, 3000U);
  EXPECT_EQ(totals_.new_sessions, 2U);
}

// --- the entry of a network

TEST_F(GxsTrafficTest, whole_entry) {
  // Verifies the entry of a network that has one proxied connection, with nothing switched on but traffic.
  add_proxied(stats_, {});
  add_session();
  const std::string figures =
      "\"new-sessions-count\": 1, \"active-sessions-count\": 1, \"direct\": {\"new-sessions-count\": 1, " +
      proxied_json() + "}, \"traffic\": {" + proxied_json() + "}";
  EXPECT_THAT(generate(), IsJson("[{\"logical-network-id\": \"net-a\", \"next-hop-ip\": \"origin.example\", "
                                 "\"next-hop\": \"origin.example\", \"domain-info\": [{\"domain-name\": "
                                 "\"unknown\", " +
                                 figures + "}], " + figures + "}]"));
}

TEST_F(GxsTrafficTest, whole_entry_without_traffic_report) {
  // Verifies that with traffic reporting off the entry has ids, hops, counts and domains with their counts.
  configure(
      {.traffic_report = "enabled = false; ", .monitoring = "DetectedIPsReport: { enabled = true; }; "});
  add_proxied(stats_, {});
  add_session();
  data_.conntrack.get_detected_ip_start();
  EXPECT_THAT(generate(), IsJson(R"([{ "logical-network-id": "net-a", "next-hop-ip": "origin.example",
    "next-hop": "origin.example", "new-sessions-count": 1, "active-sessions-count": 1,
    "domain-info": [{ "domain-name": "unknown", "new-sessions-count": 1, "active-sessions-count": 1 }],
    "user-info": { "direct": [{ "ip": "198.51.100.20", "count": 1 }], "indirect": [] } }])"));
}

TEST_F(GxsTrafficTest, networks_in_order) {
  // Verifies that each network has its own entry with its own target, in the order of their ids.
  add_proxied(stats_, {}, 1, "net-b");
  add_proxied(stats_, {});
  const Variant report = generate();
  ASSERT_EQ(report.Size(), 2U);
  EXPECT_EQ(report.AsList()[0].At("logical-network-id").AsString(), "net-a");
  EXPECT_EQ(report.AsList()[0].At("next-hop").AsString(), "origin.example");
  EXPECT_EQ(report.AsList()[1].At("logical-network-id").AsString(), "net-b");
  EXPECT_EQ(report.AsList()[1].At("next-hop").AsString(), "second.example");
}

TEST_F(GxsTrafficTest, network_of_no_service) {
  // Verifies that traffic of a network that no service ever had isn't reported.
  add_proxied(stats_, {}, 1, "net-x");
  EXPECT_THAT(generate(), IsJson("[]"));
}

TEST_F(GxsTrafficTest, configured_next_hop) {
  // Verifies that a configured next hop goes before the network's target in the address, and the canonical
  // name in the name.
  add_proxied(stats_, {});
  configure({.traffic_report = "enabled = true; next_hop = \"hop.example\"; "});
  data_.sessions.next_hop_cname = "canonical.example";
  const Variant entry = only(generate());
  EXPECT_EQ(entry.At("next-hop-ip").AsString(), "hop.example");
  EXPECT_EQ(entry.At("next-hop").AsString(), "canonical.example");
}

TEST_F(GxsTrafficTest, unresolved_next_hop) {
  // Verifies that a configured next hop without a canonical name leaves the name to the network's target, and
  // the other way round.
  add_proxied(stats_, {});
  configure({.traffic_report = "enabled = true; next_hop = \"hop.example\"; "});
  Variant entry = only(generate());
  EXPECT_EQ(entry.At("next-hop-ip").AsString(), "hop.example");
  EXPECT_EQ(entry.At("next-hop").AsString(), "origin.example");
  add_proxied(stats_, {});
  configure({.traffic_report = "enabled = true; next_hop = \"\"; "});
  data_.sessions.next_hop_cname = "canonical.example";
  entry = only(generate());
  EXPECT_EQ(entry.At("next-hop-ip").AsString(), "origin.example");
  EXPECT_EQ(entry.At("next-hop").AsString(), "canonical.example");
}

TEST_F(GxsTrafficTest, hop_metadata) {
  // Verifies that the metadata of the hop that is next stands under its own text as the key.
  add_proxied(stats_, {});
  zol::HopData hop;
  hop.fqdn = "canonical.example";
  hop.metadata = "{\"rack\": 4}";
  zol::ZOLNetworks::instance()->hop_map.hops["hop-2"] = hop;
  data_.sessions.next_hop_cname = "canonical.example";
  EXPECT_THAT(only(generate()).At("{\"rack\": 4}"), IsJson("{\"rack\": 4}"));
}

TEST_F(GxsTrafficTest, hop_metadata_that_is_no_json) {
  // Verifies that metadata that is no JSON stands there as null, with the rest of the entry whole.
  const LogCapture quiet;
  add_proxied(stats_, {});
  zol::HopData hop;
  hop.fqdn = "origin.example";
  hop.metadata = "rack 4";
  zol::ZOLNetworks::instance()->hop_map.hops["hop-2"] = hop;
  const Variant entry = only(generate());
  EXPECT_TRUE(entry.Contains("rack 4"));
  EXPECT_TRUE(entry.At("rack 4").IsNull());
  EXPECT_TRUE(entry.Contains("traffic"));
}

TEST_F(GxsTrafficTest, hop_without_metadata) {
  // Verifies that a hop without metadata adds no key.
  add_proxied(stats_, {});
  zol::HopData hop;
  hop.fqdn = "origin.example";
  zol::ZOLNetworks::instance()->hop_map.hops["hop-2"] = hop;
  EXPECT_EQ(only(generate()).Size(), 8U);
}

TEST_F(GxsTrafficTest, historical_network) {
  // Verifies that a network whose service has left the configuration is reported as long as it has traffic,
  // and left out, its clients not walked, without.
  const zol_monitor::SessionPtr session = add_session();
  data_.conntrack.get_detected_ip_start();
  reconfigure_services("");
  EXPECT_THAT(generate(), IsJson("[]"));
  EXPECT_EQ(session->state, 0U);
  EXPECT_THAT(data_.conntrack.detected_sessions, SizeIs(1));
  EXPECT_EQ(totals_.new_sessions, 0U);
  add_proxied(stats_, {});
  const Variant entry = only(generate());
  EXPECT_EQ(entry.At("logical-network-id").AsString(), "net-a");
  EXPECT_EQ(entry.At("next-hop").AsString(), "origin.example");
  EXPECT_EQ(session->state, 1U);
}

// --- the domains

TEST_F(GxsTrafficTest, domains) {
  // Verifies that each domain has its own traffic and its own sessions, in the order of names, and that UDP,
  // which tells no domain, is in none but the unknown one.
  configure({.monitoring = by_domain});
  add_proxied(stats_, {.domain = "b.example"}, 2);
  add_proxied(stats_, {.domain = "a.example"}, 1);
  add_udp(stats_, zol_test::in_leg, {.tx_packets = 7, .tx_bytes = 70, .rx_packets = 9, .rx_bytes = 90});
  const std::string udp = R"(
    "client-to-server": { "incoming-packets": 0, "incoming-bytes": 0,
                          "outgoing-packets": 0, "outgoing-bytes": 0 },
    "server-to-client": { "incoming-packets": 9, "incoming-bytes": 90,
                          "outgoing-packets": 7, "outgoing-bytes": 70 })";
  add_session({.domain = "a.example"});
  add_session({.domain = "b.example"});
  add_session({.domain = "b.example"});
  add_session({.domain = "b.example", .accepted = false});
  EXPECT_THAT(
      only(generate()).At("domain-info"),
      IsJson("[{\"domain-name\": \"a.example\", \"new-sessions-count\": 1, \"active-sessions-count\": 1, "
             "\"direct\": {\"new-sessions-count\": 1, " +
             proxied_json() + "}, \"traffic\": {" + proxied_json() +
             "}}, {\"domain-name\": \"b.example\", \"new-sessions-count\": 3, "
             "\"active-sessions-count\": 1, \"direct\": {\"new-sessions-count\": 2, " +
             proxied_json(2) + "}, \"traffic\": {" + proxied_json(2) +
             "}}, {\"domain-name\": \"unknown\", \"new-sessions-count\": 0, \"active-sessions-count\": 1, "
             "\"direct\": {\"new-sessions-count\": 0, " +
             udp + "}, \"traffic\": {" + udp + "}}]"));
}

TEST_F(GxsTrafficTest, domain_classes) {
  // Verifies that a domain's traffic to hops has classes with TCP alone and with their own new sessions, and
  // that the sum and the direct class hold UDP.
  add_proxied(stats_, {.to_hop = true}, 2);
  add_proxied(stats_, {.to_hop = true, .private_network = true}, 4);
  add_udp(stats_, zol_test::in_leg, {.tx_packets = 7, .tx_bytes = 70, .rx_packets = 9, .rx_bytes = 90});
  add_session();
  add_session({.accepted = false});
  add_session({.accepted = false, .private_network = true});
  EXPECT_THAT(
      only(only(generate()).At("domain-info")),
      IsJson("{\"domain-name\": \"unknown\", \"new-sessions-count\": 3, \"active-sessions-count\": 3, "
             "\"indirect-public\": {\"new-sessions-count\": 1, " +
             proxied_json(2) + "}, \"indirect-private\": {\"new-sessions-count\": 1, " + proxied_json(4) +
             R"(}, "direct": { "new-sessions-count": 1,
      "client-to-server": { "incoming-packets": 0, "incoming-bytes": 0,
                            "outgoing-packets": 0, "outgoing-bytes": 0 },
      "server-to-client": { "incoming-packets": 9, "incoming-bytes": 90,
                            "outgoing-packets": 7, "outgoing-bytes": 70 } },
    "traffic": {
      "client-to-server": { "incoming-packets": 6, "incoming-bytes": 600,
                            "outgoing-packets": 12, "outgoing-bytes": 1200 },
      "server-to-client": { "incoming-packets": 33, "incoming-bytes": 2490,
                            "outgoing-packets": 25, "outgoing-bytes": 1870 } } })"));
}

TEST_F(GxsTrafficTest, domains_not_told_apart) {
  // Verifies that where domains aren't counted the one entry reports the sessions of all domains.
  add_proxied(stats_, {.domain = "a.example"});
  add_session({.domain = "a.example"})->http_counters.update(http_get);
  fail_to_target(add_session({.domain = "b.example"}));
  const Variant domain = only(only(generate()).At("domain-info"));
  EXPECT_EQ(domain.At("domain-name").AsString(), "unknown");
  EXPECT_EQ(domain.At("new-sessions-count").AsInt(), 2);
  EXPECT_EQ(domain.At("direct").At("new-sessions-count").AsInt(), 2);
  EXPECT_EQ(domain.At("direct").At("target-connect-error-count").AsInt(), 1);
  EXPECT_THAT(domain.At("direct").At("http"), IsJson(one_get));
}

TEST_F(GxsTrafficTest, domains_leave_the_statistics) {
  // Verifies that what was reported is gone from the reading, and the walk over it ended.
  add_proxied(stats_, {});
  generate();
  EXPECT_THAT(stats_.networks["net-a"].domain_counters, IsEmpty());
  EXPECT_THAT(generate(), IsJson("[]"));
}

TEST_F(GxsTrafficTest, domain_without_bytes) {
  // Verifies that a domain that moved no bytes isn't reported, and its new sessions, messages and failures
  // wait; the network's entry stays.
  configure({.monitoring = by_domain});
  add_tcp(stats_, {.counters = {.tx_packets = 5}, .domain = "a.example"});
  const zol_monitor::SessionPtr session = add_session({.domain = "a.example"});
  session->http_counters.update(http_get);
  fail_to_target(session);
  const Variant entry = only(generate());
  EXPECT_THAT(entry.At("domain-info"), IsJson("[]"));
  EXPECT_FALSE(entry.Contains("direct"));
  EXPECT_EQ(session->http_counters.total_requests(), 1U);
  EXPECT_FALSE(session->target_failure_counted);
  EXPECT_THAT(stats_.networks["net-a"].domain_counters, IsEmpty());
}

TEST_F(GxsTrafficTest, domain_without_bytes_before_another) {
  // Verifies that the walk over the domains goes on behind one that moved no bytes.
  configure({.monitoring = by_domain});
  add_tcp(stats_, {.counters = {.tx_packets = 5}, .domain = "a.example"});
  add_proxied(stats_, {.domain = "b.example"});
  EXPECT_EQ(only(only(generate()).At("domain-info")).At("domain-name").AsString(), "b.example");
  EXPECT_THAT(stats_.networks["net-a"].domain_counters, IsEmpty());
}

// --- failures and messages

TEST_F(GxsTrafficTest, failures_and_messages) {
  // Verifies that failures and messages of each class stand in the domain's class and in the network's, where
  // those of all domains add up.
  configure({.monitoring = by_domain});
  for (const char* domain : {"a.example", "b.example"}) {
    add_proxied(stats_, {.domain = domain});
    add_proxied(stats_, {.domain = domain, .to_hop = true});
    add_proxied(stats_, {.domain = domain, .to_hop = true, .private_network = true});
    fail_to_target(add_session({.domain = domain}));
    for (int i = 0; i < 2; ++i)
      fail_to_target(add_session({.domain = domain, .accepted = false}));
    for (int i = 0; i < 3; ++i)
      fail_to_target(add_session({.domain = domain, .accepted = false, .private_network = true}));
    add_session({.domain = domain})->http_counters.update(zol::http_notification_t{1});
    add_session({.domain = domain, .accepted = false})->http_counters.update(zol::http_notification_t{3});
    add_session({.domain = domain, .accepted = false, .private_network = true})
        ->http_counters.update(zol::http_notification_t{6});
  }
  const Variant entry = only(generate());
  const Variant& second = entry.At("domain-info").AsList()[1];
  EXPECT_EQ(second.At("direct").At("target-connect-error-count").AsInt(), 1);
  EXPECT_EQ(second.At("indirect-public").At("target-connect-error-count").AsInt(), 2);
  EXPECT_EQ(second.At("indirect-private").At("target-connect-error-count").AsInt(), 3);
  EXPECT_EQ(second.At("direct").At("http").At("requests").At("post").AsInt(), 1);
  EXPECT_EQ(second.At("indirect-public").At("http").At("responses").At("2xx").AsInt(), 1);
  EXPECT_EQ(second.At("indirect-private").At("http").At("responses").At("5xx").AsInt(), 1);
  EXPECT_EQ(entry.At("direct").At("target-connect-error-count").AsInt(), 2);
  EXPECT_EQ(entry.At("indirect-public").At("target-connect-error-count").AsInt(), 4);
  EXPECT_EQ(entry.At("indirect-private").At("target-connect-error-count").AsInt(), 6);
  EXPECT_THAT(entry.At("direct").At("http"), IsJson(R"({ "requests": { "get": 0, "post": 2, "other": 0 },
    "responses": { "2xx": 0, "3xx": 0, "4xx": 0, "5xx": 0 } })"));
  EXPECT_EQ(entry.At("indirect-public").At("http").At("responses").At("2xx").AsInt(), 2);
  EXPECT_EQ(entry.At("indirect-private").At("http").At("responses").At("5xx").AsInt(), 2);
  EXPECT_TRUE(entry.At("direct").Contains("client-to-server"));
}

TEST_F(GxsTrafficTest, failures_without_messages) {
  // Verifies that a count of 0 and empty messages have no key, in the domain and in the network.
  add_proxied(stats_, {});
  fail_to_target(add_session());
  Variant entry = only(generate());
  EXPECT_FALSE(entry.At("direct").Contains("http"));
  EXPECT_FALSE(only(entry.At("domain-info")).At("direct").Contains("http"));
  add_proxied(stats_, {});
  add_session()->http_counters.update(http_get);
  entry = only(generate());
  EXPECT_FALSE(entry.At("direct").Contains("target-connect-error-count"));
  EXPECT_FALSE(only(entry.At("domain-info")).At("direct").Contains("target-connect-error-count"));
  EXPECT_TRUE(entry.At("direct").Contains("http"));
}

TEST_F(GxsTrafficTest, failures_and_messages_are_told_once) {
  // Verifies that what a report has told is in no later one.
  add_proxied(stats_, {});
  const zol_monitor::SessionPtr session = add_session();
  session->http_counters.update(http_get);
  fail_to_target(session);
  generate();
  EXPECT_TRUE(session->http_counters.is_empty());
  EXPECT_TRUE(session->target_failure_counted);
  add_proxied(stats_, {});
  const Variant entry = only(generate());
  EXPECT_FALSE(entry.At("direct").Contains("http"));
  EXPECT_FALSE(entry.At("direct").Contains("target-connect-error-count"));
}

TEST_F(GxsTrafficTest, class_without_counters) {
  // Verifies that failures and messages of a class that moved nothing are dropped from the domain, and make
  // the class in the network.
  add_proxied(stats_, {});
  fail_to_target(add_session({.accepted = false}));
  add_session({.accepted = false, .private_network = true})->http_counters.update(http_get);
  const Variant entry = only(generate());
  const Variant domain = only(entry.At("domain-info"));
  EXPECT_TRUE(domain.Contains("direct"));
  EXPECT_FALSE(domain.Contains("indirect-public"));
  EXPECT_FALSE(domain.Contains("indirect-private"));
  EXPECT_THAT(entry.At("indirect-public"), IsJson(R"({ "target-connect-error-count": 1 })"));
  EXPECT_THAT(entry.At("indirect-private"), IsJson(std::string(R"({ "http": )") + one_get + "}"));
}

TEST_F(GxsTrafficTest, failures_without_traffic_report) {
  // Verifies that with traffic reporting off the network's sums are written and told once all the same, and
  // the domain has none.
  configure({.traffic_report = "enabled = false; "});
  add_proxied(stats_, {});
  const zol_monitor::SessionPtr session = add_session();
  session->http_counters.update(http_get);
  fail_to_target(session);
  const Variant entry = only(generate());
  EXPECT_THAT(entry.At("direct"),
              IsJson(std::string(R"({ "target-connect-error-count": 1, "http": )") + one_get + "}"));
  EXPECT_THAT(only(entry.At("domain-info")),
              IsJson(R"({ "domain-name": "unknown", "new-sessions-count": 1, "active-sessions-count": 1 })"));
  EXPECT_FALSE(entry.Contains("traffic"));
  EXPECT_TRUE(session->http_counters.is_empty());
  EXPECT_TRUE(session->target_failure_counted);
}

TEST_F(GxsTrafficTest, failures_of_each_network) {
  // Verifies that the sums of one network aren't those of the next.
  add_proxied(stats_, {});
  add_proxied(stats_, {}, 1, "net-b");
  fail_to_target(add_session());
  const Variant report = generate();
  ASSERT_EQ(report.Size(), 2U);
  EXPECT_EQ(report.AsList()[0].At("direct").At("target-connect-error-count").AsInt(), 1);
  EXPECT_FALSE(report.AsList()[1].At("direct").Contains("target-connect-error-count"));
}

}  // namespace
