// The link of the node's other processes to the monitoring daemon, "zol_monitor": the process under the
// watchdog's care (Monitoring.enabled), and what it is told of failures (records in core/ipc_messages.h, from
// "zol"). The daemon itself builds none.
//
// It registers for reloads; who builds it hands it to ZOLFailure::set_notifier and bh_notify_register, and
// takes it away again before it ends. Each event returns whether it has gone out; a failure isn't tried
// again. Logs under "MonitorDriver". Main thread only.
#pragma once

#include <string>

#include "config/zol_configurator.h"
#include "exec/wd_executor.h"
#include "failure/zol_failopen.h"

namespace zol {

class MonitorDriver : public WDProcessExecutor, public IReconfigure, public IBlackHoleNotify {
 public:
  // `process_weight` is sent with the start of the process.
  explicit MonitorDriver(double process_weight);
  ~MonitorDriver() override;

  void reconfigure() override;
  // Throws std::runtime_error when the switch is missing.
  bool need_reconf(bool& enabled) override;
  // The daemon is told with BlackHole.hqs_notification only.
  void bh_notification(BHInfo info) override;

  // `address` is a dotted IPv4 address; another text is an error line, and nothing goes out.
  bool dispatch_event_failure(const std::string& address, unsigned short port);
  bool dispatch_event_failopen(bool active);
  // 255 characters of the target are sent, and "unknown" for an empty one.
  bool dispatch_event_bh(const std::string& target);
};

}  // namespace zol
