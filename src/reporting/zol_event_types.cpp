#include "reporting/zol_event_types.h"

#include <tuple>
#include <utility>

#include "config/address_text.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

using libvariant::Variant;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("ZOLEvents");
  return instance;
}

template <typename Event>
bool is_a(const IEvent& event) {
  return dynamic_cast<const Event*>(&event) != nullptr;
}

template <typename Key>
void add_counts(std::map<Key, std::uint64_t>& counts, const std::map<Key, std::uint64_t>& others) {
  for (const auto& [key, count] : others)
    counts[key] += count;
}

// A map of the one key.
Variant body_of(libvariant::LiteralKey key, Variant value) {
  Variant body;
  body.Assign(key, std::move(value));
  return body;
}

}  // namespace

bool FailuresEvent::ZOLInfo::operator<(const ZOLInfo& other) const {
  return std::tie(ip, port) < std::tie(other.ip, other.port);
}

FailuresEvent::FailuresEvent(const std::string& failed_ip, std::uint16_t failed_port)
    : IEvent("ZOL_FAILURE", false, false), failures{{ZOLInfo(failed_ip, failed_port), 1}} {}

bool FailuresEvent::perform_update(ZOLEvents&, IEvent& other) {
  add_counts(failures, dynamic_cast<FailuresEvent&>(other).failures);
  return true;
}

bool FailuresEvent::is_updateable(const IEvent& other) const {
  return is_a<FailuresEvent>(other);
}

Variant FailuresEvent::event_body() const {
  Variant list = Variant::make_list();
  for (const auto& [peer, count] : failures) {
    Variant& entry = list.Append(Variant::make_map(3));
    entry.Assign("ip", peer.ip);
    entry.Assign("port", peer.port);
    entry.Assign("failures", count);
  }
  return body_of("zol_failures", std::move(list));
}

FailopenEvent::FailopenEvent(bool enabled_in) : IEvent("ZOL_FAILOPEN", true, true), enabled(enabled_in) {}

bool FailopenEvent::perform_update(ZOLEvents&, IEvent&) {
  SUP_LOG(logger(), log_level::warning) << "Failopen event was already in queue while another arrived";
  return true;
}

bool FailopenEvent::is_updateable(const IEvent& other) const {
  return is_a<FailopenEvent>(other);
}

Variant FailopenEvent::event_body() const {
  return body_of("zol_failopen_state", enabled ? "enabled" : "disabled");
}

BGPProviderFailEvent::BGPProviderFailEvent(const std::string& ip_in)
    : IEvent("BGP_PROVIDER_FAIL", true, true), ip(ip_in) {}

Variant BGPProviderFailEvent::event_body() const {
  return body_of("provider_bgp_failure", body_of("ip", ip));
}

BlackHoleHEvent::BlackHoleHEvent(const std::string& target)
    : IEvent("ZOL_BLACKHOLE", false, false), failures{{target, 1}} {}

bool BlackHoleHEvent::perform_update(ZOLEvents&, IEvent& other) {
  add_counts(failures, dynamic_cast<BlackHoleHEvent&>(other).failures);
  return true;
}

bool BlackHoleHEvent::is_updateable(const IEvent& other) const {
  return is_a<BlackHoleHEvent>(other);
}

Variant BlackHoleHEvent::event_body() const {
  Variant list = Variant::make_list();
  for (const auto& [target, count] : failures) {
    Variant& entry = list.Append(Variant::make_map(2));
    entry.Assign("target", target);
    entry.Assign("failures", count);
  }
  return body_of("zol_targets_failures", std::move(list));
}

NextHopEvent::NextHopEvent() : IEvent("ZOL_NEXT_HOP_API_FAILURE", true, false) {}

Variant NextHopEvent::event_body() const {
  return Variant::make_map();
}

RoutingAnomalyEvent::RoutingAnomalyEvent(std::uint32_t target, std::uint32_t in_target_rtt,
                                         std::uint32_t cumulative_rtt)
    : IEvent("ROUTING_ANOMALY_DETECTED", true, false),
      measurements{{target, {in_target_rtt, cumulative_rtt}}} {}

void RoutingAnomalyEvent::add_measurement(std::uint32_t target, const RTTMeasurement& measurement) {
  if (!measurements.emplace(target, measurement).second)
    SUP_LOG(logger(), log_level::warning) << "add_measurement: RoutingAnomalyEvent Already ququed for "
                                          << zol::Helper::make_log_addr(target) << " target";
}

bool RoutingAnomalyEvent::perform_update(ZOLEvents&, IEvent& other) {
  for (const auto& [target, measurement] : dynamic_cast<RoutingAnomalyEvent&>(other).measurements)
    add_measurement(target, measurement);
  return true;
}

bool RoutingAnomalyEvent::is_updateable(const IEvent& other) const {
  return is_a<RoutingAnomalyEvent>(other);
}

Variant RoutingAnomalyEvent::event_body() const {
  Variant list = Variant::make_list();
  for (const auto& [target, measurement] : measurements) {
    Variant& entry = list.Append(Variant::make_map(3));
    entry.Assign("target", zol::address_text(target));
    entry.Assign("in-target-rtt", measurement.in_target_rtt);
    entry.Assign("cumulative-rtt", measurement.cumulative_rtt);
  }
  return body_of("rtt-measurements", std::move(list));
}

}  // namespace zol_monitor
