// The traffic of an ordinary node: its logical networks, their domains and their detected clients.
#include <array>
#include <string>
#include <utility>

#include "config/services.h"
#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"
#include "config/zol_networks.h"
#include "conntrack/conntrack_stats.h"
#include "reporting/zol_traffic.h"
#include "sessions/zol_monitor_data.h"
#include "shared_records.h"
#include "zol_helper.h"

namespace zol_monitor {

using libvariant::LiteralKey;
using libvariant::Variant;
using zol_utils::TrafficStats;

namespace {

// Where traffic leads, and the object that it has in the report.
struct TrafficClass {
  traffic_dir_t dir;
  LiteralKey key;

  std::size_t index() const { return static_cast<std::size_t>(dir); }
};
constexpr std::array traffic_classes = {
    TrafficClass{traffic_dir_t::target, "direct"},
    TrafficClass{traffic_dir_t::public_hop, "indirect-public"},
    TrafficClass{traffic_dir_t::private_hop, "indirect-private"},
};

// A value for each class, by traffic_dir_t.
template <typename T>
using ByClass = std::array<T, traffic_classes.size()>;

struct Streams {
  conntrack_counters_t client_to_server;
  conntrack_counters_t server_to_client;

  Streams operator+(const Streams& other) const {
    return {client_to_server + other.client_to_server, server_to_client + other.server_to_client};
  }
  Variant report() const { return ZolTraffic::generate_traffic_report(client_to_server, server_to_client); }
};

// The streams of a network or of a domain.
struct Readings {
  ByClass<Streams> tcp;
  ByClass<bool> counted;  // whether the class moved bytes
  Streams udp;

  Streams of(const TrafficClass& traffic) const {
    const Streams& streams = tcp[traffic.index()];
    return traffic.dir == traffic_dir_t::target ? streams + udp : streams;
  }
  Streams sum() const { return tcp[0] + tcp[1] + tcp[2] + udp; }
};

Readings network_readings(ConntrackStats& stats, const std::string& network) {
  Readings readings{};
  for (const TrafficClass& traffic : traffic_classes) {
    readings.tcp[traffic.index()] = {stats.tcp_client2server_counters(network, traffic.dir),
                                     stats.tcp_server2client_counters(network, traffic.dir)};
    readings.counted[traffic.index()] = stats.has_counters(network, traffic.dir);
  }
  readings.udp = {stats.udp_client2server_counters(network), stats.udp_server2client_counters(network)};
  return readings;
}

Readings domain_readings(ConntrackStats& stats, const std::string& network, const std::string& domain) {
  Readings readings{};
  for (const TrafficClass& traffic : traffic_classes) {
    readings.tcp[traffic.index()] = {stats.tcp_client2server_domain_counters(network, domain, traffic.dir),
                                     stats.tcp_server2client_domain_counters(network, domain, traffic.dir)};
    readings.counted[traffic.index()] = stats.has_domain_counters(network, domain, traffic.dir);
  }
  readings.udp = {stats.udp_client2server_domain_counters(network, domain),
                  stats.udp_server2client_domain_counters(network, domain)};
  return readings;
}

Streams client_streams(ConntrackStats& stats, const std::string& network, const std::string& client) {
  const Streams tcp = {stats.tcp_client2server_client_counters(network, client),
                       stats.tcp_server2client_client_counters(network, client)};
  const Streams udp = {stats.udp_client2server_client_counters(network, client),
                       stats.udp_server2client_client_counters(network, client)};
  return tcp + udp;
}

// What the sessions tell of each class.
struct SessionFigures {
  ByClass<HTTPCounters> http;
  ByClass<std::uint32_t> target_failures{};

  // Takes the figures out of the sessions; an empty domain stands for all.
  static SessionFigures take(ZOLSessions& sessions, const std::string& network, const std::string& domain) {
    const HTTPCountersCointainer messages = sessions.get_http_counters(network, domain);
    const TargetFailureCounts failures = sessions.get_target_failure_by_domain_count(network, domain);
    return {{messages.accepted, messages.public_network, messages.private_network},
            {failures.accepted, failures.public_network, failures.private_network}};
  }
  SessionFigures& operator+=(const SessionFigures& other) {
    for (const TrafficClass& traffic : traffic_classes) {
      http[traffic.index()] += other.http[traffic.index()];
      target_failures[traffic.index()] += other.target_failures[traffic.index()];
    }
    return *this;
  }
  bool is_empty(const TrafficClass& traffic) const {
    return target_failures[traffic.index()] == 0 && http[traffic.index()].is_empty();
  }
  void add_to(Variant& class_report, const TrafficClass& traffic) const {
    if (target_failures[traffic.index()] != 0)
      class_report.Assign("target-connect-error-count", target_failures[traffic.index()]);
    if (!http[traffic.index()].is_empty())
      class_report.Assign("http", http_counters_to_variant(http[traffic.index()]));
  }
};

// An object for each class that moved bytes, and the sum of all classes under `traffic`.
template <typename NewCount>
Variant traffic_parts(const Readings& readings, NewCount new_count) {
  Variant parts = Variant::make_map();
  for (const TrafficClass& traffic : traffic_classes) {
    if (!readings.counted[traffic.index()])
      continue;
    Variant& part = parts.Assign(traffic.key, readings.of(traffic).report());
    part.Assign("new-sessions-count", new_count(traffic.dir));
  }
  parts.Assign("traffic", readings.sum().report());
  return parts;
}

bool is_switched_on(const char* key) {
  bool enabled = false;
  zol::TheConfigurator::get_configuration()->config.lookupValue(key, enabled);
  return enabled;
}

struct Settings {
  bool detected_ips = is_switched_on(zol_conf_consts::monitoring_detectedipsreport_enabled_key);
  bool diagnostics = is_switched_on(zol_conf_consts::monitoring_traffic_report_diagnostics_enabled_key);
  bool domain_level = is_switched_on(zol_conf_consts::monitoring_domain_level_traffic_key);
};

Variant side_diagnostics(const DetectedIPInfo& info) {
  Variant side = Variant::make_map(6);
  side.Add("average-rtt", zol::Helper::convert_us_to_ms(info.average_rtt));
  side.Add("total-retransmit", info.total_retransmit);
  side.Add("incoming-fin", info.incoming_fin);
  side.Add("outgoing-fin", info.outgoing_fin);
  side.Add("incoming-rst", info.incoming_rst);
  side.Add("outgoing-rst", info.outgoing_rst);
  return side;
}

// The sessions by network and domain while a report is made.
class GroupedSessions {
 public:
  explicit GroupedSessions(ZOLSessions& sessions) : sessions_(sessions) { sessions_.begin_report(); }
  ~GroupedSessions() { sessions_.end_report(); }
  GroupedSessions(const GroupedSessions&) = delete;
  GroupedSessions& operator=(const GroupedSessions&) = delete;

 private:
  ZOLSessions& sessions_;
};

// Walks over what belongs to one network.
class NetworkWalk {
 public:
  NetworkWalk(MonitorData& data, ConntrackStats& stats, const std::string& network, const Settings& settings)
      : data_(data), stats_(stats), network_(network), settings_(settings) {}

  // The domains with traffic, which leave the statistics; what their sessions told is added to `sums`.
  Variant domains(SessionFigures& sums);
  // The detected clients, which leave the snapshot.
  Variant clients();

 private:
  Variant domain_report(const std::string& domain, SessionFigures& sums);
  Variant clients_of(bool accepted);
  void add_diagnostics(Variant& client, const std::string& ip, const DetectedIPInfo& in,
                       const DetectedIPInfo& out);

  MonitorData& data_;
  ConntrackStats& stats_;
  const std::string& network_;
  const Settings& settings_;
};

Variant NetworkWalk::domains(SessionFigures& sums) {
  Variant list = Variant::make_list();
  for (std::string domain; stats_.has_domain_counters(network_, domain);) {
    // Its new sessions and failures wait for a report in which it has traffic.
    if (!stats_.domain_is_zero_traffic(network_, domain))
      list.Append(domain_report(domain, sums));
    stats_.delete_domain_stats(network_, domain);
  }
  return list;
}

Variant NetworkWalk::domain_report(const std::string& domain, SessionFigures& sums) {
  const std::string sessions_domain = settings_.domain_level ? domain : "";  // empty stands for all
  Variant report = Variant::make_map();
  report.Add("domain-name", domain);
  report.Add("new-sessions-count", data_.sessions.get_domain_new_count(network_, sessions_domain));
  report.Add("active-sessions-count", stats_.tcp_domain_active_connections(network_, domain) +
                                          stats_.udp_domain_active_connections(network_, domain));
  const SessionFigures figures = SessionFigures::take(data_.sessions, network_, sessions_domain);
  sums += figures;
  if (!ZolTraffic::is_enabled())
    return report;
  Variant parts = traffic_parts(domain_readings(stats_, network_, domain), [&](traffic_dir_t dir) {
    return data_.sessions.get_domain_new_count(network_, sessions_domain, dir);
  });
  // A class that moved nothing shows its failures and messages in the sums of the network alone.
  for (const TrafficClass& traffic : traffic_classes)
    if (Variant* part = parts.Find(traffic.key.text()))
      figures.add_to(*part, traffic);
  report.Merge(std::move(parts));
  return report;
}

Variant NetworkWalk::clients() {
  Variant indirect = clients_of(false);
  Variant direct = clients_of(true);
  Variant report = Variant::make_map(2);
  report.Add("direct", std::move(direct));
  report.Add("indirect", std::move(indirect));
  return report;
}

Variant NetworkWalk::clients_of(bool accepted) {
  Variant list = Variant::make_list();
  std::string ip;
  std::uint32_t new_count = 0;
  DetectedIPInfo in;
  DetectedIPInfo out;
  // The walk is for the sessions too, which it marks as seen, so it goes on when nothing is reported.
  while (data_.conntrack.get_detected_ip(network_, accepted, ip, new_count, in, out)) {
    if (!settings_.detected_ips || (new_count == 0 && !settings_.diagnostics))
      continue;
    Variant client = Variant::make_map();
    client.Add("ip", ip);
    client.Add("count", new_count);
    if (settings_.diagnostics)
      add_diagnostics(client, ip, in, out);
    list.Append(std::move(client));
  }
  return list;
}

void NetworkWalk::add_diagnostics(Variant& client, const std::string& ip, const DetectedIPInfo& in,
                                  const DetectedIPInfo& out) {
  client.Add("active-sessions-count", stats_.tcp_client_active_connections(network_, ip) +
                                          stats_.udp_client_active_connections(network_, ip));
  if (ZolTraffic::is_enabled())
    client.Add("traffic", client_streams(stats_, network_, ip).report());
  Variant diagnostics = Variant::make_map(2);
  diagnostics.Add("client", side_diagnostics(in));
  diagnostics.Add("server", side_diagnostics(out));
  client.Add("diagnostics", std::move(diagnostics));
}

// Which network it is and where its traffic goes next.
Variant network_entry(const MonitorData& data, const std::string& network) {
  std::string next_hop_ip;
  zol::TheConfigurator::get_configuration()->config.lookupValue(zol_conf_consts::trafficreport_next_hop_key,
                                                                next_hop_ip);
  const std::string target = data.services->get_target_by_logical_net_id(network);
  const std::string next_hop = data.sessions.next_hop_cname.empty() ? target : data.sessions.next_hop_cname;
  Variant entry = Variant::make_map();
  entry.Assign("logical-network-id", network);
  entry.Assign("next-hop-ip", next_hop_ip.empty() ? target : next_hop_ip);
  entry.Assign("next-hop", next_hop);
  // The server finds the hop's metadata under its own text as the key.
  const std::string metadata = zol::ZOLNetworks::instance()->hop_map.get_metadata_by_fqdn_map(next_hop);
  if (!metadata.empty())
    entry.Assign(metadata, libvariant::Deserialize(metadata));
  return entry;
}

}  // namespace

Variant http_counters_to_variant(const HTTPCounters& counters) {
  const auto count = [&counters](int kind) {
    return counters.get_counter(static_cast<zol::http_notification_t>(kind));
  };
  Variant requests = Variant::make_map(3);
  requests.Add("get", count(0));
  requests.Add("post", count(1));
  requests.Add("other", count(2));
  Variant responses = Variant::make_map(4);
  responses.Add("2xx", count(3));
  responses.Add("3xx", count(4));
  responses.Add("4xx", count(5));
  responses.Add("5xx", count(6));
  Variant report = Variant::make_map(2);
  report.Add("requests", std::move(requests));
  report.Add("responses", std::move(responses));
  return report;
}

void ZolTraffic::generate_network_traffic_report(Variant& entry, const std::string& network,
                                                 ConntrackStats& stats, TrafficStats* totals) {
  const std::uint32_t new_sessions = data->sessions.get_domain_new_count(network, "");
  entry.Assign("new-sessions-count", new_sessions);
  entry.Assign("active-sessions-count",
               stats.tcp_active_connections(network) + stats.udp_active_connections(network));
  if (totals != nullptr)
    totals->new_sessions += new_sessions;
  if (!is_enabled())
    return;
  const Readings readings = network_readings(stats, network);
  Variant parts =
      traffic_parts(readings, [&](traffic_dir_t dir) { return data->sessions.get_new_count(network, dir); });
  if (totals != nullptr) {
    const Streams sum = readings.sum();
    fill_sh_traffic_stats(totals, sum.client_to_server, sum.server_to_client);
  }
  entry.Merge(std::move(parts));
}

Variant ZolTraffic::generate_zol_traffic_report_gxs(ConntrackStats& stats, TrafficStats* totals) {
  const Settings settings;
  const GroupedSessions grouped(data->sessions);
  Variant report = Variant::make_list();
  for (const std::string& network : data->services->get_logical_network_ids(true)) {
    if (!stats.logical_network_has_traffic(network))
      continue;
    NetworkWalk walk(*data, stats, network, settings);
    SessionFigures sums;
    Variant entry = network_entry(*data, network);
    generate_network_traffic_report(entry, network, stats, totals);
    entry.Assign("domain-info", walk.domains(sums));
    for (const TrafficClass& traffic : traffic_classes)
      if (!sums.is_empty(traffic))
        sums.add_to(entry.Set(traffic.key, Variant::make_map()), traffic);
    Variant clients = walk.clients();
    if (settings.detected_ips)
      entry.Assign("user-info", std::move(clients));
    report.Append(std::move(entry));
  }
  return report;
}

}  // namespace zol_monitor
