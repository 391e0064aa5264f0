// A reading of the connection table that gets its connections from the test.
#pragma once

#include <string>
#include <vector>

#include "conntrack/conntrack_stats.h"
#include "tests/unit/conntrack/conntrack_fixture.h"
#include "tests/unit/conntrack/counted_ct.h"

namespace zol_test {

class FedStats : public zol_monitor::ConntrackStats {
 public:
  explicit FedStats(zol_monitor::MonitorData* monitor_data, bool is_first_time = false,
                    bool is_ignoring_query = false)
      : ConntrackStats(monitor_data, is_first_time, is_ignoring_query, without_dump_t{}) {}

  // The connection as the parser leaves it.
  zol_monitor::NfctHandle parse(const Flow& flow, const zol_monitor::nfconntrack_stats_t& orig = {1, 100},
                                const zol_monitor::nfconntrack_stats_t& repl = {2, 2000}) {
    zol_monitor::NfctHandle ct = make_counted_ct(flow, orig, repl);
    EXPECT_EQ(dump_parser(NFCT_T_UPDATE, ct.get()), NFCT_CB_CONTINUE);
    return ct;
  }
};

class ConntrackStatsTest : public ConntrackTest {
 protected:
  explicit ConntrackStatsTest(bool gxe = false) : ConntrackTest(gxe) {}

  // IPTables.udp.enabled, which the fixture's configuration lacks.
  void set_udp_enabled(bool enabled);
};

inline void ConntrackStatsTest::set_udp_enabled(bool enabled) {
  libconfig::Setting& tables = config_.configurator().config.lookup("IPTables");
  tables.add("udp", libconfig::Setting::TypeGroup).add("enabled", libconfig::Setting::TypeBoolean) = enabled;
  ++zol::AConfigurator::generation;
}

inline constexpr Flow in_connection = {
    .source = client_peer, .target = own_in_peer, .mark = in_mark, .tcp_state = tcp_established};
inline constexpr Flow out_connection = {
    .source = own_out_peer, .target = hop_peer, .mark = out_mark, .tcp_state = tcp_established};

// tx packets, tx bytes, rx packets, rx bytes.
using Fields = std::vector<std::uint64_t>;

inline Fields fields(const zol_monitor::conntrack_counters_t& c) {
  return {c.tx_packets, c.tx_bytes, c.rx_packets, c.rx_bytes};
}

inline Flow with_mark(Flow flow, std::uint32_t mark) {
  flow.mark = mark;
  return flow;
}

inline Flow udp(Flow flow) {
  flow.protonum = IPPROTO_UDP;
  flow.tcp_state = -1;
  return flow;
}

// The network that the fixture's marks lead to.
inline zol_monitor::LogicalNetworkCounters& network_of(zol_monitor::ConntrackStats& stats) {
  return stats.networks.at("net-a");
}

inline bool has_counted(const zol_monitor::ConntrackStats& stats) {
  for (const auto& [id, network] : stats.networks)
    if (network.has_traffic())
      return true;
  return false;
}

}  // namespace zol_test
