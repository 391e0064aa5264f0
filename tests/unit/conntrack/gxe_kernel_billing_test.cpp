// What a customer's edge bills of real packets, and what it counts of connections that ended between two
// reports.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "conntrack/nfconntrack.h"
#include "conntrack/none_tcp_nfct_container.h"
#include "tests/unit/conntrack/gxe_kernel_fixture.h"

namespace zol_test {
namespace {

using libvariant::Variant;
using zol_monitor::NoneTcpNFCTContainer;

// --- billing

using Billing = zol_monitor::gxe_billing_counters_t;

void expect_billing(const Billing& billing, const Billing& wanted) {
  EXPECT_EQ(billing.billed_tx, wanted.billed_tx);
  EXPECT_EQ(billing.unbilled_tx, wanted.unbilled_tx);
  EXPECT_EQ(billing.billed_rx, wanted.billed_rx);
  EXPECT_EQ(billing.unbilled_rx, wanted.unbilled_rx);
}

// Bytes of `all` that a share of billed to unbilled bytes leaves billed, and the others.
std::pair<std::uint64_t, std::uint64_t> split(std::uint64_t billed, std::uint64_t unbilled,
                                              std::uint64_t all) {
  const double factor = static_cast<double>(billed) / static_cast<double>(billed + unbilled);
  return {static_cast<std::uint64_t>(factor * static_cast<double>(all)),
          static_cast<std::uint64_t>((1.0 - factor) * static_cast<double>(all))};
}

void expect_split(const Variant& end, const std::pair<std::uint64_t, std::uint64_t>& wanted) {
  EXPECT_EQ(end.At("bytes_for_billing").AsUnsigned(), wanted.first);
  EXPECT_EQ(end.At("bytes_not_for_billing").AsUnsigned(), wanted.second);
}

// Verifies that on a customer's edge the way to the internet's hop is billed in the one block and the way
// back in the other, billed and unbilled apart, and that the link's bytes are split accordingly.
TEST_F(GxeKernelTest, EdgeBillsDatagrams) {
  configure_node(true);
  mark(between(site_a, outside, over_udp) + " --dport 5001", link_mark | bit_28);
  mark(between(site_a, outside, over_udp) + " --dport 5002", link_mark | bit_30);
  mark(between(outside, site_a, over_udp) + " --sport 5002", link_mark | bit_30);
  const PacketCounter billed =
      PacketCounter("PREROUTING", between(site_a, outside, over_udp) + " --dport 5001");
  const PacketCounter unbilled =
      PacketCounter("PREROUTING", between(site_a, outside, over_udp) + " --dport 5002");
  Datagrams(*a_, client_port, *world_, 5001).exchange(100, 1200);
  Datagrams(*a_, client_port + 1, *world_, 5002).exchange(333, 55);
  const std::uint64_t billed_forth = billed.read().bytes;
  const std::uint64_t unbilled_forth = unbilled.read().bytes;
  const std::uint64_t billed_back = 1200 + udp_overhead;
  const std::uint64_t unbilled_back = 55 + udp_overhead;
  const Report first = report();
  expect_billing(first.stats->site_to_internet_billing,
                 {billed_back, unbilled_back, billed_forth, unbilled_forth});
  expect_billing(first.stats->site_to_site_billing,
                 {billed_forth, unbilled_forth, billed_back, unbilled_back});
  const Variant forth = first.link("site a", "WORLD");
  ASSERT_TRUE(forth.Contains("src"));
  const std::uint64_t all_forth = billed_forth + unbilled_forth;
  expect_split(forth.At("src"), split(billed_back, unbilled_back, all_forth));
  expect_split(forth.At("dst"), split(billed_forth, unbilled_forth, all_forth));
  const Variant way_back = first.link("WORLD", "site a");
  ASSERT_TRUE(way_back.Contains("src"));
  const std::uint64_t all_back = billed_back + unbilled_back;
  expect_split(way_back.At("src"), split(billed_forth, unbilled_forth, all_back));
  expect_split(way_back.At("dst"), split(billed_back, unbilled_back, all_back));
}

// Verifies that datagrams between two edges are never billed, whatever the mark, and that those without a
// link byte are billed, though on no link.
TEST_F(GxeKernelTest, EdgeBillsWithoutLink) {
  configure_node(true);
  mark(between(site_a, site_b, over_udp), bit_28);
  mark(between(site_a, outside, over_udp), bit_28);
  Datagrams(*a_, client_port, *b_, server_port).exchange(100, 1200);
  const std::uint64_t forth_b = 100 + udp_overhead;
  const std::uint64_t back_b = 1200 + udp_overhead;
  Report first = report();
  EXPECT_EQ(first.links.Size(), 0U);
  expect_billing(first.stats->site_to_internet_billing, {});
  expect_billing(first.stats->site_to_site_billing, {0, forth_b + back_b, 0, forth_b + back_b});
  Datagrams(*a_, client_port, *world_, server_port).exchange(10, 20);
  first = report();
  EXPECT_EQ(first.links.Size(), 0U);
  expect_billing(first.stats->site_to_internet_billing, {20 + udp_overhead, 0, 10 + udp_overhead, 0});
  expect_billing(first.stats->site_to_site_billing, {10 + udp_overhead, 0, 20 + udp_overhead, 0});
}

// Verifies that the edge's own TCP is billed the other way round: towards the internet's hop as between
// sites, else as to the internet.
TEST_F(GxeKernelTest, EdgeBillsTcp) {
  configure_node(true);
  constexpr std::uint32_t local = 0x120;
  mark(between(own, outside, over_tcp), local, "OUTPUT");
  mark(between(own, site_a, over_tcp), local | bit_30, "OUTPUT");
  const PacketCounter to_world = leaving(own, outside, over_tcp);
  const PacketCounter from_world = arriving(outside, own, over_tcp);
  const PacketCounter to_a = leaving(own, site_a, over_tcp);
  const PacketCounter from_a = arriving(site_a, own, over_tcp);
  const Stream hop(BoundSocket(SOCK_STREAM, own, 50000), world_->socket(SOCK_STREAM, server_port), outside,
                   server_port);
  const Stream site(BoundSocket(SOCK_STREAM, own, 50001), a_->socket(SOCK_STREAM, server_port), site_a,
                    server_port);
  hop.exchange(1000, 9000);
  site.exchange(300, 400);
  const Report first = report();
  expect_billing(first.stats->site_to_site_billing, {to_world.read().bytes, 0, from_world.read().bytes, 0});
  // Bit 30 takes the mark out of what is local.
  expect_billing(first.stats->site_to_internet_billing, {0, to_a.read().bytes, 0, from_a.read().bytes});
  EXPECT_GT(to_world.read().bytes, 1000U);
  const Variant forth = first.link("WORLD", "site a");
  expect_link(forth, {}, to_a.read());
  ASSERT_TRUE(forth.Contains("dst"));
  expect_split(forth.At("dst"), {0, to_a.read().bytes});
}

// --- connections that end between two reports

// Verifies that a flow without a mark that ended since the last report is billed with its last bytes, once.
TEST_F(GxeKernelTest, EndedFlow) {
  configure_node(true);
  const PacketCounter to_b = arriving(site_a, site_b, over_udp);
  const Datagrams flow(*a_, client_port, *b_, server_port);
  flow.exchange(100, 1200);
  report();
  flow.exchange(10, 20);
  ASSERT_TRUE(
      ConnectionTable().destroy(udp({.source = {site_a, client_port}, .target = {site_b, server_port}})));
  ASSERT_TRUE(run_until([] { return NoneTcpNFCTContainer::instance().size() == 1; }));
  EXPECT_EQ(to_b.read().bytes, 110 + 2 * udp_overhead);
  const std::uint64_t both_ways = 30 + 2 * udp_overhead;
  const Report second = report();
  expect_billing(second.stats->site_to_site_billing, {0, both_ways, 0, both_ways});
  EXPECT_EQ(second.links.Size(), 0U);
  EXPECT_EQ(NoneTcpNFCTContainer::instance().size(), 0U);
  expect_billing(report().stats->site_to_site_billing, {});
}

// Verifies that a flow with a mark, whose end is told with the mark, and a TCP connection aren't kept.
TEST_F(GxeKernelTest, EndedFlowsThatAreNotKept) {
  constexpr std::uint16_t last_port = 40001;
  mark(between(site_a, site_b, over_udp), link_mark);
  Datagrams(*a_, client_port, *b_, server_port).exchange(10, 20);
  const Stream stream(a_->socket(SOCK_STREAM, client_port), world_->socket(SOCK_STREAM, server_port), outside,
                      server_port);
  Datagrams(*a_, last_port, *world_, server_port).exchange(1, 2);
  ConnectionTable table;
  ASSERT_TRUE(table.destroy(udp({.source = {site_a, client_port}, .target = {site_b, server_port}})));
  ASSERT_TRUE(table.destroy({.source = {site_a, client_port}, .target = {outside, server_port}}));
  ASSERT_TRUE(table.destroy(udp({.source = {site_a, last_port}, .target = {outside, server_port}})));
  ASSERT_TRUE(run_until([] { return NoneTcpNFCTContainer::instance().size() != 0; }));
  ASSERT_EQ(NoneTcpNFCTContainer::instance().size(), 1U);
  const zol_monitor::NfctHandle kept = NoneTcpNFCTContainer::instance().pop();
  EXPECT_EQ(zol_monitor::nfconntrack_get_orig_port(kept.get()), last_port);
  EXPECT_EQ(zol_monitor::nfconntrack_get_orig_stats(kept.get()).bytes, 1 + udp_overhead);
  EXPECT_EQ(zol_monitor::nfconntrack_get_repl_stats(kept.get()).bytes, 2 + udp_overhead);
  EXPECT_EQ(report().links.Size(), 0U);
}

}  // namespace
}  // namespace zol_test
