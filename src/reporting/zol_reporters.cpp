#include "reporting/zol_reporters.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"
#include "config/zol_networks.h"
#include "ha/ha_manager.h"
#include "reporting/report_text.h"
#include "sessions/zol_monitor_data.h"
#include "shared_object.h"
#include "shared_records.h"
#include "sites/vpn_sites_services.h"
#include "stats/proc_stats_manager.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

const char* const periodic_report_version = "1.0";

void assign_unless_empty(libvariant::Variant& report, libvariant::LiteralKey key, libvariant::Variant value) {
  if (!value.Empty())
    report.Assign(key, std::move(value));
}

// Leaves the text for the node's other processes; what is too long for the record is cut off.
void publish_report(const std::string& text) {
  using zol_utils::ZolReportData;
  zol_utils::with_locked_record<ZolReportData>("create_report", [&text](ZolReportData& record) {
    const std::size_t size = std::min(text.size(), ZolReportData::max_report);
    std::memcpy(record.report, text.data(), size);
    std::memset(record.report + size, 0, ZolReportData::max_report - size);
    record.terminator = 0;
  });
}

}  // namespace

ZOLReporter::ZOLReporter(std::string url_key_in, std::string path_in, std::string timeout_key_in,
                         bool compress, bool save_on_success_in, MonitorData* monitor_data_in,
                         bool sampler_wanted)
    : Reporter(zol::TheConfigurator::get_configuration(), std::move(url_key_in), std::move(path_in),
               std::move(timeout_key_in), compress, save_on_success_in),
      monitor_data(monitor_data_in),
      machine_info(false, sampler_wanted) {}

std::string ZOLReporter::get_client_cert_path() {
  std::string cert_path;
  configuration->config.lookupValue(zol_conf_consts::general_client_cert_path_key, cert_path);
  return cert_path;
}

void ZOLReporter::add_metadata(libvariant::Variant& report, const char* switch_key) const {
  bool wanted = false;
  configuration->config.lookupValue(switch_key, wanted);
  if (wanted)
    report.Assign("metadata", get_hqs_metadata(*configuration));
}

PeriodicReporter::PeriodicReporter(std::string url_key_in, std::string path_in, std::string timeout_key_in,
                                   bool compress, bool save_on_success_in, MonitorData* monitor_data_in,
                                   const zol::ISiteAdditionalInfo* station_monitor)
    : ZOLReporter(std::move(url_key_in), std::move(path_in), std::move(timeout_key_in), compress,
                  save_on_success_in, monitor_data_in, true),
      info(monitor_data_in),
      station_monitor_(station_monitor) {}

std::string PeriodicReporter::create_report() {
  ProcessesManager::instance()->calculate_processes_performance(
      ProcessesManager::get_allowed_processes(false));
  libvariant::Variant report = libvariant::Variant::make_map();
  report.Assign("version", periodic_report_version);
  report.Assign("timestamp", zol::Helper::get_timestamp_gmt_format());
  report.Assign("machine-info", machine_info.generate_machine_info_report());
  report.Assign("zol-info", info.generate_zol_info_report());
  if (libvariant::Variant vpn_status = get_vpn_status(); !vpn_status.At("connections").Empty())
    report.Assign("vpn-info", std::move(vpn_status));
  add_metadata(report, zol_conf_consts::monitoring_send_meta_data_on_periodic_report_key);
  auto [dynamic, tunnels] = zol::HAManager::instance()->get_ha_report();
  assign_unless_empty(report, "high_availability", std::move(dynamic));
  assign_unless_empty(report, "primary_secondary_active_tunnel", std::move(tunnels));
  assign_unless_empty(report, "floating_ip", zol::ZOLNetworks::instance()->get_my_hop_floating_ip());
  std::string text = report_text(report);
  publish_report(text);
  return text;
}

std::list<const zol::ISiteAdditionalInfo*> PeriodicReporter::get_monitors() {
  if (station_monitor_ == nullptr)
    return {};
  return {station_monitor_};
}

libvariant::Variant PeriodicReporter::get_vpn_status() {
  std::list<const zol::ISiteAdditionalInfo*> monitors = get_monitors();
  libvariant::Variant status = libvariant::Variant::make_map();
  status.Assign("connections", monitor_data->site_services->get_connections_info_variant(&monitors, true));
  return status;
}

ZolTrafficReporter::ZolTrafficReporter(std::string url_key_in, std::string path_in,
                                       std::string timeout_key_in, bool compress, bool save_on_success_in,
                                       MonitorData* monitor_data_in, bool middle_mile_in)
    : ZOLReporter(std::move(url_key_in), std::move(path_in), std::move(timeout_key_in), compress,
                  save_on_success_in, monitor_data_in),
      traffic(monitor_data_in),
      middle_mile(middle_mile_in) {}

std::string ZolTrafficReporter::create_report() {
  libvariant::Variant report = libvariant::Variant::make_map();
  report.Assign("timestamp", zol::Helper::get_timestamp_gmt_format());
  report.Assign("machine-info", machine_info.generate_machine_info_id_report());
  add_traffic(report);
  report.Assign("total_traffic", traffic.get_traffic_count());
  add_metadata(report, zol_conf_consts::monitoring_send_meta_data_on_periodic_report_key);
  return report_text(report);
}

void ZolTrafficReporter::add_traffic(libvariant::Variant& report) {
  std::vector<libvariant::Variant> tunnels;
  const libvariant::LiteralKey key = middle_mile ? libvariant::LiteralKey("links") : "logical-networks";
  report.Assign(key, traffic.generate_zol_traffic_report(middle_mile, tunnels));
  if (!middle_mile)
    return;
  libvariant::Variant& list = report.Assign("tunnels", libvariant::Variant::make_list());
  for (libvariant::Variant& tunnel : tunnels)
    list.Append(std::move(tunnel));
}

ZolSessionReporter::ZolSessionReporter(std::string url_key_in, std::string path_in,
                                       std::string timeout_key_in, bool compress, bool save_on_success_in,
                                       MonitorData* monitor_data_in)
    : ZOLReporter(std::move(url_key_in), std::move(path_in), std::move(timeout_key_in), compress,
                  save_on_success_in, monitor_data_in),
      sessions_report(monitor_data_in) {}

std::string ZolSessionReporter::create_report() {
  libvariant::Variant report = libvariant::Variant::make_map();
  report.Assign("timestamp", zol::Helper::get_timestamp_gmt_format());
  // The server expects the underscore in this report.
  report.Assign("machine_info", machine_info.generate_machine_info_id_report());
  libvariant::Variant sessions = sessions_report.generate_sessions_report();
  if (sessions.Empty())
    return {};
  report.Assign("session_info", std::move(sessions));
  add_metadata(report, zol_conf_consts::monitoring_send_meta_data_on_session_report_key);
  std::string text = report_text(report);
  sessions_report.clean_finished_sessions();
  return text;
}

void ZolSessionReporter::drop_report() {
  static_cast<void>(sessions_report.generate_sessions_report());  // dead non-TCP flows leave their table here
  sessions_report.clean_finished_sessions();
}

}  // namespace zol_monitor
