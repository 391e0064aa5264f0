// What the periodic report tells about the connections.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "shared_object.h"
#include "sites/vpn_conn_data_agg.h"
#include "tests/unit/sites/site_table.h"
#include "vpn_tunnel_records.h"

namespace {

using libvariant::Variant;
using zol::Connecting;
using zol::Disconnected;
using zol::Established;
using zol::Subnet;
using zol_test::add_conn;
using zol_utils::tunnel_med_results_t;

const std::string direct_hop =
    R"(General: { hop_id = "h1"; }; HopData: { hops = ( { hop_id = "h1"; is_direct = true; } ); };)";
const std::string vpn_on = "VPNIPsec: { enabled = true; };";

// Adds the keys that a test gives it.
class Info : public zol::ISiteAdditionalInfo {
 public:
  Variant add_info(const std::string& site_id) const override {
    asked.push_back(site_id);
    return of_site;
  }
  Variant add_info(const std::string& site_id, std::string entry_key) const override {
    asked.push_back(site_id + "/" + entry_key);
    return of_connection;
  }
  std::string gen_entry_key(const zol::VPNConnInfo& conn) const override { return "key of " + conn.right; }

  Variant of_site;
  Variant of_connection;
  mutable std::vector<std::string> asked;
};

class ReportTable : public zol_test::SiteTable {
 public:
  void vpn_set_conn_pct(Variant& entry, const zol::VPNConnInfo&) override {
    entry.Assign("connectivity_pct", 0.25);
  }
  void vpn_clear_conn_pct() override { ++cleared; }
  int cleared = 0;
};

class SiteServicesReportTest : public testing::Test {
 protected:
  SiteServicesReportTest() {
    configure(direct_hop + vpn_on);
    zol_utils::shared_object_version = "sites-report-test-" + std::to_string(getpid());
    meds_ = zol_utils::create_shared_record<tunnel_med_results_t>(zol_utils::shared_object_version);
    site_->vpn_group = "Branch";
    site_->primary = true;
    site_->total_tunnels = 12;
  }
  ~SiteServicesReportTest() override {
    zol_utils::SharedObject<tunnel_med_results_t>::drop_instance();
    zol_utils::shared_object_version.clear();
  }
  void configure(const std::string& text) {
    config_.set(text);
    zol::ZOLNetworks::instance()->read_configuration();
  }
  void set_med(const char* address, std::uint32_t med) {
    tunnel_med_results_t& record = *meds_->data;
    record.rows[record.row_count++] = {inet_addr(address), med};
  }
  Variant report(std::initializer_list<const zol::ISiteAdditionalInfo*> infos = {}) {
    std::list<const zol::ISiteAdditionalInfo*> list(infos);
    return table_.get_connections_info_variant(&list, true);
  }
  Variant entry(std::initializer_list<const zol::ISiteAdditionalInfo*> infos = {}) {
    const Variant list = report(infos);
    EXPECT_EQ(list.Size(), 1u);
    return list.Size() == 1 ? list.AsList().front() : Variant();
  }

  zol_test::ScopedConfig config_{""};
  std::unique_ptr<zol_utils::SharedObject<tunnel_med_results_t>> meds_;
  ReportTable table_;
  std::shared_ptr<zol::SiteService> site_ = table_.add_site("s1");
};

// Verifies every key of a connection without BGP and lease, and that there is no other.
TEST_F(SiteServicesReportTest, Keys) {
  const auto conn = add_conn(*site_, "@hq.site", "vpn.example", Established);
  conn->left = "192.0.2.1";
  conn->peer_ip = "198.51.100.7";
  conn->state_timestamp = 1700000000;
  conn->established_tunnels = {"1x1", "1x2", "2x1"};
  conn->bgp_subnets = {Subnet("10.0.0.0/8")};
  Variant expected;
  expected.Assign("internal_id", "s1");
  expected.Assign("type", "site");
  expected.Assign("ip", "vpn.example");
  expected.Assign("id", "hq.site");
  expected.Assign("interface_ip", "192.0.2.1");
  expected.Assign("name", "name of s1");
  expected.Assign("vpn_group", "Branch");
  expected.Assign("state", "connected");
  expected.Assign("state_timestamp", "2023-11-14T22:13:20Z");
  expected.Assign("primary", true);
  expected.Assign("total_tunnels", 12);
  expected.Assign("established_tunnels", 3);
  expected.Assign("connectivity_pct", 0.25);
  EXPECT_EQ(entry(), expected);
}

// Verifies the three names of a state.
TEST_F(SiteServicesReportTest, States) {
  const auto conn = add_conn(*site_, "id", "right", Disconnected);
  EXPECT_EQ(entry().At("state").AsString(), "disconnected");
  conn->state = Connecting;
  EXPECT_EQ(entry().At("state").AsString(), "connecting");
}

// Verifies that a remote access client is told by its resolved address, with the leased one.
TEST_F(SiteServicesReportTest, RemoteAccess) {
  site_->type = "remote_access";
  const auto conn = add_conn(*site_, "client", "%any");
  conn->peer_ip = "198.51.100.7";
  conn->lease_ip = "10.7.7.7";
  const Variant told = entry();
  EXPECT_EQ(told.At("type").AsString(), "remote_access");
  EXPECT_EQ(told.At("ip").AsString(), "198.51.100.7");
  EXPECT_EQ(told.At("id").AsString(), "client");
  EXPECT_EQ(told.At("lease_ip").AsString(), "10.7.7.7");
}

// Verifies the keys of BGP: the MED only when there is one, and the routes in the order of the set.
TEST_F(SiteServicesReportTest, Bgp) {
  site_->bgp_enabled = true;
  const auto conn = add_conn(*site_, "id", "right");
  conn->peer_internal_ip = "169.254.0.2";
  Variant told = entry();
  EXPECT_FALSE(told.Contains("bgp_med"));
  EXPECT_TRUE(told.At("bgp_routes").IsList());
  EXPECT_TRUE(told.At("bgp_routes").Empty());
  set_med("169.254.0.1", 5);
  set_med("169.254.0.2", 70);
  conn->bgp_subnets = {Subnet("10.2.0.0/16"), Subnet("10.1.0.0/16")};
  told = entry();
  EXPECT_EQ(told.At("bgp_med").AsUnsigned(), 70u);
  ASSERT_EQ(told.At("bgp_routes").Size(), 2u);
  EXPECT_EQ(told.At("bgp_routes").AsList()[0].AsString(), "10.1.0.0/16");
  EXPECT_EQ(told.At("bgp_routes").AsList()[1].AsString(), "10.2.0.0/16");
  meds_->data->rows[1].med = 0xffffffff;
  EXPECT_FALSE(entry().Contains("bgp_med")) << "that value says that there is none";
  meds_->data->rows[1].med = 0;
  EXPECT_TRUE(entry().Contains("bgp_med"));
}

// Verifies that only a first "@" is taken off the id.
TEST_F(SiteServicesReportTest, Id) {
  const auto conn = add_conn(*site_, "@@a@b", "right");
  EXPECT_EQ(entry().At("id").AsString(), "@a@b");
  conn->right_id = "a@b";
  EXPECT_EQ(entry().At("id").AsString(), "a@b");
}

// Verifies that an empty right_id makes the report fail, and leaves the last list as it was.
TEST_F(SiteServicesReportTest, EmptyId) {
  const auto conn = add_conn(*site_, "id", "right");
  report();
  conn->right_id.clear();
  EXPECT_THROW(report(), std::out_of_range);
  EXPECT_EQ(table_.connections_info.size(), 1u);
  EXPECT_EQ(table_.cleared, 1);
  conn->enabled = false;
  EXPECT_NO_THROW(report());
}

// Verifies which connections are told: the enabled ones of sites that accept any, site by site.
TEST_F(SiteServicesReportTest, WhichConnections) {
  add_conn(*site_, "off", "off")->enabled = false;
  add_conn(*site_, "1", "s1-1");
  add_conn(*site_, "2", "s1-2");
  add_conn(*table_.add_site("s0"), "1", "s0-1");
  const auto closed = table_.add_site("s2");
  closed->accept_connections = false;
  add_conn(*closed, "1", "s2-1");
  std::vector<std::string> told;
  const Variant list = report();
  for (const Variant& connection : list.AsList())
    told.push_back(connection.At("ip").AsString());
  EXPECT_EQ(told, (std::vector<std::string>{"s0-1", "s1-1", "s1-2"}));
}

// Verifies that others add keys, to a site's connections and to each, and that keys which are there stay: a
// connection's own first, then the site's, then each connection's in the order of those who add.
TEST_F(SiteServicesReportTest, AddedKeys) {
  add_conn(*site_, "1", "right1");
  add_conn(*site_, "2", "right2");
  Info first;
  first.of_site = Variant::make_map();
  first.of_site.Assign("state", "not this");
  first.of_site.Assign("of_site", "first");
  first.of_connection.Assign("of_site", "not this");
  first.of_connection.Assign("of_connection", "first");
  Info second;
  second.of_site.Assign("of_site", "not this");
  second.of_site.Assign("only_second", 2);
  second.of_connection.Assign("of_connection", "not this");
  const Info silent;
  const Variant list = report({&first, &second, &silent});
  ASSERT_EQ(list.Size(), 2u);
  for (const Variant& connection : list.AsList()) {
    EXPECT_EQ(connection.At("state").AsString(), "disconnected");
    EXPECT_EQ(connection.At("of_site").AsString(), "first");
    EXPECT_EQ(connection.At("only_second").AsInt(), 2);
    EXPECT_EQ(connection.At("of_connection").AsString(), "first");
  }
  EXPECT_EQ(first.asked, (std::vector<std::string>{"s1", "s1/key of right1", "s1/key of right2"}));
}

// Verifies that a call without refresh shows the last list, and only a refresh begins the shares anew.
TEST_F(SiteServicesReportTest, CachedList) {
  const auto conn = add_conn(*site_, "id", "right");
  EXPECT_TRUE(table_.get_connections_info_variant(nullptr, false).Empty());
  EXPECT_EQ(table_.cleared, 0);
  report();
  EXPECT_EQ(table_.cleared, 1);
  conn->state = Established;
  const Variant cached = table_.get_connections_info_variant(nullptr, false);
  ASSERT_EQ(cached.Size(), 1u);
  EXPECT_EQ(cached.AsList()[0].At("state").AsString(), "disconnected");
  EXPECT_EQ(table_.cleared, 1);
  EXPECT_EQ(table_.get_connections_info_variant(nullptr, true).AsList()[0].At("state").AsString(),
            "connected");
}

// Verifies that nothing is told with VPNs off, without that setting, and when this node is no direct hop.
TEST_F(SiteServicesReportTest, NothingToTell) {
  add_conn(*site_, "id", "right");
  EXPECT_EQ(report().Size(), 1u);
  for (const std::string& text :
       {direct_hop + "VPNIPsec: { enabled = false; };", direct_hop,
        vpn_on + R"(General: { hop_id = "h1"; }; HopData: { hops = ( { hop_id = "h1"; } ); };)"}) {
    configure(text);
    EXPECT_TRUE(report().IsNull()) << text;
    EXPECT_TRUE(table_.get_connections_info_variant(nullptr, false).IsNull()) << text;
  }
  EXPECT_EQ(table_.cleared, 1);
}

}  // namespace
