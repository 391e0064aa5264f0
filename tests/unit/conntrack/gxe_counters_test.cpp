#include "conntrack/gxe_counters.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <memory>

#include "config/zol_networks.h"
#include "sites/vpn_conn_info.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"

namespace zol_monitor {
namespace {

using zol::ConnRecordType;
using zol::SiteConnRecord;

constexpr conntrack_counters_t moved = {.tx_packets = 1, .tx_bytes = 10, .rx_packets = 2, .rx_bytes = 300};
constexpr std::uint32_t local_mark = 0x120;
constexpr std::uint32_t bit_28 = 0x10000000;
constexpr std::uint32_t bit_30 = 0x40000000;

// --- the billing ratio

struct BillingRow {
  int protonum;
  std::uint32_t mark;
  bool between_edges;
  bool billed;
  bool unbilled;
};

class BillingTest : public testing::TestWithParam<BillingRow> {};

// Verifies in which of the blocks a connection counts, by its protocol and mark.
TEST_P(BillingTest, Blocks) {
  const BillingRow& row = GetParam();
  gxe_billing_counters_t billing;
  billing.add_to_billing_ratio(row.protonum, moved, row.mark, row.between_edges);
  EXPECT_EQ(billing.billed_tx, row.billed ? 10U : 0U);
  EXPECT_EQ(billing.billed_rx, row.billed ? 300U : 0U);
  EXPECT_EQ(billing.unbilled_tx, row.unbilled ? 10U : 0U);
  EXPECT_EQ(billing.unbilled_rx, row.unbilled ? 300U : 0U);
}

constexpr int tcp = IPPROTO_TCP;
constexpr int udp = IPPROTO_UDP;
constexpr int icmp = IPPROTO_ICMP;

INSTANTIATE_TEST_SUITE_P(
    Rows, BillingTest,
    testing::Values(
        // Between edges the mark doesn't matter.
        BillingRow{tcp, local_mark, true, false, true}, BillingRow{udp, bit_28, true, false, true},
        BillingRow{icmp, 0, true, false, true},
        // TCP.
        BillingRow{tcp, 0, false, false, false}, BillingRow{tcp, local_mark, false, true, false},
        BillingRow{tcp, local_mark | 0x00ff0000, false, true, false},  // the link byte is no part of it
        BillingRow{tcp, local_mark | 0x07000000, false, true, false},  // nor are the closing bits
        BillingRow{tcp, local_mark | 0xb0000000, false, true, false},
        BillingRow{tcp, 0x121, false, false, false}, BillingRow{tcp, 0x220, false, false, false},
        BillingRow{tcp, bit_30, false, false, false}, BillingRow{tcp, bit_30 | 0x200, false, false, false},
        BillingRow{tcp, bit_30 | local_mark, false, false, true},
        BillingRow{tcp, bit_30 | 0x100, false, false, true},
        BillingRow{tcp, bit_30 | 0x20, false, false, true}, BillingRow{tcp, bit_28, false, false, false},
        // All others.
        BillingRow{udp, 0, false, false, false}, BillingRow{udp, local_mark, false, true, false},
        BillingRow{udp, bit_28, false, true, false}, BillingRow{udp, bit_30, false, false, true},
        BillingRow{udp, bit_28 | bit_30, false, true, true},
        BillingRow{icmp, bit_28 | bit_30, false, true, true},
        BillingRow{udp, bit_30 | local_mark, false, false, true}));

// Verifies that the bytes of several connections add up.
TEST(BillingCounters, AddUp) {
  gxe_billing_counters_t billing;
  billing.add_to_billing_ratio(udp, moved, bit_28, false);
  billing.add_to_billing_ratio(udp, moved, bit_28, false);
  billing.add_to_billing_ratio(udp, moved, bit_30, false);
  EXPECT_EQ(billing.billed_tx, 20U);
  EXPECT_EQ(billing.billed_rx, 600U);
  EXPECT_EQ(billing.unbilled_tx, 10U);
  EXPECT_EQ(billing.unbilled_rx, 300U);
}

// Verifies the shares, and that the far side sees rx and tx change places.
TEST(BillingCounters, Factors) {
  const gxe_billing_counters_t billing = {.billed_tx = 1, .unbilled_tx = 3, .billed_rx = 1, .unbilled_rx = 1};
  EXPECT_DOUBLE_EQ(billing.get_rx_billing_factor(false), 0.5);
  EXPECT_DOUBLE_EQ(billing.get_rx_billing_factor(true), 0.25);
  EXPECT_DOUBLE_EQ(billing.get_tx_billing_factor(false), 0.25);
  EXPECT_DOUBLE_EQ(billing.get_tx_billing_factor(true), 0.5);
}

// Verifies that without bytes every share is 0.
TEST(BillingCounters, FactorsOfNothing) {
  const gxe_billing_counters_t billing;
  for (const bool flag : {false, true}) {
    EXPECT_EQ(billing.get_rx_billing_factor(flag), 0.0);
    EXPECT_EQ(billing.get_tx_billing_factor(flag), 0.0);
  }
}

// --- links and tunnels

SiteConnRecord site(const char* key) {
  SiteConnRecord record(ConnRecordType::site);
  record.key = key;
  return record;
}

void expect_counters(const conntrack_counters_t& counters, std::uint64_t times) {
  EXPECT_EQ(counters.tx_packets, times * moved.tx_packets);
  EXPECT_EQ(counters.tx_bytes, times * moved.tx_bytes);
  EXPECT_EQ(counters.rx_packets, times * moved.rx_packets);
  EXPECT_EQ(counters.rx_bytes, times * moved.rx_bytes);
}

// Verifies that a link keeps its ends and begins with zeros.
TEST(LinkCounters, Construction) {
  const GxeLinkCounters link(site("a"), site("b"), true, false);
  EXPECT_EQ(link.first.key, "a");
  EXPECT_EQ(link.second.key, "b");
  EXPECT_TRUE(link.first_active);
  EXPECT_FALSE(link.second_active);
  for (const conntrack_counters_t& row : link.protocols)
    expect_counters(row, 0);
  expect_counters(link.total, 0);
}

// Verifies that each protocol has its row and that the total holds all of them.
TEST(LinkCounters, Rows) {
  GxeLinkCounters link(site("a"), site("b"), false, false);
  link.add_counters(tcp, moved);
  link.add_counters(udp, moved);
  link.add_counters(udp, moved);
  for (const int other : {icmp, static_cast<int>(IPPROTO_GRE), 0, 255})
    link.add_counters(other, moved);
  expect_counters(link.protocols[0], 1);
  expect_counters(link.protocols[1], 2);
  expect_counters(link.protocols[2], 4);
  expect_counters(link.total, 7);
}

// Verifies that a tunnel keeps its record and adds all four fields.
TEST(TunnelCounters, Add) {
  GxeTunnelCounters tunnel(site("a"));
  EXPECT_EQ(tunnel.record.key, "a");
  expect_counters(tunnel.counters, 0);
  tunnel.add_counters(moved);
  tunnel.add_counters(moved);
  expect_counters(tunnel.counters, 2);
}

// Verifies that both ids must be those of a customer's edge.
TEST(UcpeToUcpe, BothMustBe) {
  const zol_test::ScopedConfig config(R"(General: { hop_id = "10.9.0.1"; };
HopData: { hops = ( { hop_id = "10.9.0.1"; zol_ips = ( "10.9.0.1" ); is_ucpe = true; },
  { hop_id = "10.9.0.2"; zol_ips = ( "10.9.0.2" ); is_ucpe = true; },
  { hop_id = "10.9.0.3"; zol_ips = ( "10.9.0.3" ); } ); };)");
  const zol_test::LogCapture quiet;
  zol::ZOLNetworks::instance()->read_configuration();
  EXPECT_TRUE(is_ucpe_to_ucpe("10.9.0.1", "10.9.0.2"));
  EXPECT_FALSE(is_ucpe_to_ucpe("10.9.0.1", "10.9.0.3"));
  EXPECT_FALSE(is_ucpe_to_ucpe("10.9.0.3", "10.9.0.1"));
  EXPECT_FALSE(is_ucpe_to_ucpe("10.9.0.1", "10.9.0.4"));
}

}  // namespace
}  // namespace zol_monitor
