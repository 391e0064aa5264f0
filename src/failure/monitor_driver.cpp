#include "failure/monitor_driver.h"

#include "config/zol_conf_consts.h"
#include "core/ipc_messages.h"
#include "failure/driver_support.h"
#include "sup_logger.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("MonitorDriver");
  return l;
}

}  // namespace

MonitorDriver::MonitorDriver(double process_weight)
    : IDispatch(driver_source, "zol_monitor"), WDProcessExecutor(driver_source, "./zol_monitor", nullptr) {
  weight = process_weight;
  TheConfigurator::get_configuration()->register_reconfiguration_cb(this);
}

MonitorDriver::~MonitorDriver() {
  unregister_driver(*this);
}

void MonitorDriver::reconfigure() {}

bool MonitorDriver::need_reconf(bool& enabled) {
  enabled = critical_switch(zol_conf_consts::monitoring_enabled_key);
  return true;
}

void MonitorDriver::bh_notification(BHInfo info) {
  bool tell = false;
  TheConfigurator::get_configuration()->config.lookupValue(zol_conf_consts::blackhole_hqs_notification_key,
                                                           tell);
  if (tell)
    dispatch_event_bh(info.target);
  else
    SUP_LOG(logger(), log_level::info) << "bh_notification: the server isn't told of black holes, "
                                       << zol_conf_consts::blackhole_hqs_notification_key << " is off";
}

bool MonitorDriver::dispatch_event_failure(const std::string& address, unsigned short port) {
  return send_failure(*this, logger(), address, port);
}

bool MonitorDriver::dispatch_event_failopen(bool active) {
  ipc_failopen_msg_t record{};
  record.enabled = active ? 1 : 0;
  return dispatch_msg(msgtype_value(msgtype_e::failopen), &record.header, sizeof record, "") == 0;
}

bool MonitorDriver::dispatch_event_bh(const std::string& target) {
  ipc_bh_event_msg_t record{};
  (target.empty() ? std::string("unknown") : target).copy(record.text, sizeof record.text - 1);
  return dispatch_msg(msgtype_value(msgtype_e::black_hole_event), &record.header, sizeof record, "") == 0;
}

}  // namespace zol
