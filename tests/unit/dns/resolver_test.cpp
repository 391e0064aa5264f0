#include "dns/resolver.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "dns_fixture.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

using zol::Resolver;
using zol_test::Bytes;
using zol_test::LogCapture;
using zol_test::no_answer;
using zol_test::Reply;
using zol_test::ScriptedServer;
using Datagrams = std::vector<Bytes>;
using Ips = std::list<std::string>;

namespace {

constexpr unsigned long_ms = 15000;
constexpr unsigned short_ms = 30;
const char* const host = "www.example.net";

// What a request came to.
struct Result {
  static void cb(bool failed, const char* cname, int ttl, Ips& ips, void* self) {
    auto* result = static_cast<Result*>(self);
    ++result->calls;
    result->failed = failed;
    result->has_cname = cname != nullptr;
    result->cname = cname != nullptr ? cname : "";
    result->ttl = ttl;
    result->ips = ips;
    ips.clear();  // allowed, and without effect on others
  }
  int calls = 0;
  bool failed = false;
  bool has_cname = false;
  std::string cname;
  int ttl = 0;
  Ips ips;
};

Datagrams one_address(const Bytes& query) {
  return {Reply(query).a("192.0.2.1", 60).bytes};
}

Datagrams two_addresses(const Bytes& query) {
  return {Reply(query).a("192.0.2.1", 60).a("192.0.2.2", 60).bytes};
}

Datagrams server_failure(const Bytes& query) {
  return {Reply(query).code(2).bytes};
}

class ResolverTest : public zol_test::DnsTest {
 protected:
  // Asks and waits for the answer; whether there was a handle.
  bool resolve(Resolver& resolver, const std::string& name) {
    result = Result();
    void* handle = resolver.getaddrinfo_async(name, Result::cb, &result);
    EXPECT_EQ(result.calls, handle == nullptr ? 1 : 0);
    EXPECT_TRUE(run_until([this] { return result.calls > 0; }));
    run_ready();
    EXPECT_EQ(result.calls, 1);
    return handle != nullptr;
  }

  Result result;
  LogCapture log;
};

// Verifies that the parameters are told, with the cache on and off.
TEST_F(ResolverTest, ParametersAreTold) {
  const Resolver on(true, 2, 3000, 60);
  EXPECT_TRUE(
      log.contains("Resolver has been created: params: NS-Timeout-3000 (ms), Retries - 2 , MAX-TTL-60 (sec), "
                   "cache is  Enabled"))
      << log.all();
  const Resolver off(false, 0, 1000, 0);
  EXPECT_TRUE(log.contains("cache is  Disabled")) << log.all();
}

// Verifies that a literal address is answered at once and touches neither cache nor network.
TEST_F(ResolverTest, LiteralAddress) {
  const ScriptedServer server("127.0.0.1", one_address);
  Resolver resolver(true, 0, long_ms, 0);
  EXPECT_FALSE(resolve(resolver, "192.0.2.77"));
  EXPECT_FALSE(result.failed);
  EXPECT_FALSE(result.has_cname);
  EXPECT_EQ(result.ttl, -1);
  EXPECT_EQ(result.ips, Ips{"192.0.2.77"});
  EXPECT_EQ(server.queries, 0);
  EXPECT_TRUE(zol::DNSCache::instance()->answers.empty());
}

// Verifies that a name of the node's host file is answered at once with a time to live of 3600.
TEST_F(ResolverTest, StaticName) {
  zol_test::write_hosts("192.0.2.10 www.example.net\n");
  const ScriptedServer server("127.0.0.1", one_address);
  Resolver resolver(true, 0, long_ms, 5);
  EXPECT_FALSE(resolve(resolver, host));
  EXPECT_FALSE(result.failed);
  EXPECT_FALSE(result.has_cname);
  EXPECT_EQ(result.ttl, 3600);
  EXPECT_EQ(result.ips, Ips{"192.0.2.10"});
  EXPECT_EQ(server.queries, 0);
  EXPECT_TRUE(log.contains("Static resolutions for [www.example.net]")) << log.all();
}

// Verifies that a name is asked for over the network, with a handle until the answer is there.
TEST_F(ResolverTest, AsksTheServer) {
  const ScriptedServer server("127.0.0.1", one_address);
  Resolver resolver(false, 0, long_ms, 0);
  EXPECT_TRUE(resolve(resolver, host));
  EXPECT_FALSE(result.failed);
  EXPECT_EQ(result.ttl, 60);
  EXPECT_EQ(result.ips, Ips{"192.0.2.1"});
  EXPECT_TRUE(resolve(resolver, host));
  EXPECT_EQ(server.queries, 2) << "nothing is kept without the cache";
  EXPECT_TRUE(zol::DNSCache::instance()->answers.empty());
}

// Verifies that a cached answer of two addresses alternates between calls, whatever a caller does to its
// list.
TEST_F(ResolverTest, CachedAnswerRotates) {
  const ScriptedServer server("127.0.0.1", two_addresses);
  Resolver resolver(true, 0, long_ms, 0);
  EXPECT_TRUE(resolve(resolver, host));
  const Ips first = {"192.0.2.1", "192.0.2.2"};
  const Ips second = {"192.0.2.2", "192.0.2.1"};
  EXPECT_EQ(result.ips, first);
  for (const Ips& expected : {first, second, first}) {
    EXPECT_FALSE(resolve(resolver, host));
    EXPECT_FALSE(result.failed);
    EXPECT_EQ(result.ips, expected);
    EXPECT_GE(result.ttl, 40);
    EXPECT_LE(result.ttl, 60);
  }
  EXPECT_EQ(server.queries, 1);
  EXPECT_TRUE(log.contains("DNS results for [www.example.net] in cache")) << log.all();
}

// Verifies that the cache is one for the process, and that a resolver without it doesn't look there.
TEST_F(ResolverTest, CacheIsShared) {
  const ScriptedServer server("127.0.0.1", one_address);
  Resolver one(true, 0, long_ms, 0);
  Resolver other(true, 0, long_ms, 0);
  Resolver without(false, 0, long_ms, 0);
  EXPECT_TRUE(resolve(one, host));
  EXPECT_FALSE(resolve(other, host));
  EXPECT_TRUE(resolve(without, host));
}

// Verifies that an expired answer is asked for again.
TEST_F(ResolverTest, ExpiredAnswerIsAskedForAgain) {
  const ScriptedServer server("127.0.0.1", one_address);
  Resolver resolver(true, 0, long_ms, 0);
  EXPECT_TRUE(resolve(resolver, host));
  zol::DNSCache::instance()->answers.at(host).expires_ms = 1;
  EXPECT_TRUE(resolve(resolver, host));
  EXPECT_EQ(server.queries, 2);
}

// Verifies that a reply with only a CNAME gives an empty list and the name, from the cache too.
TEST_F(ResolverTest, CnameOnly) {
  const ScriptedServer server("127.0.0.1", [](const Bytes& query) {
    return Datagrams{Reply(query).cname("c.example.org", 9).bytes};
  });
  Resolver resolver(true, 0, long_ms, 0);
  for (const bool over_network : {true, false}) {
    EXPECT_EQ(resolve(resolver, host), over_network);
    EXPECT_FALSE(result.failed);
    EXPECT_EQ(result.cname, "c.example.org");
    EXPECT_TRUE(result.ips.empty());
  }
}

// Verifies that of a chain of names the last one is the canonical name.
TEST_F(ResolverTest, LastNameOfChainIsCanonical) {
  const ScriptedServer server("127.0.0.1", [](const Bytes& query) {
    return Datagrams{
        Reply(query).cname("b.example.org", 9).cname("c.example.org", 9).a("192.0.2.1", 9).bytes};
  });
  Resolver resolver(false, 0, long_ms, 0);
  resolve(resolver, host);
  EXPECT_EQ(result.cname, "c.example.org");
  EXPECT_EQ(result.ips, Ips{"192.0.2.1"});
}

// Verifies that a time to live above the limit is cut to it.
TEST_F(ResolverTest, TtlLimit) {
  const ScriptedServer server("127.0.0.1", one_address);
  Resolver resolver(false, 0, long_ms, 20);
  resolve(resolver, host);
  EXPECT_EQ(result.ttl, 20);
}

// Verifies that a transient failure is tried again as often as asked, and then told; nothing is cached.
TEST_F(ResolverTest, TransientFailureIsRetried) {
  const ScriptedServer server("127.0.0.1", server_failure);
  Resolver resolver(true, 2, long_ms, 0);
  EXPECT_TRUE(resolve(resolver, host));
  EXPECT_TRUE(result.failed);
  EXPECT_FALSE(result.has_cname);
  EXPECT_EQ(result.ttl, -1);
  EXPECT_TRUE(result.ips.empty());
  EXPECT_EQ(server.queries, 3);
  EXPECT_EQ(log.count("response_function_cb Got error in DNS response,  try again ..."), 2) << log.all();
  EXPECT_TRUE(zol::DNSCache::instance()->answers.empty());
}

// Verifies that a retry that succeeds is a success.
TEST_F(ResolverTest, RetrySucceeds) {
  int left = 1;
  const ScriptedServer server("127.0.0.1", [&left](const Bytes& query) {
    return left-- > 0 ? server_failure(query) : one_address(query);
  });
  Resolver resolver(false, 2, long_ms, 0);
  resolve(resolver, host);
  EXPECT_FALSE(result.failed);
  EXPECT_EQ(result.ips, Ips{"192.0.2.1"});
  EXPECT_EQ(server.queries, 2);
}

// Verifies that silence is a transient failure.
TEST_F(ResolverTest, SilenceIsRetried) {
  const ScriptedServer server("127.0.0.1", no_answer);
  Resolver resolver(false, 1, short_ms, 0);
  resolve(resolver, host);
  EXPECT_TRUE(result.failed);
  EXPECT_EQ(server.queries, 2);
}

// Verifies that a name that doesn't exist, or has no address, fails without another try.
TEST_F(ResolverTest, FinalFailureIsNotRetried) {
  for (const unsigned char code : {3, 0}) {
    const ScriptedServer server(
        "127.0.0.1", [code](const Bytes& query) { return Datagrams{Reply(query).code(code).bytes}; });
    Resolver resolver(true, 5, long_ms, 0);
    resolve(resolver, host);
    EXPECT_TRUE(result.failed);
    EXPECT_EQ(server.queries, 1);
    EXPECT_TRUE(zol::DNSCache::instance()->answers.empty());
  }
}

// Verifies that cancelling nothing only logs.
TEST_F(ResolverTest, CancelOfNothingOnlyLogs) {
  Resolver::cancel_request(nullptr);
  EXPECT_TRUE(log.contains("cancel_request"));
  EXPECT_TRUE(log.contains("Received NULL context")) << log.all();
}

// Verifies that a request cancelled before it starts, or in flight, is never answered.
TEST_F(ResolverTest, CancelledRequestIsSilent) {
  const ScriptedServer server("127.0.0.1", one_address);
  Resolver resolver(true, 0, long_ms, 0);
  Resolver::cancel_request(resolver.getaddrinfo_async(host, Result::cb, &result));
  void* in_flight = resolver.getaddrinfo_async(host, Result::cb, &result);
  ASSERT_TRUE(run_until([&] { return server.queries == 1; }));
  Resolver::cancel_request(in_flight);
  run_ready();
  EXPECT_EQ(result.calls, 0);
  EXPECT_TRUE(zol::DNSCache::instance()->answers.empty());
}

// Verifies that a handle that is over is left alone.
TEST_F(ResolverTest, CancelOfFinishedRequestIsHarmless) {
  const ScriptedServer server("127.0.0.1", one_address);
  Resolver resolver(false, 0, long_ms, 0);
  void* handle = resolver.getaddrinfo_async(host, Result::cb, &result);
  ASSERT_TRUE(run_until([this] { return result.calls > 0; }));
  Resolver::cancel_request(handle);
  EXPECT_TRUE(log.contains("cancel_request: The request is over")) << log.all();
}

// Verifies that a callback may cancel its own request, which is over, and another one, which is dropped.
TEST_F(ResolverTest, CancelInsideCallback) {
  struct Owner {
    static void cb(bool, const char*, int, Ips&, void* self) {
      auto* owner = static_cast<Owner*>(self);
      ++owner->calls;
      Resolver::cancel_request(owner->own);
      Resolver::cancel_request(owner->other);
    }
    void* own = nullptr;
    void* other = nullptr;
    int calls = 0;
  } owner;
  const ScriptedServer server("127.0.0.1", [](const Bytes& query) {
    // Only the shorter name is answered; the other stays in flight.
    return query.size() < zol_test::make_query(0, host).size() ? one_address(query) : Datagrams{};
  });
  Resolver resolver(false, 0, long_ms, 0);
  owner.own = resolver.getaddrinfo_async("a.example.net", Owner::cb, &owner);
  owner.other = resolver.getaddrinfo_async(host, Result::cb, &result);
  ASSERT_TRUE(run_until([&] { return owner.calls == 1; }));
  run_ready();
  EXPECT_EQ(result.calls, 0);
}

// Verifies that a callback may start the next request and delete the resolver.
TEST_F(ResolverTest, CallbackMayDeleteResolver) {
  struct Owner {
    static void cb(bool, const char*, int, Ips&, void* self) {
      auto* owner = static_cast<Owner*>(self);
      if (++owner->calls == 1)
        owner->resolver->getaddrinfo_async(host, cb, owner);
      else
        owner->resolver.reset();
    }
    std::unique_ptr<Resolver> resolver = std::make_unique<Resolver>(false, 0, long_ms, 0);
    int calls = 0;
  } owner;
  const ScriptedServer server("127.0.0.1", one_address);
  owner.resolver->getaddrinfo_async(host, Owner::cb, &owner);
  ASSERT_TRUE(run_until([&] { return owner.resolver == nullptr; }));
  run_ready();
  EXPECT_EQ(owner.calls, 2);
}

// Verifies that a callback that is called at once may change the cache and delete the resolver.
TEST_F(ResolverTest, CallbackAtOnceMayDeleteResolver) {
  struct Owner {
    static void cb(bool, const char*, int, Ips& ips, void* self) {
      auto* owner = static_cast<Owner*>(self);
      owner->ips = ips;
      zol::DNSCache::instance()->answers.clear();
      owner->resolver.reset();
    }
    std::unique_ptr<Resolver> resolver = std::make_unique<Resolver>(true, 0, long_ms, 0);
    Ips ips;
  } owner;
  zol::DNSCache::instance()->save_answer(host, 600, {"192.0.2.5", "192.0.2.6"}, "");
  EXPECT_EQ(owner.resolver->getaddrinfo_async(host, Owner::cb, &owner), nullptr);
  EXPECT_EQ(owner.ips, (Ips{"192.0.2.5", "192.0.2.6"}));
}

// Verifies that a resolver that goes takes its requests along and leaves those of others.
TEST_F(ResolverTest, DestructorCancelsOwnRequests) {
  const ScriptedServer server("127.0.0.1", one_address);
  Result dropped;
  Resolver kept(false, 0, long_ms, 0);
  {
    Resolver gone(false, 0, long_ms, 0);
    gone.getaddrinfo_async(host, Result::cb, &dropped);
    gone.getaddrinfo_async("a.example.net", Result::cb, &dropped);
    kept.getaddrinfo_async(host, Result::cb, &result);
  }
  ASSERT_TRUE(run_until([this] { return result.calls > 0; }));
  run_ready();
  EXPECT_EQ(dropped.calls, 0);
  EXPECT_EQ(server.queries, 1);
}

// Verifies that only the node's own server is asked once that is chosen.
TEST_F(ResolverTest, LocalServerOnly) {
  use_servers({"127.0.0.2"});
  const ScriptedServer local("127.0.0.1", one_address);
  const ScriptedServer other("127.0.0.2", one_address);
  Resolver::use_local_ns();
  Resolver resolver(false, 0, long_ms, 0);
  resolve(resolver, host);
  EXPECT_EQ(local.queries, 1);
  EXPECT_EQ(other.queries, 0);
}

}  // namespace
