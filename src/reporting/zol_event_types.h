// The kinds of events that other processes of the node bring about.
//
//   class                  eventType                   resendable  immediate  a like one that arrives
//   FailuresEvent          ZOL_FAILURE                 no          no         is added to it
//   FailopenEvent          ZOL_FAILOPEN                yes         yes        is dropped
//   BGPProviderFailEvent   BGP_PROVIDER_FAIL           yes         yes        is another event
//   BlackHoleHEvent        ZOL_BLACKHOLE               no          no         is added to it
//   NextHopEvent           ZOL_NEXT_HOP_API_FAILURE    yes         no         is another event
//   RoutingAnomalyEvent    ROUTING_ANOMALY_DETECTED    yes         no         is added to it
//
// IPv4 addresses are in network order, ports in host order. Logs under "ZOLEvents". Main thread only.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "reporting/zol_events.h"

namespace zol_monitor {

// Ports of neighbouring nodes that failed.
class FailuresEvent final : public IEvent {
 public:
  class ZOLInfo {
   public:
    ZOLInfo(const std::string& ip_in, std::uint16_t port_in) : ip(ip_in), port(port_in) {}
    ZOLInfo(const ZOLInfo&) = default;
    ZOLInfo& operator=(const ZOLInfo&) = default;
    virtual ~ZOLInfo() = default;

    bool operator<(const ZOLInfo& other) const;

    std::string ip;
    std::uint16_t port;
  };

  FailuresEvent(const std::string& failed_ip, std::uint16_t failed_port);

  bool perform_update(ZOLEvents& events, IEvent& other) override;
  bool is_updateable(const IEvent& other) const override;
  // "zol_failures": a list of "ip", "port" and the count "failures".
  libvariant::Variant event_body() const override;

  std::map<ZOLInfo, std::uint64_t> failures;  // and how often each came
};

// Fail-open went on or off. The state that was queued first is the one reported.
class FailopenEvent final : public IEvent {
 public:
  explicit FailopenEvent(bool enabled);

  bool perform_update(ZOLEvents& events, IEvent& other) override;
  bool is_updateable(const IEvent& other) const override;
  // "zol_failopen_state": "enabled" or "disabled".
  libvariant::Variant event_body() const override;

  bool enabled;
};

// The BGP session with a provider failed.
class BGPProviderFailEvent final : public IEvent {
 public:
  explicit BGPProviderFailEvent(const std::string& ip);

  // "provider_bgp_failure": the provider's "ip".
  libvariant::Variant event_body() const override;

  std::string ip;
};

// Targets that take packets and answer none.
class BlackHoleHEvent final : public IEvent {
 public:
  explicit BlackHoleHEvent(const std::string& target);

  bool perform_update(ZOLEvents& events, IEvent& other) override;
  bool is_updateable(const IEvent& other) const override;
  // "zol_targets_failures": a list of "target" and the count "failures".
  libvariant::Variant event_body() const override;

  std::map<std::string, std::uint64_t> failures;  // by target
};

// The interface that gives the next hop failed; the body is empty.
class NextHopEvent final : public IEvent {
 public:
  NextHopEvent();

  libvariant::Variant event_body() const override;
};

// Round-trip times as the sender measured them, in its unit.
struct RTTMeasurement {
  std::uint32_t in_target_rtt;
  std::uint32_t cumulative_rtt;
};

// The way to a target is slower than it ought to be. The first measurement of a target is the one reported.
class RoutingAnomalyEvent final : public IEvent {
 public:
  RoutingAnomalyEvent(std::uint32_t target, std::uint32_t in_target_rtt, std::uint32_t cumulative_rtt);

  // Ignored, with a warning, when the target is there already.
  void add_measurement(std::uint32_t target, const RTTMeasurement& measurement);

  bool perform_update(ZOLEvents& events, IEvent& other) override;
  bool is_updateable(const IEvent& other) const override;
  // "rtt-measurements": a list of "target", "in-target-rtt" and "cumulative-rtt".
  libvariant::Variant event_body() const override;

  std::map<std::uint32_t, RTTMeasurement> measurements;  // by the target's address
};

}  // namespace zol_monitor
