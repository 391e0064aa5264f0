#include "dns/dns_reply.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dns_fixture.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

using zol::dns_reply_t;
using zol::ZOLResponse;
using zol_test::Bytes;
using zol_test::LogCapture;
using zol_test::make_query;
using zol_test::Reply;

namespace {

constexpr std::uint16_t query_id = 0x1234;
const char* const host = "www.example.net";

class DnsReply : public testing::Test {
 protected:
  dns_reply_t parse(const Bytes& bytes, unsigned max_ttl = 0) {
    response = ZOLResponse();
    // A block of just that size, so that a byte too many is found out.
    const std::unique_ptr<unsigned char[]> exact(new unsigned char[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), exact.get());
    return zol::parse_dns_reply(exact.get(), bytes.size(), query_id, host, max_ttl, response);
  }
  std::vector<std::string> addresses() const {
    std::vector<std::string> list;
    for (const in_addr& address : response.addresses)
      list.emplace_back(inet_ntoa(address));
    return list;
  }
  static Reply reply() { return Reply(make_query(query_id, host)); }

  ZOLResponse response;
  LogCapture log;
};

using Texts = std::vector<std::string>;

// Verifies that a reply's bytes give the address and the time to live that they hold.
TEST_F(DnsReply, AddressFromBytes) {
  const Bytes bytes = {
      0x12, 0x34,              // id
      0x81, 0x80,              // a reply, recursion desired and available
      0x00, 0x01,              // one question
      0x00, 0x01,              // one answer
      0x00, 0x00, 0x00, 0x00,  // nothing else
      3,    'w',  'w',  'w',  7, 'e', 'x', 'a', 'm', 'p', 'l', 'e',  // the question's name ...
      3,    'n',  'e',  't',  0,                                     // ... to its root
      0x00, 0x01, 0x00, 0x01,                                        // A, IN
      0xc0, 0x0c,                                                    // the name at offset 12
      0x00, 0x01, 0x00, 0x01,                                        // A, IN
      0x00, 0x00, 0x01, 0x2c,                                        // 300 seconds
      0x00, 0x04, 192,  0,    2, 7,                                  // four bytes of address
  };
  EXPECT_EQ(parse(bytes), dns_reply_t::answer);
  EXPECT_EQ(addresses(), Texts{"192.0.2.7"});
  EXPECT_TRUE(response.cnames.empty());
  EXPECT_EQ(response.ttl, 300);
  EXPECT_EQ(response.status, ZOLResponse::none);
  EXPECT_TRUE(log.contains(" read 'A', using ttl from parsed record: 300, (ttl from c-tor = 0")) << log.all();
  EXPECT_TRUE(log.contains("resolution acquired [ 192.0.2.7 : 300 ] for hostname: www.example.net"));
  EXPECT_TRUE(log.contains(" Setting resoponse min ttl with value: 300"));
}

// Verifies that addresses keep their order and that the smallest time to live counts, each change told.
TEST_F(DnsReply, SmallestTtlCounts) {
  EXPECT_EQ(parse(reply().a("192.0.2.1", 50).a("192.0.2.2", 20).a("192.0.2.3", 90).bytes),
            dns_reply_t::answer);
  EXPECT_EQ(addresses(), (Texts{"192.0.2.1", "192.0.2.2", "192.0.2.3"}));
  EXPECT_EQ(response.ttl, 20);
  EXPECT_EQ(log.count(" Setting resoponse min ttl with value: "), 2) << log.all();
}

// Verifies that a time to live above the limit is cut to it, and that a limit of 0 cuts nothing.
TEST_F(DnsReply, TtlIsHeldToLimit) {
  parse(reply().a("192.0.2.1", 86400).bytes, 60);
  EXPECT_EQ(response.ttl, 60);
  parse(reply().a("192.0.2.1", 59).bytes, 60);
  EXPECT_EQ(response.ttl, 59);
  parse(reply().a("192.0.2.1", 86400).bytes, 0);
  EXPECT_EQ(response.ttl, 86400);
}

// Verifies that a time to live with its top bit set counts as 0 (RFC 2181, section 8).
TEST_F(DnsReply, TtlWithTopBitIsZero) {
  parse(reply().a("192.0.2.1", 0x80000001).bytes);
  EXPECT_EQ(response.ttl, 0);
}

// Verifies that a CNAME alone gives the name and no address.
TEST_F(DnsReply, CnameOnly) {
  EXPECT_EQ(parse(reply().cname("edge.example.org", 30).bytes), dns_reply_t::answer);
  EXPECT_TRUE(response.addresses.empty());
  EXPECT_EQ(response.cnames, std::list<std::string>{"edge.example.org"});
  EXPECT_EQ(response.ttl, 30);
  EXPECT_TRUE(
      log.contains(" CNAME resolution acquired [ edge.example.org : 30 ] for hostname: www.example.net"));
}

// Verifies that a chain of names is kept in order beside the address, with the smallest time to live.
TEST_F(DnsReply, ChainOfNames) {
  parse(reply().cname("a.example.org", 30).cname("b.example.org", 10).a("192.0.2.1", 60).bytes);
  EXPECT_EQ(response.cnames, (std::list<std::string>{"a.example.org", "b.example.org"}));
  EXPECT_EQ(addresses(), Texts{"192.0.2.1"});
  EXPECT_EQ(response.ttl, 10);
}

// Verifies that a CNAME that can't be read is told and skipped.
TEST_F(DnsReply, BrokenCnameIsSkipped) {
  EXPECT_EQ(parse(reply().record(5, 30, {0xc0, 0xff}).a("192.0.2.1", 60).bytes), dns_reply_t::answer);
  EXPECT_TRUE(response.cnames.empty());
  EXPECT_EQ(addresses(), Texts{"192.0.2.1"});
  EXPECT_EQ(response.ttl, 60);
  EXPECT_TRUE(log.contains(" Failed to read CNAME from DNS response")) << log.all();
}

// Verifies that a name that points at itself is told and skipped.
TEST_F(DnsReply, LoopingCnameIsSkipped) {
  const std::size_t at = reply().bytes.size() + 12;  // where the record's data will be
  const auto low = static_cast<unsigned char>(at);
  EXPECT_EQ(parse(reply().record(5, 30, {0xc0, low}).bytes), dns_reply_t::answer);
  EXPECT_TRUE(log.contains(" Failed to read CNAME from DNS response")) << log.all();
}

// Verifies that records of other types are skipped with their number, and that their time to live doesn't
// count.
TEST_F(DnsReply, OtherTypesAreSkipped) {
  parse(reply().record(16, 1, {3, 'a', 'b', 'c'}).a("192.0.2.1", 60).bytes);
  EXPECT_EQ(addresses(), Texts{"192.0.2.1"});
  EXPECT_EQ(response.ttl, 60);
  EXPECT_TRUE(log.contains(" skipping unhandled record type (16)")) << log.all();
}

// Verifies that an address record of another length than four bytes is skipped.
TEST_F(DnsReply, AddressOfWrongLengthIsSkipped) {
  for (const Bytes& rdata : {Bytes{}, Bytes{1, 2, 3}, Bytes{1, 2, 3, 4, 5}, Bytes(16, 1)}) {
    EXPECT_EQ(parse(reply().record(1, 30, rdata).bytes), dns_reply_t::answer);
    EXPECT_TRUE(response.addresses.empty());
    EXPECT_EQ(response.ttl, -1);
  }
}

// Verifies that a reply without an answer is read, and finds nothing.
TEST_F(DnsReply, NoAnswer) {
  EXPECT_EQ(parse(reply().bytes), dns_reply_t::answer);
  EXPECT_TRUE(response.addresses.empty());
  EXPECT_EQ(response.ttl, -1);
}

// Verifies that NXDOMAIN is final, a CNAME beside it notwithstanding, and that any other code is the
// server's.
TEST_F(DnsReply, ErrorCodes) {
  EXPECT_EQ(parse(reply().cname("gone.example.org", 5).code(3).bytes), dns_reply_t::no_such_name);
  EXPECT_TRUE(response.cnames.empty());
  for (const unsigned char code : {1, 2, 4, 5, 6, 15})
    EXPECT_EQ(parse(reply().code(code).bytes), dns_reply_t::server_failure) << +code;
}

// Verifies that an error reply may leave the question out, and a good one may not.
TEST_F(DnsReply, ErrorWithoutQuestion) {
  Bytes bytes = reply().code(5).bytes;
  bytes[5] = 0;
  bytes.resize(12);
  EXPECT_EQ(parse(bytes), dns_reply_t::server_failure);
  bytes[3] = 0x80;
  EXPECT_EQ(parse(bytes), dns_reply_t::foreign);
}

// Verifies that a truncated reply is told and gives nothing, whether its end is clean or cut.
TEST_F(DnsReply, Truncated) {
  Bytes bytes = reply().a("192.0.2.1", 60).a("192.0.2.2", 60).truncated().bytes;
  EXPECT_EQ(parse(bytes), dns_reply_t::truncated);
  EXPECT_TRUE(response.addresses.empty());
  EXPECT_TRUE(log.contains(log_level::error, " Truncation occurred, hostname: www.example.net"));
  bytes.resize(bytes.size() - 3);
  log.clear();
  EXPECT_EQ(parse(bytes), dns_reply_t::truncated);
  EXPECT_TRUE(log.contains(" Truncation occurred, hostname: "));
}

// Verifies that a reply whose records end early is refused whole, wherever it is cut.
TEST_F(DnsReply, CutAnywhereIsMalformed) {
  const Bytes whole = reply().a("192.0.2.1", 60).cname("b.example.org", 10).bytes;
  for (std::size_t size = 12; size < whole.size(); ++size) {
    EXPECT_EQ(parse(Bytes(whole.begin(), whole.begin() + static_cast<long>(size))), dns_reply_t::malformed)
        << size;
    EXPECT_TRUE(response.addresses.empty());
  }
  EXPECT_TRUE(log.contains(log_level::error, " Failed to parse msg, hostname: www.example.net"));
}

// Verifies that counts of records that aren't there are refused.
TEST_F(DnsReply, LyingCountIsMalformed) {
  for (const std::size_t count_at : {6U, 8U, 10U}) {
    Bytes bytes = reply().a("192.0.2.1", 60).bytes;
    bytes[count_at] = 0xff;
    EXPECT_EQ(parse(bytes), dns_reply_t::malformed) << count_at;
  }
}

// Verifies that a datagram without a whole header is told as incomplete.
TEST_F(DnsReply, LessThanHeaderIsIncomplete) {
  for (const std::size_t size : {0U, 1U, 2U, 11U}) {
    log.clear();
    Bytes bytes = reply().bytes;
    bytes.resize(size);
    EXPECT_EQ(parse(bytes), dns_reply_t::malformed);
    EXPECT_TRUE(
        log.contains(log_level::error,
                     " ERROR failed init parsing response. Incomplete buffer, hostname: www.example.net"))
        << log.all();
  }
}

// Verifies that a reply with another id is no reply to this query, and is told at debug only.
TEST_F(DnsReply, OtherIdIsForeign) {
  EXPECT_EQ(parse(reply().id(0x1235).a("192.0.2.1", 60).bytes), dns_reply_t::foreign);
  EXPECT_TRUE(response.addresses.empty());
  ASSERT_EQ(log.records().size(), 1U);
  EXPECT_EQ(log.records()[0].level, log_level::debug);
}

// Verifies that a query that comes back isn't taken for its reply.
TEST_F(DnsReply, EchoedQueryIsForeign) {
  EXPECT_EQ(parse(make_query(query_id, host)), dns_reply_t::foreign);
}

// Verifies that a reply to another question isn't taken: another name, another type, another class, two
// questions.
TEST_F(DnsReply, OtherQuestionIsForeign) {
  EXPECT_EQ(parse(Reply(make_query(query_id, "www.example.org")).a("192.0.2.1", 60).bytes),
            dns_reply_t::foreign);
  EXPECT_EQ(parse(Reply(make_query(query_id, "example.net")).a("192.0.2.1", 60).bytes), dns_reply_t::foreign);
  for (const std::size_t from_end : {3U, 1U}) {  // the low bytes of type and class
    Bytes query = make_query(query_id, host);
    query[query.size() - from_end] = 28;
    EXPECT_EQ(parse(Reply(query).a("192.0.2.1", 60).bytes), dns_reply_t::foreign);
  }
  Bytes query = make_query(query_id, host);
  const Bytes second(query.begin() + 12, query.end());
  query.insert(query.end(), second.begin(), second.end());
  query[5] = 2;
  EXPECT_EQ(parse(Reply(query).a("192.0.2.1", 60).bytes), dns_reply_t::foreign);
}

// Verifies that the case of the question's name doesn't matter.
TEST_F(DnsReply, CaseOfNameDoesNotMatter) {
  EXPECT_EQ(parse(Reply(make_query(query_id, "WWW.Example.NET")).a("192.0.2.1", 60).bytes),
            dns_reply_t::answer);
}

// Verifies that an unusable reply leaves what was known before alone.
TEST_F(DnsReply, FailureLeavesResponseAlone) {
  Bytes bytes = reply().a("192.0.2.1", 60).a("192.0.2.2", 60).bytes;
  bytes[bytes.size() - 5] = 200;  // the last record's length
  ZOLResponse known;
  known.ttl = 7;
  EXPECT_EQ(zol::parse_dns_reply(bytes.data(), bytes.size(), query_id, host, 0, known),
            dns_reply_t::malformed);
  EXPECT_TRUE(known.addresses.empty());
  EXPECT_EQ(known.ttl, 7);
}

}  // namespace
