#include "reporting/zol_event_types.h"

#include <arpa/inet.h>

#include "zol_events_fixture.h"

namespace {

using libvariant::Variant;
using testing::IsEmpty;
using testing::SizeIs;
using zol_monitor::BGPProviderFailEvent;
using zol_monitor::BlackHoleHEvent;
using zol_monitor::FailopenEvent;
using zol_monitor::FailuresEvent;
using zol_monitor::IEvent;
using zol_monitor::NextHopEvent;
using zol_monitor::RoutingAnomalyEvent;
using zol_monitor::ZOLEvents;
using zol_test::ZOLEventsTest;

class ZOLEventTypesTest : public ZOLEventsTest {
 protected:
  // Posts what the queue holds and gives the one text that arrived.
  Variant post_only() {
    clock_.advance_ms(suppression_ms);
    EXPECT_TRUE(events_.send_events());
    poll_to_end();
    return only_posted();
  }
};

struct Row {
  const char* type;
  bool resendable;
  bool immediate;
};

void expect_row(const IEvent& event, const Row& row) {
  EXPECT_EQ(event.type, row.type);
  EXPECT_EQ(event.resendable, row.resendable) << row.type;
  EXPECT_EQ(event.immediate, row.immediate) << row.type;
  EXPECT_FALSE(event.in_progress) << row.type;
}

const std::uint32_t target = inet_addr("198.51.100.9");

TEST_F(ZOLEventTypesTest, class_table) {
  // Verifies name, second sending and urgency of each kind of event.
  expect_row(FailuresEvent("192.0.2.1", 80), {"ZOL_FAILURE", false, false});
  expect_row(FailopenEvent(true), {"ZOL_FAILOPEN", true, true});
  expect_row(BGPProviderFailEvent("192.0.2.1"), {"BGP_PROVIDER_FAIL", true, true});
  expect_row(BlackHoleHEvent("a"), {"ZOL_BLACKHOLE", false, false});
  expect_row(NextHopEvent(), {"ZOL_NEXT_HOP_API_FAILURE", true, false});
  expect_row(RoutingAnomalyEvent(target, 1, 2), {"ROUTING_ANOMALY_DETECTED", true, false});
}

TEST_F(ZOLEventTypesTest, each_takes_in_its_own_class_only) {
  // Verifies which event could take in which: the own class where it merges, and nothing else.
  const FailuresEvent failures("192.0.2.1", 80);
  const FailopenEvent failopen(true);
  const BlackHoleHEvent black_hole("a");
  const RoutingAnomalyEvent anomaly(target, 1, 2);
  const BGPProviderFailEvent bgp("192.0.2.1");
  const NextHopEvent next_hop;
  const IEvent* const all[] = {&failures, &failopen, &black_hole, &anomaly, &bgp, &next_hop};
  for (const IEvent* queued : all) {
    for (const IEvent* other : all) {
      const bool merges = queued == other && queued != &bgp && queued != &next_hop;
      EXPECT_EQ(queued->is_updateable(*other), merges) << queued->type << " " << other->type;
    }
  }
}

// --- failures ---

TEST_F(ZOLEventTypesTest, failures_are_counted) {
  // Verifies that two failures of one port make one post that says so, beside the other ports in their order.
  EXPECT_FALSE(events_.invoke(new FailuresEvent("192.0.2.1", 8080)));
  EXPECT_TRUE(events_.invoke(new FailuresEvent("192.0.2.1", 8080)));
  EXPECT_TRUE(events_.invoke(new FailuresEvent("192.0.2.1", 80)));
  EXPECT_TRUE(events_.invoke(new FailuresEvent("192.0.2.0", 65535)));
  ASSERT_THAT(events_.queue, SizeIs(1));
  const Variant event = post_only();
  EXPECT_EQ(event.At("eventType").AsString(), "ZOL_FAILURE");
  const Variant::List& list = event.At("eventBody").At("zol_failures").AsList();
  ASSERT_THAT(list, SizeIs(3));
  EXPECT_EQ(list[0].At("ip").AsString(), "192.0.2.0");
  EXPECT_EQ(list[0].At("port").AsUnsigned(), 65535U);
  EXPECT_EQ(list[0].At("failures").AsUnsigned(), 1U);
  EXPECT_EQ(list[1].At("port").AsUnsigned(), 80U);
  EXPECT_EQ(list[1].At("failures").AsUnsigned(), 1U);
  EXPECT_EQ(list[2].At("ip").AsString(), "192.0.2.1");
  EXPECT_EQ(list[2].At("port").AsUnsigned(), 8080U);
  EXPECT_EQ(list[2].At("failures").AsUnsigned(), 2U);
  EXPECT_EQ(list[2].Size(), 3U);
}

TEST_F(ZOLEventTypesTest, failures_of_two_events_are_added) {
  // Verifies that counts are added key by key, and that the other event keeps its own.
  FailuresEvent one("192.0.2.1", 80);
  FailuresEvent other("192.0.2.1", 80);
  ASSERT_TRUE(one.update(events_, other));
  ASSERT_TRUE(one.update(events_, other));
  FailuresEvent third("192.0.2.1", 81);
  ASSERT_TRUE(third.update(events_, one));
  EXPECT_EQ(third.failures.at({"192.0.2.1", 80}), 3U);
  EXPECT_EQ(third.failures.at({"192.0.2.1", 81}), 1U);
  EXPECT_THAT(other.failures, SizeIs(1));
}

TEST_F(ZOLEventTypesTest, failed_peers_are_ordered) {
  // Verifies that peers are ordered by the text of the address and then by the port.
  using Peer = FailuresEvent::ZOLInfo;
  EXPECT_TRUE(Peer("192.0.2.1", 90) < Peer("192.0.2.2", 80));
  EXPECT_TRUE(Peer("192.0.2.1", 80) < Peer("192.0.2.1", 90));
  EXPECT_FALSE(Peer("192.0.2.1", 80) < Peer("192.0.2.1", 80));
  EXPECT_FALSE(Peer("192.0.2.2", 80) < Peer("192.0.2.1", 90));
}

TEST_F(ZOLEventTypesTest, failure_during_a_post) {
  // Verifies that a failure that comes while the last ones are on their way opens a second event.
  events_.invoke(new FailuresEvent("192.0.2.1", 80));
  clock_.advance_ms(suppression_ms);
  ASSERT_TRUE(events_.send_events());
  EXPECT_FALSE(events_.invoke(new FailuresEvent("192.0.2.1", 80)));
  ASSERT_THAT(events_.queue, SizeIs(2));
  for (const auto& event : events_.queue)
    EXPECT_EQ(dynamic_cast<FailuresEvent&>(*event).failures.at({"192.0.2.1", 80}), 1U);
  poll_to_end();
  EXPECT_THAT(events_.queue, SizeIs(1));
  EXPECT_TRUE(events_.invoke(new FailuresEvent("192.0.2.1", 80)));
}

// --- fail-open ---

TEST_F(ZOLEventTypesTest, failopen_states) {
  // Verifies the text of both states.
  EXPECT_EQ(FailopenEvent(true).event_body().At("zol_failopen_state").AsString(), "enabled");
  EXPECT_EQ(FailopenEvent(false).event_body().At("zol_failopen_state").AsString(), "disabled");
  EXPECT_EQ(FailopenEvent(false).event_body().Size(), 1U);
}

TEST_F(ZOLEventTypesTest, first_failopen_state_is_reported) {
  // Verifies that a second state while one waits is dropped with a warning, and the first is posted at once.
  EXPECT_FALSE(events_.invoke(new FailopenEvent(true)));
  EXPECT_TRUE(events_.invoke(new FailopenEvent(false)));
  EXPECT_TRUE(log_.contains(log_level::warning, "Failopen event was already in queue while another arrived"));
  ASSERT_TRUE(events_.send_events());
  poll_to_end();
  const Variant event = only_posted();
  EXPECT_EQ(event.At("eventType").AsString(), "ZOL_FAILOPEN");
  EXPECT_EQ(event.At("eventBody").At("zol_failopen_state").AsString(), "enabled");
}

TEST_F(ZOLEventTypesTest, failopen_jumps_the_suppression) {
  // Verifies that fail-open doesn't wait behind failures, and leaves their time as it was.
  events_.invoke(new FailuresEvent("192.0.2.1", 80));
  events_.invoke(new FailopenEvent(false));
  const timespec before = events_.last_sent;
  clock_.advance_ms(1);
  EXPECT_FALSE(events_.send_events());
  poll_to_end();
  EXPECT_EQ(only_posted().At("eventType").AsString(), "ZOL_FAILOPEN");
  EXPECT_EQ(events_.last_sent.tv_sec, before.tv_sec);
  EXPECT_EQ(events_.last_sent.tv_nsec, before.tv_nsec);
  EXPECT_EQ(events_.next_time_get_ms(), suppression_ms - 1);
}

// --- provider BGP ---

TEST_F(ZOLEventTypesTest, provider_failures_stay_apart) {
  // Verifies that each failure of a provider's BGP is a post of its own.
  EXPECT_FALSE(events_.invoke(new BGPProviderFailEvent("192.0.2.1")));
  EXPECT_FALSE(events_.invoke(new BGPProviderFailEvent("192.0.2.1")));
  ASSERT_TRUE(events_.send_events());
  poll_to_end();
  ASSERT_THAT(server_.requests(), SizeIs(2));
  const Variant event = libvariant::Deserialize(server_.requests()[0].body);
  EXPECT_EQ(event.At("eventType").AsString(), "BGP_PROVIDER_FAIL");
  EXPECT_EQ(event.At("eventBody").Size(), 1U);
  EXPECT_EQ(event.At("eventBody").At("provider_bgp_failure").Size(), 1U);
  EXPECT_EQ(event.At("eventBody").At("provider_bgp_failure").At("ip").AsString(), "192.0.2.1");
}

// --- black holes ---

TEST_F(ZOLEventTypesTest, black_holes_are_counted) {
  // Verifies that black-holed targets are counted by their text, in one post.
  EXPECT_FALSE(events_.invoke(new BlackHoleHEvent("one.example")));
  EXPECT_TRUE(events_.invoke(new BlackHoleHEvent("two.example")));
  EXPECT_TRUE(events_.invoke(new BlackHoleHEvent("two.example")));
  const Variant event = post_only();
  EXPECT_EQ(event.At("eventType").AsString(), "ZOL_BLACKHOLE");
  const Variant::List& list = event.At("eventBody").At("zol_targets_failures").AsList();
  ASSERT_THAT(list, SizeIs(2));
  EXPECT_EQ(list[0].At("target").AsString(), "one.example");
  EXPECT_EQ(list[0].At("failures").AsUnsigned(), 1U);
  EXPECT_EQ(list[1].At("target").AsString(), "two.example");
  EXPECT_EQ(list[1].At("failures").AsUnsigned(), 2U);
  EXPECT_EQ(list[1].Size(), 2U);
}

TEST_F(ZOLEventTypesTest, text_of_a_target_is_data) {
  // Verifies that a target's text can't break the document, whatever bytes it holds.
  const std::string odd = "a\"b\\\n\x01{";
  BlackHoleHEvent event(odd);
  const Variant parsed = libvariant::Deserialize(event.serialize());
  EXPECT_EQ(parsed.At("eventBody").At("zol_targets_failures").AsList().at(0).At("target").AsString(), odd);
}

// --- next hop ---

TEST_F(ZOLEventTypesTest, next_hop_failure) {
  // Verifies that a next-hop failure has an empty body, and that each is an event of its own.
  EXPECT_FALSE(events_.invoke(new NextHopEvent));
  EXPECT_FALSE(events_.invoke(new NextHopEvent));
  ASSERT_THAT(events_.queue, SizeIs(2));
  events_.queue.pop_back();
  const Variant event = post_only();
  EXPECT_EQ(event.At("eventType").AsString(), "ZOL_NEXT_HOP_API_FAILURE");
  EXPECT_TRUE(event.At("eventBody").IsMap());
  EXPECT_EQ(event.At("eventBody").Size(), 0U);
}

// --- routing anomalies ---

TEST_F(ZOLEventTypesTest, routing_anomalies_are_gathered) {
  // Verifies that measurements of several targets go in one post, and that a target's first one stays.
  EXPECT_FALSE(events_.invoke(new RoutingAnomalyEvent(target, 100, 4000000000U)));
  EXPECT_TRUE(events_.invoke(new RoutingAnomalyEvent(inet_addr("203.0.113.1"), 3, 4)));
  EXPECT_FALSE(log_.contains("add_measurement"));
  EXPECT_TRUE(events_.invoke(new RoutingAnomalyEvent(target, 7, 8)));
  EXPECT_TRUE(log_.contains(log_level::warning,
                            "add_measurement: RoutingAnomalyEvent Already ququed for 198.51.100.9 target"));
  const Variant event = post_only();
  EXPECT_EQ(event.At("eventType").AsString(), "ROUTING_ANOMALY_DETECTED");
  const Variant::List& list = event.At("eventBody").At("rtt-measurements").AsList();
  ASSERT_THAT(list, SizeIs(2));
  for (const Variant& entry : list) {
    EXPECT_EQ(entry.Size(), 3U);
    const bool is_first = entry.At("target").AsString() == "198.51.100.9";
    EXPECT_EQ(entry.At("target").AsString(), is_first ? "198.51.100.9" : "203.0.113.1");
    EXPECT_EQ(entry.At("in-target-rtt").AsUnsigned(), is_first ? 100U : 3U);
    EXPECT_EQ(entry.At("cumulative-rtt").AsUnsigned(), is_first ? 4000000000U : 4U);
  }
}

TEST_F(ZOLEventTypesTest, masked_target_in_the_log) {
  // Verifies that the line about a second measurement masks the address when the setting says so.
  config_->set("General: { mask_client_address = true; };");
  RoutingAnomalyEvent event(target, 1, 2);
  event.add_measurement(target, {3, 4});
  EXPECT_TRUE(log_.contains("Already ququed for 198.51.100.x target"));
}

}  // namespace
