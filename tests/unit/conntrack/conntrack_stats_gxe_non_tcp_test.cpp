// How the connections of a middle-mile node that aren't TCP reach links, sessions and billing.
#include <gtest/gtest.h>

#include <stdexcept>

#include "sup_logger.h"
#include "tests/unit/conntrack/gxe_stats_fixture.h"

namespace zol_test {
namespace {

using zol::ConnRecordType;
using zol_monitor::nfconntrack_get_mark;
using zol_monitor::NfctHandle;

constexpr std::uint8_t out_role = 2;

// Verifies that each direction lands on its own link, its bytes on both sides, that the mark is afterwards
// what it was, and that both flows are known to the table of sessions.
TEST_F(GxeStatsTest, NonTcpBothWays) {
  Reading stats(&data_);
  const NfctHandle ct = connection(site_a, site_b, link_mark);
  stats.ct_parser_non_tcp_gxe(ct.get());
  EXPECT_EQ(nfconntrack_get_mark(ct.get()), link_mark);
  ASSERT_EQ(stats.link_counters.size(), 2U);
  expect_counters(find(stats, "a#b")->protocols[1], forth, forth);
  expect_counters(find(stats, "b#a")->protocols[1], back, back);
  expect_counters(find(stats, "a#b")->total, forth, forth);
  const auto& flows = data_.sessions.non_tcp_sessions;
  EXPECT_EQ(flows.size(), 2U);
  EXPECT_EQ(flows.count("[17]:10.1.0.1==>10.2.0.1"), 1U);
  EXPECT_EQ(flows.count("[17]:10.2.0.1==>10.1.0.1"), 1U);
}

// Knows nothing of one address, not even that it is of the world.
class SitesThatFail : public Sites {
 public:
  zol::SiteConnRecord get_site_record(const std::string& ip) override {
    if (ip == site_b)
      throw std::runtime_error("no record");
    return Sites::get_site_record(ip);
  }
};

// Verifies that an exception costs the connection that it is about, with an error line, and no other.
TEST_F(GxeStatsTest, ExceptionCostsOneConnection) {
  SitesThatFail sites;
  sites.add(site_a, "a", ConnRecordType::site);
  data_.site_services = &sites;
  Reading stats(&data_);
  LogCapture log;
  EXPECT_EQ(stats.dump_parser(NFCT_T_UPDATE, connection(site_a, site_b, link_mark).get()), NFCT_CB_CONTINUE);
  EXPECT_EQ(stats.dump_parser(NFCT_T_UPDATE, connection(site_a, outside, link_mark).get()), NFCT_CB_CONTINUE);
  EXPECT_TRUE(log.contains(log_level::error, "dump_parser: no record")) << log.all();
  EXPECT_NE(find(stats, "a#world"), nullptr);
  data_.site_services = &sites_;
}

// Verifies that a protocol without ports has the third row.
TEST_F(GxeStatsTest, OtherProtocol) {
  Reading stats(&data_);
  stats.ct_parser_non_tcp_gxe_dir(connection(site_a, site_b, link_mark, IPPROTO_GRE).get());
  expect_counters(find(stats, "a#b")->protocols[2], forth, forth);
}

// Verifies the line of a counted connection.
TEST_F(GxeStatsTest, CountedLine) {
  Reading stats(&data_);
  LogCapture log;
  stats.ct_parser_non_tcp_gxe_dir(connection(site_a, site_b, link_mark).get());
  EXPECT_TRUE(
      log.contains(log_level::debug,
                   "ct_parser_non_tcp_gxe_dir: Connection 10.1.0.1:1000 -> 10.2.0.1:2000 is counted for "
                   "network dummy tx bytes 300 rx bytes 300 mark 327680"))
      << log.all();
}

// Verifies that a customer's connection is an active one of the network of links, once for each direction.
TEST_F(GxeStatsTest, ActiveConnections) {
  Reading stats(&data_);
  stats.ct_parser_non_tcp_gxe(connection(site_a, outside, link_mark).get());
  ASSERT_EQ(stats.networks.size(), 1U);
  ASSERT_EQ(stats.networks.count("dummy"), 1U);
  EXPECT_EQ(stats.networks.at("dummy").total_active_connections(), 2U);
}

struct ActivityRow {
  const char* source;
  const char* target;
  const char* group_of_a;
  unsigned active;
};

class ActivityTest : public GxeStatsTest, public testing::WithParamInterface<ActivityRow> {};

// Verifies which connections on a link count as active; the network of links exists in any case.
TEST_P(ActivityTest, ActiveConnections) {
  const ActivityRow& row = GetParam();
  sites_.add(site_a, "a", ConnRecordType::site, zol::Established, row.group_of_a);
  sites_.add(site_b, "b", ConnRecordType::site, zol::Established, "Infra");
  Reading stats(&data_);
  stats.ct_parser_non_tcp_gxe_dir(connection(row.source, row.target, link_mark).get());
  EXPECT_EQ(stats.link_counters.size(), 1U);
  ASSERT_EQ(stats.networks.count("dummy"), 1U);
  EXPECT_EQ(stats.networks.at("dummy").total_active_connections(), row.active);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ActivityTest,
    testing::Values(ActivityRow{site_a, site_b, "Customer", 1}, ActivityRow{site_b, site_a, "Customer", 1},
                    ActivityRow{site_a, site_b, "Infra", 0},
                    ActivityRow{site_a, outside, "Infra", 0},  // the world's group is no site's
                    ActivityRow{route, site_b, "Infra", 1}, ActivityRow{site_a, own, "Customer", 0},
                    ActivityRow{own, site_a, "Customer", 0}));

// Verifies that the node's talk with itself is billed and reaches no link.
TEST_F(GxeStatsTest, Loopback) {
  configure(true, true);
  sites_.add("127.0.0.1", "a", ConnRecordType::site);
  Reading stats(&data_);
  stats.ct_parser_non_tcp_gxe_dir(connection("127.0.0.1", "127.0.0.1", link_mark | bit_28).get());
  EXPECT_EQ(stats.site_to_site_billing.billed_rx, forth.bytes);
  EXPECT_TRUE(stats.link_counters.empty());
  stats.ct_parser_non_tcp_gxe_dir(connection("127.0.0.1", "127.0.0.2", link_mark).get());
  EXPECT_EQ(stats.link_counters.size(), 1U);
}

// Verifies that traffic that touches no site reaches neither a link nor the table of sessions.
TEST_F(GxeStatsTest, NonTcpWithoutSites) {
  Reading stats(&data_);
  stats.ct_parser_non_tcp_gxe(connection(outside, own, link_mark).get());
  EXPECT_TRUE(stats.link_counters.empty());
  EXPECT_TRUE(stats.networks.empty());
  EXPECT_TRUE(data_.sessions.non_tcp_sessions.empty());
}

// Verifies that a connection without a link byte is billed and reaches no link on a middle-mile node.
TEST_F(GxeStatsTest, NoLinkByte) {
  configure(true, true);
  Reading stats(&data_);
  stats.ct_parser_non_tcp_gxe_dir(connection(site_a, outside, bit_28).get());
  EXPECT_EQ(stats.site_to_site_billing.billed_tx, back.bytes);
  EXPECT_EQ(stats.site_to_site_billing.billed_rx, forth.bytes);
  EXPECT_TRUE(stats.link_counters.empty());
}

// Verifies that elsewhere the link byte isn't asked for.
TEST_F(GxeStatsTest, NoLinkByteElsewhere) {
  configure(false, false);
  Reading stats(&data_);
  stats.ct_parser_non_tcp_gxe_dir(connection(site_a, outside, bit_28).get());
  EXPECT_EQ(stats.link_counters.size(), 1U);
}

// Verifies that traffic other than TCP towards a hop of the internet is billed as such, and all else as
// between sites.
TEST_F(GxeStatsTest, NonTcpBilling) {
  configure_internet_hop();
  Reading stats(&data_);
  stats.ct_parser_non_tcp_gxe_dir(connection(site_a, internet_hop, bit_28).get());
  EXPECT_EQ(stats.site_to_internet_billing.billed_rx, forth.bytes);
  EXPECT_EQ(stats.site_to_site_billing.billed_rx, 0U);
  stats.ct_parser_non_tcp_gxe_dir(connection(site_a, outside, bit_30).get());
  EXPECT_EQ(stats.site_to_site_billing.unbilled_rx, forth.bytes);
  EXPECT_EQ(stats.site_to_internet_billing.unbilled_rx, 0U);
}

// Verifies that without hops of the internet all TCP is billed as to the internet and all else as between
// sites.
TEST_F(GxeStatsTest, BillingWithoutHops) {
  configure(true, true);
  Reading stats(&data_);
  stats.ct_parser_tcp_gxe(connection(site_a, internet_hop, 0x120, IPPROTO_TCP).get(), out_role);
  stats.ct_parser_non_tcp_gxe_dir(connection(site_a, internet_hop, bit_28).get());
  EXPECT_EQ(stats.site_to_internet_billing.billed_tx, forth.bytes);
  EXPECT_EQ(stats.site_to_site_billing.billed_rx, forth.bytes);
}

// Verifies that traffic between two edges isn't billed.
TEST_F(GxeStatsTest, NonTcpBillingBetweenEdges) {
  configure(true, true);
  Reading stats(&data_);
  stats.ct_parser_non_tcp_gxe_dir(connection(site_a, site_b, bit_28).get());
  EXPECT_EQ(stats.site_to_site_billing.billed_rx, 0U);
  EXPECT_EQ(stats.site_to_site_billing.unbilled_rx, forth.bytes);
}

}  // namespace
}  // namespace zol_test
