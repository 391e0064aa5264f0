// Readings of a middle-mile node over a table of sites of the test's own.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "config/zol_networks.h"
#include "conntrack/conntrack_stats.h"
#include "sites/vpn_conn_info.h"
#include "tests/unit/conntrack/counted_ct.h"

namespace zol_test {

// Who doesn't stand in it is the world.
class Sites : public zol::SiteServicesBase {
 public:
  zol::SiteConnRecord get_site_record(const std::string& ip) override {
    const auto found = records.find(ip);
    return found != records.end() ? found->second : zol::SiteConnRecord(zol::ConnRecordType::world);
  }
  std::vector<zol::VPNConnInfo> get_connections_info_status() override { return {}; }

  void add(const char* ip, const char* key, zol::ConnRecordType type, int state = zol::Established,
           const char* group = "Customer") {
    zol::SiteConnRecord record(type);
    record.key = key;
    record.state = state;
    record.group = group;
    records.insert_or_assign(ip, record);
  }

  std::map<std::string, zol::SiteConnRecord> records;
};

// A reading without a dump.
class Reading : public zol_monitor::ConntrackStats {
 public:
  explicit Reading(zol_monitor::MonitorData* monitor_data)
      : zol_monitor::ConntrackStats(monitor_data, false, false, without_dump_t{}) {}
};

inline constexpr const char* site_a = "10.1.0.1";
inline constexpr const char* site_b = "10.2.0.1";
inline constexpr const char* route = "10.3.0.1";
inline constexpr const char* outside = "203.0.113.99";
inline constexpr const char* own = "10.9.0.1";
inline constexpr const char* internet_hop = "10.8.0.1";

inline constexpr zol_monitor::nfconntrack_stats_t forth = {.packets = 3, .bytes = 300};
inline constexpr zol_monitor::nfconntrack_stats_t back = {.packets = 5, .bytes = 5000};

inline constexpr std::uint32_t link_mark = 0x00050000;
inline constexpr std::uint32_t bit_28 = 0x10000000;
inline constexpr std::uint32_t bit_30 = 0x40000000;

inline std::string gxe_config(bool gxe, bool ucpe, const std::string& routing_hops) {
  return std::string(
             "General: { zol_id = \"node-1\"; hop_id = \"hop-1\"; };\nMiddleMileNetwork: { enabled = ") +
         (gxe ? "true" : "false") +
         "; };\nHopData: { hops = ( { hop_id = \"hop-1\"; is_ucpe = " + (ucpe ? "true" : "false") +
         "; }, { hop_id = \"10.1.0.1\"; is_ucpe = true; }, { hop_id = \"10.2.0.1\"; is_ucpe = true; } ); "
         "};\n" +
         (routing_hops.empty() ? "" : "SNDData: { routing_hops = ( " + routing_hops + " ); };\n");
}

class GxeStatsTest : public GxeConntrackTest {
 protected:
  GxeStatsTest() {
    sites_.add(site_a, "a", zol::ConnRecordType::site);
    sites_.add(site_b, "b", zol::ConnRecordType::site);
    sites_.add(route, "bgp_route", zol::ConnRecordType::bgp_route, zol::Disconnected);
    sites_.add(own, "world", zol::ConnRecordType::local);
    data_.site_services = &sites_;
    data_.sessions.site_services = &sites_;
    configure(true, false);
  }
  ~GxeStatsTest() override {
    data_.site_services = zol::SiteServices::instance();
    data_.sessions.site_services = data_.site_services;
  }

  void configure(bool gxe, bool ucpe, const std::string& routing_hops = "") {
    config_.set(gxe_config(gxe, ucpe, routing_hops));
    const LogCapture quiet;
    zol::ZOLNetworks::instance()->read_configuration();
  }
  void configure_internet_hop(bool ucpe = true) {
    configure(true, ucpe, R"({ dc_id = "dc-9"; site_to_inet = true; hop_ips = ( "10.8.0.1" ); })");
  }
  static zol_monitor::NfctHandle connection(const char* source, const char* target, std::uint32_t mark,
                                            std::uint8_t protonum = IPPROTO_UDP) {
    const Flow flow = {.source = {source, 1000},
                       .target = {target, 2000},
                       .mark = mark,
                       .protonum = protonum,
                       .tcp_state = protonum == IPPROTO_TCP ? tcp_established : -1};
    return make_counted_ct(flow, forth, back);
  }
  static zol_monitor::GxeLinkCounters* find(zol_monitor::ConntrackStats& stats, const char* key) {
    const auto found = stats.link_counters.find(key);
    return found != stats.link_counters.end() ? &found->second : nullptr;
  }

  Sites sites_;
};

inline void expect_counters(const zol_monitor::conntrack_counters_t& counters,
                            const zol_monitor::nfconntrack_stats_t& tx,
                            const zol_monitor::nfconntrack_stats_t& rx) {
  EXPECT_EQ(counters.tx_packets, tx.packets);
  EXPECT_EQ(counters.tx_bytes, tx.bytes);
  EXPECT_EQ(counters.rx_packets, rx.packets);
  EXPECT_EQ(counters.rx_bytes, rx.bytes);
}

inline constexpr zol_monitor::nfconntrack_stats_t none = {.packets = 0, .bytes = 0};

}  // namespace zol_test
