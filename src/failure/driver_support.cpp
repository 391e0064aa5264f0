#include "failure/driver_support.h"

#include <arpa/inet.h>

#include <exception>
#include <stdexcept>

#include "core/ipc_messages.h"
#include "zol_helper.h"

namespace zol {

bool critical_switch(const char* key) {
  bool value = false;
  if (!TheConfigurator::get_configuration()->config.lookupValue(key, value))
    throw std::runtime_error("ERROR couldn't find the critical parameter of monitor-enabled ");
  return value;
}

bool send_failure(IDispatch& dispatch, SupLogger& logger, const std::string& address, unsigned short port) {
  if (!Helper::is_valid_ip_address(address)) {
    SUP_LOG(logger, log_level::error) << "dispatch_event_failure: not an IPv4 address: " << address;
    return false;
  }
  ipc_failure_msg_t record{};
  record.address = inet_addr(address.c_str());
  record.ports[0] = port;
  record.count = 1;
  return dispatch.dispatch_msg(msgtype_value(msgtype_e::failure), &record.header, sizeof record, "") == 0;
}

void unregister_driver(IReconfigure& driver) {
  try {
    TheConfigurator::get_configuration()->unregister_reconfiguration_cb(&driver);
  } catch (const std::exception&) {  // no configuration is left to unregister from
  }
}

}  // namespace zol
