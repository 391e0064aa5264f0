#include "core/zol_monitor.h"

#include <event2/event.h>

#include <string>

#include "config/services.h"
#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"
#include "conntrack/conntrack_states.h"
#include "core/zol_cli_passthrough.h"
#include "core/zol_libevent.h"
#include "dual_zol_helper.h"
#include "ipc.h"
#include "reporting/report_text.h"
#include "sites/vpn_conn_data_agg.h"
#include "sites/vpn_sites_services.h"
#include "sup_logger.h"
#include "variant.h"

namespace zol_monitor {

namespace {

constexpr const char* own_ipc_name = "zol_monitor";

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Monitor");
  return instance;
}

zol::Services* the_services() {
  static zol::Services services(true, true);
  return &services;
}

// Sends a long answer to the command-line client, in pieces.
void answer_cli(const char* handler, int fd, msgtype_e type, const std::string& text) {
  const int result = cli_passthrough_response(fd, type, own_ipc_name, text.data(), text.size());
  if (result < 0)
    SUP_LOG(logger(), log_level::error) << handler << ": " << cli_passthrough_error(result);
}

}  // namespace

ZOLMonitor::ZOLMonitor(const std::string& node_id)
    : Monitor(the_services(), zol::SiteServices::instance(), nullptr, true), node_id_(node_id) {
  site_info_ = &station_monitor_;
  init_socket();
  owned_states_manager_ = std::make_unique<ConntrackStatesManager>(this);
  states_manager = owned_states_manager_.get();
  states_manager->reconfigure();
}

ZOLMonitor::~ZOLMonitor() {
  owned_states_manager_.reset();
  states_manager = nullptr;
  event.del(false);
  close_socket(fd);
}

void ZOLMonitor::init_socket() {
  const std::string& version = zol_utils::DualZOLHelper::instance()->get_zol_version();
  if (start_socket_zol(&fd, node_id_.c_str(), own_ipc_name, version.c_str()) != 0)
    SUP_LOG(logger(), log_level::error) << "Failed to open IPC socket";
}

void ZOLMonitor::send_health() {
  if (fd >= 0)
    dispatch_msg(msgtype_value(msgtype_e::health_beat), fd, own_ipc_name, "watchdog");
}

void ZOLMonitor::reload_conf_notify(ipcmsg_t*) {
  zol::AConfigurator* configurator = zol::TheConfigurator::get_configuration();
  configurator->reload_configuration("", 0);
  int resolution = 0;
  configurator->config.lookupValue(zol_conf_consts::monitoring_session_report_resolution_ms_key, resolution);
  if (resolution < 1 || reports_disabled)
    sessions.finished_sessions.clear();  // nothing may pile up for a report that won't be sent
  apply_ipc_sleep_time();
  ReporterContext::update_dual_zol_state(this);
  charge_reporter();
  reload_logging();
}

void ZOLMonitor::term_notify(ipcmsg_t*) {
  const int result = event_base_loopbreak(zol::ZOLEventBase::base());
  if (result != 0)
    SUP_LOG(logger(), log_level::error) << "term_notify: loopbreak() returned: " << result;
}

void ZOLMonitor::vpn_log_cli(ipcmsg_t*) {
  const zol::VPNConnDataAgg* log = site_services->get_conn_agg();
  answer_cli("vpn_log_cli", fd, msgtype_e::vpn_log, log == nullptr ? "" : log->get_vpn_log());
}

void ZOLMonitor::vpn_info_cli(ipcmsg_t*) {
  const libvariant::Variant connections = site_services->get_connections_info_variant(nullptr, false);
  answer_cli("vpn_info_cli", fd, msgtype_e::vpn_info, connections.Empty() ? "[]" : report_text(connections));
}

void apply_ipc_sleep_time() {
  int sleep_time_us = -1;
  if (!zol::TheConfigurator::get_configuration()->config.lookupValue(
          zol_conf_consts::general_ipc_write_sleep_time_us_key, sleep_time_us)) {
    SUP_LOG(logger(), log_level::error) << "couldn't find the critical parameter ipc_sleep_time_us.";
    sleep_time_us = -1;
  }
  set_ipc_sleep_time_us(sleep_time_us);
}

}  // namespace zol_monitor
