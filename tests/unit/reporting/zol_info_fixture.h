// A ZolInfo over sessions, a configuration, a folder for /proc, an iptables and shared records of the test's
// own.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "core/monitor_context.h"
#include "reporting/zol_info.h"
#include "sessions/zol_monitor_data.h"
#include "shared_object.h"
#include "shared_records.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/unit/stats/stats_fixture.h"
#include "variant.h"

namespace zol_test {

class ZolInfoTest : public testing::Test {
 protected:
  ZolInfoTest();
  ~ZolInfoTest() override;

  // The configuration's text behind the id.
  void configure(const std::string& more);
  // What an iptables prints for the two chains; an empty text for a chain that isn't there.
  void set_flood_counters(const std::string& syn, const std::string& icmp);
  // /proc/net/netlink: the heading and these lines.
  void set_netlink_lines(const std::string& lines);
  // One line of it; pid 0 is this process's.
  static std::string netlink_line(unsigned long drops, unsigned long pid = 0);
  void set_new_connections(std::uint32_t tcp, std::uint32_t udp = 0);
  // Another process sits on the record's lock from now on.
  template <typename T>
  void hold_lock(zol_utils::SharedObject<T>& record) {
    zol_utils::shared_lock_wait_ms = 1;
    sem_wait(&record.data->header.lock);
    record.data->header.owner_pid = getppid();
  }
  void hold_status_lock() { hold_lock(*status_); }
  // The line that the failing lock of that record leaves.
  static std::string lock_failed(const std::string& caller, const std::string& record = "13ZolStatusData");

  zol_utils::ZolStatusData& status() { return *status_->data; }
  zol_utils::AggregatedStats& aggregated() { return *aggregated_->data; }
  zol_monitor::ConntrackEvents& conntrack() { return data_.conntrack; }

  const std::string version_;
  const int former_wait_ms_;
  FakeProc proc_;
  FakeCommands commands_;
  ScopedConfig config_;
  std::unique_ptr<zol_utils::SharedObject<zol_utils::ZolStatusData>> status_;
  std::unique_ptr<zol_utils::SharedObject<zol_utils::AggregatedStats>> aggregated_;
  std::unique_ptr<LogCapture> log_;
  zol_monitor::MonitorContext context_;
  zol_monitor::MonitorData data_;
  zol_monitor::ZolInfo info_;
};

}  // namespace zol_test
