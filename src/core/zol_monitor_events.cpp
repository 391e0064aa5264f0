// Messages of the node's other processes that tell of single happenings.
#include <cstring>
#include <string>

#include "config/address_text.h"
#include "core/zol_monitor.h"
#include "sup_logger.h"

namespace zol_monitor {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Monitor");
  return instance;
}

}  // namespace

void ZOLMonitor::failure_notify(ipc_failure_msg_t* msg) {
  if (msg->status != 0)
    return;
  for (std::size_t i = 0; i < msg->count && i < std::size(msg->ports); ++i)
    SUP_LOG(logger(), log_level::notice)
        << "failure_notify"
        << ": failure of " << zol::address_text(msg->address) << ":" << +msg->ports[i];
}

void ZOLMonitor::failopen_notify(ipc_failopen_msg_t* msg) {
  SUP_LOG(logger(), log_level::notice) << "failopen_notify"
                                       << ": fail-open is " << (msg->enabled != 0 ? "on" : "off");
}

void ZOLMonitor::bh_event_notify(ipc_bh_event_msg_t* msg) {
  SUP_LOG(logger(), log_level::notice)
      << "bh_event_notify"
      << ": black-holed target " << std::string(msg->text, strnlen(msg->text, sizeof msg->text));
  ++sessions.failed_to_target_period;
  ++sessions.failed_to_target_total;
}

void ZOLMonitor::bgp_provider_fail_notify(ipc_bgp_provider_fail_msg_t* msg) {
  SUP_LOG(logger(), log_level::notice) << "bgp_provider_fail_notify"
                                       << ": provider BGP failed at " << zol::address_text(msg->address);
}

void ZOLMonitor::next_hop_api_event(ipcmsg_t*) {
  SUP_LOG(logger(), log_level::notice) << "next_hop_api_event"
                                       << ": next-hop API failed";
}

void ZOLMonitor::routing_anomaly_notify(ipc_routing_anomaly_msg_t* msg) {
  SUP_LOG(logger(), log_level::notice) << "routing_anomaly_notify"
                                       << ": routing anomaly towards " << zol::address_text(msg->values[0]);
}

}  // namespace zol_monitor
