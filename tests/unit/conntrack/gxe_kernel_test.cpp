// The traffic report of a middle-mile node over the kernel's own table and real packets, against the counts
// of firewall rules that see the same packets.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/unit/conntrack/gxe_kernel_fixture.h"
#include "zol_helper.h"

namespace zol_test {
namespace {

using libvariant::Variant;

constexpr std::uint32_t bit_29 = 0x20000000;  // a TCP connection that isn't proxied

// --- traffic that isn't TCP

// Verifies that a datagram from site to site counts on the link of its way, both as received and as sent, and
// in the tunnels of both sites, and that all figures are those of the packets that passed.
TEST_F(GxeKernelTest, DatagramsBetweenSites) {
  mark(between(site_a, site_b, over_udp), link_mark);
  const PacketCounter to_b = arriving(site_a, site_b, over_udp);
  const PacketCounter to_a = arriving(site_b, site_a, over_udp);
  const Datagrams flow(*a_, client_port, *b_, server_port);
  flow.exchange(100, 700);
  flow.exchange(10, 1200);
  const Report first = report();
  const Carried there = to_b.read();
  const Carried here = to_a.read();
  EXPECT_EQ(there.bytes, 110 + 2 * udp_overhead);
  EXPECT_EQ(here.bytes, 1900 + 2 * udp_overhead);
  ASSERT_EQ(first.links.Size(), 2U);
  const Variant link = first.link("site a", "site b");
  expect_link(link, there, there);
  expect_link(first.link("site b", "site a"), here, here);
  EXPECT_EQ(link.At("src").At("internal_id").AsString(), "id-a");
  EXPECT_EQ(link.At("src").At("site_vpn_group").AsString(), "Customer");
  EXPECT_EQ(link.At("src").At("metadata").At("floor").AsInt(), 3);
  EXPECT_EQ(link.At("src").At("ip").AsString(), site_a);
  EXPECT_EQ(link.At("src").At("id").AsString(), "peer-a");
  EXPECT_EQ(type_of(link, "src"), "Site_Direct");
  EXPECT_EQ(type_of(link, "dst"), "Site_Direct");
  EXPECT_FALSE(link.At("src").Contains("bytes_for_billing"));
  ASSERT_EQ(first.tunnels.size(), 2U);
  expect_tunnel(first.tunnel("site a"), there, here);
  expect_tunnel(first.tunnel("site b"), here, there);
  expect_totals(first, there + there + here + here);
  EXPECT_EQ(first.stats->networks.at("dummy").total_active_connections(), 2U);
}

// Verifies that the next report has only what came since, and that all reports together have every byte.
TEST_F(GxeKernelTest, ReportsAddUp) {
  mark(between(site_a, site_b, over_udp), link_mark);
  const PacketCounter to_b = arriving(site_a, site_b, over_udp);
  const Datagrams flow(*a_, client_port, *b_, server_port);
  Carried reported;
  for (const std::size_t size : {100U, 1U, 1300U}) {
    flow.exchange(size, 1);
    const Variant link = report().link("site a", "site b");
    expect_end(link, "src", {1, size + udp_overhead});
    reported = reported + Carried{1, link.At("src").At("bytes").AsUnsigned()};
  }
  EXPECT_EQ(reported.bytes, to_b.read().bytes);
  EXPECT_EQ(reported.packets, to_b.read().packets);
}

// Verifies that traffic from a site to the world is on a link to the world, and back on one from there, and
// that the tunnel of the other site is reported with all numbers 0.
TEST_F(GxeKernelTest, DatagramsToTheWorld) {
  mark(between(site_a, outside, over_udp), link_mark);
  const PacketCounter to_world = arriving(site_a, outside, over_udp);
  const PacketCounter to_a = arriving(outside, site_a, over_udp);
  const Datagrams flow(*a_, client_port, *world_, server_port);
  flow.exchange(100, 1200);
  const Report first = report();
  ASSERT_EQ(first.links.Size(), 2U);
  expect_link(first.link("site a", "WORLD"), to_world.read(), to_world.read());
  expect_link(first.link("WORLD", "site a"), to_a.read(), to_a.read());
  ASSERT_EQ(first.tunnels.size(), 2U);
  expect_tunnel(first.tunnel("site a"), to_world.read(), to_a.read());
  expect_tunnel(first.tunnel("site b"), {}, {});
  EXPECT_TRUE(first.tunnel("site b").At("is_primary").AsBool());
  EXPECT_EQ(first.tunnel("site b").At("internal_id").AsString(), "id-b");
}

// Verifies that who began makes no difference to which link and which way of the tunnel gets the bytes.
TEST_F(GxeKernelTest, DatagramsFromTheWorld) {
  mark(between(outside, site_a, over_udp), link_mark);
  const PacketCounter to_a = arriving(outside, site_a, over_udp);
  const PacketCounter to_world = arriving(site_a, outside, over_udp);
  const Datagrams flow(*world_, client_port, *a_, server_port);
  flow.exchange(100, 1200);
  const Report first = report();
  expect_link(first.link("WORLD", "site a"), to_a.read(), to_a.read());
  expect_link(first.link("site a", "WORLD"), to_world.read(), to_world.read());
  expect_tunnel(first.tunnel("site a"), to_world.read(), to_a.read());
  EXPECT_EQ(to_a.read().bytes, 100 + udp_overhead);
}

// Verifies that a site whose tunnel isn't established has its links, as an indirect site, and that its tunnel
// is reported as one without traffic.
TEST_F(GxeKernelTest, TunnelThatIsNotUp) {
  tunnels_.add_site(site_b, "b", zol::Connecting);
  mark(between(site_a, site_b, over_udp), link_mark);
  const PacketCounter to_b = arriving(site_a, site_b, over_udp);
  const PacketCounter to_a = arriving(site_b, site_a, over_udp);
  Datagrams(*a_, client_port, *b_, server_port).exchange(100, 1200);
  const Report first = report();
  const Variant link = first.link("site a", "site b");
  expect_link(link, to_b.read(), to_b.read());
  EXPECT_EQ(type_of(link, "src"), "Site_Direct");
  EXPECT_EQ(type_of(link, "dst"), "Site_Indirect");
  EXPECT_EQ(type_of(first.link("site b", "site a"), "src"), "Site_Indirect");
  EXPECT_EQ(first.stats->tunnel_counters.size(), 1U);
  expect_tunnel(first.tunnel("site a"), to_b.read(), to_a.read());
  expect_tunnel(first.tunnel("site b"), {}, {});
}

// Verifies that a route without a known connection is an indirect site with its group, and has no tunnel.
TEST_F(GxeKernelTest, DatagramsToARoute) {
  tunnels_.add(site_b, "bgp_route", zol::ConnRecordType::bgp_route, zol::Established, "Partner");
  mark(between(outside, site_b, over_udp), link_mark);
  const PacketCounter to_route = arriving(outside, site_b, over_udp);
  Datagrams(*world_, client_port, *b_, server_port).exchange(100, 1200);
  const Report first = report();
  const Variant link = first.link("WORLD", "Site_Indirect");
  expect_link(link, to_route.read(), to_route.read());
  EXPECT_EQ(link.At("dst").At("site_vpn_group").AsString(), "Partner");
  EXPECT_FALSE(link.At("dst").Contains("internal_id"));
  ASSERT_EQ(first.tunnels.size(), 1U);
  expect_tunnel(first.tunnel("site a"), {}, {});
}

// Verifies that datagrams without a link byte in the mark, and without a mark, reach no link.
TEST_F(GxeKernelTest, DatagramsOfNoLink) {
  mark(between(site_a, site_b, over_udp), bit_28);
  const PacketCounter to_b = arriving(site_a, site_b, over_udp);
  Datagrams(*a_, client_port, *b_, server_port).exchange(100, 1200);
  Datagrams(*a_, client_port, *world_, server_port).exchange(100, 1200);
  const Report first = report();
  EXPECT_EQ(to_b.read().packets, 1U);
  EXPECT_EQ(first.links.Size(), 0U);
  expect_totals(first, {});
  expect_tunnel(first.tunnel("site a"), {}, {});
  EXPECT_TRUE(first.stats->networks.empty());
}

// Verifies that a protocol without ports, which the kernel tracks by its addresses, has the third row.
TEST_F(GxeKernelTest, OtherProtocol) {
  constexpr int experimental = 253;  // RFC 3692
  mark(between(site_a, site_b, "253"), link_mark);
  const PacketCounter to_b = arriving(site_a, site_b, "253");
  const zol_utils::UniqueFd sender = a_->raw_socket(experimental);
  const zol_utils::UniqueFd receiver = b_->raw_socket(experimental);
  const sockaddr_in target = BoundSocket::address_of(site_b, 0);
  const std::string payload(500, 'x');
  ASSERT_EQ(
      sendto(sender.get(), payload.data(), payload.size(), 0, BoundSocket::as_generic(target), sizeof target),
      500);
  std::string packet(1000, '\0');
  pollfd waiting = {.fd = receiver.get(), .events = POLLIN, .revents = 0};
  ASSERT_EQ(poll(&waiting, 1, 10000), 1);
  ASSERT_EQ(recv(receiver.get(), packet.data(), packet.size(), 0), 520);
  Report first = report();
  ASSERT_EQ(first.links.Size(), 1U);
  expect_link(first.link("site a", "site b"), to_b.read(), to_b.read());
  EXPECT_EQ(find(*first.stats, "a#b")->protocols[2].rx_bytes, 520U);
}

// --- TCP

class ProxiedKernelTest : public GxeKernelTest {
 protected:
  static constexpr std::uint16_t hop_port = 8443;

  // Both legs of a connection that the node proxies, as the firewall marks them.
  void connect_legs(const Station& client, const Station& server) {
    mark(between(client.address(), own, over_tcp), in_mark);
    mark(between(own, server.address(), over_tcp), out_mark, "OUTPUT");
    identify_in(1, {client.address(), client_port});
    const zol_monitor::SessionPtr session = identify_out(1, {server.address(), hop_port}, {own, 50000});
    in_ = std::make_unique<Stream>(client.socket(SOCK_STREAM, client_port),
                                   BoundSocket(SOCK_STREAM, own, service_port), own, service_port);
    out_ = std::make_unique<Stream>(BoundSocket(SOCK_STREAM, own, 50000),
                                    server.socket(SOCK_STREAM, hop_port), server.address(), hop_port);
    ASSERT_TRUE(run_until([&] { return session->next_hop_ip == ip(server.address()); }));
  }

  std::unique_ptr<Stream> in_;
  std::unique_ptr<Stream> out_;
};

// Verifies that a proxied connection is on two links between the ends of its session: what the client sent
// and what went on to the server is on the one, what the server sent and what went on to the client on the
// other.
TEST_F(ProxiedKernelTest, BothLegs) {
  const PacketCounter from_client = arriving(site_a, own, over_tcp);
  const PacketCounter to_server = leaving(own, site_b, over_tcp);
  const PacketCounter from_server = arriving(site_b, own, over_tcp);
  const PacketCounter to_client = leaving(own, site_a, over_tcp);
  connect_legs(*a_, *b_);
  in_->exchange(1000, 9000);
  out_->exchange(900, 8000);
  Report first = report();
  ASSERT_EQ(first.links.Size(), 2U);
  expect_link(first.link("site a", "site b"), from_client.read(), to_server.read());
  expect_link(first.link("site b", "site a"), from_server.read(), to_client.read());
  expect_tunnel(first.tunnel("site a"), from_client.read(), to_client.read());
  expect_tunnel(first.tunnel("site b"), from_server.read(), to_server.read());
  expect_totals(first, from_client.read() + to_server.read() + from_server.read() + to_client.read());
  EXPECT_GT(from_client.read().bytes, 1000U);
  EXPECT_GT(to_client.read().bytes, 9000U);
  EXPECT_EQ(find(*first.stats, "a#b")->protocols[0].rx_bytes, from_client.read().bytes);
}

// Verifies that a proxied connection of a site to the world feeds that site's tunnel alone.
TEST_F(ProxiedKernelTest, ToTheWorld) {
  const PacketCounter from_client = arriving(site_a, own, over_tcp);
  const PacketCounter to_server = leaving(own, outside, over_tcp);
  const PacketCounter from_server = arriving(outside, own, over_tcp);
  const PacketCounter to_client = leaving(own, site_a, over_tcp);
  connect_legs(*a_, *world_);
  in_->exchange(1000, 9000);
  out_->exchange(900, 8000);
  const Report first = report();
  expect_link(first.link("site a", "WORLD"), from_client.read(), to_server.read());
  expect_link(first.link("WORLD", "site a"), from_server.read(), to_client.read());
  expect_tunnel(first.tunnel("site a"), from_client.read(), to_client.read());
  expect_tunnel(first.tunnel("site b"), {}, {});
}

// Verifies that a proxied connection from the world to a site feeds the tunnel with the Out leg's bytes, and
// that a site whose tunnel isn't established still has the links.
TEST_F(ProxiedKernelTest, FromTheWorld) {
  const PacketCounter from_client = arriving(outside, own, over_tcp);
  const PacketCounter to_server = leaving(own, site_b, over_tcp);
  const PacketCounter from_server = arriving(site_b, own, over_tcp);
  const PacketCounter to_client = leaving(own, outside, over_tcp);
  connect_legs(*world_, *b_);
  in_->exchange(1000, 9000);
  out_->exchange(900, 8000);
  const Report first = report();
  const Variant forth = first.link("WORLD", "site b");
  expect_link(forth, from_client.read(), to_server.read());
  EXPECT_EQ(type_of(forth, "dst"), "Site_Direct");
  expect_link(first.link("site b", "WORLD"), from_server.read(), to_client.read());
  expect_tunnel(first.tunnel("site b"), from_server.read(), to_server.read());
  tunnels_.add_site(site_b, "b", zol::Disconnected);
  out_->exchange(10, 20);
  const Report second = report();
  EXPECT_EQ(type_of(second.link("WORLD", "site b"), "dst"), "Site_Indirect");
  expect_tunnel(second.tunnel("site b"), {}, {});
}

// Verifies that a connection that was idle since the last report is in no link, and that its next bytes are.
TEST_F(ProxiedKernelTest, LegsGoOn) {
  connect_legs(*a_, *b_);
  in_->exchange(1000, 9000);
  out_->exchange(900, 8000);
  report();
  EXPECT_EQ(report().links.Size(), 0U);
  const PacketCounter from_client = arriving(site_a, own, over_tcp);
  const PacketCounter to_client = leaving(own, site_a, over_tcp);
  in_->exchange(10, 20);
  const Report third = report();
  EXPECT_GT(from_client.read().bytes, 0U);
  expect_link(third.link("site a", "site b"), from_client.read(), {});
  expect_link(third.link("site b", "site a"), {}, to_client.read());
}

// Verifies that a leg whose session isn't known is between its own ends, this node being the world.
TEST_F(GxeKernelTest, LegWithoutSession) {
  mark(between(site_a, own, over_tcp), in_mark);
  const PacketCounter from_client = arriving(site_a, own, over_tcp);
  const PacketCounter to_client = leaving(own, site_a, over_tcp);
  const Stream leg(a_->socket(SOCK_STREAM, client_port), BoundSocket(SOCK_STREAM, own, service_port), own,
                   service_port);
  leg.exchange(1000, 9000);
  const Report first = report();
  ASSERT_EQ(first.links.Size(), 2U);
  expect_link(first.link("site a", "WORLD"), from_client.read(), {});
  expect_link(first.link("WORLD", "site a"), {}, to_client.read());
  expect_tunnel(first.tunnel("site a"), from_client.read(), to_client.read());
}

// Verifies that a leg that the kernel sees from its other end counts as if it didn't.
TEST_F(GxeKernelTest, ReversedLeg) {
  mark(between(own, site_a, over_tcp), service_mark | 0xa0, "OUTPUT");
  const PacketCounter from_client = arriving(site_a, own, over_tcp);
  const PacketCounter to_client = leaving(own, site_a, over_tcp);
  const Stream leg(BoundSocket(SOCK_STREAM, own, service_port), a_->socket(SOCK_STREAM, client_port), site_a,
                   client_port);
  leg.exchange(1000, 9000);
  const Report first = report();
  ASSERT_EQ(first.links.Size(), 2U);
  expect_link(first.link("site a", "WORLD"), from_client.read(), {});
  expect_link(first.link("WORLD", "site a"), {}, to_client.read());
  EXPECT_GT(from_client.read().bytes, 9000U);
}

// Verifies that TCP with bit 29 is counted as traffic that isn't TCP is, in the row of TCP.
TEST_F(GxeKernelTest, TcpThatIsNotProxied) {
  mark(between(site_a, outside, over_tcp), bit_29 | link_mark);
  const PacketCounter to_world = arriving(site_a, outside, over_tcp);
  const PacketCounter to_a = arriving(outside, site_a, over_tcp);
  const Stream stream(a_->socket(SOCK_STREAM, client_port), world_->socket(SOCK_STREAM, server_port), outside,
                      server_port);
  stream.exchange(1000, 9000);
  Report first = report();
  ASSERT_EQ(first.links.Size(), 2U);
  expect_link(first.link("site a", "WORLD"), to_world.read(), to_world.read());
  expect_link(first.link("WORLD", "site a"), to_a.read(), to_a.read());
  expect_tunnel(first.tunnel("site a"), to_world.read(), to_a.read());
  EXPECT_EQ(find(*first.stats, "a#world")->protocols[0].rx_bytes, to_world.read().bytes);
}

// Verifies that TCP with the link byte alone is neither a leg nor counted the other way.
TEST_F(GxeKernelTest, TcpOfNoLeg) {
  mark(between(site_a, outside, over_tcp), link_mark);
  const Stream stream(a_->socket(SOCK_STREAM, client_port), world_->socket(SOCK_STREAM, server_port), outside,
                      server_port);
  stream.exchange(1000, 9000);
  EXPECT_EQ(report().links.Size(), 0U);
}

// --- the report

// Verifies that the first report has all links and no tunnels, and the next one has the tunnels too.
TEST_F(GxeKernelTest, FirstReport) {
  zol_monitor::ZolTraffic::tunnels_primed = false;
  mark(between(site_a, site_b, over_udp), link_mark);
  const Datagrams flow(*a_, client_port, *b_, server_port);
  flow.exchange(100, 1200);
  const Report first = report();
  EXPECT_EQ(first.links.Size(), 2U);
  EXPECT_TRUE(first.tunnels.empty());
  flow.exchange(10, 20);
  const Report second = report();
  ASSERT_EQ(second.tunnels.size(), 2U);
  expect_tunnel(second.tunnel("site a"), {1, 10 + udp_overhead}, {1, 20 + udp_overhead});
}

// Verifies that the whole report takes the reading itself, and its interval from the clock.
TEST_F(GxeKernelTest, WholeReport) {
  mark(between(site_a, site_b, over_udp), link_mark);
  Datagrams(*a_, client_port, *b_, server_port).exchange(1253 - udp_overhead, 100);
  zol_monitor::ZolTraffic::last_report_ms = zol::Helper::get_timestamp_ms() - 1000 * 1000;
  std::vector<Variant> tunnels;
  const LogCapture log;
  const Variant links = traffic_.generate_zol_traffic_report(true, tunnels);
  EXPECT_EQ(links.Size(), 2U);
  ASSERT_EQ(tunnels.size(), 2U);
  for (const Variant& tunnel : tunnels) {
    const char* way = tunnel.At("site_name").AsString() == "site a" ? "upload" : "download";
    EXPECT_EQ(tunnel.At(way).At("total").AsUnsigned(), 1253U);
    EXPECT_EQ(tunnel.At(way).At("throughput").AsUnsigned(), 10U);  // bits a second
  }
  EXPECT_LT(zol::Helper::get_timestamp_ms() - zol_monitor::ZolTraffic::last_report_ms, 1000U * 1000U);
}

}  // namespace
}  // namespace zol_test
