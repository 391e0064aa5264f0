#include "probes/ping_manager.h"

#include <arpa/inet.h>
#include <event2/event.h>

#include <cmath>
#include <limits>
#include <set>

#include "probes/raw_socket_manager.h"
#include "sup_logger.h"
#include "tunnel_monitoring_results.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

constexpr unsigned tick_ms = 500;
constexpr std::uint64_t patience_ms = 950;  // a reply that comes later is lost
constexpr double early_ms = 400;            // a probe may start by so much before its interval is over
constexpr int socket_mark = 0x40ff0000;
constexpr int payload_size = 40;

std::uint64_t to_ms(const timespec& time) {
  return static_cast<std::uint64_t>(time.tv_sec) * 1000 + static_cast<std::uint64_t>(time.tv_nsec) / 1000000;
}

// A wall clock that was set between send and reply may give any difference.
std::uint32_t whole_us(long double us) {
  constexpr auto most = std::numeric_limits<std::uint32_t>::max();
  return us >= most ? most : static_cast<std::uint32_t>(us);
}

// A start that lies ahead means that the clock was set back; it would hold its entry up until it is reached.
bool is_over(std::uint64_t start_ms, std::uint64_t now_ms) {
  return start_ms + patience_ms < now_ms || start_ms > now_ms;
}

bool is_due(std::uint64_t last_start_ms, std::uint32_t interval_ms, std::uint64_t now_ms) {
  return static_cast<double>(last_start_ms) + interval_ms < static_cast<double>(now_ms) + early_ms ||
         last_start_ms > now_ms;
}

void publish(const std::string& destination, long latency_us) {
  in_addr address{};
  if (inet_aton(destination.c_str(), &address) != 0)
    zol_utils::TunnelMonitoringResults::add_latency(address.s_addr, latency_us);
}

}  // namespace

MonitorPingManager::ProbeResult MonitorPingManager::ProbeDataStruct::read_and_reset() {
  ProbeResult result;
  result.ip = target.destination;
  result.source_ip = target.source;
  result.sample_count = latencies.size();
  long double sum = 0;
  long double differences = 0;
  std::uint64_t difference_count = 0;
  double previous = 0;
  for (const double sample : latencies) {
    if (!(sample > 0))
      continue;
    sum += sample;
    ++result.latency_sample_count;
    if (previous > 0) {
      differences += std::fabs(sample - previous);
      ++difference_count;
    }
    previous = sample;
  }
  if (result.latency_sample_count > 0)
    result.latency = whole_us(sum / result.latency_sample_count);
  if (difference_count > 0)
    result.jitter = whole_us(differences / difference_count);
  if (result.sample_count > 0)
    result.loss = static_cast<double>(result.sample_count - result.latency_sample_count) /
                  static_cast<double>(result.sample_count);
  latencies.clear();
  return result;
}

void MonitorPingManager::ProbeDataStruct::add_sample(double latency_us) {
  if (latencies.size() >= max_samples)
    latencies.erase(latencies.begin(), latencies.begin() + max_samples / 2);
  latencies.push_back(latency_us);
}

MonitorPingManager::MonitorPingManager()
    : PingManager("MonitorPingManager"), handle_probes_timer(handle_probes_cb, this, -1) {}

MonitorPingManager::~MonitorPingManager() {
  if (manager)
    manager->reset();
  for (auto& [key, entry] : probes)
    entry.probe.reset();
}

bool MonitorPingManager::init(unsigned long first, unsigned long last, unsigned long most) {
  PingManager::init(first, last, most);
  if (!manager) {
    auto icmp = std::make_unique<zol::IcmpRawSocketManager>();
    const bool opened = icmp->init(most, socket_mark, "", true);
    manager = std::move(icmp);
    if (!opened) {
      SUP_LOG(logger_, log_level::error) << "ICMP ping raw socket initialization failed";
      return false;
    }
  }
  handle_probes_timer.charge(tick_ms);
  return true;
}

void MonitorPingManager::update_probes(const std::vector<MonitoringTarget>& targets) {
  std::set<std::string> stale;
  for (const auto& [key, entry] : probes)
    stale.insert(key);
  for (const MonitoringTarget& target : targets) {
    probes[target.key].target = target;
    stale.erase(target.key);
  }
  for (const std::string& key : stale) {
    auto entry = probes.find(key);
    const MonitoringTarget& target = entry->second.target;
    SUP_LOG(logger_, log_level::debug)
        << "probe " << target.source << " => " << target.destination << " is removed";
    remove_probe(entry, true);
  }
}

libvariant::Variant MonitorPingManager::read_and_restart(const std::string& site_id,
                                                         const std::string& entry_key) {
  const auto entry = probes.find(site_id + "_" + entry_key);
  if (entry == probes.end()) {
    SUP_LOG(logger_, log_level::debug) << "No cached results for probe " << entry_key;
    return {};
  }
  const ProbeResult result = entry->second.read_and_reset();
  libvariant::Variant report = libvariant::Variant::make_map(6);
  report.Add("ip", result.ip);
  report.Add("source_ip", result.source_ip);
  report.Add("latency", result.latency);
  report.Add("latency_sample_count", result.latency_sample_count);
  report.Add("loss", result.loss);
  report.Add("jitter", result.jitter);
  return report;
}

void MonitorPingManager::handle_probes() {
  take_waiting_replies();
  const std::uint64_t now_ms = zol::Helper::get_timestamp_ms();
  for (auto it = probes.begin(); it != probes.end(); ++it) {
    ProbeDataStruct& entry = it->second;
    if (entry.probe) {
      const std::uint64_t start_ms = to_ms(entry.probe->start_time);
      if (entry.probe->in_progress && !is_over(start_ms, now_ms))
        continue;
      finish_probe(it, start_ms);
    }
    if (is_due(entry.last_start_ms, entry.target.interval_ms, now_ms))
      start_probe(entry);
  }
  handle_probes_timer.charge(tick_ms);
}

void MonitorPingManager::handle_probes_cb(int, short, void* ping_manager) {
  static_cast<MonitorPingManager*>(ping_manager)->handle_probes();
}

// A loop that was held up may come to its timers first; a reply that has arrived by then isn't late.
void MonitorPingManager::take_waiting_replies() {
  if (manager && manager->socket)
    zol::socket_probe_raw_read_cb(manager->socket->fd, EV_READ, manager->socket.get());
}

void MonitorPingManager::finish_probe(Probes::iterator& entry, std::uint64_t start_ms) {
  ProbeDataStruct& data = entry->second;
  const long latency_us = data.probe->get_latency();
  data.add_sample(static_cast<double>(latency_us));
  data.last_start_ms = start_ms;
  publish(data.target.destination, latency_us);
  remove_probe(entry, false);
}

void MonitorPingManager::start_probe(ProbeDataStruct& entry) {
  entry.probe = create_new_probe(entry.target);
  add_probe(entry.probe.get());  // one that didn't start is found on the next tick, without a result
}

std::unique_ptr<zol::LatencyProbe> MonitorPingManager::create_new_probe(const MonitoringTarget& target) {
  zol::IcmpProbeConfig config;
  config.target = target.destination;
  config.source = target.source;
  config.mark = socket_mark;
  config.data_size = payload_size;
  config.include_ip_header = true;
  return std::make_unique<zol::ICMPLatencyProbe>(static_cast<zol::IcmpRawSocketManager*>(manager.get()),
                                                 config);
}

void MonitorPingManager::remove_probe(Probes::iterator& entry, bool erase) {
  std::unique_ptr<zol::LatencyProbe>& probe = entry->second.probe;
  if (probe) {
    notify_probe_done(probe.get());
    if (probe->in_progress)
      probe->stop(false);
    probe.reset();
  }
  if (erase)
    entry = probes.erase(entry);
}

}  // namespace zol_monitor
