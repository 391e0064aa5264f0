// The blocks of counters and the maps of a logical network.
#include "conntrack/zol_counters.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/config_fixture.h"

namespace zol_monitor {
namespace {

constexpr std::uint8_t in = 1;
constexpr std::uint8_t out = 2;
constexpr std::uint8_t forwarded = 3;

constexpr std::uint16_t internal_port = 15443;
constexpr std::uint16_t service_port = 443;
constexpr std::uint16_t client_port = 40000;

constexpr auto target = traffic_dir_t::target;
constexpr auto public_hop = traffic_dir_t::public_hop;
constexpr auto private_hop = traffic_dir_t::private_hop;

// tx packets, tx bytes, rx packets, rx bytes.
using Fields = std::vector<std::uint64_t>;

Fields fields(const conntrack_counters_t& c) {
  return {c.tx_packets, c.tx_bytes, c.rx_packets, c.rx_bytes};
}

std::vector<std::string> keys(const LogicalNetworkCounters::EntityMap& map) {
  std::vector<std::string> names;
  for (const auto& [name, block] : map)
    names.push_back(name);
  return names;
}

using Names = std::vector<std::string>;

class CountersTest : public testing::Test {
 protected:
  static std::string text(bool gxe, bool domains) {
    return "IPTables: { internal_port_range_start = 15000; internal_port_range_end = 15999; };\n"
           "MiddleMileNetwork: { enabled = " +
           std::string(gxe ? "true" : "false") +
           "; };\nMonitoring: { domain_level_traffic = " + (domains ? "true" : "false") + "; };\n";
  }
  explicit CountersTest(bool gxe = false) : config_(text(gxe, true)) {}

  zol_test::ScopedConfig config_;
  EntityCounters block_;
};

class GxeCountersTest : public CountersTest {
 protected:
  GxeCountersTest() : CountersTest(true) {}
};

// --- the plain value

// Verifies that values add up field by field.
TEST(ConntrackCounters, Plus) {
  constexpr conntrack_counters_t a = {1, 20, 300, 4000};
  EXPECT_EQ(fields(a + conntrack_counters_t{5, 60, 700, 8000}), (Fields{6, 80, 1000, 12000}));
}

// Verifies that the named pair is zeroed in a copy and the other one stays.
TEST(ConntrackCounters, ZeroDirection) {
  constexpr conntrack_counters_t a = {1, 2, 3, 4};
  EXPECT_EQ(fields(counters_zero_dir(a, true)), (Fields{0, 0, 3, 4}));
  EXPECT_EQ(fields(counters_zero_dir(a, false)), (Fields{1, 2, 0, 0}));
}

// --- one block

// Verifies that a block begins with zero in every cell.
TEST_F(CountersTest, BeginsEmpty) {
  EXPECT_TRUE(block_.is_zero_traffic());
  for (int p = 0; p < EntityCounters::protocol_rows; ++p)
    for (int i = 0; i < EntityCounters::mark_rows; ++i) {
      EXPECT_EQ(block_.active[p][i], 0u);
      EXPECT_EQ(block_.open[p][i], 0u);
      for (int d = 0; d < EntityCounters::dir_rows; ++d)
        EXPECT_EQ(fields(block_.counters[p][i][d]), (Fields{0, 0, 0, 0}));
    }
}

// Verifies that the mark's roles choose the row: In 0, Out 1, forwarded 2, none 0; higher bits don't count.
TEST_F(CountersTest, MarkRows) {
  for (const auto& [mark, row] : std::initializer_list<std::pair<int, int>>{
           {1, 0}, {2, 1}, {3, 2}, {0, 0}, {5, 0}, {6, 1}, {7, 2}, {4, 0}}) {
    EntityCounters block;
    block.add_counters({1, 2, 3, 4}, ProtocolIndex::udp, static_cast<std::uint8_t>(mark), true, true, target);
    EXPECT_EQ(block.active[1][row], 1u) << mark;
    EXPECT_EQ(block.open[1][row], 1u) << mark;
    EXPECT_EQ(fields(block.counters[1][row][1]), (Fields{1, 2, 3, 4})) << mark;
  }
}

// Verifies that a nibble without a role takes its place among the rows at its first look-up.
TEST_F(CountersTest, MarkIndex) {
  EXPECT_EQ(mark_index().at(1), 0);
  EXPECT_EQ(mark_index().at(2), 1);
  EXPECT_EQ(mark_index().at(3), 2);
  block_.add_active_connection(ProtocolIndex::tcp, 0);
  EXPECT_EQ(mark_index().at(0), 0);
  EXPECT_EQ(mark_index().size(), 4u);
}

// Verifies where each direction is stored: public hop in row 0, private hop in row 2, anything else in row 1.
TEST_F(CountersTest, DirectionRows) {
  const auto row_of = [](traffic_dir_t dir) {
    EntityCounters block;
    block.add_tcp_counters({0, 0, 0, 1}, in, false, false, dir);
    for (int row = 0; row < EntityCounters::dir_rows; ++row)
      if (block.counters[0][0][row].rx_bytes == 1)
        return row;
    return -1;
  };
  EXPECT_EQ(row_of(target), 1);
  EXPECT_EQ(row_of(public_hop), 0);
  EXPECT_EQ(row_of(private_hop), 2);
  EXPECT_EQ(row_of(static_cast<traffic_dir_t>(3)), 1);
}

// Verifies that TCP counts in its own row, with open and active as they are told, and adds up.
TEST_F(CountersTest, AddTcp) {
  block_.add_tcp_counters({1, 2, 3, 4}, out, true, false, public_hop);
  block_.add_tcp_counters({10, 20, 30, 40}, out, true, true, public_hop);
  EXPECT_EQ(fields(block_.counters[0][1][0]), (Fields{11, 22, 33, 44}));
  EXPECT_EQ(block_.open[0][1], 2u);
  EXPECT_EQ(block_.active[0][1], 1u);
}

// Verifies that UDP counts as open, active and towards the target.
TEST_F(CountersTest, AddUdp) {
  block_.add_udp_counters({1, 2, 3, 4}, in);
  EXPECT_EQ(fields(block_.counters[1][0][1]), (Fields{1, 2, 3, 4}));
  EXPECT_EQ(block_.open[1][0], 1u);
  EXPECT_EQ(block_.active[1][0], 1u);
}

// Verifies that an active connection can be counted without bytes and isn't open then.
TEST_F(CountersTest, AddActiveConnection) {
  block_.add_active_connection(ProtocolIndex::other, forwarded);
  EXPECT_EQ(block_.other_active_connections(), 1u);
  EXPECT_EQ(block_.open_connections(ProtocolIndex::other), 0u);
  EXPECT_TRUE(block_.is_zero_traffic());
}

// Verifies that the sides of proxied connections count as one: the larger of In and Out, and forwarded on
// top.
TEST_F(CountersTest, SidesCountAsOne) {
  const auto count = [this](ProtocolIndex p, std::uint8_t mark, int times) {
    for (int i = 0; i < times; ++i)
      block_.add_counters({}, p, mark, i != 0, true, target);
  };
  count(ProtocolIndex::tcp, in, 3);
  count(ProtocolIndex::tcp, out, 5);
  EXPECT_EQ(block_.tcp_active_connections(), 5u);
  count(ProtocolIndex::tcp, forwarded, 2);
  EXPECT_EQ(block_.tcp_active_connections(), 7u);
  EXPECT_EQ(block_.tcp_open_connections(), 5u);  // 4 Out and 1 forwarded
  count(ProtocolIndex::udp, in, 4);
  count(ProtocolIndex::udp, out, 2);
  EXPECT_EQ(block_.udp_active_connections(), 4u);
  EXPECT_EQ(block_.udp_open_connections(), 3u);
  EXPECT_EQ(block_.other_active_connections(), 0u);
}

// Gives each role of a protocol its own powers of ten: In 1, Out 10, forwarded 100 packets, and times 1000
// bytes; tx is double.
void fill(EntityCounters& block, ProtocolIndex p, traffic_dir_t dir) {
  block.add_counters({2, 2000, 1, 1000}, p, in, false, false, dir);
  block.add_counters({20, 20000, 10, 10000}, p, out, false, false, dir);
  block.add_counters({200, 200000, 100, 100000}, p, forwarded, false, false, dir);
}

// Verifies the two TCP streams: to the server, what the In leg received and the Out leg sent; to the client
// the opposite; forwarded traffic in both figures of its stream.
TEST_F(CountersTest, TcpStreams) {
  fill(block_, ProtocolIndex::tcp, private_hop);
  EXPECT_EQ(fields(block_.tcp_client2server_counters(private_hop)), (Fields{120, 120000, 101, 101000}));
  EXPECT_EQ(fields(block_.tcp_server2client_counters(private_hop)), (Fields{202, 202000, 210, 210000}));
  EXPECT_EQ(fields(block_.tcp_client2server_counters(target)), (Fields{0, 0, 0, 0}));
  EXPECT_EQ(fields(block_.tcp_server2client_counters(public_hop)), (Fields{0, 0, 0, 0}));
}

// Verifies that ten forwarded bytes show in both figures of the stream to the server.
TEST_F(CountersTest, ForwardedShowsTwice) {
  block_.add_tcp_counters({0, 0, 1, 10}, forwarded, true, true, target);
  EXPECT_EQ(fields(block_.tcp_client2server_counters(target)), (Fields{1, 10, 1, 10}));
  EXPECT_EQ(fields(block_.tcp_server2client_counters(target)), (Fields{0, 0, 0, 0}));
}

// Verifies the single cells that other protocols read on an ordinary node, with their mix of fields.
TEST_F(CountersTest, UdpCells) {
  fill(block_, ProtocolIndex::udp, target);
  EXPECT_EQ(fields(block_.udp_client2server_counters()), (Fields{100, 200000, 100, 100000}));
  EXPECT_EQ(fields(block_.udp_server2client_counters()), (Fields{2, 2000, 1, 1000}));
  fill(block_, ProtocolIndex::other, public_hop);
  EXPECT_EQ(fields(block_.client2server_counters(ProtocolIndex::other, public_hop)),
            (Fields{100, 200000, 100, 100000}));
}

// Verifies that on a middle-mile node other protocols are streams as TCP is.
TEST_F(GxeCountersTest, UdpStreams) {
  fill(block_, ProtocolIndex::udp, target);
  EXPECT_EQ(fields(block_.udp_client2server_counters()), (Fields{120, 120000, 101, 101000}));
  EXPECT_EQ(fields(block_.udp_server2client_counters()), (Fields{202, 202000, 210, 210000}));
}

// Verifies that packets without bytes are no traffic, and that a byte in any of the 36 cells is.
TEST_F(CountersTest, ZeroTraffic) {
  block_.add_tcp_counters({7, 0, 8, 0}, in, true, true, target);
  EXPECT_TRUE(block_.is_zero_traffic());
  for (int p = 0; p < EntityCounters::protocol_rows; ++p)
    for (int i = 0; i < EntityCounters::mark_rows; ++i)
      for (int d = 0; d < EntityCounters::dir_rows; ++d) {
        EntityCounters sent;
        sent.counters[p][i][d].tx_bytes = 1;
        EXPECT_FALSE(sent.is_zero_traffic()) << p << i << d;
        EntityCounters received;
        received.counters[p][i][d].rx_bytes = 1;
        EXPECT_FALSE(received.is_zero_traffic()) << p << i << d;
      }
}

// --- a logical network

class NetworkCountersTest : public CountersTest {
 protected:
  struct Tcp {
    const char* client = "198.51.100.20";
    std::uint16_t sport = client_port;
    std::uint16_t dport = service_port;
    std::uint8_t m = in;
    bool established = true;
    bool active = true;
    const char* domain = "shop.example";
    bool reversed = false;
    bool private_network = false;
  };

  void add(const Tcp& tcp) {
    network_.add_tcp_counters(inet_addr(tcp.client), inet_addr("203.0.113.1"), tcp.sport,
                              inet_addr("203.0.113.2"), tcp.dport, tcp.m, {1, 10, 2, 20}, tcp.established,
                              tcp.active, tcp.domain, tcp.reversed, tcp.private_network);
  }
  void add_udp(const char* client, std::uint8_t m) {
    network_.add_udp_counters(inet_addr(client), inet_addr("203.0.113.1"), client_port,
                              inet_addr("203.0.113.2"), m, {1, 10, 2, 20});
  }
  // The direction in which a block has counted TCP bytes of the In role; -1 for none.
  static int dir_of(const EntityCounters& block) {
    for (const traffic_dir_t dir : {target, public_hop, private_hop})
      if (block.tcp_client2server_counters(dir).rx_bytes != 0)
        return static_cast<int>(dir);
    return -1;
  }

  LogicalNetworkCounters network_;
};

// Verifies that an In connection counts for the network, its domain, its client and its previous hop.
TEST_F(NetworkCountersTest, InConnection) {
  add({});
  EXPECT_EQ(network_.total.counters[0][0][1].rx_bytes, 20u);
  EXPECT_EQ(keys(network_.domain_counters), Names{"shop.example"});
  EXPECT_EQ(keys(network_.client_counters), Names{"198.51.100.20"});
  EXPECT_EQ(keys(network_.prv_hop_counters_map()), Names{"203.0.113.1"});
  EXPECT_TRUE(network_.next_hop_counters_map().empty());
  for (const EntityCounters* block :
       {&network_.domain_counters["shop.example"], &network_.client_counters["198.51.100.20"],
        &network_.prv_hop_counters["203.0.113.1"]}) {
    EXPECT_EQ(fields(block->counters[0][0][1]), (Fields{1, 10, 2, 20}));
    EXPECT_EQ(block->open[0][0], 1u);
    EXPECT_EQ(block->active[0][0], 1u);
  }
}

// Verifies that an Out connection counts for its next hop and not for a previous one.
TEST_F(NetworkCountersTest, OutConnection) {
  add({.m = out, .active = false});
  EXPECT_EQ(keys(network_.next_hop_counters_map()), Names{"203.0.113.2"});
  EXPECT_TRUE(network_.prv_hop_counters_map().empty());
  EXPECT_EQ(network_.next_hop_counters["203.0.113.2"].open[0][1], 1u);
  EXPECT_EQ(network_.next_hop_counters["203.0.113.2"].active[0][1], 0u);
}

// Verifies that a forwarded connection counts for both hops.
TEST_F(NetworkCountersTest, ForwardedConnection) {
  add({.m = forwarded});
  EXPECT_EQ(network_.next_hop_counters["203.0.113.2"].tcp_open_connections(), 1u);
  EXPECT_EQ(network_.prv_hop_counters["203.0.113.1"].tcp_open_connections(), 1u);
}

// Verifies that a client of 0 has no block.
TEST_F(NetworkCountersTest, UnknownClient) {
  add({.client = "0.0.0.0"});
  EXPECT_TRUE(network_.client_counters.empty());
  EXPECT_EQ(network_.tcp_active_connections(), 1u);
}

// Verifies that without counting by domain all traffic is of the one domain "unknown".
TEST_F(NetworkCountersTest, DomainsNotCounted) {
  EXPECT_TRUE(network_.domain_level_traffic);
  config_.set(text(false, false));
  network_ = {};
  EXPECT_FALSE(network_.domain_level_traffic);
  add({.domain = "shop.example"});
  add({.domain = "news.example"});
  EXPECT_EQ(keys(network_.domain_counters), Names{"unknown"});
  EXPECT_EQ(network_.tcp_domain_active_connections("unknown"), 2u);
}

// Verifies that the setting is off when it is absent.
TEST_F(NetworkCountersTest, DomainSettingAbsent) {
  config_.set("Monitoring: { };");
  EXPECT_FALSE(LogicalNetworkCounters().domain_level_traffic);
}

// Verifies that a connection to a port outside of the overlay's leaves it, whatever the network between.
TEST_F(NetworkCountersTest, LeavesTheOverlay) {
  add({.private_network = true});
  EXPECT_EQ(dir_of(network_.total), 0);
  EXPECT_EQ(dir_of(network_.client_counters["198.51.100.20"]), 0);
  EXPECT_EQ(dir_of(network_.prv_hop_counters["203.0.113.1"]), 0);
}

// Verifies that a connection to a hop counts by the network between, in the blocks of network and domain.
TEST_F(NetworkCountersTest, StaysInTheOverlay) {
  add({.dport = internal_port});
  EXPECT_EQ(dir_of(network_.total), 1);
  EXPECT_EQ(dir_of(network_.domain_counters["shop.example"]), 1);
  network_ = {};
  add({.dport = internal_port, .private_network = true});
  EXPECT_EQ(dir_of(network_.total), 2);
  EXPECT_EQ(dir_of(network_.domain_counters["shop.example"]), 2);
}

// Verifies that blocks of clients and hops know no private network.
TEST_F(NetworkCountersTest, HopDirection) {
  add({.dport = internal_port, .m = forwarded, .private_network = true});
  EXPECT_EQ(dir_of(network_.client_counters["198.51.100.20"]), 1);
  EXPECT_EQ(dir_of(network_.next_hop_counters["203.0.113.2"]), 1);
  EXPECT_EQ(dir_of(network_.prv_hop_counters["203.0.113.1"]), 1);
}

// Verifies that the service's port of a reversed connection is its source port.
TEST_F(NetworkCountersTest, ReversedConnection) {
  add({.sport = internal_port, .dport = service_port, .reversed = true});
  EXPECT_EQ(dir_of(network_.total), 1);
  network_ = {};
  add({.sport = service_port, .dport = internal_port, .reversed = true});
  EXPECT_EQ(dir_of(network_.total), 0);
}

// Verifies the walk of UDP: network, the domain "unknown", client, and the hops by role.
TEST_F(NetworkCountersTest, Udp) {
  add_udp("198.51.100.20", in);
  EXPECT_EQ(keys(network_.domain_counters), Names{"unknown"});
  EXPECT_EQ(keys(network_.client_counters), Names{"198.51.100.20"});
  EXPECT_EQ(keys(network_.prv_hop_counters), Names{"203.0.113.1"});
  EXPECT_TRUE(network_.next_hop_counters.empty());
  add_udp("198.51.100.20", out);
  EXPECT_EQ(keys(network_.next_hop_counters), Names{"203.0.113.2"});
  EXPECT_EQ(network_.prv_hop_counters["203.0.113.1"].udp_open_connections(), 1u);
  EXPECT_EQ(network_.next_hop_counters["203.0.113.2"].udp_open_connections(), 1u);
  add_udp("198.51.100.20", forwarded);
  EXPECT_EQ(network_.udp_active_connections(), 2u);
  EXPECT_EQ(network_.tcp_active_connections(), 0u);
  EXPECT_EQ(fields(network_.udp_client2server_counters()), (Fields{2, 10, 2, 20}));
  EXPECT_EQ(fields(network_.udp_server2client_counters()), (Fields{1, 10, 2, 20}));
}

// Verifies that UDP has a block for a client of 0 too.
TEST_F(NetworkCountersTest, UdpUnknownClient) {
  add_udp("0.0.0.0", in);
  EXPECT_EQ(keys(network_.client_counters), Names{"0.0.0.0"});
}

// Verifies that the totals go over the domains: protocols without ports are active but never open, and what
// reached no domain isn't there.
TEST_F(NetworkCountersTest, Totals) {
  network_.total.add_tcp_counters({1, 1, 1, 1}, in, true, true, target);
  EXPECT_EQ(network_.total_active_connections(), 0u);
  EXPECT_EQ(network_.total_open_connections(), 0u);
  add({.domain = "shop.example"});
  add({.active = false, .domain = "news.example"});
  add_udp("198.51.100.20", in);
  network_.add_active_non_tcp_connection();
  EXPECT_EQ(network_.total_active_connections(), 3u);
  EXPECT_EQ(network_.total_open_connections(), 3u);
  EXPECT_EQ(network_.domain_counters["unknown"].active[2][2], 1u);
}

// Verifies that the domains can be taken out one by one.
TEST_F(NetworkCountersTest, WalkOverDomains) {
  std::string domain = "before";
  EXPECT_FALSE(network_.has_traffic());
  EXPECT_FALSE(network_.has_domain_stats(domain));
  EXPECT_EQ(domain, "before");
  add({.domain = "shop.example"});
  add({.domain = "news.example"});
  EXPECT_TRUE(network_.has_traffic());
  EXPECT_TRUE(network_.has_domain_stats(domain));
  EXPECT_EQ(domain, "news.example");
  network_.delete_domain_stats(domain);
  EXPECT_TRUE(network_.has_domain_stats(domain));
  EXPECT_EQ(domain, "shop.example");
  network_.delete_domain_stats(domain);
  EXPECT_FALSE(network_.has_traffic());
  add({.domain = "news.example"});
  EXPECT_EQ(keys(network_.domain_counters), Names{"news.example"});
  EXPECT_EQ(network_.tcp_domain_active_connections("news.example"), 1u);
}

// Verifies that asking for an entity without traffic makes an empty entry of it.
TEST_F(NetworkCountersTest, AskingMakesAnEntry) {
  EXPECT_TRUE(network_.is_zero_traffic("asked.example"));
  EXPECT_TRUE(network_.has_traffic());
  EXPECT_EQ(network_.udp_client_active_connections("192.0.2.9"), 0u);
  EXPECT_EQ(keys(network_.client_counters), Names{"192.0.2.9"});
}

// Verifies each look-up by domain.
TEST_F(NetworkCountersTest, DomainReadouts) {
  add({.dport = internal_port, .m = in});
  add({.dport = internal_port, .m = out});
  const std::string domain = "shop.example";
  EXPECT_EQ(fields(network_.tcp_client2server_domain_counters(domain, public_hop)), (Fields{1, 10, 2, 20}));
  EXPECT_EQ(fields(network_.tcp_server2client_domain_counters(domain, public_hop)), (Fields{1, 10, 2, 20}));
  EXPECT_EQ(fields(network_.tcp_client2server_domain_counters(domain, target)), (Fields{0, 0, 0, 0}));
  EXPECT_EQ(fields(network_.tcp_server2client_domain_counters(domain, target)), (Fields{0, 0, 0, 0}));
  EXPECT_EQ(fields(network_.tcp_client2server_counters(public_hop)), (Fields{1, 10, 2, 20}));
  EXPECT_EQ(fields(network_.tcp_server2client_counters(public_hop)), (Fields{1, 10, 2, 20}));
  EXPECT_EQ(network_.tcp_domain_active_connections(domain), 1u);
  EXPECT_EQ(network_.udp_domain_active_connections(domain), 0u);
  EXPECT_FALSE(network_.is_zero_traffic(domain));
  add_udp("198.51.100.20", forwarded);
  EXPECT_EQ(network_.udp_domain_active_connections("unknown"), 1u);
  EXPECT_EQ(fields(network_.udp_client2server_domain_counters("unknown")), (Fields{2, 10, 2, 20}));
  EXPECT_EQ(fields(network_.udp_server2client_domain_counters("unknown")), (Fields{0, 0, 0, 0}));
}

// Verifies each look-up by client; TCP goes over what leaves the overlay and what stays in it.
TEST_F(NetworkCountersTest, ClientReadouts) {
  add({.dport = internal_port, .m = in});
  add({.dport = service_port, .m = out});
  const std::string client = "198.51.100.20";
  EXPECT_EQ(fields(network_.tcp_client2server_client_counters(client)), (Fields{1, 10, 2, 20}));
  EXPECT_EQ(fields(network_.tcp_server2client_client_counters(client)), (Fields{1, 10, 2, 20}));
  EXPECT_EQ(network_.tcp_client_active_connections(client), 1u);
  EXPECT_EQ(network_.udp_client_active_connections(client), 0u);
  add_udp("198.51.100.20", in);
  EXPECT_EQ(network_.udp_client_active_connections(client), 1u);
  EXPECT_EQ(fields(network_.udp_server2client_client_counters(client)), (Fields{1, 10, 2, 20}));
  EXPECT_EQ(fields(network_.udp_client2server_client_counters(client)), (Fields{0, 0, 0, 0}));
}

}  // namespace
}  // namespace zol_monitor
