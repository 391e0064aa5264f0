// Messages of the node's other processes that tell of single happenings: each becomes an event.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>

#include "config/address_text.h"
#include "core/zol_event_timers.h"
#include "core/zol_monitor.h"
#include "reporting/zol_event_types.h"

namespace zol_monitor {

void ZOLMonitor::failure_notify(ipc_failure_msg_t* msg) {
  if (msg->status != 0)
    return;
  const std::string ip = zol::address_text(msg->address);
  const std::size_t count = std::min<std::size_t>(msg->count, std::size(msg->ports));
  for (std::size_t i = 0; i < count; ++i)
    zol_events().invoke(new FailuresEvent(ip, msg->ports[i]));
  charge_send_events();
}

void ZOLMonitor::failopen_notify(ipc_failopen_msg_t* msg) {
  zol_events().invoke(new FailopenEvent(msg->enabled != 0));
  charge_send_events();
}

void ZOLMonitor::bh_event_notify(ipc_bh_event_msg_t* msg) {
  zol_events().invoke(new BlackHoleHEvent(std::string(msg->text, strnlen(msg->text, sizeof msg->text))));
  charge_send_events();
  ++sessions.failed_to_target_period;
  ++sessions.failed_to_target_total;
}

void ZOLMonitor::bgp_provider_fail_notify(ipc_bgp_provider_fail_msg_t* msg) {
  zol_events().invoke(new BGPProviderFailEvent(zol::address_text(msg->address)));
  charge_send_events();
}

void ZOLMonitor::next_hop_api_event(ipcmsg_t*) {
  zol_events().invoke(new NextHopEvent);
  charge_send_events();
}

void ZOLMonitor::routing_anomaly_notify(ipc_routing_anomaly_msg_t* msg) {
  zol_events().invoke(new RoutingAnomalyEvent(msg->values[0], msg->values[1], msg->values[2]));
  charge_send_events();
}

}  // namespace zol_monitor
