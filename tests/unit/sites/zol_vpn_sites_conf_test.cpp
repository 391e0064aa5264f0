// The lists of the process.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "sites/zol_monitored_vpn_sites.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sites/vpn_config.h"

namespace zol {
namespace {

using zol_test::bare_site;
using zol_test::VpnNode;

[[noreturn]] void report_ref_without_object() {
  const zol_test::LogCapture log;
  try {
    ZOLVPNSitesConf::ref();
    std::fputs("no exception", stderr);
  } catch (const std::runtime_error& failure) {
    std::fprintf(stderr, "thrown <%s> logged %d", failure.what(),
                 log.contains(log_level::fatal, "Called ref without object"));
  }
  std::exit(0);
}

// Verifies that the object can't be had before it is made, which is fatal. In a process of its own, since
// there is one object a process.
TEST(ZOLVPNSitesConfTest, RefWithoutObject) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(report_ref_without_object(), testing::ExitedWithCode(0),
              "thrown <Called ref without object> logged 1");
}

// Verifies that there is one object, made without lists.
TEST(ZOLVPNSitesConfTest, Singleton) {
  const VpnNode node({});
  ZOLVPNSitesConf* const conf = ZOLVPNSitesConf::instance();
  ASSERT_NE(conf, nullptr);
  EXPECT_EQ(ZOLVPNSitesConf::instance(), conf);
  EXPECT_EQ(&ZOLVPNSitesConf::ref(), conf);
  EXPECT_TRUE(conf->empty());
}

// Verifies that making it is logged.
TEST(ZOLVPNSitesConfTest, Created) {
  const VpnNode node({});
  const zol_test::LogCapture log;
  const ZOLVPNSitesConf conf;
  EXPECT_TRUE(log.contains(log_level::info, "VPN site conf created")) << log.all();
}

// Verifies that a reload is always wanted, and says nothing of a service to run.
TEST(ZOLVPNSitesConfTest, NeedReconf) {
  const VpnNode node({});
  ZOLVPNSitesConf conf;
  for (bool enabled : {true, false}) {
    const bool before = enabled;
    EXPECT_TRUE(conf.need_reconf(enabled));
    EXPECT_EQ(enabled, before);
  }
}

// Verifies that reconfigure reads every list anew, each as its kind does.
TEST(ZOLVPNSitesConfTest, ReconfiguresEachList) {
  VpnNode node({bare_site.text()});
  ZOLVPNSitesConf conf;
  conf[""] = new ZOLVPNSites;
  auto* monitored = new MonitoredVPNSites;
  conf["monitored"] = monitored;
  conf["absent"] = nullptr;
  conf.reconfigure();
  EXPECT_EQ(conf[""]->site_confs.size(), 1u);
  EXPECT_EQ(monitored->site_confs.size(), 1u);
  node.set(VpnNode::text({}, "station_monitor_freq_ms = 70;"));
  conf.reconfigure();
  EXPECT_TRUE(conf[""]->site_confs.empty());
  EXPECT_TRUE(monitored->site_confs.empty());
  EXPECT_EQ(monitored->station_monitor_freq_ms, 70);
}

// Verifies that the lists go with the object.
TEST(ZOLVPNSitesConfTest, OwnsItsLists) {
  struct Watched : ZOLVPNSites {
    explicit Watched(bool& flag) : gone(flag) {}
    ~Watched() override { gone = true; }
    bool& gone;
  };
  const VpnNode node({});
  bool gone = false;
  {
    ZOLVPNSitesConf conf;
    conf[""] = new Watched(gone);
    EXPECT_FALSE(gone);
  }
  EXPECT_TRUE(gone);
}

}  // namespace
}  // namespace zol
