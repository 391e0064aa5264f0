// A ZolTraffic over sessions, services, sites and a shared record of the test's own, and readings of the
// connection table that a test fills itself.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "config/services.h"
#include "conntrack/conntrack_stats.h"
#include "core/monitor_context.h"
#include "reporting/zol_traffic.h"
#include "sessions/zol_monitor_data.h"
#include "shared_object.h"
#include "shared_records.h"
#include "sites/vpn_sites_services.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/unit/conntrack/conntrack_fixture.h"
#include "variant.h"

namespace zol_test {

// The value of a JSON text, maps in any order.
MATCHER_P(IsJson, text, "") {
  libvariant::Variant pretty;
  pretty.Assign("pretty", true);
  *result_listener << "which is " << libvariant::Serialize(arg, pretty);
  return arg == libvariant::Deserialize(text);
}

// A reading that took no dump.
class FilledStats : public zol_monitor::ConntrackStats {
 public:
  explicit FilledStats(zol_monitor::MonitorData* monitor_data)
      : ConntrackStats(monitor_data, false, false, without_dump_t{}) {}
};

inline constexpr std::uint8_t in_leg = 1;  // normalised nibbles of the mark
inline constexpr std::uint8_t out_leg = 2;
inline constexpr std::uint8_t forwarded = 3;

struct TcpTraffic {
  std::uint8_t m = in_leg;
  zol_monitor::conntrack_counters_t counters{};
  std::string domain = "unknown";
  std::string client = "198.51.100.20";
  bool to_hop = false;  // stays in the overlay
  bool private_network = false;
};

struct TrafficSession {
  std::string network = "net-a";
  std::string domain = "unknown";
  std::string client = "198.51.100.20";
  bool accepted = true;
  bool private_network = false;
};

struct TrafficConfig {
  std::string traffic_report = "enabled = true; ";
  std::string monitoring{};
  bool middle_mile = false;
  int session_report_resolution_ms = 60000;
};

class AllSites : public zol::SiteServicesBase {
 public:
  std::map<std::string, zol::SiteConnRecord> get_all_site_records() override { return records; }
  std::vector<zol::VPNConnInfo> get_connections_info_status() override { return {}; }

  std::map<std::string, zol::SiteConnRecord> records;
};

class TrafficTest : public testing::Test {
 protected:
  TrafficTest();
  ~TrafficTest() override;

  void configure(const TrafficConfig& config);
  // The services that are in force from now on, the others becoming historical.
  void reconfigure_services(const std::string& services);

  // --- traffic
  static void add_tcp(FilledStats& stats, const TcpTraffic& traffic, const std::string& network = "net-a");
  // Both legs of a connection: what came from the client, went to the server, came back and went to the
  // client are 1, 2, 4 and 3 packets of 100 bytes, times `scale`.
  static void add_proxied(FilledStats& stats, TcpTraffic traffic, std::uint64_t scale = 1,
                          const std::string& network = "net-a");
  // The report of such a connection's streams as JSON text.
  static std::string proxied_json(std::uint64_t scale = 1);
  static void add_udp(FilledStats& stats, std::uint8_t m, const zol_monitor::conntrack_counters_t& counters,
                      const std::string& client = "198.51.100.20");

  // --- sessions
  zol_monitor::SessionPtr add_session(const TrafficSession& description = {});
  static void fail_to_target(const zol_monitor::SessionPtr& session);

  // The one entry of a list.
  static libvariant::Variant only(const libvariant::Variant& list);

  std::string version_;
  ScopedConfig config_;
  std::unique_ptr<zol_utils::SharedObject<zol_utils::ZolStatusData>> record_;
  std::unique_ptr<LogCapture> quiet_;  // while the members below come up
  zol_monitor::MonitorContext context_;
  zol::Services services_;
  AllSites sites_;
  zol_monitor::MonitorData data_;
  zol_monitor::ZolTraffic traffic_;
  zol_utils::TrafficStats totals_{};

 private:
  TrafficConfig current_;
  std::string services_text_;
  std::uint8_t sessions_ = 0;
};

// Makes each sem_post fail while it lives; the test program is linked so that the calls go through here.
struct PostFails {
  PostFails() { active = true; }
  ~PostFails() { active = false; }
  PostFails(const PostFails&) = delete;
  PostFails& operator=(const PostFails&) = delete;

  static inline bool active = false;
};

// The wall clock (Helper::get_timestamp_ms), which stands where the test puts it while the object lives;
// linked like the former. One at a time.
struct WallClock {
  WallClock() { current = this; }
  ~WallClock() { current = nullptr; }
  WallClock(const WallClock&) = delete;
  WallClock& operator=(const WallClock&) = delete;

  std::uint64_t now_ms = 1700000000000;

  static inline const WallClock* current = nullptr;
};

}  // namespace zol_test
