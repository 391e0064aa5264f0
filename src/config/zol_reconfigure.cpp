#include <stdexcept>

#include "config/zol_configurator.h"
#include "core/ipc_messages.h"
#include "exec/wd_executor.h"
#include "failure/zol_failure.h"
#include "sup_logger.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("IReconfigure");
  return l;
}

}  // namespace

IReconfigure::IReconfigure() : reconf_timer(&IReconfigure::reconf_cb, this, -1) {}

IReconfigure::~IReconfigure() = default;

void IReconfigure::post_reconfigure() {}

bool IReconfigure::is_enabled() {
  return true;
}

void IReconfigure::reload_conf() {
  dispatch_msg(msgtype_value(msgtype_e::reloadconf));
}

bool IReconfigure::bool_get(const char* key) {
  bool value = false;
  if (!TheConfigurator::get_configuration()->config.lookupValue(key, value))
    throw std::runtime_error(std::string("ERROR couldn't find the parameter of ") + key);
  return value;
}

void IReconfigure::reload(bool enable) {
  if (is_running && enable)
    reload_conf();
  else if (is_running)
    stop_service();
  else if (enable)
    start_service();
  is_running = enable;
}

void IReconfigure::start_service() {
  if (auto* executor = dynamic_cast<WDExecutor*>(this); executor != nullptr && !executor->start()) {
    const std::string text = "Couldn't run the process: " + executor->get_pname();
    SUP_LOG(logger(), log_level::fatal) << text;
    throw std::runtime_error(text);
  }
  if (auto* failopen = dynamic_cast<IFailopen*>(this); failopen != nullptr)
    zol_failure().add(failopen);
}

void IReconfigure::stop_service() {
  if (auto* failopen = dynamic_cast<IFailopen*>(this); failopen != nullptr)
    zol_failure().remove(failopen);
  if (auto* executor = dynamic_cast<WDExecutor*>(this); executor != nullptr)
    executor->stop();
}

void IReconfigure::reconf_cb(int, short, void* listener) {
  auto* self = static_cast<IReconfigure*>(listener);
  self->reconfigure();
  self->post_reconfigure();
}

}  // namespace zol
