#include "dns/zol_resolver.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "dns_fixture.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

using zol::ZOLResolver;
using zol::ZOLResponse;
using zol_test::Bytes;
using zol_test::LogCapture;
using zol_test::no_answer;
using zol_test::Reply;
using zol_test::ScriptedServer;
using Datagrams = std::vector<Bytes>;
using Texts = std::vector<std::string>;

namespace {

constexpr unsigned long_ms = 15000;  // never reached by a test that passes
constexpr unsigned short_ms = 30;
constexpr unsigned chatty_ms = 300;
const char* const host = "www.example.net";

// What a query came to.
struct Result {
  static void cb(ZOLResponse& found, void* self) {
    auto* result = static_cast<Result*>(self);
    ++result->calls;
    result->response = found;
  }
  Texts addresses() const {
    Texts list;
    for (const in_addr& address : response.addresses)
      list.emplace_back(inet_ntoa(address));
    return list;
  }
  bool done() const { return calls > 0; }

  int calls = 0;
  ZOLResponse response;
};

Datagrams answer(const Bytes& query) {
  return {Reply(query).a("192.0.2.1", 60).bytes};
}

class ZolResolver : public zol_test::DnsTest {
 protected:
  void ask(const std::string& name, unsigned timeout_ms, unsigned max_ttl = 0) {
    new ZOLResolver(name, timeout_ms, max_ttl, Result::cb, &result);  // deletes itself
    ASSERT_TRUE(run_until([this] { return result.done(); }));
    run_ready();
    EXPECT_EQ(result.calls, 1);
  }

  Result result;
  LogCapture log;
};

// Verifies that a query asks for an A record of the name, and that its answer arrives.
TEST_F(ZolResolver, AsksForAddress) {
  const ScriptedServer server("127.0.0.1", answer);
  ask(host, long_ms);
  EXPECT_EQ(result.addresses(), Texts{"192.0.2.1"});
  EXPECT_EQ(result.response.status, ZOLResponse::none);
  EXPECT_EQ(result.response.ttl, 60);
  const Bytes expected = zol_test::make_query(zol_test::id_of(server.last_query), host);
  EXPECT_EQ(server.last_query, expected);
}

// Verifies that queries don't share an id.
TEST_F(ZolResolver, IdsDiffer) {
  const ScriptedServer server("127.0.0.1", answer);
  std::vector<std::uint16_t> ids;
  for (int i = 0; i < 8; ++i) {
    result = Result();
    ask(host, long_ms);
    ids.push_back(zol_test::id_of(server.last_query));
  }
  EXPECT_FALSE(std::all_of(ids.begin(), ids.end(), [&](std::uint16_t id) { return id == ids.front(); }));
}

// Verifies that the limit of the time to live reaches the answer.
TEST_F(ZolResolver, TtlLimit) {
  const ScriptedServer server("127.0.0.1", answer);
  ask(host, long_ms, 25);
  EXPECT_EQ(result.response.ttl, 25);
}

// Verifies that a name that doesn't exist is a failure, told by the first server that says so.
TEST_F(ZolResolver, NoSuchName) {
  use_servers({"127.0.0.1", "127.0.0.2"});
  const ScriptedServer first("127.0.0.1",
                             [](const Bytes& query) { return Datagrams{Reply(query).code(3).bytes}; });
  const ScriptedServer second("127.0.0.2", answer);
  ask(host, long_ms);
  EXPECT_EQ(result.response.status, ZOLResponse::failure);
  EXPECT_TRUE(result.response.addresses.empty());
  EXPECT_EQ(second.queries, 0);
  EXPECT_EQ(servers(), (Texts{"127.0.0.1", "127.0.0.2"}));
}

// Verifies that a server that fails to answer is passed over and demoted.
TEST_F(ZolResolver, ServerFailureMovesOn) {
  for (const unsigned char code : {2, 5}) {
    use_servers({"127.0.0.1", "127.0.0.2"});
    const ScriptedServer first(
        "127.0.0.1", [code](const Bytes& query) { return Datagrams{Reply(query).code(code).bytes}; });
    const ScriptedServer second("127.0.0.2", answer);
    result = Result();
    ask(host, long_ms);
    EXPECT_EQ(result.addresses(), Texts{"192.0.2.1"});
    EXPECT_EQ(result.response.status, ZOLResponse::none);
    EXPECT_EQ(servers(), (Texts{"127.0.0.2", "127.0.0.1"}));
  }
}

// Verifies that a server that times out is last on the next query.
TEST_F(ZolResolver, SilentServerIsDemoted) {
  use_servers({"127.0.0.1", "127.0.0.2"});
  const ScriptedServer silent("127.0.0.1", no_answer);
  const ScriptedServer good("127.0.0.2", answer);
  ask(host, short_ms);
  EXPECT_EQ(result.addresses(), Texts{"192.0.2.1"});
  EXPECT_TRUE(log.contains("eventcb: Connection timeout to server: 127.0.0.1")) << log.all();
  EXPECT_EQ(servers(), (Texts{"127.0.0.2", "127.0.0.1"}));
  result = Result();
  ask(host, short_ms);
  EXPECT_EQ(silent.queries, 1);
  EXPECT_EQ(good.queries, 2);
}

// Verifies that a server that isn't there is passed over and demoted.
TEST_F(ZolResolver, DeadServerIsDemoted) {
  use_servers({"127.0.0.1", "127.0.0.2"});
  const ScriptedServer good("127.0.0.2", answer);
  ask(host, long_ms);
  EXPECT_EQ(result.addresses(), Texts{"192.0.2.1"});
  EXPECT_TRUE(log.contains("eventcb: Connection error to server: 127.0.0.1")) << log.all();
  EXPECT_EQ(servers(), (Texts{"127.0.0.2", "127.0.0.1"}));
}

// Verifies that a server that can't be reached costs one server of the list, not two.
TEST_F(ZolResolver, UnreachableServerIsDemoted) {
  use_servers({"192.0.2.53", "127.0.0.2"});
  const ScriptedServer good("127.0.0.2", answer);
  ask(host, long_ms);
  EXPECT_EQ(result.addresses(), Texts{"192.0.2.1"});
  EXPECT_EQ(servers(), (Texts{"127.0.0.2", "192.0.2.53"}));
}

// Verifies that when no server is left the response is transient and empty, after each was asked once.
TEST_F(ZolResolver, NoServerLeft) {
  use_servers({"127.0.0.1", "127.0.0.2"});
  const ScriptedServer first("127.0.0.1",
                             [](const Bytes& query) { return Datagrams{Reply(query).code(2).bytes}; });
  const ScriptedServer second("127.0.0.2", no_answer);
  ask(host, short_ms);
  EXPECT_EQ(result.response.status, ZOLResponse::transient_error);
  EXPECT_TRUE(result.response.addresses.empty());
  EXPECT_TRUE(log.contains("start_resolver: No more nameservers to query")) << log.all();
  EXPECT_EQ(first.queries, 1);
  EXPECT_EQ(second.queries, 1);
}

// Verifies that an empty list of servers is transient.
TEST_F(ZolResolver, NoServers) {
  use_servers({});
  ask(host, long_ms);
  EXPECT_EQ(result.response.status, ZOLResponse::transient_error);
}

// Verifies that a reply that can't be used moves on: truncated, malformed, cut, empty.
TEST_F(ZolResolver, UnusableRepliesMoveOn) {
  const std::vector<std::pair<const char*, ScriptedServer::Script>> scripts = {
      {" Truncation occurred, hostname: www.example.net",
       [](const Bytes& query) { return Datagrams{Reply(query).a("192.0.2.66", 60).truncated().bytes}; }},
      {" Failed to parse msg, hostname: www.example.net",
       [](const Bytes& query) {
         Bytes bytes = Reply(query).a("192.0.2.66", 60).bytes;
         bytes.pop_back();
         return Datagrams{bytes};
       }},
      {" ERROR failed init parsing response. Incomplete buffer, hostname: www.example.net",
       [](const Bytes& query) { return Datagrams{Bytes(query.begin(), query.begin() + 6)}; }},
      {"on_readcb Failed to read, hostname: www.example.net",
       [](const Bytes&) { return Datagrams{Bytes{}}; }},
  };
  for (const auto& [text, script] : scripts) {
    use_servers({"127.0.0.1", "127.0.0.2"});
    const ScriptedServer first("127.0.0.1", script);
    const ScriptedServer second("127.0.0.2", answer);
    result = Result();
    log.clear();
    ask(host, long_ms);
    EXPECT_EQ(result.addresses(), Texts{"192.0.2.1"}) << text;
    EXPECT_TRUE(log.contains(text)) << log.all();
    EXPECT_EQ(servers(), (Texts{"127.0.0.2", "127.0.0.1"}));
  }
}

// Verifies that a reply with a foreign id is passed over and the right one behind it is taken, from the same
// server.
TEST_F(ZolResolver, ForeignReplyIsPassedOver) {
  const ScriptedServer server("127.0.0.1", [](const Bytes& query) {
    const auto other = static_cast<std::uint16_t>(zol_test::id_of(query) + 1);
    return Datagrams{Reply(query).id(other).a("192.0.2.66", 60).bytes, query,
                     Reply(query).a("192.0.2.1", 60).bytes};
  });
  ask(host, long_ms);
  EXPECT_EQ(result.addresses(), Texts{"192.0.2.1"});
  EXPECT_EQ(server.queries, 1);
}

// Verifies that foreign replies don't keep a query alive beyond its server's time.
TEST_F(ZolResolver, ForeignRepliesDoNotExtendTheWait) {
  struct Chatter {
    Chatter() : server("127.0.0.1", no_answer), timer(chat, this) { timer.add(-1, 2U, -1); }
    static void chat(int, short, void* self) {
      auto* chatter = static_cast<Chatter*>(self);
      if (chatter->server.queries == 0)
        return;
      const auto other = static_cast<std::uint16_t>(zol_test::id_of(chatter->server.last_query) + 1);
      chatter->server.send(Reply(chatter->server.last_query).id(other).a("192.0.2.66", 60).bytes);
    }
    ScriptedServer server;
    zol::ZOLEventLibEventPersistTimer timer;
  };
  use_servers({"127.0.0.1", "127.0.0.2"});
  const Chatter chatter;  // never silent for the whole of the time-out
  const ScriptedServer good("127.0.0.2", answer);
  ask(host, chatty_ms);
  EXPECT_EQ(result.addresses(), Texts{"192.0.2.1"});
  EXPECT_TRUE(log.contains("eventcb: Connection timeout to server: 127.0.0.1")) << log.all();
}

// Verifies that a time-out of 0 doesn't wait for ever.
TEST_F(ZolResolver, TimeoutOfZeroEnds) {
  const ScriptedServer silent("127.0.0.1", no_answer);
  ask(host, 0);
  EXPECT_EQ(result.response.status, ZOLResponse::transient_error);
}

// Verifies that a text that can be no host name fails without a query.
TEST_F(ZolResolver, ImpossibleNameFails) {
  const ScriptedServer server("127.0.0.1", answer);
  ask(std::string(64, 'x') + ".example.net", long_ms);
  EXPECT_EQ(result.response.status, ZOLResponse::failure);
  EXPECT_EQ(server.queries, 0);
}

// Verifies that a query that is deleted before it starts, or in flight, never calls back.
TEST_F(ZolResolver, DeletedQueryIsSilent) {
  const ScriptedServer server("127.0.0.1", answer);
  delete new ZOLResolver(host, long_ms, 0, Result::cb, &result);
  auto* in_flight = new ZOLResolver(host, long_ms, 0, Result::cb, &result);
  ASSERT_TRUE(run_until([&] { return server.queries == 1; }));
  delete in_flight;
  run_ready();
  EXPECT_EQ(result.calls, 0);
}

// Verifies that a callback may start the next query.
TEST_F(ZolResolver, CallbackStartsNextQuery) {
  struct Chain {
    static void cb(ZOLResponse&, void* self) {
      auto* chain = static_cast<Chain*>(self);
      if (++chain->calls < 3)
        new ZOLResolver(host, long_ms, 0, cb, chain);
    }
    int calls = 0;
  } chain;
  const ScriptedServer server("127.0.0.1", answer);
  new ZOLResolver(host, long_ms, 0, Chain::cb, &chain);
  EXPECT_TRUE(run_until([&] { return chain.calls == 3; }));
  EXPECT_EQ(server.queries, 3);
}

// Verifies that a query leaves by the node's way out, and that one to this machine may choose.
TEST_F(ZolResolver, SourceIsTheWayOut) {
  EXPECT_EQ(ZOLResolver::source_for(zol_test::address_of("8.8.8.8")), "127.9.9.9");
  EXPECT_EQ(ZOLResolver::source_for(zol_test::address_of("127.0.0.1")), "");
  EXPECT_EQ(ZOLResolver::source_for(zol_test::address_of("127.1.2.3")), "");
}

}  // namespace
