#include "failure/ha_agent_driver.h"

#include "config/zol_conf_consts.h"
#include "core/ipc_messages.h"
#include "failure/driver_support.h"
#include "sup_logger.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("HAAgentDriver");
  return l;
}

}  // namespace

HAAgentDriver::HAAgentDriver()
    : IDispatch(driver_source, "zol_ha_agent"), WDProcessExecutor(driver_source, "./zol_ha_agent", nullptr) {
  TheConfigurator::get_configuration()->register_reconfiguration_cb(this);
}

HAAgentDriver::~HAAgentDriver() {
  unregister_driver(*this);
}

void HAAgentDriver::reconfigure() {}

bool HAAgentDriver::need_reconf(bool& enabled) {
  enabled = critical_switch(zol_conf_consts::highavailability_enabled_key);
  return true;
}

bool HAAgentDriver::is_enabled() {
  return critical_switch(zol_conf_consts::highavailability_enabled_key);
}

void HAAgentDriver::bh_notification(BHInfo info) {
  bool black_holes = false;
  TheConfigurator::get_configuration()->config.lookupValue(zol_conf_consts::blackhole_enabled_key,
                                                           black_holes);
  if (black_holes && !info.handled && is_enabled())
    reload_conf();
}

bool HAAgentDriver::dispatch_event_suspend() {
  return dispatch_msg(msgtype_value(msgtype_e::ha_suspend)) == 0;
}

bool HAAgentDriver::dispatch_event_resume() {
  return dispatch_msg(msgtype_value(msgtype_e::ha_resume)) == 0;
}

bool HAAgentDriver::dispatch_event_failure(const std::string& address, unsigned short port) {
  return send_failure(*this, logger(), address, port);
}

}  // namespace zol
