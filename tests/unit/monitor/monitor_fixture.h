// A monitor on a loop, with a configuration and, at need, a status record of its own.
#pragma once

#include <event2/event.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "config/services.h"
#include "core/zol_libevent.h"
#include "shared_object.h"
#include "shared_records.h"
#include "sites/vpn_sites_services.h"
#include "tests/support/bare_monitor.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"

namespace zol_test {

// The settings that a monitor can't do without; `more` goes into Monitoring.
inline std::string monitor_config(const std::string& more = "") {
  return R"(
General: { zol_id = "unit"; external_ip = "192.0.2.1"; hqs_http_client_timeout_sec = 2;
           max_thread_runtime_ms = 60000; };
IPTables: { internal_port_range_start = 9000; internal_port_range_end = 9100; };
Monitoring: {
  hqs_receiver_url = "https://127.0.0.1:1"; hqs_slr_receiver_url = "https://127.0.0.1:1";
  unmarked_target = "none"; session_report_is_enabled = true; )" +
         more + "};";
}

inline const char* const usual_periods =
    "report_resolution_ms = 60000; traffic_report_resolution_ms = 60000; session_report_resolution_ms = "
    "60000;"
    "polling_rate_ms = 1; reporter_total_retries = 2;";

class MonitorFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    static const bool ready = (zol::ZOLEventBase::init(), true);
    static_cast<void>(ready);
    zol_monitor::reports_disabled = false;
    zol_utils::shared_mem_enabled = false;
  }

  BareMonitor& monitor() {
    if (!monitor_) {
      services_ = std::make_unique<zol::Services>(false, false);
      monitor_ = std::make_unique<BareMonitor>(services_.get(), zol::SiteServices::instance(), nullptr, true);
    }
    return *monitor_;
  }

  // Creates the status record under a version that no other process uses.
  zol_utils::ZolStatusData& status_record() {
    zol_utils::shared_mem_enabled = true;
    zol_utils::shared_object_version = "unit-monitor-" + std::to_string(getpid());
    status_ = zol_utils::create_shared_record<zol_utils::ZolStatusData>(zol_utils::shared_object_version);
    return *status_->data;
  }

  template <typename Record>
  void deliver(msgtype_e type, Record record = {}) {
    record.header.type = msgtype_value(type);
    monitor().handle_ipc_msg(reinterpret_cast<const unsigned char*>(&record), sizeof record);
  }

  // Runs the loop until the condition holds; false after many passes without it.
  template <typename Condition>
  bool run_until(Condition condition) {
    for (int pass = 0; pass < 5000 && !condition(); ++pass) {
      const timeval limit = {0, 2000};
      event_base_loopexit(zol::ZOLEventBase::base(), &limit);
      event_base_dispatch(zol::ZOLEventBase::base());
    }
    return condition();
  }

  void TearDown() override {
    monitor_.reset();
    zol_utils::SharedObject<zol_utils::ZolStatusData>::drop_instance();
    status_.reset();
  }

  ScopedConfig config_{monitor_config(usual_periods)};
  LogCapture log_;

 private:
  std::unique_ptr<zol::Services> services_;
  std::unique_ptr<BareMonitor> monitor_;
  std::unique_ptr<zol_utils::SharedObject<zol_utils::ZolStatusData>> status_;
};

}  // namespace zol_test
