#include <gtest/gtest.h>

#include <string>

#include "dns/resolver.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

using zol::DNSAnswer;
using zol::DNSCache;
using zol_test::LogCapture;

namespace {

constexpr std::uint64_t long_ago_ms = 1;

using Ips = std::list<std::string>;

class DnsCache : public testing::Test {
 protected:
  void SetUp() override { cache->answers.clear(); }
  void TearDown() override { cache->answers.clear(); }
  void fill(int count) {
    for (int i = 0; i < count; ++i)
      cache->save_answer("host" + std::to_string(i), 600, {"192.0.2.1"}, "");
  }
  void expire(const std::string& host) { cache->answers.at(host).expires_ms = long_ago_ms; }

  DNSCache* cache = DNSCache::instance();
  LogCapture log;
};

// Verifies that an answer's end is in milliseconds and moves with its time to live.
TEST_F(DnsCache, ExpirationTimeIsInMilliseconds) {
  const std::uint64_t now = DNSAnswer::get_expiration_time(0);
  const std::uint64_t later = DNSAnswer::get_expiration_time(100);
  EXPECT_GE(later, now + 100000);
  EXPECT_LT(later, now + 160000);
}

// Verifies that an answer is good for its time to live and tells how long.
TEST_F(DnsCache, AnswerIsGoodForItsTtl) {
  const DNSAnswer answer("h", 600, {"192.0.2.1"}, "c");
  EXPECT_FALSE(answer.is_expired());
  EXPECT_GT(answer.get_ttl(), 500);
  EXPECT_LE(answer.get_ttl(), 600);
  EXPECT_EQ(answer.hostname, "h");
  EXPECT_EQ(answer.cname, "c");
}

// Verifies that an answer whose time has passed says so when it is asked for the rest of it.
TEST_F(DnsCache, ExpiredAnswerHasNoTtl) {
  DNSAnswer answer("h", 600, {"192.0.2.1"}, "");
  answer.expires_ms = long_ago_ms;
  EXPECT_TRUE(answer.is_expired());
  EXPECT_EQ(answer.get_ttl(), 0);
  EXPECT_TRUE(log.contains("get_ttl DNS answer is no longer valid")) << log.all();
}

// Verifies that rotation moves the first address to the end, and that one or none stays.
TEST_F(DnsCache, RotateMovesFirstToEnd) {
  DNSAnswer answer("h", 1, {"a", "b", "c"}, "");
  answer.rotate();
  EXPECT_EQ(answer.ips, (Ips{"b", "c", "a"}));
  DNSAnswer one("h", 1, {"a"}, "");
  one.rotate();
  EXPECT_EQ(one.ips, Ips{"a"});
  DNSAnswer none("h", 1, {}, "c");
  none.rotate();
  EXPECT_TRUE(none.ips.empty());
}

// Verifies that an expired answer isn't found.
TEST_F(DnsCache, ExpiredAnswerIsNotFound) {
  fill(1);
  ASSERT_NE(cache->find_answer("host0"), nullptr);
  expire("host0");
  EXPECT_EQ(cache->find_answer("host0"), nullptr);
  EXPECT_EQ(cache->find_answer("other"), nullptr);
}

// Verifies that an entry that is there is updated, and told as such.
TEST_F(DnsCache, KnownHostIsUpdated) {
  fill(1);
  EXPECT_FALSE(log.contains("is updated"));
  cache->save_answer("host0", 77, {"192.0.2.9"}, "alias");
  EXPECT_EQ(cache->answers.size(), 1U);
  EXPECT_EQ(cache->find_answer("host0")->ips, Ips{"192.0.2.9"});
  EXPECT_EQ(cache->find_answer("host0")->cname, "alias");
  EXPECT_TRUE(log.contains(": The result for [host0] is updated, ttl: 77")) << log.all();
}

// Verifies that the 1001st entry clears the expired ones first, and is added.
TEST_F(DnsCache, FullCacheDropsExpiredEntries) {
  fill(1000);
  EXPECT_FALSE(log.contains("The cache is full"));
  expire("host3");
  expire("host4");
  cache->save_answer("one_more", 600, {"192.0.2.1"}, "");
  EXPECT_TRUE(log.contains(log_level::warning, ": The cache is full, cache size: 1000, max size: 1000"));
  EXPECT_TRUE(log.contains(": Going to remove all expired results"));
  EXPECT_TRUE(log.contains("2 entries is removed")) << log.all();
  EXPECT_EQ(cache->answers.size(), 999U);
  EXPECT_NE(cache->find_answer("one_more"), nullptr);
}

// Verifies that the 1001st entry is added anyway when none has expired.
TEST_F(DnsCache, FullCacheOfGoodEntriesGrows) {
  fill(1001);
  EXPECT_EQ(cache->answers.size(), 1001U);
  EXPECT_TRUE(log.contains("0 entries is removed")) << log.all();
}

// Verifies that updating an entry of a full cache clears nothing.
TEST_F(DnsCache, UpdateOfFullCacheClearsNothing) {
  fill(1000);
  expire("host3");
  cache->save_answer("host5", 600, {"192.0.2.2"}, "");
  EXPECT_EQ(cache->answers.size(), 1000U);
  EXPECT_FALSE(log.contains("The cache is full"));
}

}  // namespace
