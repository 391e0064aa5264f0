// Pings the monitored stations and tunnels for ever, and keeps what was measured until the next report.
//
// Each target has an entry. An entry without a probe gets one when its interval is over; a probe that has
// ended, or has waited for its reply long enough, leaves one sample in it. Both happen on a tick of 500 ms,
// so intervals are multiples of that.
//
// Times are milliseconds of the wall clock, latencies microseconds. Main thread only.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/zol_libevent.h"
#include "probes/latency_probe.h"
#include "probes/latency_probe_pool.h"
#include "variant.h"

namespace zol_monitor {

// One thing to ping. Targets that share a key share one entry, in which the last of them stands.
struct MonitoringTarget {
  std::string key;          // "<internal_id of the site>_<entry key>"
  std::string source;       // local address to ping from
  std::string destination;  // address to ping
  std::uint32_t interval_ms = 1000;
};

class MonitorPingManager : public zol::PingManager {
 public:
  // What one read yields.
  struct ProbeResult {
    std::string ip;             // destination
    std::string source_ip;      // source
    std::uint32_t latency = 0;  // mean of the good samples, microseconds, cut to a whole number
    std::uint64_t sample_count = 0;
    std::uint64_t latency_sample_count = 0;  // of the good ones
    double loss = 0;                         // share of samples without a result, 0 to 1
    std::uint32_t jitter = 0;                // mean difference of successive good samples, microseconds
  };

  struct ProbeDataStruct {
    // The samples' figures; the samples go. What isn't above 0 microseconds has no result; figures without
    // samples to make them of are 0.
    ProbeResult read_and_reset();
    // Where no report ever reads them, only the newest samples stay, at most max_samples.
    void add_sample(double latency_us);

    static constexpr std::size_t max_samples = 20000;

    std::vector<double> latencies;    // since the last read, oldest first: microseconds, -1 without a result
    std::uint64_t last_start_ms = 0;  // when the last finished probe started
    MonitoringTarget target;
    std::unique_ptr<zol::LatencyProbe> probe;  // the one under way; null between probes
  };

  using Probes = std::map<std::string, ProbeDataStruct>;  // by target key

  MonitorPingManager();
  ~MonitorPingManager() override;

  // Ids from `first` on, `most` at a time; opens the raw socket and starts the tick. False, with an error
  // line, when there is no socket: the entries then stand without samples.
  bool init(unsigned long first, unsigned long last, unsigned long most) override;
  // Takes this list in place of the last one. What a key has measured stays, also when its addresses change;
  // the probe under way ends on its old address. Keys that are gone lose everything.
  void update_probes(const std::vector<MonitoringTarget>& targets);
  // The figures of an entry since the last read: "ip", "source_ip", "latency", "latency_sample_count",
  // "loss", "jitter". Null, with a debug line, for an entry that isn't there. The probe under way isn't
  // touched.
  libvariant::Variant read_and_restart(const std::string& site_id, const std::string& entry_key);

  // The tick; the timer calls it.
  void handle_probes();
  static void handle_probes_cb(int fd, short events, void* ping_manager);

  std::unique_ptr<zol::LatencyProbe> create_new_probe(const MonitoringTarget& target);
  // Ends the entry's probe, if it has one. With `erase` the entry goes too, and the iterator steps on.
  void remove_probe(Probes::iterator& entry, bool erase);

  zol::ZOLEventLibEventTimer handle_probes_timer;
  Probes probes;

 private:
  void take_waiting_replies();
  void finish_probe(Probes::iterator& entry, std::uint64_t start_ms);
  void start_probe(ProbeDataStruct& entry);
};

}  // namespace zol_monitor
