#include "zol_traffic_fixture.h"

#include <semaphore.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "config/zol_networks.h"

extern "C" {
int __real_sem_post(sem_t* semaphore);

int __wrap_sem_post(sem_t* semaphore) {
  if (!zol_test::PostFails::active)
    return __real_sem_post(semaphore);
  errno = EOVERFLOW;
  return -1;
}

std::uint64_t __real__ZN3zol6Helper16get_timestamp_msEv();

std::uint64_t __wrap__ZN3zol6Helper16get_timestamp_msEv() {
  const zol_test::WallClock* clock = zol_test::WallClock::current;
  return clock != nullptr ? clock->now_ms : __real__ZN3zol6Helper16get_timestamp_msEv();
}
}

namespace zol_test {

namespace {

constexpr const char* service_rows = R"(
  { service_id = 1; logical_network_id = "net-a"; public_host = "public.example"; host = "origin.example";
    aux_host = ""; external_port_in = 443; internal_port = 15443; external_port_out = 443; is_port_owned = true;
    is_tcp = true; },
  { service_id = 2; logical_network_id = "net-b"; public_host = "other.example"; host = "second.example";
    aux_host = ""; external_port_in = 444; internal_port = 15444; external_port_out = 444; is_port_owned = true;
    is_tcp = true; })";

std::string config_text(const TrafficConfig& config, const std::string& services) {
  return R"(
General: { zol_id = "node-1"; };
IPTables: { internal_port_range_start = 15000; internal_port_range_end = 15999; };
MiddleMileNetwork: { enabled = )" +
         std::string(config.middle_mile ? "true" : "false") +
         "; };\nMonitoring: { unmarked_target = \"unmarked.example\"; session_report_resolution_ms = " +
         std::to_string(config.session_report_resolution_ms) + "; " + config.monitoring +
         " };\nTrafficReport: { " + config.traffic_report + " };\nMultipleTargets: { services = ( " +
         services + " ); };\n";
}

}  // namespace

TrafficTest::TrafficTest()
    : version_("traffic-test-" + std::to_string(getpid())),
      config_(config_text({}, service_rows)),
      record_(zol_utils::create_shared_record<zol_utils::ZolStatusData>(version_)),
      quiet_((zol_utils::shared_object_version = version_, std::make_unique<LogCapture>())),
      services_(false, true),
      data_(&services_, &sites_, &context_, true),
      traffic_(&data_),
      services_text_(service_rows) {
  data_.conntrack.stop();
  zol::ZOLNetworks::instance()->hop_map.clear();
  zol_monitor::ZolTraffic::tunnels_primed = false;
  quiet_.reset();
}

TrafficTest::~TrafficTest() {
  zol::ZOLNetworks::instance()->hop_map.clear();
  zol_utils::SharedObject<zol_utils::ZolStatusData>::drop_instance();
  zol_utils::shared_object_version.clear();
}

void TrafficTest::configure(const TrafficConfig& config) {
  current_ = config;
  config_.set(config_text(config, services_text_));
}

void TrafficTest::reconfigure_services(const std::string& services) {
  services_text_ = services;
  configure(current_);
  const LogCapture quiet;
  services_.reconfigure();
}

void TrafficTest::add_tcp(FilledStats& stats, const TcpTraffic& traffic, const std::string& network) {
  const std::uint16_t to = traffic.to_hop ? 15000 : 443;
  stats.networks[network].add_tcp_counters(ip(traffic.client.c_str()), ip(traffic.client.c_str()), 40000,
                                           ip("203.0.113.5"), to, traffic.m, traffic.counters, true, true,
                                           traffic.domain, false, traffic.private_network);
}

void TrafficTest::add_proxied(FilledStats& stats, TcpTraffic traffic, std::uint64_t scale,
                              const std::string& network) {
  traffic.m = in_leg;
  traffic.counters = {3 * scale, 300 * scale, 1 * scale, 100 * scale};
  add_tcp(stats, traffic, network);
  traffic.m = out_leg;
  traffic.counters = {2 * scale, 200 * scale, 4 * scale, 400 * scale};
  add_tcp(stats, traffic, network);
}

std::string TrafficTest::proxied_json(std::uint64_t scale) {
  const auto times = [scale](std::uint64_t value) { return std::to_string(value * scale); };
  return "\"client-to-server\": {\"incoming-packets\": " + times(1) + ", \"incoming-bytes\": " + times(100) +
         ", \"outgoing-packets\": " + times(2) + ", \"outgoing-bytes\": " + times(200) +
         "}, \"server-to-client\": {\"incoming-packets\": " + times(4) +
         ", \"incoming-bytes\": " + times(400) + ", \"outgoing-packets\": " + times(3) +
         ", \"outgoing-bytes\": " + times(300) + "}";
}

void TrafficTest::add_udp(FilledStats& stats, std::uint8_t m,
                          const zol_monitor::conntrack_counters_t& counters, const std::string& client) {
  stats.networks["net-a"].add_udp_counters(ip(client.c_str()), ip(client.c_str()), 5000, ip("203.0.113.5"), m,
                                           counters);
}

zol_monitor::SessionPtr TrafficTest::add_session(const TrafficSession& description) {
  std::array<unsigned char, 16> uuid;
  uuid.fill(0xd0);
  uuid.back() = ++sessions_;
  const auto port = static_cast<std::uint16_t>(40000 + sessions_);
  const std::uint32_t client = ip(description.client.c_str());
  data_.sessions.set_session_identification(false, client, port, 0, 0, uuid.data(), client, port, 443, 0, 0,
                                            0, false, "", description.domain, false, 0, 0);
  zol_monitor::SessionPtr session = data_.sessions.get(uuid.data());
  session->network_id = description.network;
  session->accepted_locally = description.accepted;
  session->is_private_network = description.private_network;
  return session;
}

void TrafficTest::fail_to_target(const zol_monitor::SessionPtr& session) {
  session->out->termination_reason = zol_monitor::STR_CONNECTION_REFUSED;
}

libvariant::Variant TrafficTest::only(const libvariant::Variant& list) {
  EXPECT_EQ(list.Size(), 1U);
  return list.Size() == 1 ? list.AsList()[0] : libvariant::Variant();
}

}  // namespace zol_test
