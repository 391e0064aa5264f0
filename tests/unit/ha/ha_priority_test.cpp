// The VRRP priority of a site's instance.
#include <gmock/gmock.h>

#include <limits>
#include <memory>

#include "ha/ha_manager.h"
#include "sites/zol_vpn_sites.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/support/vrrp_record.h"
#include "tests/unit/core/loop_fixture.h"
#include "tests/unit/ha/hop_map_fixture.h"
#include "tests/unit/sites/vpn_config.h"

namespace zol {
namespace {

// A node "a" in the cluster of the site "17", which has tunnels of the priorities 0 to 2.
class HAPriorityTest : public zol_test::LoopTest {
 protected:
  ~HAPriorityTest() override {
    zol_utils::shared_mem_enabled = true;
    drop_sites();
  }
  static void drop_sites() {
    auto& conf = *ZOLVPNSitesConf::instance();
    for (auto& [name, sites] : conf)
      delete sites;
    conf.clear();
  }
  static std::string entry(int priority) {
    return zol_test::bare_entry.with("priority", std::to_string(priority)).text();
  }
  // The rank of this hop and of the last in the cluster, 4 of 5 unless told, and when the site fails over.
  void configure(const std::string& failover_order, int hop = 3, int other_hop = 4) {
    const std::string site = zol_test::bare_site.with("failover_order", "\"" + failover_order + "\"")
                                 .with("entry_points", zol_test::list_of({entry(0), entry(2), entry(1)}))
                                 .text();
    const std::string cluster =
        "HopData: { hops = ( { hop_id = \"a\"; } ); clusters = ( { internal_site_id = "
        "\"17\"; virtual_router_id = 1; hops = ( { hop_id = \"a\"; priority = " +
        std::to_string(hop) + "; }, { hop_id = \"b\"; priority = " + std::to_string(other_hop) +
        "; } ); } ); };";
    config_.set(
        zol_test::VpnNode::text({site}, "", "General: { zol_id = \"n\"; hop_id = \"a\"; };\n" + cluster));
    ZOLNetworks::instance()->read_configuration();
    drop_sites();
    auto& conf = *ZOLVPNSitesConf::instance();
    conf[""] = new ZOLVPNSites;
    conf.reconfigure();
    ASSERT_NE(conf[""]->get_site("17"), nullptr);
    ASSERT_EQ(conf[""]->get_site("17")->worst_priority, 3);
  }

  const bool off_ = zol_utils::shared_mem_enabled = false;
  zol_test::LogCapture log_;
  zol_test::ScopedConfig config_{"General: { zol_id = \"n\"; };"};
  HAManager manager_;
};

// Verifies that a site without a tunnel that is up has the lowest priority, whatever the hop's rank.
TEST_F(HAPriorityTest, NoTunnel) {
  for (const char* order : {"site_first", "vantorel_first"}) {
    configure(order, 1, 200);
    EXPECT_EQ(manager_.get_priority("17", 3), 1);
  }
  EXPECT_TRUE(log_.contains(log_level::warning, "No VPN tunnels are up, setting lowest priority: 1"));
}

// Verifies that for a site that tries another node first the hop weighs ten times the tunnel.
TEST_F(HAPriorityTest, SiteFirst) {
  for (const char* order : {"site_first", "active_active"}) {
    configure(order, 3);
    EXPECT_EQ(manager_.get_priority("17", 1), (5 - 3) * 10 + (3 - 1));
    configure(order, 4);
    EXPECT_EQ(manager_.get_priority("17", 1), 12);
  }
  EXPECT_TRUE(log_.contains(log_level::debug,
                            "get_priority: Setting Priority at site fails over first worst tunnel = 3, this "
                            "tunnel = 1, worst hop = 5, this hop = 4"));
}

// Verifies that for every other site the tunnel weighs ten times the hop.
TEST_F(HAPriorityTest, TunnelFirst) {
  configure("vantorel_first", 3);
  EXPECT_EQ(manager_.get_priority("17", 1), 2 + 20);
  configure("vantorel_first", 4);
  EXPECT_EQ(manager_.get_priority("17", 1), 21);
  EXPECT_EQ(manager_.get_priority("17", 0), 31);
  EXPECT_TRUE(log_.contains(log_level::debug,
                            "get_priority: Setting Priority at Vantorel fails over first worst tunnel = 3, "
                            "this tunnel = 0, worst hop = 5, this hop = 4"));
}

// Verifies that an unknown site counts as one with a single rank of tunnels, that tries another node first.
TEST_F(HAPriorityTest, UnknownSite) {
  configure("vantorel_first");
  EXPECT_EQ(manager_.get_priority("18", 1), (2 - 1) * 10 + (2 - 1));
  EXPECT_EQ(manager_.get_priority("18", 2), 1);
  EXPECT_TRUE(manager_.is_site_failover_first("18"));
}

// Verifies which orders are "another node first".
TEST_F(HAPriorityTest, FailoverOrder) {
  const std::pair<const char*, bool> orders[] = {{"site_first", true},
                                                 {"active_active", true},
                                                 {"vantorel_first", false},
                                                 {"", false},
                                                 {"Site_first", false}};
  for (const auto& [order, site_first] : orders) {
    configure(order);
    EXPECT_EQ(manager_.is_site_failover_first("17"), site_first) << order;
  }
}

// Verifies that ranks of any size give a number and no overflow.
TEST_F(HAPriorityTest, LargeRanks) {
  configure("site_first", std::numeric_limits<int>::min(), 2'000'000'000);
  EXPECT_EQ(manager_.get_priority("17", 1), std::numeric_limits<int>::max());
  EXPECT_EQ(manager_.get_priority("17", std::numeric_limits<int>::max()), std::numeric_limits<int>::max());
  configure("vantorel_first", 1, 1);
  EXPECT_EQ(manager_.get_priority("17", std::numeric_limits<int>::max()), std::numeric_limits<int>::min());
}

}  // namespace
}  // namespace zol
