// The traffic report's walk over the clients of a logical network.
#include "conntrack/detected_ip.h"

#include <cstdint>

#include "config/zol_conf_consts.h"
#include "conntrack/conntrack.h"
#include "sessions/zol_monitor_data.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

// SessionInfo::state.
constexpr std::uint32_t state_new = 0;
constexpr std::uint32_t state_seen = 1;
constexpr std::uint32_t state_finished = 2;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("ConntrackEvents");
  return l;
}

// The legs of one side, while they are summed up.
struct LegSum {
  DetectedIPInfo& info;
  std::uint64_t rtt = 0;

  void add(const ConntrackEvents& events, const SessionEndpointInfo& leg);
};

// The proxy's own figures are those of the leg's last moment, so that its round-trip time goes before what
// the kernel says of the socket now.
void LegSum::add(const ConntrackEvents& events, const SessionEndpointInfo& leg) {
  std::uint32_t socket_rtt = 0;
  int socket_retrans = 0;
  if (!events.get_stats(leg.address, leg.port, socket_rtt, socket_retrans)) {
    rtt += leg.tcp_info.rtt;
    info.total_retransmit += leg.tcp_info.total_retrans;
  } else {
    if (leg.tcp_info.rtt != 0 && socket_rtt == 0)
      SUP_LOG(logger(), log_level::warning)
          << "get_detected_ip"
          << " Received RTT with zero value  [ " << zol::Helper::make_log_addr(leg.address) << ":" << leg.port
          << " ]";
    rtt += leg.tcp_info.rtt != 0 ? leg.tcp_info.rtt : socket_rtt;
    info.total_retransmit += static_cast<std::uint32_t>(socket_retrans);
  }
  increase_str_count(leg.termination_reason, info);
}

bool has_ended(const SessionInfo& session) {
  return session.in->termination_reason != STR_NONE &&
         (session.out->address == 0 || session.out->termination_reason != STR_NONE);
}

}  // namespace

void increase_str_count(SessionTerminationReason reason, DetectedIPInfo& info) {
  switch (reason) {
    case STR_FIN_FROM_TARGET_SIDE:
      ++info.outgoing_fin;
      break;
    case STR_FIN_FROM_CLIENT_SIDE:
      ++info.incoming_fin;
      break;
    case STR_RST_FROM_TARGET_SIDE:
      ++info.outgoing_rst;
      break;
    case STR_RST_FROM_CLIENT_SIDE:
      ++info.incoming_rst;
      break;
    default:
      break;
  }
}

bool ConntrackEvents::get_stats(std::uint32_t address, std::uint16_t port, std::uint32_t& rtt,
                                int& total_retrans) const {
  ConnStat stat;
  if (data->tcp_diag.get_conn_stat(address, port, stat) == 0)
    return false;
  rtt = stat.info.tcpi_rtt;
  total_retrans = static_cast<int>(stat.info.tcpi_total_retrans);
  SUP_LOG(logger(), log_level::debug)
      << "get_stats"
      << ": TCP info for [" << zol::Helper::make_log_addr(address) << ":" << port
      << "] RTT=" << zol::Helper::convert_us_to_ms(rtt) << " ms, total retrans=" << total_retrans;
  return true;
}

void ConntrackEvents::get_detected_ip_start() {
  bool diagnostics_enabled = false;
  int session_report_resolution_ms = 0;
  const libconfig::Config& config = zol::TheConfigurator::get_configuration()->config;
  config.lookupValue(zol_conf_consts::monitoring_traffic_report_diagnostics_enabled_key, diagnostics_enabled);
  config.lookupValue(zol_conf_consts::monitoring_session_report_resolution_ms_key,
                     session_report_resolution_ms);
  detected_sessions.assign(data->sessions.get_zol_sessions(),
                           session_report_resolution_ms < 1 && !diagnostics_enabled);
}

bool ConntrackEvents::get_detected_ip(const std::string& network, bool accepted, std::string& ip,
                                      std::uint32_t& new_count, DetectedIPInfo& in_info,
                                      DetectedIPInfo& out_info) {
  new_count = 0;
  in_info = {};
  out_info = {};
  LegSum in{in_info};
  LegSum out{out_info};
  std::uint32_t client = 0;
  std::uint32_t count = 0;
  const auto is_open = [](const SessionInfo& session) { return session.state != state_finished; };
  const auto add = [&](SessionInfo& session) {
    client = session.client_ip;
    ++count;
    if (session.state == state_new) {
      session.state = state_seen;
      ++new_count;
    }
    in.add(*this, *session.in);
    out.add(*this, *session.out);
    if (has_ended(session))
      session.state = state_finished;
  };
  if (!detected_sessions.take_client(network, accepted, is_open, add))
    return false;
  ip = inet_ntoa_s(in_addr{client});
  in_info.average_rtt = static_cast<std::uint32_t>(in.rtt / count);
  out_info.average_rtt = static_cast<std::uint32_t>(out.rtt / count);
  return true;
}

void ConntrackEvents::get_detected_ip_finished() {
  detected_sessions.clear();
}

}  // namespace zol_monitor
