// The status cycle: how what the commands show goes into the table, and what leaves it.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include "shared_object.h"
#include "sites/vpn_conn_data_agg.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sites/site_table.h"
#include "vpn_tunnel_records.h"

namespace {

using zol::Connecting;
using zol::ConnRecordType;
using zol::Disconnected;
using zol::Established;
using zol::Subnet;
using zol_test::add_conn;
using zol_test::add_route;
using zol_test::seen;
using zol_utils::vpn_tunnel_states_t;

constexpr int table_number = 1001 + 2 * 21;

// The whole of a table with cycle, its record and its connection log.
class CycleTable : public zol::SiteServices {
 public:
  std::vector<zol::VPNConnInfo> get_connections_info_status() override {
    for (const auto& [id, site] : site_services)
      for (const auto& conn : site->entries)
        states_at_the_commands.push_back(conn->state);
    return infos;
  }
  std::shared_ptr<zol::SiteService> add_site(const std::string& internal_id,
                                             const std::string& type = "site") {
    auto site = std::make_shared<zol::SiteService>();
    site->internal_id = internal_id;
    site->type = type;
    site->accept_connections = true;
    site_services[internal_id] = site;
    return site;
  }

  std::vector<zol::VPNConnInfo> infos;
  std::vector<zol::VPNConnState> states_at_the_commands;
};

class SiteServicesStatusTest : public testing::Test {
 protected:
  SiteServicesStatusTest() {
    zol_test::without_kernel();
    zol::BGPRoutesServices::instance()->tables.clear();
    zol_utils::shared_object_version = "sites-test-" + std::to_string(getpid());
    record_ = zol_utils::create_shared_record<vpn_tunnel_states_t>(zol_utils::shared_object_version);
    table_.routing_id = cycle_.routing_id = 21;
  }
  ~SiteServicesStatusTest() override {
    zol_utils::SharedObject<vpn_tunnel_states_t>::drop_instance();
    zol_utils::shared_object_version.clear();
    zol::BGPRoutesServices::instance()->tables.clear();
  }
  ConnRecordType type_of(const char* ip) { return table_.get_site_record(ip).record_type; }
  const vpn_tunnel_states_t& record() const { return *record_->data; }

  zol_test::ScopedConfig config_{""};
  std::unique_ptr<zol_utils::SharedObject<vpn_tunnel_states_t>> record_;
  zol_test::SiteTable table_;
  CycleTable cycle_;
};

// Verifies that a record with a site's id merges into that site's connection, and into no other's.
TEST_F(SiteServicesStatusTest, MergeByInternalId) {
  const auto first = add_conn(*table_.add_site("a"), "id", "right");
  const auto second = add_conn(*table_.add_site("b"), "id", "right");
  zol::VPNConnInfo info = seen("b", "id", "right");
  info.peer_ip = "198.51.100.7";
  info.state_timestamp = 1700000000;
  info.established_tunnels = {"1x1", "1x2"};
  table_.merge({info});
  EXPECT_EQ(first->state, Disconnected);
  EXPECT_EQ(second->state, Established);
  EXPECT_EQ(second->peer_ip, "198.51.100.7");
  EXPECT_EQ(second->state_timestamp, 1700000000);
  EXPECT_EQ(second->established_tunnels.size(), 2u);
}

// Verifies that two records on one connection leave the higher state, in either order.
TEST_F(SiteServicesStatusTest, HigherStateStays) {
  const auto conn = add_conn(*table_.add_site("a"), "id", "right");
  table_.merge({seen("a", "id", "right", Established), seen("a", "id", "right", Connecting)});
  EXPECT_EQ(conn->state, Established);
}

// Verifies that a record without an id merges into the first connection that matches, in the order of the
// sites.
TEST_F(SiteServicesStatusTest, MergeWithoutInternalId) {
  const auto later = add_conn(*table_.add_site("b"), "id", "right");
  add_conn(*table_.add_site("a"), "other", "right");
  const auto first = add_conn(*table_.site_services["a"], "id", "right");
  table_.merge({seen("", "id", "right")});
  EXPECT_EQ(first->state, Established);
  EXPECT_EQ(later->state, Disconnected);
  EXPECT_EQ(table_.site_services["a"]->entries.size(), 2u);
}

// Verifies that a record of a known site that matches none of its connections becomes one, without subnets.
TEST_F(SiteServicesStatusTest, NewConnection) {
  for (const char* type : {"remote_access", "site"}) {
    const auto site = table_.add_site("a", type);
    site->subnets = {Subnet("10.0.0.0/8")};
    zol::VPNConnInfo info = seen("a", "client", "%any");
    info.lease_ip = "10.7.7.7";
    table_.merge({info});
    ASSERT_EQ(site->entries.size(), 1u) << type;
    EXPECT_EQ(site->entries.front()->right_id, "client");
    EXPECT_EQ(site->entries.front()->lease_ip, "10.7.7.7");
    EXPECT_TRUE(table_.conf_subnets.empty());
    EXPECT_EQ(type_of("10.7.7.7"), ConnRecordType::world);
  }
}

// Verifies that a record of a site that nothing ever matches, for want of a right_id or a right, adds no
// connection in any cycle and is told for debugging; a client without one is shown.
TEST_F(SiteServicesStatusTest, NeverMatching) {
  const auto site = table_.add_site("a");
  add_conn(*site, "", "right");
  add_conn(*site, "id", "");
  const auto remote = table_.add_site("b", "remote_access");
  const zol_test::LogCapture log;
  for (int cycle = 0; cycle < 2; ++cycle)
    table_.merge({seen("a", "", "right"), seen("a", "id", ""), seen("b", "client", "")});
  EXPECT_EQ(site->entries.size(), 2u);
  EXPECT_EQ(log.count(" Found unexpected vpn connection: "), 4) << log.all();
  ASSERT_FALSE(remote->entries.empty());
  EXPECT_EQ(remote->entries.back()->right_id, "client");
}

// Verifies that a client of a remote access site goes when it is down, and a site's connection stays.
TEST_F(SiteServicesStatusTest, ClientsGo) {
  const auto remote = table_.add_site("a", "remote_access");
  const auto fixed = table_.add_site("b");
  const auto stays = add_conn(*remote, "stays", "%any", Connecting);
  add_conn(*remote, "goes", "%any", Disconnected);
  add_conn(*fixed, "down", "right", Disconnected);
  table_.merge({});
  EXPECT_EQ(remote->entries, (std::list<std::shared_ptr<zol::VPNConnInfo>>{stays}));
  EXPECT_EQ(fixed->entries.size(), 1u);
}

// Verifies that a record that fits nowhere changes nothing and is told for debugging, whole.
TEST_F(SiteServicesStatusTest, Unexpected) {
  add_conn(*table_.add_site("a"), "id", "right");
  zol::VPNConnInfo info("nowhere", "ipsec", "@peer", "vpn.example", "198.51.100.7", "Harbour", "192.0.2.1",
                        "Branch", "169.254.0.2", "10.7.7.7", "vti3", 4, Connecting, 17);
  info.established_tunnels = {"1x1", "1x2"};
  zol_test::LogCapture log;
  table_.merge({info});
  EXPECT_EQ(table_.site_services["a"]->entries.size(), 1u);
  EXPECT_TRUE(log.contains(log_level::debug,
                           " Found unexpected vpn connection: VPN connection info:\n"
                           "    Internal ID:         nowhere\n"
                           "    Enabled:             true\n"
                           "    Peer ID:             @peer\n"
                           "    Peer Hostname:       vpn.example\n"
                           "    Peer IP:             198.51.100.7\n"
                           "    Peer Name:           Harbour\n"
                           "    Local IP:            192.0.2.1\n"
                           "    Peer Group:          Branch\n"
                           "    Peer internal IP:    169.254.0.2\n"
                           "    Lease IP:            10.7.7.7\n"
                           "    VTI name:            vti3\n"
                           "    State:               Connecting\n"
                           "    Established tunnels: 2"))
      << log.all();
  log.clear();
  table_.merge({seen("", "nobody", "right", Established), seen("", "nobody", "right", Disconnected)});
  EXPECT_EQ(log.count(" Found unexpected vpn connection: "), 2) << log.all();
  EXPECT_TRUE(log.contains("State:               Established")) << log.all();
  EXPECT_TRUE(log.contains("State:               Disconnected")) << log.all();
}

// --- routes

// Verifies that the routes come from the table of the routing id, those of tunnels by their interface and
// the others as routes of nobody.
TEST_F(SiteServicesStatusTest, Routes) {
  add_route(table_number, "10.1.0.0/16", "vti3");
  add_route(table_number, "10.2.0.0/16", "vti3");
  add_route(table_number, "10.3.0.0/16", "vti4");
  add_route(table_number, "10.4.0.0/16", "eth0");
  add_route(table_number + 1, "10.5.0.0/16", "eth0");
  zol_test::route_table(table_number).set_stale();
  add_route(table_number, "10.6.0.0/16", "eth0");
  const auto routes = table_.get_bgp_routes();
  EXPECT_EQ(routes, (zol::SiteServicesBase::RoutesByInterface{
                        {"vti3", {Subnet("10.1.0.0/16"), Subnet("10.2.0.0/16")}},
                        {"vti4", {Subnet("10.3.0.0/16")}}}));
  EXPECT_EQ(type_of("10.4.0.1"), ConnRecordType::bgp_route) << "stale routes count";
  EXPECT_EQ(type_of("10.6.0.1"), ConnRecordType::bgp_route);
  for (const char* ip : {"10.1.0.1", "10.3.0.1", "10.5.0.1"})
    EXPECT_EQ(type_of(ip), ConnRecordType::world) << ip;
  zol_test::route_table(table_number).clear();
  table_.get_bgp_routes();
  EXPECT_EQ(type_of("10.4.0.1"), ConnRecordType::world) << "made anew each time";
}

// Verifies that a tunnel's routes go to the connection that was seen with its interface, and leave with them.
TEST_F(SiteServicesStatusTest, RoutesOfAConnection) {
  const auto conn = add_conn(*table_.add_site("a"), "id", "right");
  add_route(table_number, "10.1.0.0/16", "vti3");
  add_route(table_number, "10.3.0.0/16", "vti4");
  zol::VPNConnInfo info = seen("a", "id", "right");
  info.vti_interface = "vti3";
  table_.merge({info});
  EXPECT_EQ(conn->bgp_subnets, (std::set<Subnet>{Subnet("10.1.0.0/16")}));
  EXPECT_EQ(type_of("10.1.0.1"), ConnRecordType::site);
  EXPECT_EQ(table_.get_site_record("10.1.0.1").key, "right");
  EXPECT_EQ(type_of("10.3.0.1"), ConnRecordType::world) << "nobody was seen with that interface";
  zol_test::route_table(table_number).clear();
  table_.merge({info});
  EXPECT_TRUE(conn->bgp_subnets.empty());
  EXPECT_EQ(type_of("10.1.0.1"), ConnRecordType::world);
}

// Verifies that a route that a connection has learned is the connection's, though another interface has it
// too.
TEST_F(SiteServicesStatusTest, ConnectionBeforeIndirectRoute) {
  add_conn(*table_.add_site("a"), "id", "right");
  zol::SiteServicesBase::RoutesByInterface routes{{"vti3", {Subnet("10.1.0.0/16")}}};
  table_.bgp_subnets.add_subnet({nullptr, nullptr, Subnet("10.1.0.0/16")});
  zol::VPNConnInfo info = seen("a", "id", "right");
  info.vti_interface = "vti3";
  table_.update_entry(info, routes);
  EXPECT_EQ(type_of("10.1.0.1"), ConnRecordType::site);
}

// --- the cycle

// Verifies one cycle: states begin anew, what is seen is merged, the log hears of it, the next is charged.
TEST_F(SiteServicesStatusTest, Cycle) {
  const auto site = cycle_.add_site("a");
  const auto up = add_conn(*site, "up", "right", Connecting);
  const auto down = add_conn(*site, "down", "right", Established);
  up->established_tunnels = down->established_tunnels = {"1x1"};
  up->state_timestamp = 17;
  cycle_.infos = {seen("a", "up", "right"), seen("a", "down", "right", Disconnected)};
  cycle_.conn_agg = std::make_unique<zol::VPNConnDataAgg>();
  timeval before{};
  gettimeofday(&before, nullptr);
  cycle_.vpn_status();
  timeval after{};
  gettimeofday(&after, nullptr);
  EXPECT_EQ(cycle_.states_at_the_commands, (std::vector{Disconnected, Disconnected}));
  EXPECT_EQ(up->state, Established);
  EXPECT_TRUE(up->established_tunnels.empty());
  EXPECT_EQ(up->state_timestamp, 17);
  EXPECT_EQ(down->state, Disconnected);
  EXPECT_EQ(cycle_.conn_agg->get_conn_pct(*up), 1.0);
  EXPECT_EQ(cycle_.conn_agg->get_conn_pct(*down), 0.0);
  EXPECT_EQ(record().row_count, 2u);
  timeval due{};
  ASSERT_TRUE(event_pending(&cycle_.vpn_status_timer.ev, EV_TIMEOUT, &due));
  const auto ms = [](const timeval& t) { return t.tv_sec * 1000 + t.tv_usec / 1000; };
  constexpr long coarse_clock_ms = 50;
  EXPECT_GE(ms(due), ms(before) + 1000 - coarse_clock_ms);
  EXPECT_LE(ms(due), ms(after) + 1000 + coarse_clock_ms);
  cycle_.uninit();
  EXPECT_FALSE(cycle_.vpn_status_timer.is_pending());
}

// Verifies that the share of uptime is reported and begins anew, also for two connections of one right_id.
TEST_F(SiteServicesStatusTest, ShareOfUptime) {
  cycle_.conn_agg = std::make_unique<zol::VPNConnDataAgg>();
  const auto site = cycle_.add_site("a");
  const auto conn = add_conn(*site, "id", "right");
  const auto twin = add_conn(*site, "id", "elsewhere");
  const auto pct = [this](const zol::VPNConnInfo& of) {
    libvariant::Variant entry;
    cycle_.vpn_set_conn_pct(entry, of);
    return entry.At("connectivity_pct").AsDouble();
  };
  EXPECT_EQ(pct(*conn), 0.0);
  cycle_.infos = {seen("a", "id", "right"), seen("a", "id", "elsewhere", Disconnected)};
  cycle_.vpn_status();
  EXPECT_EQ(pct(*conn), 0.5);
  EXPECT_EQ(pct(*twin), 0.5);
  cycle_.vpn_clear_conn_pct();
  EXPECT_EQ(pct(*conn), 0.0);
}

// Verifies that a cycle starts at once when the configuration has sites, and never without any.
TEST_F(SiteServicesStatusTest, FirstCycle) {
  zol_test::MiddleMileNode node({zol_test::bare_site.text()});
  const auto is_charged = [this] { return cycle_.vpn_status_timer.is_pending(); };
  cycle_.init();
  EXPECT_TRUE(is_charged());
  node.set(zol_test::MiddleMileNode::text({}, "", zol_test::middle_mile));
  cycle_.reconfigure();
  EXPECT_FALSE(is_charged());
  node.set(zol_test::MiddleMileNode::text({zol_test::bare_site.text()}, "", zol_test::middle_mile));
  cycle_.reconfigure();
  EXPECT_TRUE(is_charged());
  cycle_.uninit();
}

// --- the published states

// Verifies that the states of the last site go with it at a reload, and that a reload without sites before
// and after it publishes nothing.
TEST_F(SiteServicesStatusTest, LastSiteGoes) {
  zol_test::MiddleMileNode node({}, "", "");
  add_conn(*cycle_.add_site("a"), "id", "right", Established);
  cycle_.update_shm();
  ASSERT_EQ(record().row_count, 1u);
  cycle_.reconfigure();
  EXPECT_EQ(record().row_count, 0u);
  record_->data->row_count = 7;
  cycle_.reconfigure();
  EXPECT_EQ(record().row_count, 7u);
}

zol::VPNConnInfo* named(zol::SiteService& site, std::size_t length) {
  zol::VPNConnInfo* conn = add_conn(site, "", "", Established).get();
  conn->internal_id.clear();
  conn->name = std::string(length - conn->get_connection_name().size(), 'n');
  return conn;
}

// Verifies the rows: names and flags in the order of the sites, without those that accept no connections.
TEST_F(SiteServicesStatusTest, PublishedRows) {
  const auto second = cycle_.add_site("b");
  const auto first = cycle_.add_site("a");
  cycle_.add_site("c")->accept_connections = false;
  add_conn(*cycle_.site_services["c"], "x", "x", Established);
  const auto up = add_conn(*first, "up", "right", Established);
  const auto connecting = add_conn(*first, "connecting", "right", Connecting);
  connecting->enabled = false;
  const auto down = add_conn(*second, "down", "right", Disconnected);
  cycle_.update_shm();
  ASSERT_EQ(record().row_count, 3u);
  EXPECT_EQ(record().rows[0].name, up->get_connection_name());
  EXPECT_EQ(record().rows[0].established, 1);
  EXPECT_EQ(record().rows[1].name, connecting->get_connection_name());
  EXPECT_EQ(record().rows[1].established, 0);
  EXPECT_EQ(record().rows[2].name, down->get_connection_name());
  EXPECT_EQ(record().rows[2].established, 0);
  cycle_.site_services.clear();
  cycle_.update_shm();
  EXPECT_EQ(record().row_count, 0u);
}

// Verifies that a name of 1499 characters is published, and one of 1500 is left out with an error.
TEST_F(SiteServicesStatusTest, LongNames) {
  const auto site = cycle_.add_site("a");
  const auto* longest = named(*site, 1499);
  const auto* too_long = named(*site, 1500);
  const auto* last = named(*site, 20);
  const zol_test::LogCapture log;
  cycle_.update_shm();
  ASSERT_EQ(record().row_count, 2u);
  EXPECT_EQ(record().rows[0].name, longest->get_connection_name());
  EXPECT_EQ(record().rows[0].established, 1);
  EXPECT_EQ(record().rows[1].name, last->get_connection_name());
  EXPECT_TRUE(
      log.contains(log_level::error, "Connection name is too long ! : " + too_long->get_connection_name()));
  EXPECT_EQ(log.count("Connection name is too long"), 1);
}

// Verifies that the record takes 100 rows, and more connections than that are left out with one error.
TEST_F(SiteServicesStatusTest, FullRecord) {
  const auto site = cycle_.add_site("a");
  for (int i = 0; i < 100; ++i)
    add_conn(*site, std::to_string(i), "right", Established);
  zol_test::LogCapture log;
  cycle_.update_shm();
  EXPECT_EQ(record().row_count, 100u);
  EXPECT_FALSE(log.contains("can be published")) << log.all();
  EXPECT_EQ(record().rows[99].name, site->entries.back()->get_connection_name());
  add_conn(*site, "101", "right");
  add_conn(*site, "102", "right");
  cycle_.update_shm();
  cycle_.update_shm();
  EXPECT_EQ(record().row_count, 100u);
  EXPECT_EQ(log.count("only 100 tunnel states can be published"), 1) << log.all();
}

}  // namespace
