#include "reporting/zol_reporters.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>

#include "config/services.h"
#include "config/zol_configurator.h"
#include "config/zol_networks.h"
#include "core/monitor_context.h"
#include "ha/ha_manager.h"
#include "hqs_fixture.h"
#include "sessions/zol_monitor_data.h"
#include "shared_object.h"
#include "shared_records.h"
#include "sites/vpn_sites_services.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/support/vrrp_record.h"

namespace {

using libvariant::Variant;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::StartsWith;
using testing::UnorderedElementsAre;
using zol_monitor::PeriodicReporter;
using zol_monitor::ZolSessionReporter;
using zol_monitor::ZolTrafficReporter;
using zol_test::HttpsServer;
using zol_test::LogCapture;
using zol_utils::ZolReportData;
using zol_utils::ZolStatusData;

constexpr const char* url_key = "Monitoring.hqs_receiver_url";
constexpr const char* timeout_key = "General.hqs_http_client_timeout_sec";
constexpr const char* time_pattern = "[0-9]+-[0-9]+-[0-9]+T[0-9]+:[0-9]+:[0-9]+Z";

// Sites whose connections are the test's.
class FakeSites : public zol::SiteServicesBase {
 public:
  std::vector<zol::VPNConnInfo> get_connections_info_status() override { return {}; }
  Variant get_connections_info_variant(std::list<const zol::ISiteAdditionalInfo*>* infos,
                                       bool refresh) override {
    asked_infos = *infos;
    asked_refresh = refresh;
    return connections;
  }

  std::map<std::string, zol::SiteConnRecord> get_all_site_records() override { return records; }

  std::map<std::string, zol::SiteConnRecord> records;
  Variant connections = Variant::make_list();
  std::list<const zol::ISiteAdditionalInfo*> asked_infos;
  bool asked_refresh = false;
};

class FakeStations : public zol::ISiteAdditionalInfo {
 public:
  Variant add_info(const std::string&) const override { return {}; }
  Variant add_info(const std::string&, std::string) const override { return {}; }
  std::string gen_entry_key(const zol::VPNConnInfo&) const override { return {}; }
};

std::vector<std::string> keys_of(const Variant& map) {
  std::vector<std::string> keys;
  map.ForEach([&keys](std::string_view key, const Variant&) { keys.emplace_back(key); });
  return keys;
}

class ZOLReportersTest : public zol_test::HqsFixture {
 protected:
  ZOLReportersTest() {
    zol_utils::shared_object_version = "reporting-test-" + std::to_string(getpid());
    set_config("session_report_is_enabled = true; ");
    sites_ = std::make_unique<FakeSites>();
    services_ = std::make_unique<zol::Services>(false, false);
    data_ = std::make_unique<zol_monitor::MonitorData>(services_.get(), sites_.get(), &context_, false);
    zol_monitor::ZolTraffic::tunnels_primed = false;
  }
  ~ZOLReportersTest() override {
    zol::ZOLNetworks::instance()->floating_ips.clear();
    zol_utils::SharedObject<ZolReportData>::drop_instance();
    zol_utils::SharedObject<ZolStatusData>::drop_instance();
    zol_utils::shared_object_version.clear();
  }

  void set_config(const std::string& monitoring) {
    config_->set(good_config("hqs_receiver_url = \"" + server_.url() + "\"; " + monitoring));
  }
  PeriodicReporter make_periodic(const zol::ISiteAdditionalInfo* stations = nullptr) {
    return {url_key, "/zolReport", timeout_key, false, true, data_.get(), stations};
  }
  ZolTrafficReporter make_traffic(bool middle_mile = false) {
    return {url_key, "/zolTrafficReport", timeout_key, false, false, data_.get(), middle_mile};
  }
  ZolSessionReporter make_session() {
    return {url_key, "/zolSessionReport", timeout_key, false, false, data_.get()};
  }
  void add_finished_session(const std::string& id) {
    Variant record;
    record.Assign("session_id", id);
    data_->sessions.finished_sessions.sessions.Append(std::move(record));
    ++data_->sessions.finished_sessions.reported_count;
  }

  HttpsServer server_;
  zol_monitor::MonitorContext context_;
  std::unique_ptr<FakeSites> sites_;
  std::unique_ptr<zol::Services> services_;
  std::unique_ptr<zol_monitor::MonitorData> data_;
};

// --- what the three share ---

TEST_F(ZOLReportersTest, client_cert_path) {
  // Verifies that the client certificate is the configured one, and none without the setting.
  PeriodicReporter reporter = make_periodic();
  EXPECT_THAT(reporter.get_client_cert_path(), IsEmpty());
  config_->set("General: { client_cert_path = \"/etc/zol/client.pem\"; };");
  EXPECT_EQ(reporter.get_client_cert_path(), "/etc/zol/client.pem");
}

TEST_F(ZOLReportersTest, members) {
  // Verifies that a reporter holds what it was made with.
  ZolTrafficReporter reporter = make_traffic(true);
  EXPECT_TRUE(reporter.middle_mile);
  EXPECT_FALSE(reporter.save_on_success);
  EXPECT_EQ(reporter.monitor_data, data_.get());
  EXPECT_EQ(reporter.path, "/zolTrafficReport");
  EXPECT_EQ(reporter.url_key, url_key);
  EXPECT_EQ(reporter.timeout_key, timeout_key);
  EXPECT_EQ(reporter.configuration, &config_->configurator());
  EXPECT_FALSE(reporter.machine_info.is_kpa);
  EXPECT_THAT(reporter.get_query_args(), IsEmpty());
}

// --- the periodic report ---

TEST_F(ZOLReportersTest, periodic_report) {
  // Verifies that the plain periodic report has the version, the time, the machine and the node, and what is
  // empty is absent.
  PeriodicReporter reporter = make_periodic();
  const Variant report = libvariant::Deserialize(reporter.create_report());
  EXPECT_THAT(keys_of(report), UnorderedElementsAre("version", "timestamp", "machine-info", "zol-info"));
  EXPECT_EQ(report.At("version").AsString(), "1.0");
  EXPECT_THAT(report.At("timestamp").AsString(), MatchesRegex(time_pattern));
  EXPECT_EQ(report.At("machine-info").At("id").AsString(), "node-7");
  EXPECT_EQ(report.At("machine-info").At("ip_address").AsString(), "192.0.2.7");
  EXPECT_EQ(report.At("zol-info").At("id").AsString(), "node-7");
}

TEST_F(ZOLReportersTest, periodic_metadata) {
  // Verifies that the metadata goes along when its switch is on.
  set_config("send_meta_data_on_periodic_report = true; hqs_meta_data = \"{\\\"rack\\\": 4}\"; ");
  PeriodicReporter reporter = make_periodic();
  const Variant report = libvariant::Deserialize(reporter.create_report());
  EXPECT_EQ(report.At("metadata").At("rack").AsInt(), 4);
  set_config("send_meta_data_on_periodic_report = false; hqs_meta_data = \"{\\\"rack\\\": 4}\"; ");
  EXPECT_FALSE(libvariant::Deserialize(reporter.create_report()).Contains("metadata"));
}

TEST_F(ZOLReportersTest, periodic_without_metadata_setting) {
  // Verifies that metadata that is switched on but missing ends the report.
  set_config("send_meta_data_on_periodic_report = true; ");
  PeriodicReporter reporter = make_periodic();
  EXPECT_THROW(reporter.create_report(), std::runtime_error);
}

TEST_F(ZOLReportersTest, periodic_floating_ip) {
  // Verifies that the lowest floating address of the node's hop is reported.
  zol::ZOLNetworks::instance()->floating_ips = {"192.0.2.50", "192.0.2.40"};
  PeriodicReporter reporter = make_periodic();
  EXPECT_EQ(libvariant::Deserialize(reporter.create_report()).At("floating_ip").AsString(), "192.0.2.40");
}

TEST_F(ZOLReportersTest, periodic_high_availability) {
  // Verifies that the roles of the node's pair are reported, each block when it has something to tell.
  zol_test::VrrpRecord record;
  PeriodicReporter reporter = make_periodic();
  record.add("site-1", 1, 2);
  Variant report = libvariant::Deserialize(reporter.create_report());
  EXPECT_FALSE(report.Contains("high_availability"));
  const Variant& tunnels = report.At("primary_secondary_active_tunnel").At("tunnels");
  ASSERT_THAT(tunnels.AsList(), SizeIs(1));
  EXPECT_EQ(tunnels.AsList()[0].At("site_id").AsString(), "site-1");
  EXPECT_TRUE(tunnels.AsList()[0].At("active_tunnel").AsBool());
  EXPECT_EQ(tunnels.AsList()[0].At("state_changes_amount").AsInt(), 2);
  zol::HAManager::instance()->states.clear();
  std::strcpy(record.at(0).name, "dynamic");
  report = libvariant::Deserialize(reporter.create_report());
  zol::HAManager::instance()->states.clear();
  EXPECT_FALSE(report.Contains("primary_secondary_active_tunnel"));
  EXPECT_EQ(report.At("high_availability").At("state").AsString(), "active");
  EXPECT_EQ(report.At("high_availability").At("state_changes_amount").AsInt(), 2);
}

TEST_F(ZOLReportersTest, periodic_vpn_info) {
  // Verifies that connections are reported, refreshed, when there are any, with the stations' keys asked for.
  const FakeStations stations;
  PeriodicReporter reporter = make_periodic(&stations);
  EXPECT_THAT(reporter.get_monitors(), ElementsAre(&stations));
  EXPECT_FALSE(libvariant::Deserialize(reporter.create_report()).Contains("vpn-info"));
  sites_->connections.Append("tunnel");
  const Variant report = libvariant::Deserialize(reporter.create_report());
  ASSERT_THAT(report.At("vpn-info").At("connections").AsList(), SizeIs(1));
  EXPECT_EQ(report.At("vpn-info").At("connections").AsList()[0].AsString(), "tunnel");
  EXPECT_THAT(sites_->asked_infos, ElementsAre(&stations));
  EXPECT_TRUE(sites_->asked_refresh);
}

TEST_F(ZOLReportersTest, monitors_without_stations) {
  // Verifies that a node without a station monitor has nobody to ask.
  PeriodicReporter reporter = make_periodic();
  EXPECT_THAT(reporter.get_monitors(), IsEmpty());
}

TEST_F(ZOLReportersTest, published_report) {
  // Verifies that the periodic text stands in the shared record, without the rest of a longer one before it.
  const auto record = zol_utils::create_shared_record<ZolReportData>(zol_utils::shared_object_version);
  std::memset(record->data->report, 'x', ZolReportData::max_report);
  record->data->terminator = 'x';
  PeriodicReporter reporter = make_periodic();
  const std::string text = reporter.create_report();
  EXPECT_EQ(std::string(record->data->report, text.size()), text);
  for (std::size_t i = text.size(); i < ZolReportData::max_report; ++i)
    ASSERT_EQ(record->data->report[i], '\0') << i;
  EXPECT_EQ(record->data->terminator, '\0');
  EXPECT_EQ(record->data->header.owner_pid, getpid());
}

TEST_F(ZOLReportersTest, published_report_is_cut) {
  // Verifies that a long report is cut at 12288 characters in the record, and sent whole.
  const auto record = zol_utils::create_shared_record<ZolReportData>(zol_utils::shared_object_version);
  record->data->terminator = 'x';
  for (int i = 0; i < 200; ++i)
    sites_->connections.Append(std::string(100, 'c'));
  PeriodicReporter reporter = make_periodic();
  ASSERT_TRUE(reporter.send_report_async(false));
  run_to_end(reporter.client);
  ASSERT_GT(reporter.body.size(), 12288U);
  EXPECT_EQ(std::string(record->data->report, 12288), reporter.body.substr(0, 12288));
  EXPECT_EQ(record->data->terminator, '\0');
  ASSERT_THAT(server_.requests(), SizeIs(1));
  EXPECT_EQ(server_.requests()[0].body, reporter.body);
}

TEST_F(ZOLReportersTest, record_that_cannot_be_locked) {
  // Verifies that a record whose lock is held is left alone with an error line, and the report is made.
  const auto record = zol_utils::create_shared_record<ZolReportData>(zol_utils::shared_object_version);
  ASSERT_EQ(sem_wait(&record->data->header.lock), 0);
  record->data->header.owner_pid = getppid();
  const int wait_before = std::exchange(zol_utils::shared_lock_wait_ms, 1);
  LogCapture log;
  PeriodicReporter reporter = make_periodic();
  EXPECT_THAT(reporter.create_report(), HasSubstr("machine-info"));
  zol_utils::shared_lock_wait_ms = wait_before;
  EXPECT_TRUE(log.contains(log_level::error, "create_report: Failed locking shared memory for "));
  EXPECT_EQ(record->data->report[0], '\0');
}

TEST_F(ZOLReportersTest, no_shared_record) {
  // Verifies that a record that isn't there costs a log line, not the report.
  LogCapture log;
  PeriodicReporter reporter = make_periodic();
  EXPECT_THAT(reporter.create_report(), HasSubstr("machine-info"));
  EXPECT_TRUE(log.contains(log_level::error, "FATAL: Failed to open SharedObject shm"));
}

// --- the traffic report ---

TEST_F(ZOLReportersTest, traffic_report) {
  // Verifies that an ordinary node's traffic report has the time, the machine's identity, the networks and
  // the totals, which are those of this report.
  const auto record = zol_utils::create_shared_record<ZolStatusData>(zol_utils::shared_object_version);
  record->data->traffic_stats.total_bytes = 7;
  record->data->total_retransmissions = 5;
  ZolTrafficReporter reporter = make_traffic();
  const Variant report = libvariant::Deserialize(reporter.create_report());
  EXPECT_THAT(keys_of(report),
              UnorderedElementsAre("timestamp", "machine-info", "logical-networks", "total_traffic"));
  EXPECT_THAT(report.At("timestamp").AsString(), MatchesRegex(time_pattern));
  EXPECT_THAT(keys_of(report.At("machine-info")), UnorderedElementsAre("id", "ip_address"));
  EXPECT_TRUE(report.At("logical-networks").IsList());
  EXPECT_EQ(report.At("total_traffic").At("total-bytes").AsInt(), 0);
  EXPECT_EQ(report.At("total_traffic").At("total-retransmissions").AsInt(), 5);
}

TEST_F(ZOLReportersTest, middle_mile_traffic_report) {
  // Verifies that a middle-mile node's traffic report has links, and tunnels from the second report on, in
  // the place of networks, and that without the shared record the totals are an empty object.
  set_config("session_report_is_enabled = true; };\nTrafficReport: { enabled = true; ");
  sites_->records.emplace("key-a", zol::SiteConnRecord(zol::ConnRecordType::site));
  ZolTrafficReporter reporter = make_traffic(true);
  Variant report = libvariant::Deserialize(reporter.create_report());
  EXPECT_THAT(keys_of(report),
              UnorderedElementsAre("timestamp", "machine-info", "links", "tunnels", "total_traffic"));
  EXPECT_TRUE(report.At("links").IsList());
  EXPECT_TRUE(report.At("tunnels").IsList());
  EXPECT_THAT(report.At("tunnels").AsList(), IsEmpty());
  EXPECT_TRUE(report.At("total_traffic").IsMap());
  EXPECT_TRUE(report.At("total_traffic").Empty());
  zol_monitor::ZolTraffic::last_report_ms -= 2000;
  report = libvariant::Deserialize(reporter.create_report());
  ASSERT_THAT(report.At("tunnels").AsList(), SizeIs(1));
  EXPECT_EQ(report.At("tunnels").AsList()[0].At("upload").At("total").AsInt(), 0);
}

TEST_F(ZOLReportersTest, traffic_metadata) {
  // Verifies that the traffic report's metadata follows the switch of the periodic report.
  set_config("send_meta_data_on_periodic_report = true; hqs_meta_data = \"{\\\"rack\\\": 4}\"; ");
  ZolTrafficReporter reporter = make_traffic();
  EXPECT_EQ(libvariant::Deserialize(reporter.create_report()).At("metadata").At("rack").AsInt(), 4);
  set_config("send_meta_data_on_session_report = true; hqs_meta_data = \"{\\\"rack\\\": 4}\"; ");
  EXPECT_FALSE(libvariant::Deserialize(reporter.create_report()).Contains("metadata"));
}

// --- the session report ---

TEST_F(ZOLReportersTest, session_report) {
  // Verifies that the finished sessions go out under the keys with underscores, and are let go.
  add_finished_session("one");
  add_finished_session("two");
  ZolSessionReporter reporter = make_session();
  const Variant report = libvariant::Deserialize(reporter.create_report());
  EXPECT_THAT(keys_of(report), UnorderedElementsAre("timestamp", "machine_info", "session_info"));
  EXPECT_THAT(report.At("timestamp").AsString(), MatchesRegex(time_pattern));
  EXPECT_EQ(report.At("machine_info").At("id").AsString(), "node-7");
  EXPECT_EQ(report.At("machine_info").At("ip_address").AsString(), "192.0.2.7");
  ASSERT_THAT(report.At("session_info").AsList(), SizeIs(2));
  EXPECT_EQ(report.At("session_info").AsList()[1].At("session_id").AsString(), "two");
  EXPECT_TRUE(data_->sessions.finished_sessions.sessions.Empty());
  EXPECT_EQ(data_->sessions.finished_sessions.reported_count, 0U);
}

TEST_F(ZOLReportersTest, no_sessions) {
  // Verifies that without sessions nothing is posted or cleaned, and the cycle counts as sent.
  data_->sessions.finished_sessions.incomplete_count = 3;
  ZolSessionReporter reporter = make_session();
  ASSERT_TRUE(reporter.send_report_async(false));
  EXPECT_THAT(reporter.body, IsEmpty());
  run_to_end(reporter.client);
  EXPECT_TRUE(reporter.is_report_sent());
  EXPECT_THAT(server_.requests(), IsEmpty());
  EXPECT_EQ(data_->sessions.finished_sessions.incomplete_count, 3U);
}

TEST_F(ZOLReportersTest, session_report_without_a_url) {
  // Verifies that neither finished sessions nor dead flows pile up while the report has nowhere to go.
  constexpr std::uint64_t hour_ms = 3600000;
  config_->set(good_config("session_report_is_enabled = true; "));
  add_finished_session("one");
  data_->sessions.update_non_tcp_traffic(1, 1, 2, 100, 0, 0, true, "net-a");
  data_->sessions.non_tcp_sessions.begin()->second->last_seen_ms -= hour_ms;
  ZolSessionReporter reporter = make_session();
  EXPECT_FALSE(reporter.send_report_async(false));
  EXPECT_TRUE(data_->sessions.finished_sessions.sessions.Empty());
  EXPECT_EQ(data_->sessions.finished_sessions.reported_count, 0U);
  EXPECT_EQ(data_->sessions.finished_sessions.non_tcp_count, 0U);
  EXPECT_TRUE(data_->sessions.non_tcp_sessions.empty());
  EXPECT_THAT(reporter.body, IsEmpty());
}

TEST_F(ZOLReportersTest, session_metadata) {
  // Verifies that the session report's metadata has a switch of its own.
  set_config(
      "session_report_is_enabled = true; send_meta_data_on_session_report = true; "
      "hqs_meta_data = \"{\\\"rack\\\": 4}\"; ");
  add_finished_session("one");
  ZolSessionReporter reporter = make_session();
  EXPECT_EQ(libvariant::Deserialize(reporter.create_report()).At("metadata").At("rack").AsInt(), 4);
  set_config(
      "session_report_is_enabled = true; send_meta_data_on_periodic_report = true; "
      "hqs_meta_data = \"{\\\"rack\\\": 4}\"; ");
  add_finished_session("two");
  EXPECT_FALSE(libvariant::Deserialize(reporter.create_report()).Contains("metadata"));
}

TEST_F(ZOLReportersTest, resent_session_report) {
  // Verifies that a retried session report still holds the sessions that the first attempt held.
  server_.answer_with({.status = 503});
  add_finished_session("one");
  ZolSessionReporter reporter = make_session();
  ASSERT_TRUE(reporter.send_report_async(false));
  run_to_end(reporter.client);
  ASSERT_FALSE(reporter.is_report_sent());
  add_finished_session("two");
  ASSERT_TRUE(reporter.resend_report_async());
  run_to_end(reporter.client);
  ASSERT_THAT(server_.requests(), SizeIs(2));
  EXPECT_THAT(server_.requests()[1].target, StartsWith("/zolSessionReport?"));
  EXPECT_EQ(server_.requests()[1].body, server_.requests()[0].body);
  EXPECT_THAT(server_.requests()[1].body, HasSubstr("one"));
  EXPECT_FALSE(data_->sessions.finished_sessions.sessions.Empty());
}

}  // namespace
