// Whose an address is, among 1,000 sites with 20,000 subnets, and one status cycle of 500 connections without
// the time of the commands themselves: their lines are parsed, merged, logged and published.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "config/address_text.h"
#include "core/zol_libevent.h"
#include "ha/bgp_routes_services.h"
#include "shared_object.h"
#include "sites/ipsec_status_parser.h"
#include "sites/site_service.h"
#include "sites/vpn_conn_data_agg.h"
#include "sites/vpn_sites_services.h"
#include "tests/support/config_fixture.h"
#include "vpn_tunnel_records.h"

namespace {

std::uint64_t allocations = 0;

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocations;
  if (void* made = std::malloc(size))
    return made;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

constexpr int sites = 1000;
constexpr int subnets_of_site = 20;
constexpr int connections = 500;
constexpr int routes = 2000;

zol_test::ScopedConfig& configuration() {
  static zol_test::ScopedConfig config("General: { zol_id = \"bench\"; };");
  return config;
}

class LineParser : public zol::IPsecStatusParser {
 public:
  explicit LineParser(const std::vector<std::string>& lines) : IPsecStatusParser(NoCommand{}) {
    for (const std::string& line : lines)
      parse_line(line);
  }
};

class Table : public zol::SiteServices {
 public:
  Table() { routing_id = 0; }
  std::vector<zol::VPNConnInfo> get_connections_info_status() override {
    return LineParser(lines).get_connections_info_status(this);
  }
  std::vector<std::string> lines;
};

std::shared_ptr<zol::SiteService> add_site(zol::SiteServicesBase::SitesMap& map, int number) {
  auto site = std::make_shared<zol::SiteService>();
  site->internal_id = "site-" + std::to_string(number);
  site->name = "Branch office number " + std::to_string(number);
  site->type = "site";
  site->accept_connections = true;
  site->vpn_group = "Customer";
  site->metadata = R"({"country": "NL", "floor": 3, "rack": "A7"})";
  map[site->internal_id] = site;
  return site;
}

void add_connection(zol::SiteService& site, int number) {
  auto conn = std::make_shared<zol::VPNConnInfo>();
  conn->internal_id = site.internal_id;
  conn->protocol = "ipsec";
  conn->name = site.name;
  conn->group = site.vpn_group;
  conn->right_id = "@peer" + std::to_string(number);
  conn->right = zol::address_text(htonl(0xcb007100u + static_cast<unsigned>(number)));
  conn->peer_ip = conn->right;
  conn->left = "198.51.100.1";
  conn->vti_interface = "vti" + std::to_string(number);
  conn->peer_internal_ip = zol::address_text(htonl(0xa9fe0000u + 4 * static_cast<unsigned>(number)));
  conn->state = zol::Established;
  site.entries.push_back(std::move(conn));
}

// 1,000 sites with two connections each, and 20 subnets of 9 lengths from 20 to 30 in 10.0.0.0/8; as many
// learned ones of 5 lengths in 172.16.0.0/12.
Table& wide_table() {
  static Table* const table = [] {
    configuration();
    auto* made = new Table;
    std::mt19937 random(1);
    zol::SiteServicesBase::SitesMap map;
    for (int s = 0; s < sites; ++s) {
      const auto site = add_site(map, s);
      add_connection(*site, 2 * s);
      add_connection(*site, 2 * s + 1);
      for (int i = 0; i < subnets_of_site; ++i) {
        const int length = std::vector{21, 20, 22, 24, 24, 24, 25, 26, 27, 28, 30}[random() % 11];
        site->subnets.insert(zol::Subnet(htonl(0x0a000000u | (random() & 0xffffffu)), length));
      }
    }
    for (int i = 0; i < routes; ++i)
      made->bgp_subnets.add_subnet(
          {nullptr, nullptr,
           zol::Subnet(htonl(0xac100000u | (random() & 0xfffffu)), 20 + 2 * static_cast<int>(random() % 5))});
    made->local_ips = {"10.0.0.1"};
    made->set_new_site_services(std::move(map));
    return made;
  }();
  return *table;
}

enum class Range { of_sites, of_routes, of_world };

// Drawn at random, so that the cache holds no more of the table than it does on a node.
std::vector<std::string> addresses(Range range, zol::ConnRecordType type) {
  std::mt19937 random(2);
  std::vector<std::string> texts;
  while (texts.size() < 100000) {
    const auto number = static_cast<std::uint32_t>(random());
    std::string text =
        zol::address_text(htonl(range == Range::of_sites    ? 0x0a000000u | (number & 0xffffffu)
                                : range == Range::of_routes ? 0xac100000u | (number & 0xfffffu)
                                                            : 0xc0000000u | (number & 0xfffffffu)));
    if (wide_table().get_site_record(text).record_type == type)
      texts.push_back(std::move(text));
  }
  return texts;
}

void match(benchmark::State& state, Range range, zol::ConnRecordType type) {
  Table& table = wide_table();
  const std::vector<std::string> texts = addresses(range, type);
  std::size_t next = 0;
  const std::uint64_t before = allocations;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table.get_site_record(texts[next]));
    next = next + 1 == texts.size() ? 0 : next + 1;
  }
  state.counters["allocations"] =
      static_cast<double>(allocations - before) / static_cast<double>(state.iterations());
  const zol::SiteConnRecord record = table.get_site_record(texts.front());
  const std::uint64_t before_copy = allocations;
  const zol::SiteConnRecord copy = record;  // NOLINT(performance-unnecessary-copy-initialization)
  benchmark::DoNotOptimize(&copy);
  state.counters["of_the_record"] = static_cast<double>(allocations - before_copy);
}
BENCHMARK_CAPTURE(match, configured, Range::of_sites, zol::ConnRecordType::site);
BENCHMARK_CAPTURE(match, learned, Range::of_routes, zol::ConnRecordType::bgp_route);
BENCHMARK_CAPTURE(match, world, Range::of_world, zol::ConnRecordType::world);
// Of the sites' own range, which each length of prefix is asked for.
BENCHMARK_CAPTURE(match, world_nearby, Range::of_sites, zol::ConnRecordType::world);

void fill_routes() {
  zol::RouteMap& map = zol::BGPRoutesServices::instance()->tables[1001];
  for (int i = 0; i < routes; ++i) {
    zol::Route route;
    route.subnet = zol::Subnet(htonl(0xac100000u + 256 * static_cast<unsigned>(i)), 24);
    route.dev = i % 2 == 0 ? "vti" + std::to_string(i % connections) : "eth0";
    route.via = "10.9.9.9";
    route.state = 1;
    map.add_route(route);
  }
}

// Two lines for each connection, as the IKE daemon prints them.
void add_lines(Table& table, const zol::VPNConnInfo& conn) {
  const std::string name = '"' + conn.get_connection_name();
  table.lines.push_back(name + "/1x0\", type=ESP, add_time=1700000000, inBytes=0, outBytes=0, id='" +
                        conn.right_id + "'\n");
  table.lines.push_back(name +
                        "/1x0\":500 STATE_QUICK_I2 (sent QI2, IPsec SA established); EVENT_SA_REPLACE "
                        "in 27000s; newest IPSEC; eroute owner; isakmp#1; idle;\n");
}

// One site in four has the connections of four.
void status_cycle(benchmark::State& state) {
  configuration();
  if (zol::ZOLEventBase::base() == nullptr)
    zol::ZOLEventBase::init();
  zol::BGPRoutesServices::without_kernel = true;
  zol_utils::shared_object_version = "bench-" + std::to_string(getpid());
  const auto record =
      zol_utils::create_shared_record<zol_utils::vpn_tunnel_states_t>(zol_utils::shared_object_version);
  fill_routes();
  Table table;
  table.conn_agg = std::make_unique<zol::VPNConnDataAgg>();
  zol::SiteServicesBase::SitesMap map;
  for (int i = 0; i < connections; i += 4) {
    const auto site = add_site(map, i);
    for (int c = i; c < i + 4; ++c)
      add_connection(*site, c);
    for (const auto& conn : site->entries)
      add_lines(table, *conn);
  }
  table.set_new_site_services(std::move(map));
  table.conn_agg->log_path = configuration().folder() + "/vpnconn.log";
  table.vpn_status();  // all come up: each is a line of the log
  for (auto _ : state)
    table.vpn_status();
  for (const auto& [id, site] : table.site_services)
    for (const auto& conn : site->entries)
      if (conn->state != zol::Established)
        state.SkipWithError("a connection was lost");
  table.uninit();
}
BENCHMARK(status_cycle)->Unit(benchmark::kMillisecond);

}  // namespace
