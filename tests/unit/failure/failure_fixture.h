// The failure handling of one process, on the test's own record and between real endpoints.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "failure/ha_agent_driver.h"
#include "failure/monitor_driver.h"
#include "failure/zol_failure.h"
#include "shared_object.h"
#include "shared_records.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/unit/core/ipc_fixture.h"
#include "tests/unit/core/loop_fixture.h"
#include "zol_helper.h"

namespace zol_test {

inline constexpr unsigned short neighbour_port = 9001;
inline constexpr const char* neighbour = "192.0.2.7";
inline constexpr std::size_t header_size = 56;

inline const std::string failure_config = R"(
IPTables: { internal_base_port = 9001; };
Failopen: { threshold = 3; return_wait_period = 60; };
BlackHole: { enabled = true; close_service_ports = false; hqs_notification = true; };
HighAvailability: { enabled = true; };
Monitoring: { enabled = true; };
)";

struct FailopenListener : zol::IFailopen {
  void failopen_notification(bool active) override { told.push_back(active); }
  std::vector<bool> told;
};

struct BlackHoleListener : zol::IBlackHoleNotify {
  void bh_notification(zol::BHInfo info) override { told.push_back(info); }
  std::vector<zol::BHInfo> told;
};

class FailureTest : public LoopTest {
 protected:
  FailureTest() {
    zol::IDispatch::setup(node_.open("zol"), "");
    watchdog_ = node_.open("watchdog");
    daemon_ = node_.open("zol_monitor");
    agent_ = node_.open("zol_ha_agent");
    failure_ = std::make_unique<zol::ZOLFailure>();
    failure_->add(&listener_);
  }
  ~FailureTest() override {
    failure_.reset();
    zol::IDispatch::setup(-1, "");
    drop_record();
    zol_utils::shared_object_version.clear();
    zol_utils::shared_mem_enabled = true;
    zol_utils::shared_lock_wait_ms = former_wait_ms_;
  }

  void drop_record() {
    zol_utils::SharedObject<zol_utils::ZolStatusData>::drop_instance();
    record_.reset();
  }
  zol_utils::ZolStatusData& status() { return *record_->data; }
  static std::int64_t now_s() {
    timespec now{};
    zol::Helper::get_clock(now);
    return now.tv_sec;
  }
  void set_links() {
    failure_->set_notifier(&monitor_driver_);
    failure_->set_ha_agent(&agent_driver_);
  }
  void notify_failure(bool count = true, bool dns = false) {
    failure_->notify(neighbour, neighbour_port, count, dns);
  }
  void tick() { zol::ZOLFailure::check_failure_status(-1, 1, failure_.get()); }
  // The node has been in fail-open for that long.
  void begin_failopen(std::int64_t seconds_ago) {
    status().failopen_active = 1;
    status().failopen_start = now_s() - seconds_ago;
  }
  // The types of all that waits at an endpoint.
  static std::vector<int> types_at(int fd) {
    std::vector<int> types;
    for (Bytes message = receive(fd); !message.empty(); message = receive(fd))
      types.push_back(value_at<std::uint16_t>(message, 0));
    return types;
  }

  const int former_wait_ms_ = zol_utils::shared_lock_wait_ms;
  const std::string version_ =
      (zol_utils::shared_mem_enabled = true,
       zol_utils::shared_object_version = "failure-test-" + std::to_string(getpid()));
  ScopedConfig config_{failure_config};
  std::unique_ptr<zol_utils::SharedObject<zol_utils::ZolStatusData>> record_ =
      zol_utils::create_shared_record<zol_utils::ZolStatusData>(version_);
  TestNode node_;
  int watchdog_ = -1;
  int daemon_ = -1;
  int agent_ = -1;
  zol::MonitorDriver monitor_driver_{0.5};
  zol::HAAgentDriver agent_driver_;
  FailopenListener listener_;
  std::unique_ptr<zol::ZOLFailure> failure_;
  LogCapture log_;
};

using Types = std::vector<int>;
using Told = std::vector<bool>;

}  // namespace zol_test
