// The three reports of a node: periodic, traffic and sessions.
//
// All texts are JSON objects; the order of keys carries no meaning. Reading some figures clears them, so each
// report is made once. create_report() runs on the loop, and its length holds up every timer.
//
// Logs under "ZOLReporter". Main thread only.
#pragma once

#include <list>
#include <string>

#include "reporting/reporter.h"
#include "reporting/zol_info.h"
#include "reporting/zol_traffic.h"
#include "sessions/finished_sessions.h"
#include "stats/machine_info.h"
#include "variant.h"

namespace zol {
class ISiteAdditionalInfo;
}

namespace zol_monitor {

class MonitorData;

// What the three share: the program's configuration, the monitored data and the machine's figures.
class ZOLReporter : public Reporter {
 public:
  // `monitor_data` is not owned and outlives the reporter. `sampler_wanted` see MachineInfo.
  ZOLReporter(std::string url_key, std::string path, std::string timeout_key, bool compress,
              bool save_on_success, MonitorData* monitor_data, bool sampler_wanted = false);

  std::string get_client_cert_path() override;  // General.client_cert_path

  MonitorData* monitor_data;
  MachineInfo machine_info;

 protected:
  // Adds `metadata` when the setting of that name is true.
  void add_metadata(libvariant::Variant& report, const char* switch_key) const;
};

// The state of the node in the period since the last one, which ends with it. Its text is also left in the
// shared ZolReportData, for the node's other processes.
class PeriodicReporter : public ZOLReporter {
 public:
  // `station_monitor` adds to the report of each connection; null is none.
  PeriodicReporter(std::string url_key, std::string path, std::string timeout_key, bool compress,
                   bool save_on_success, MonitorData* monitor_data,
                   const zol::ISiteAdditionalInfo* station_monitor);

  std::string create_report() override;
  // Who adds to the report of each connection.
  virtual std::list<const zol::ISiteAdditionalInfo*> get_monitors();
  // A map with the list `connections`, which is empty when there is no VPN connection.
  libvariant::Variant get_vpn_status();

  ZolInfo info;

 private:
  const zol::ISiteAdditionalInfo* station_monitor_;
};

// Bytes and packets of the interval: of links and tunnels on a middle-mile node, else of logical networks.
class ZolTrafficReporter : public ZOLReporter {
 public:
  ZolTrafficReporter(std::string url_key, std::string path, std::string timeout_key, bool compress,
                     bool save_on_success, MonitorData* monitor_data, bool middle_mile);

  std::string create_report() override;

  ZolTraffic traffic;
  bool middle_mile;  // the node's role when the reporter was made

 private:
  void add_traffic(libvariant::Variant& report);
};

// The sessions that finished in the interval; empty without any. The finished sessions are let go as soon as
// the text stands.
class ZolSessionReporter : public ZOLReporter {
 public:
  ZolSessionReporter(std::string url_key, std::string path, std::string timeout_key, bool compress,
                     bool save_on_success, MonitorData* monitor_data);

  std::string create_report() override;
  void drop_report() override;

  ZolSessionsReport sessions_report;
};

}  // namespace zol_monitor
