// The traffic report's walk over the clients of a logical network.
#include "conntrack/detected_ip.h"

#include <algorithm>
#include <cstdint>
#include <list>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

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

// In the order in which the report asks: so a client's sessions stand together, at the head of those that are
// left.
// Sorted by a number, since a list of sessions that lie all over the memory is slow to compare.
void sort_for_report(std::list<SessionPtr>& sessions) {
  std::map<std::string_view, std::uint64_t> rank_of_network;
  for (const SessionPtr& session : sessions)
    rank_of_network.try_emplace(session->network_id);
  std::uint64_t rank = 0;
  for (auto& [network, number] : rank_of_network)
    number = rank++;
  std::vector<std::pair<std::uint64_t, SessionPtr>> keyed;
  keyed.reserve(sessions.size());
  for (SessionPtr& session : sessions) {
    const std::uint64_t accepted = session->accepted_locally ? 1 : 0;
    const std::uint64_t key =
        rank_of_network.find(session->network_id)->second << 33 | accepted << 32 | session->client_ip;
    keyed.emplace_back(key, std::move(session));
  }
  std::sort(keyed.begin(), keyed.end(),
            [](const auto& one, const auto& other) { return one.first < other.first; });
  auto sorted = keyed.begin();
  for (SessionPtr& session : sessions)
    session = std::move((sorted++)->second);
}

// The walk is as long as its waiting for memory, so the sessions ahead of it are asked for in time.
class Ahead {
 public:
  explicit Ahead(const std::list<SessionPtr>& sessions) : next_(sessions.begin()), end_(sessions.end()) {
    for (int i = 0; i < sessions_ahead; ++i)
      fetch_next();
  }

  void fetch_next() {
    if (next_ == end_)
      return;
    const SessionInfo& session = **next_++;
    const void* const parts[] = {&session.client_ip,
                                 &session.in_info.tcp_info,
                                 &session.in_info.termination_reason,
                                 &session.out_info.tcp_info,
                                 &session.out_info.termination_reason,
                                 &session.network_id};
    for (const void* part : parts)
      __builtin_prefetch(part, 1);
  }

 private:
  static constexpr int sessions_ahead = 8;

  std::list<SessionPtr>::const_iterator next_;
  std::list<SessionPtr>::const_iterator end_;
};

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
  detected_sessions = data->sessions.get_zol_sessions();
  bool diagnostics_enabled = false;
  int session_report_resolution_ms = 0;
  const libconfig::Config& config = zol::TheConfigurator::get_configuration()->config;
  config.lookupValue(zol_conf_consts::monitoring_traffic_report_diagnostics_enabled_key, diagnostics_enabled);
  config.lookupValue(zol_conf_consts::monitoring_session_report_resolution_ms_key,
                     session_report_resolution_ms);
  if (session_report_resolution_ms < 1 && !diagnostics_enabled)
    detected_sessions.remove_if([](const SessionPtr& session) { return !session->accepted_locally; });
  sort_for_report(detected_sessions);
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
  Ahead ahead(detected_sessions);
  for (auto it = detected_sessions.begin(); it != detected_sessions.end();) {
    ahead.fetch_next();
    SessionInfo& session = **it;
    const bool wanted = session.network_id == network && session.accepted_locally == accepted &&
                        (count == 0 || session.client_ip == client);
    if (!wanted && count > 0)
      break;
    if (!wanted || session.state == state_finished) {
      ++it;
      continue;
    }
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
    it = detected_sessions.erase(it);
  }
  if (count == 0)
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
