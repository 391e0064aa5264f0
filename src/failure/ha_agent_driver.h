// The link of the node's other processes to the agent of the high-availability pair, "zol_ha_agent": the
// process under the watchdog's care (HighAvailability.enabled), and what it is told of failures (records in
// core/ipc_messages.h, from "zol"). The monitoring daemon builds none.
//
// It registers for reloads; who builds it hands it to ZOLFailure::set_ha_agent and bh_notify_register, and
// takes it away again before it ends. Each event returns whether it has gone out; a failure isn't tried
// again. Logs under "HAAgentDriver". Main thread only.
#pragma once

#include <string>

#include "config/zol_configurator.h"
#include "exec/wd_executor.h"
#include "failure/zol_failopen.h"

namespace zol {

class HAAgentDriver : public WDProcessExecutor, public IReconfigure, public IBlackHoleNotify {
 public:
  HAAgentDriver();
  ~HAAgentDriver() override;

  void reconfigure() override;
  // Throws std::runtime_error when the switch is missing.
  bool need_reconf(bool& enabled) override;
  // With black holes and the agent switched on, and a target that nobody has handled, the agent is sent a
  // reload. Throws as is_enabled().
  void bh_notification(BHInfo info) override;
  // HighAvailability.enabled. Throws std::runtime_error when it is missing.
  bool is_enabled() override;

  bool dispatch_event_suspend();
  bool dispatch_event_resume();
  // `address` is a dotted IPv4 address; another text is an error line, and nothing goes out.
  bool dispatch_event_failure(const std::string& address, unsigned short port);
};

}  // namespace zol
