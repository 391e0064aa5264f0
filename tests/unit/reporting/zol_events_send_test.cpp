// The way of an event from the queue to the server, with real posts.
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <vector>

#include "faults.h"
#include "zol_events_fixture.h"

namespace {

using libvariant::Variant;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::StartsWith;
using zol_test::Faults;
using zol_test::PlainEvent;
using zol_test::unused_port;
using zol_test::ZOLEventsTest;

std::vector<std::string> keys_of(const Variant& map) {
  std::vector<std::string> keys;
  map.ForEach([&keys](std::string_view key, const Variant&) { keys.emplace_back(key); });
  return keys;
}

std::ptrdiff_t open_descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

std::string refusing_url() {
  return "https://127.0.0.1:" + std::to_string(unused_port());
}

// --- what is sent ---

TEST_F(ZOLEventsTest, posted_event) {
  // Verifies the request of an event: its path, signature, headers and text.
  add(new PlainEvent(false, true)).number = 4;
  ASSERT_TRUE(events_.send_events());
  poll_to_end();
  const Variant event = only_posted();
  const zol_test::HttpRequest request = server_.requests().at(0);
  EXPECT_EQ(request.method, "POST");
  const std::string start = "/zolEvent?key=node-7&token=";
  ASSERT_THAT(request.target, StartsWith(start));
  EXPECT_TRUE(is_token_of(request.target.substr(start.size()), request.body,
                          static_cast<std::uint64_t>(time(nullptr) - 50) * 1000));
  EXPECT_EQ(request.headers.count("content-encoding"), 0U);
  EXPECT_EQ(request.headers.count("if-modified-since"), 0U);
  EXPECT_EQ(request.headers.at("content-type"), "application/json");
  EXPECT_THAT(keys_of(event),
              testing::UnorderedElementsAre("timestamp", "id", "ip", "eventType", "eventBody"));
  EXPECT_THAT(event.At("timestamp").AsString(), MatchesRegex("[0-9]+-[0-9]+-[0-9]+T[0-9:]+Z"));
  EXPECT_EQ(event.At("id").AsString(), "node-7");
  EXPECT_EQ(event.At("ip").AsString(), "192.0.2.7");
  EXPECT_EQ(event.At("eventType").AsString(), "PLAIN");
  EXPECT_EQ(event.At("eventBody").At("number").AsInt(), 4);
  EXPECT_TRUE(log_.contains(log_level::debug, "Sending meta-data on ZOL-Event is disabled"));
}

TEST_F(ZOLEventsTest, text_is_pretty) {
  // Verifies that the text is indented and that it is logged as it is posted.
  const PlainEvent& event = add(new PlainEvent(false, true));
  events_.send_events();
  const std::string line = "Sending event " + pointer_text(&event) + " to HQS: {\n    \"";
  EXPECT_TRUE(log_.contains(log_level::info, line)) << log_.all();
}

TEST_F(ZOLEventsTest, client_of_an_event) {
  // Verifies that the client of an event signs, doesn't compress and asks for no modification.
  const PlainEvent event;
  EXPECT_TRUE(event.hmac);
  EXPECT_FALSE(event.compress);
  EXPECT_FALSE(event.if_modified_since);
  EXPECT_EQ(event.configuration, &config_->configurator());
}

TEST_F(ZOLEventsTest, waiting_event_holds_no_descriptor) {
  // Verifies that an event has its handles from a start to the time when it waits again.
  PlainEvent event(true, false);
  EXPECT_EQ(event.curl, nullptr);
  EXPECT_EQ(event.multi, nullptr);
  EXPECT_FALSE(event.is_async_running());
  ASSERT_TRUE(event.send());
  EXPECT_NE(event.curl, nullptr);
  EXPECT_NE(event.multi, nullptr);
  EXPECT_NE(event.resolver, nullptr);
  event.resend();
  EXPECT_EQ(event.curl, nullptr);
  EXPECT_EQ(event.multi, nullptr);
  EXPECT_EQ(event.resolver, nullptr);
  ASSERT_TRUE(event.send());
  EXPECT_NE(event.curl, nullptr);
}

TEST_F(ZOLEventsTest, failed_event_holds_no_descriptor) {
  // Verifies that events whose posts failed give their descriptors back while they wait, and that the next
  // posts arrive.
  set_url(refusing_url());
  add(new PlainEvent(true, true));
  add(new PlainEvent(true, true));
  const std::ptrdiff_t before = open_descriptors();
  ASSERT_TRUE(events_.send_events());
  poll_to_end();
  ASSERT_THAT(events_.queue, SizeIs(2));
  EXPECT_EQ(open_descriptors(), before);
  set_url(server_.url(), "event_suppression_ms = 0; ");
  ASSERT_TRUE(events_.send_events());
  poll_to_end();
  EXPECT_THAT(events_.queue, IsEmpty());
  EXPECT_THAT(server_.requests(), SizeIs(2));
}

TEST_F(ZOLEventsTest, reopened_client_keeps_its_address) {
  // Verifies that an event that is sent again still knows the last good address, not the file's first one.
  std::ofstream(persistent_file()) << "a.example.com 192.0.2.9\n";
  PlainEvent event(true, true);
  ASSERT_TRUE(event.send());
  EXPECT_EQ(event.cached_host, "127.0.0.1");
  event.cached_host = "b.example.com";
  event.resend();
  set_url("no url");
  EXPECT_FALSE(event.send());
  EXPECT_NE(event.curl, nullptr);
  EXPECT_EQ(event.cached_host, "b.example.com");
}

TEST_F(ZOLEventsTest, no_handles) {
  // Verifies that an event that gets no handles from libcurl throws when it is sent, not when it is made.
  Faults faults;
  faults.no_multi_handle = true;
  PlainEvent event;
  EXPECT_THROW(event.send(), std::runtime_error);
  EXPECT_FALSE(event.in_progress);
}

TEST_F(ZOLEventsTest, settings_of_the_request) {
  // Verifies that time-out and client certificate are the configured ones.
  PlainEvent event;
  ASSERT_TRUE(event.send());
  EXPECT_EQ(event.timeout, 20);
  EXPECT_EQ(event.cert_path, "");
  config_->set(
      "General: { zol_id = \"a\"; external_ip = \"b\"; client_cert_path = \"/no/cert.pem\"; };\n"
      "Monitoring: { hqs_receiver_url = \"" +
      server_.url() + "\"; };");
  PlainEvent other;
  ASSERT_TRUE(other.send());
  EXPECT_EQ(other.cert_path, "/no/cert.pem");
  EXPECT_EQ(other.timeout, 30);  // no transfer without an end
}

TEST_F(ZOLEventsTest, metadata) {
  // Verifies that the operator's metadata goes along when its switch is on.
  set_url(server_.url(), "send_meta_data_on_events = true; hqs_meta_data = \"{\\\"rack\\\": 4}\"; ");
  const Variant event = libvariant::Deserialize(PlainEvent().serialize());
  EXPECT_EQ(event.At("metadata").At("rack").AsInt(), 4);
  EXPECT_FALSE(log_.contains("Sending meta-data on ZOL-Event is disabled"));
  set_url(server_.url(), "send_meta_data_on_events = false; hqs_meta_data = \"{\\\"rack\\\": 4}\"; ");
  EXPECT_FALSE(libvariant::Deserialize(PlainEvent().serialize()).Contains("metadata"));
  EXPECT_TRUE(log_.contains(log_level::debug, "Sending meta-data on ZOL-Event is disabled"));
}

TEST_F(ZOLEventsTest, missing_metadata) {
  // Verifies that metadata that is switched on but missing costs a warning, not the event.
  set_url(server_.url(), "send_meta_data_on_events = true; ");
  const Variant event = libvariant::Deserialize(PlainEvent().serialize());
  EXPECT_FALSE(event.Contains("metadata"));
  EXPECT_EQ(event.At("eventType").AsString(), "PLAIN");
  EXPECT_TRUE(log_.contains(log_level::warning, "serialize Could not find meta-data"));
}

TEST_F(ZOLEventsTest, missing_identity) {
  // Verifies that without the node's id or address the text can't be made: an exception, and the same line.
  const std::string url = "Monitoring: { hqs_receiver_url = \"" + server_.url() + "\"; };";
  const std::pair<std::string, std::string> cases[] = {
      {"General: { external_ip = \"192.0.2.7\"; };", "Couldn't read the ZOLID from configuration file "},
      {"General: { zol_id = \"node-7\"; };", "Couldn't read the ZOL-IP from configuration file "},
  };
  for (const auto& [general, failure] : cases) {
    config_->set(general + url);
    PlainEvent event;
    try {
      event.send();
      ADD_FAILURE() << failure;
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(error.what(), failure);
    }
    EXPECT_TRUE(log_.contains(log_level::error, failure));
    EXPECT_FALSE(event.in_progress);
  }
}

TEST_F(ZOLEventsTest, exception_leaves_the_queue_whole) {
  // Verifies that an exception in the midst of a pass leaves no gap of an event that was dropped before it.
  set_url("no url");
  add(new PlainEvent(false, true));
  class Thrower : public PlainEvent {
   public:
    using PlainEvent::PlainEvent;
    std::string serialize() const override { throw std::runtime_error("no text"); }
  };
  const Thrower& thrower = add(new Thrower(false, true));
  EXPECT_THROW(events_.send_events(), std::runtime_error);
  ASSERT_THAT(events_.queue, SizeIs(1));
  EXPECT_EQ(events_.queue[0].get(), &thrower);
}

// --- when it is sent ---

TEST_F(ZOLEventsTest, nothing_to_send) {
  // Verifies that an empty queue has sent all, without a look at clock and settings.
  clock_.is_broken = true;
  EXPECT_TRUE(events_.send_events());
  EXPECT_FALSE(log_.contains("Unable to send events"));
}

TEST_F(ZOLEventsTest, suppression_time_holds_back) {
  // Verifies that an event waits for the end of the suppression time, then goes and starts the time anew.
  PlainEvent& event = add(new PlainEvent);
  clock_.advance_ms(999);
  EXPECT_FALSE(events_.send_events());
  EXPECT_FALSE(event.in_progress);
  clock_.advance_ms(1);
  EXPECT_TRUE(events_.send_events());
  EXPECT_TRUE(event.in_progress);
  EXPECT_TRUE(log_.contains(log_level::debug, "send_events: send event " + pointer_text(&event)));
  EXPECT_EQ(events_.last_sent.tv_sec, 1001);
}

TEST_F(ZOLEventsTest, second_event_of_a_pass_waits) {
  // Verifies that an event that was just started holds the next one back.
  const PlainEvent& first = add(new PlainEvent);
  const PlainEvent& second = add(new PlainEvent);
  clock_.advance_ms(suppression_ms);
  EXPECT_FALSE(events_.send_events());
  EXPECT_TRUE(first.in_progress);
  EXPECT_FALSE(second.in_progress);
  EXPECT_EQ(events_.next_time_get_ms(), suppression_ms);
}

TEST_F(ZOLEventsTest, no_suppression) {
  // Verifies that without a pause everything goes in one pass.
  set_url(server_.url(), "event_suppression_ms = 0; ");
  const PlainEvent& first = add(new PlainEvent);
  const PlainEvent& second = add(new PlainEvent);
  EXPECT_TRUE(events_.send_events());
  EXPECT_TRUE(first.in_progress);
  EXPECT_TRUE(second.in_progress);
}

TEST_F(ZOLEventsTest, immediate_event_jumps) {
  // Verifies that an immediate event goes at once, before one that waits, and doesn't move the time.
  const PlainEvent& waiting = add(new PlainEvent);
  const PlainEvent& urgent = add(new PlainEvent(false, true));
  clock_.advance_ms(300);
  EXPECT_FALSE(events_.send_events());
  EXPECT_FALSE(waiting.in_progress);
  EXPECT_TRUE(urgent.in_progress);
  EXPECT_EQ(events_.last_sent.tv_sec, 1000);
  EXPECT_EQ(events_.last_sent.tv_nsec, 0);
}

TEST_F(ZOLEventsTest, event_in_progress_is_not_sent_again) {
  // Verifies that a pass leaves an event on its way alone, and that it doesn't count as held back.
  PlainEvent& event = add(new PlainEvent(false, true));
  ASSERT_TRUE(events_.send_events());
  EXPECT_TRUE(events_.send_events());
  EXPECT_EQ(event.completions, 1);
}

TEST_F(ZOLEventsTest, send_complete_comes_at_the_start) {
  // Verifies that an event hears of its start before any answer, and before it is in progress.
  PlainEvent& event = add(new PlainEvent(false, true));
  ASSERT_TRUE(events_.send_events());
  EXPECT_EQ(event.completions, 1);
  EXPECT_FALSE(event.was_in_progress);
  EXPECT_TRUE(event.in_progress);
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(ZOLEventsTest, send_without_a_clock) {
  // Verifies that without a clock nothing is sent, and that the caller isn't told to come again.
  const PlainEvent& event = add(new PlainEvent(false, true));
  clock_.is_broken = true;
  EXPECT_TRUE(events_.send_events());
  EXPECT_FALSE(event.in_progress);
  EXPECT_TRUE(log_.contains(log_level::error, "Unable to send events. Failed to read clock"));
}

TEST_F(ZOLEventsTest, send_without_the_setting) {
  // Verifies that without the suppression time nothing is sent, and that the caller isn't told to come again.
  set_url(server_.url(), "");
  const PlainEvent& event = add(new PlainEvent(false, true));
  EXPECT_TRUE(events_.send_events());
  EXPECT_FALSE(event.in_progress);
  EXPECT_TRUE(log_.contains(log_level::error, "Unable to send events. Failed to read event_suppression_ms"));
}

TEST_F(ZOLEventsTest, send_without_a_url) {
  // Verifies that an event without a server to go to is dropped, with its lines, and doesn't move the time.
  config_->set(good_config("event_suppression_ms = 0; "));
  PlainEvent& event = add(new PlainEvent(true, false));
  const std::string name = pointer_text(&event);
  clock_.advance_ms(5000);
  EXPECT_TRUE(events_.send_events());
  EXPECT_THAT(events_.queue, IsEmpty());
  EXPECT_EQ(events_.last_sent.tv_sec, 1000);
  EXPECT_TRUE(log_.contains(log_level::error, "Fail to send event PLAIN. Error reading hqs_receiver_url."));
  EXPECT_TRUE(
      log_.contains(log_level::debug, "send_events: Failed to send. Remove event " + name + " from queue"));
}

TEST_F(ZOLEventsTest, send_to_a_broken_url) {
  // Verifies that an event whose request can't be started is dropped and never marked as started.
  set_url("no url");
  int deleted = 0;
  PlainEvent& event = add(new PlainEvent(true, true));
  event.deleted = &deleted;
  EXPECT_TRUE(events_.send_events());
  EXPECT_EQ(deleted, 1);
  EXPECT_THAT(events_.queue, IsEmpty());
  EXPECT_TRUE(log_.contains(log_level::error, "Fail to send event PLAIN. Fail to initialize HTTP client."));
}

// --- how it ends ---

TEST_F(ZOLEventsTest, nothing_runs_in_an_empty_queue) {
  // Verifies that polling an empty queue is over at once.
  EXPECT_FALSE(events_.poll_send_events());
  EXPECT_FALSE(events_.resend_waits);
}

TEST_F(ZOLEventsTest, waiting_event_is_not_polled) {
  // Verifies that polling passes over an event that waits, with a line of its state.
  const PlainEvent& event = add(new PlainEvent);
  EXPECT_FALSE(events_.poll_send_events());
  EXPECT_THAT(events_.queue, SizeIs(1));
  EXPECT_TRUE(log_.contains(log_level::debug, "poll_send_events: event " + pointer_text(&event) +
                                                  " was not sent and is not running"));
}

TEST_F(ZOLEventsTest, answered_event_leaves) {
  // Verifies the polling of an event from its start to the answer, and its lines.
  server_.answer_with({.body = "thank you"});
  const std::string name = pointer_text(&add(new PlainEvent(true, true)));
  ASSERT_TRUE(events_.send_events());
  EXPECT_TRUE(events_.poll_send_events());
  EXPECT_TRUE(
      log_.contains(log_level::debug, "poll_send_events: event " + name + " was sent and is not running"));
  EXPECT_TRUE(log_.contains(log_level::debug,
                            "poll_send_events: event " + name + " is still running. Keep polling."));
  poll_to_end();
  EXPECT_TRUE(
      log_.contains(log_level::debug, "poll_send_events: event " + name + " was sent and is running"));
  EXPECT_TRUE(
      log_.contains(log_level::debug, "poll_send_events: event " + name + " was sent. Remove from queue."));
  EXPECT_THAT(events_.queue, IsEmpty());
  EXPECT_THAT(server_.requests(), SizeIs(1));
  EXPECT_FALSE(events_.resend_waits);
}

TEST_F(ZOLEventsTest, any_status_ends_an_event) {
  // Verifies that an answer of any status ends even an event that may be sent again.
  for (const int status : {500, 503, 404, 304, 403}) {
    server_.answer_with({.status = status});
    add(new PlainEvent(true, true));
    ASSERT_TRUE(events_.send_events());
    poll_to_end();
    EXPECT_THAT(events_.queue, IsEmpty()) << status;
    EXPECT_FALSE(events_.resend_waits);
  }
  EXPECT_THAT(server_.requests(), SizeIs(5));
}

TEST_F(ZOLEventsTest, transfer_without_an_answer) {
  // Verifies that after a refused connection a resendable event waits again, no longer immediate, and any
  // other one is gone.
  set_url(refusing_url());
  PlainEvent& again = add(new PlainEvent(true, true));
  add(new PlainEvent(false, true));
  ASSERT_TRUE(events_.send_events());
  poll_to_end();
  ASSERT_THAT(events_.queue, SizeIs(1));
  EXPECT_EQ(events_.queue[0].get(), &again);
  EXPECT_TRUE(events_.resend_waits);
  EXPECT_FALSE(again.in_progress);
  EXPECT_FALSE(again.immediate);
  EXPECT_EQ(events_.next_time_get_ms(), suppression_ms);
  EXPECT_FALSE(events_.send_events());
}

TEST_F(ZOLEventsTest, resent_event_arrives) {
  // Verifies that a resendable event is posted again and again, a suppression time apart, until it is
  // answered.
  set_url(refusing_url());
  PlainEvent& event = add(new PlainEvent(true, true));
  event.number = 8;
  ASSERT_TRUE(events_.send_events());
  poll_to_end();
  for (int attempt = 0; attempt < 3; ++attempt) {
    clock_.advance_ms(suppression_ms - 1);
    EXPECT_FALSE(events_.send_events());
    clock_.advance_ms(1);
    EXPECT_TRUE(events_.send_events());
    poll_to_end();
    ASSERT_THAT(events_.queue, SizeIs(1)) << attempt;
  }
  EXPECT_EQ(event.completions, 4);
  set_url(server_.url());
  clock_.advance_ms(suppression_ms);
  ASSERT_TRUE(events_.send_events());
  poll_to_end();
  EXPECT_THAT(events_.queue, IsEmpty());
  EXPECT_EQ(only_posted().At("eventBody").At("number").AsInt(), 8);
}

TEST_F(ZOLEventsTest, broken_connection) {
  // Verifies that a connection that breaks without an answer counts as none.
  server_.answer_with({.kind = zol_test::HttpAnswer::Kind::reset});
  add(new PlainEvent(true, true));
  add(new PlainEvent(false, true)).number = 1;
  server_.answer_with({.kind = zol_test::HttpAnswer::Kind::reset});
  ASSERT_TRUE(events_.send_events());
  poll_to_end();
  ASSERT_THAT(events_.queue, SizeIs(1));
  EXPECT_TRUE(events_.queue[0]->resendable);
}

TEST_F(ZOLEventsTest, unsigned_event_waits_again) {
  // Verifies that an event that couldn't be signed never leaves, and waits again when it may be sent again.
  config_->set(config_text("", "\"node-7\"", "60000",
                           "hqs_receiver_url = \"" + server_.url() + "\"; event_suppression_ms = 1000; "));
  add(new PlainEvent(true, true));
  ASSERT_TRUE(events_.send_events());
  poll_to_end();
  EXPECT_THAT(events_.queue, SizeIs(1));
  EXPECT_TRUE(events_.resend_waits);
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(ZOLEventsTest, client_that_fails) {
  // Verifies that an event whose client libcurl refuses to drive is dropped, resendable or not.
  add(new PlainEvent(true, true));
  ASSERT_TRUE(events_.send_events());
  Faults faults;
  faults.perform_result = CURLM_INTERNAL_ERROR;
  EXPECT_FALSE(events_.poll_send_events());
  EXPECT_THAT(events_.queue, IsEmpty());
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to send event: PLAIN. HTTP client error."));
}

TEST_F(ZOLEventsTest, running_event_keeps_the_poll) {
  // Verifies that polling goes on while one of several is running.
  server_.answer_with({.kind = zol_test::HttpAnswer::Kind::hang});
  add(new PlainEvent(false, true));
  add(new PlainEvent);
  EXPECT_FALSE(events_.send_events());
  while (server_.requests().empty()) {
    ASSERT_TRUE(events_.poll_send_events());
    curl_multi_poll(events_.queue.front()->multi.get(), nullptr, 0, 5, nullptr);
  }
  EXPECT_TRUE(events_.poll_send_events());
  EXPECT_THAT(events_.queue, SizeIs(2));
}

TEST_F(ZOLEventsTest, resend_state) {
  // Verifies what resend() changes.
  PlainEvent event(true, true);
  event.in_progress = true;
  event.resend();
  EXPECT_FALSE(event.in_progress);
  EXPECT_FALSE(event.immediate);
  EXPECT_TRUE(event.resendable);
}

}  // namespace
