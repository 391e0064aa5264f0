// Which version pings; moves the folder of the versions, which only our own build of the library lets a test
// do.
#include <gtest/gtest.h>

#include <fstream>

#include "libzolutils/helper_internal.h"
#include "sup_logger.h"
#include "tests/unit/probes/station_monitor_fixture.h"

namespace zol_test {
namespace {

class StationMonitorVersion : public StationMonitorTest {
 protected:
  StationMonitorVersion() { zol_utils::set_run_folder(node.config.folder()); }
  ~StationMonitorVersion() override { zol_utils::set_run_folder("/run/zol"); }

  void activate(const std::string& version) {
    std::ofstream(node.config.folder() + "/active_version") << version << "\n";
  }
  LogCapture log;
};

// Verifies that a version that isn't the active one leaves pinging to the other, and takes it up when it is.
TEST_F(StationMonitorVersion, ActiveVersion) {
  const std::string notice = "Station Monitor is disabled as it should be enabled only on the newer ZOL";
  configure({pinged_site.text()});
  activate("zol-9.9.9");
  make_monitor();
  EXPECT_EQ(monitor->ping_manager, nullptr);
  EXPECT_TRUE(log.contains(log_level::notice, notice)) << log.all();
  log.clear();
  activate(zol_utils::DualZOLHelper::instance()->get_zol_version());
  reload({pinged_site.text()});
  EXPECT_NE(monitor->ping_manager, nullptr);
  EXPECT_FALSE(log.contains(notice));
}

}  // namespace
}  // namespace zol_test
