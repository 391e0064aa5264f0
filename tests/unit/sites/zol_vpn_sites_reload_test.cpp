// Who hears of a reload: the lists of a node that has two versions of the software installed.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "config/zol_configurator.h"
#include "libzolutils/helper_internal.h"
#include "sites/zol_vpn_sites.h"
#include "tests/unit/sites/site_table.h"
#include "tests/unit/sites/vpn_config.h"

namespace zol {
namespace {

using zol_test::bare_site;
using zol_test::VpnNode;

class ReloadTest : public testing::Test {
 protected:
  ReloadTest() {
    zol_utils::set_run_folder(node.config.folder());
    std::filesystem::create_directory(node.config.folder() + "/instances");
  }
  ~ReloadTest() override { zol_utils::set_run_folder("/run/zol"); }

  void install(const std::string& version) {
    std::ofstream(node.config.folder() + "/instances/zol_monitor-" + version + ".pid") << "1\n";
  }
  // How many sites the list has after a reload.
  std::size_t reload(ZOLVPNSitesConf& conf) {
    conf[""] = new ZOLVPNSites;
    node.config.configurator().reload_configuration("", 0);
    return conf[""]->site_confs.size();
  }

  VpnNode node{{bare_site.text()}};
};

// Verifies that a reload reaches the lists on a dual installation.
TEST_F(ReloadTest, DualInstallation) {
  install("zol-1.0.0");
  install("zol-2.0.0");
  ZOLVPNSitesConf conf;
  EXPECT_EQ(reload(conf), 1u);
}

// Verifies that a reload passes the lists by on a single installation.
TEST_F(ReloadTest, SingleInstallation) {
  install("zol-1.0.0");
  ZOLVPNSitesConf conf;
  EXPECT_EQ(reload(conf), 0u);
}

// Verifies that the site table reads its sites anew on an installation that becomes dual while it runs.
TEST_F(ReloadTest, BecomesDual) {
  install("zol-1.0.0");
  zol_test::without_kernel();
  zol_test::forget_site_lists();
  ASSERT_FALSE(ZOLVPNSitesConf::instance()->hears_reloads);
  node.set(VpnNode::text({bare_site.text()}, "", zol_test::middle_mile));
  zol_test::SiteTable table;
  table.init();
  EXPECT_EQ(table.site_services.size(), 1u);
  install("zol-2.0.0");
  node.set(VpnNode::text({bare_site.text(), bare_site.with("internal_id", "\"18\"").text()}, "",
                         zol_test::middle_mile));
  table.reconfigure();
  EXPECT_EQ(table.site_services.size(), 2u);
  zol_test::forget_site_lists();
}

// Verifies that a reload after the object's end finds nobody.
TEST_F(ReloadTest, Unregisters) {
  install("zol-1.0.0");
  install("zol-2.0.0");
  { const ZOLVPNSitesConf conf; }
  node.config.configurator().reload_configuration("", 0);
  ZOLVPNSitesConf conf;
  EXPECT_EQ(reload(conf), 1u);
}

}  // namespace
}  // namespace zol
