#include "core/monitor.h"

#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"
#include "reporting/zol_reporters.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Monitor");
  return instance;
}

const char* traffic_path() {
  return zol::Helper::is_middle_mile_network() ? "/zolEnterpriseTrafficReport" : "/zolTrafficReport";
}

}  // namespace

Monitor::Monitor(zol::Services* services_in, zol::SiteServicesBase* site_services_in,
                 zol::ISiteAdditionalInfo* site_info, bool tcp_diag_enabled)
    : MonitorData(services_in, site_services_in, this, tcp_diag_enabled),
      site_info_(site_info),
      periodic_(this, "Periodic", true),
      traffic_(this, "Traffic", true),
      sessions_context_(this, "Sessions", true) {
  sessions.set_listener(this);
}

Monitor::~Monitor() {
  uninit_reporter();
}

void Monitor::init_reporter() {
  using namespace zol_conf_consts;
  periodic_.resolution_key = monitoring_report_resolution_ms_key;
  periodic_.reporter = new PeriodicReporter(monitoring_hqs_receiver_url_key, "/zolReport",
                                            general_hqs_http_client_timeout_sec_key, periodic_.compress, true,
                                            this, site_info_);
  traffic_.resolution_key = monitoring_traffic_report_resolution_ms_key;
  traffic_.reporter = new ZolTrafficReporter(monitoring_hqs_receiver_url_key, traffic_path(),
                                             general_hqs_http_client_timeout_sec_key, traffic_.compress,
                                             false, this, zol::Helper::is_middle_mile_network());
  sessions_context_.resolution_key = monitoring_session_report_resolution_ms_key;
  sessions_context_.reporter = new ZolSessionReporter(
      monitoring_hqs_slr_receiver_url_key, "/zolSessionReport", general_hqs_http_client_timeout_sec_key,
      sessions_context_.compress, false, this);
}

void Monitor::uninit_reporter() {
  for (ReporterContext* reporter_context : {&periodic_, &traffic_, &sessions_context_}) {
    reporter_context->send_timer.del(false);
    reporter_context->poll_timer.del(false);
    reporter_context->charged = false;
    delete reporter_context->reporter;
    reporter_context->reporter = nullptr;
  }
}

void Monitor::charge_reporter() {
  bool compress = false;
  zol::TheConfigurator::get_configuration()->config.lookupValue(
      zol_conf_consts::monitoring_compress_report_key, compress);
  for (ReporterContext* reporter_context : {&periodic_, &traffic_, &sessions_context_})
    reporter_context->compress = compress;
  for (ReporterContext* reporter_context : {&periodic_, &traffic_, &sessions_context_}) {
    if (!reporter_context->charged)
      reporter_context->charge_reporter(true);
  }
}

void Monitor::resume_reports() {
  if (!reports_disabled)
    return;
  ReporterContext::update_dual_zol_state(this);
  if (!reports_disabled)
    charge_reporter();
}

void Monitor::start() {
  conntrack.start();
}

void Monitor::stop() {
  conntrack.stop();
}

void Monitor::max_sessions_notify() {
  SUP_LOG(logger(), log_level::debug) << "max_sessions_notify"
                                      << ": Max sessions exceeded. Scheduling send report now";
  sessions_context_.send_timer.charge(0);
}

}  // namespace zol_monitor
