// Probes whose target goes through the resolver, over a scripted name server.
#include <gmock/gmock.h>

#include <memory>

#include "dns/resolver.h"
#include "tests/support/log_capture.h"
#include "tests/unit/dns/dns_fixture.h"
#include "tests/unit/probes/latency_probe_fixture.h"

namespace zol_test {
namespace {

constexpr const char* host = "station.test";
constexpr const char* failed_text = "resolve_complete_cb: Failed to state latency probe for station.test:0";

class ProbeResolveTest : public DnsTest {
 protected:
  ProbeResolveTest()
      : resolver_(std::make_unique<zol::Resolver>(false, 0, 60000, 0)), probe_(&sender_, host) {
    zol::Resolver::set_instance(resolver_.get());
  }

  static std::vector<Bytes> one_address(const Bytes& query) {
    return {Reply(query).a("127.0.0.9", 60).a("127.0.0.8", 60).bytes};
  }

  LogCapture log_;
  RecordingSender sender_;
  std::unique_ptr<zol::Resolver> resolver_;
  PlainProbe probe_;
};

// Verifies that the global resolver is null when none was named, and again after its end.
TEST_F(ProbeResolveTest, GlobalResolver) {
  EXPECT_EQ(zol::Resolver::instance(), resolver_.get());
  { const zol::Resolver other(false, 0, 1000, 0); }
  EXPECT_EQ(zol::Resolver::instance(), resolver_.get());
  resolver_.reset();
  EXPECT_EQ(zol::Resolver::instance(), nullptr);
}

// Verifies that a literal address goes through the resolver too, and out at once.
TEST_F(ProbeResolveTest, LiteralAddress) {
  probe_.target = "127.0.0.7";
  EXPECT_TRUE(probe_.start());
  EXPECT_EQ(probe_.dst_ip, "127.0.0.7");
  EXPECT_EQ(probe_.resolve_handle, nullptr);
  EXPECT_EQ(sender_.sent, 1);
}

// Verifies that a name that resolves late sends its packet then, to the first address.
TEST_F(ProbeResolveTest, ResolvesLate) {
  ScriptedServer server("127.0.0.1", no_answer);
  EXPECT_TRUE(probe_.start());
  EXPECT_NE(probe_.resolve_handle, nullptr);
  ASSERT_TRUE(run_until([&] { return server.queries == 1; }));
  EXPECT_EQ(sender_.sent, 0);
  EXPECT_TRUE(probe_.in_progress);
  EXPECT_EQ(probe_.get_latency(), -1);
  const timespec before = wall_clock();
  server.send(one_address(server.last_query).front());
  ASSERT_TRUE(run_until([&] { return sender_.sent == 1; }));
  EXPECT_EQ(probe_.dst_ip, "127.0.0.9");
  EXPECT_EQ(probe_.resolve_handle, nullptr);
  EXPECT_TRUE(probe_.in_progress);
  EXPECT_TRUE(is_before(before, probe_.start_time));
}

// Verifies that an answer after the probe's end reaches nobody.
TEST_F(ProbeResolveTest, ResolvesAfterTheEnd) {
  ScriptedServer server("127.0.0.1", no_answer);
  probe_.start();
  ASSERT_TRUE(run_until([&] { return server.queries == 1; }));
  EXPECT_TRUE(probe_.stop(false));
  EXPECT_EQ(probe_.resolve_handle, nullptr);
  server.send(one_address(server.last_query).front());
  run_ready();
  EXPECT_EQ(sender_.sent, 0);
  EXPECT_EQ(probe_.dst_ip, "");
  EXPECT_FALSE(probe_.in_progress);
}

// Verifies that a probe that is deleted while its name is looked up takes the question back.
TEST_F(ProbeResolveTest, DeletedWhileResolving) {
  ScriptedServer server("127.0.0.1", no_answer);
  auto probe = std::make_unique<PlainProbe>(&sender_, host);
  probe->start();
  ASSERT_TRUE(run_until([&] { return server.queries == 1; }));
  probe.reset();
  server.send(one_address(server.last_query).front());
  run_ready();
  EXPECT_EQ(sender_.sent, 0);
}

// Verifies that a probe whose name doesn't resolve stays in progress without a result, and can be stopped.
TEST_F(ProbeResolveTest, NameThatDoesNotResolve) {
  const ScriptedServer server(
      "127.0.0.1", [](const Bytes& query) { return std::vector<Bytes>{Reply(query).code(3).bytes}; });
  EXPECT_TRUE(probe_.start());
  ASSERT_TRUE(run_until([&] { return log_.contains(log_level::warning, failed_text); }));
  EXPECT_TRUE(probe_.in_progress);
  EXPECT_EQ(probe_.resolve_handle, nullptr);
  EXPECT_EQ(probe_.get_latency(), -1);
  EXPECT_EQ(sender_.sent, 0);
  EXPECT_TRUE(probe_.stop(false));
}

// Verifies that an answer without an address is none.
TEST_F(ProbeResolveTest, AnswerWithoutAnAddress) {
  const ScriptedServer server("127.0.0.1", [](const Bytes& query) {
    return std::vector<Bytes>{Reply(query).cname("elsewhere.test", 60).bytes};
  });
  probe_.start();
  ASSERT_TRUE(run_until([&] { return log_.contains(log_level::warning, failed_text); }));
  EXPECT_TRUE(probe_.in_progress);
  EXPECT_EQ(sender_.sent, 0);
}

// Verifies that a send that fails behind the resolver ends the probe, when its start has long been well.
TEST_F(ProbeResolveTest, FailedSend) {
  const ScriptedServer server("127.0.0.1", one_address);
  sender_.result = false;
  EXPECT_TRUE(probe_.start());
  ASSERT_TRUE(run_until([&] { return sender_.sent == 1; }));
  EXPECT_FALSE(probe_.in_progress);
  EXPECT_TRUE(probe_.send_failed);
  EXPECT_TRUE(
      log_.contains(log_level::warning, "probe_start: Failed to state latency probe for 127.0.0.9:0"));
}

// Verifies that a name of the host file goes out at once.
TEST_F(ProbeResolveTest, HostFile) {
  write_hosts("127.0.0.5 station.test\n");
  EXPECT_TRUE(probe_.start());
  EXPECT_EQ(probe_.dst_ip, "127.0.0.5");
  EXPECT_EQ(sender_.sent, 1);
}

// Verifies that a probe can be stopped when the resolver has gone before it.
TEST_F(ProbeResolveTest, ResolverGone) {
  ScriptedServer server("127.0.0.1", no_answer);
  probe_.start();
  resolver_.reset();
  EXPECT_TRUE(probe_.stop(false));
  EXPECT_FALSE(probe_.in_progress);
}

}  // namespace
}  // namespace zol_test
