#include <arpa/inet.h>

#include <cstring>

#include "tests/unit/monitor/monitor_fixture.h"

namespace {

using zol_test::MonitorFixture;

constexpr std::uint8_t session_uuid[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

class MonitorMessages : public MonitorFixture {
 protected:
  static ipc_session_identification_msg_t identification() {
    ipc_session_identification_msg_t msg{};
    msg.address1 = inet_addr("10.0.0.9");
    msg.port1 = htons(40000);
    std::memcpy(msg.uuid, session_uuid, sizeof session_uuid);
    msg.client_address = inet_addr("10.0.0.9");
    msg.client_port = htons(40000);
    msg.retries = 3;
    msg.destination_address = inet_addr("198.51.100.1");
    std::strcpy(msg.domain_name, "www.example.org");
    std::strcpy(msg.user_agent, "agent/1");
    msg.service_port = 80;
    msg.hop_order = 2;
    msg.target_address = inet_addr("198.51.100.2");
    msg.target_port = htons(443);
    return msg;
  }

  std::shared_ptr<zol_monitor::SessionInfo> session() { return monitor().sessions.get(session_uuid); }
};

// Verifies that every field of an identification record reaches the session, ports in host order.
TEST_F(MonitorMessages, IdentificationFieldsReachTheSession) {
  deliver(msgtype_e::session_identification, identification());
  const auto found = session();
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->client_ip, inet_addr("10.0.0.9"));
  EXPECT_EQ(found->client_port, 40000);
  EXPECT_EQ(found->in_info.address, inet_addr("10.0.0.9"));
  EXPECT_EQ(found->in_info.port, 40000);
  EXPECT_EQ(found->in_info.destination_ip, inet_addr("198.51.100.1"));
  EXPECT_EQ(found->retries_count, 3);
  EXPECT_EQ(found->service_port, 80);
  EXPECT_EQ(found->hop_order, 2);
  EXPECT_EQ(found->domain_name, "www.example.org");
  EXPECT_EQ(found->user_agent, "agent/1");
  EXPECT_EQ(found->target_ip, inet_addr("198.51.100.2"));
  EXPECT_EQ(found->target_port, 443);
  EXPECT_FALSE(found->failopen);
}

// Verifies that a text field without a terminator is taken up to its width and not beyond.
TEST_F(MonitorMessages, UnterminatedTextsAreCutAtTheirField) {
  auto msg = identification();
  std::memset(msg.domain_name, 'd', sizeof msg.domain_name);
  std::memset(msg.user_agent, 'u', sizeof msg.user_agent);
  deliver(msgtype_e::session_identification, msg);
  ASSERT_NE(session(), nullptr);
  EXPECT_EQ(session()->domain_name, std::string(256, 'd'));
  EXPECT_EQ(session()->user_agent, std::string(256, 'u'));
}

// Verifies that a failure record without a reason only warns.
TEST_F(MonitorMessages, FailureWithoutReasonWarns) {
  msgtyp_failure_reason_msg_t msg{};
  std::memcpy(msg.uuid, session_uuid, sizeof session_uuid);
  deliver(msgtype_e::termination_reason, msg);
  EXPECT_TRUE(
      log_.contains(log_level::warning, "set_out_failure_reason_notify Got unknown termination reason"));
  EXPECT_EQ(session(), nullptr);
}

// Verifies that the failed port is taken as it stands in the record, the client's port in network order.
TEST_F(MonitorMessages, FailurePortsKeepTheirOrder) {
  msgtyp_failure_reason_msg_t msg{};
  msg.ip = inet_addr("10.0.0.9");
  msg.port = htons(40000);
  std::memcpy(msg.uuid, session_uuid, sizeof session_uuid);
  msg.failed_address = inet_addr("198.51.100.7");
  msg.failed_port = 9050;  // an internal port in this configuration
  msg.failure_reason = zol::FR_CONNECTION_REFUSED;
  deliver(msgtype_e::termination_reason, msg);
  ASSERT_NE(session(), nullptr);
  EXPECT_EQ(session()->client_port, 40000);
  EXPECT_EQ(session()->next_hop_ip, inet_addr("198.51.100.7"));
  EXPECT_TRUE(session()->is_next_hop_zol);
  EXPECT_EQ(session()->out->termination_reason, zol_monitor::STR_CONNECTION_REFUSED);
}

ipc_tcp_conn_diag_info_msg_t diagnostics() {
  ipc_tcp_conn_diag_info_msg_t msg{};
  msg.ip = inet_addr("10.0.0.9");
  msg.port = htons(40000);
  std::memcpy(msg.uuid, session_uuid, sizeof session_uuid);
  tcp_info info{};
  info.tcpi_rtt = 21500;
  info.tcpi_total_retrans = 7;
  std::memcpy(msg.info, &info, sizeof msg.info);
  msg.read_idle_ms = 11;
  msg.write_congestion_ms = 12;
  return msg;
}

// Verifies that the proxy's figures of the In leg reach the session and the node's total of retransmissions.
TEST_F(MonitorMessages, DiagnosticsReachSessionAndRecord) {
  auto& status = status_record();
  deliver(msgtype_e::session_identification, identification());
  deliver(msgtype_e::tcp_conn_diag_info, diagnostics());
  ASSERT_NE(session(), nullptr);
  EXPECT_EQ(session()->in_info.tcp_info.rtt, 21500u);
  EXPECT_EQ(session()->in_info.tcp_info.total_retrans, 7u);
  EXPECT_EQ(session()->in_info.read_idle_time_ms, 11u);
  EXPECT_EQ(session()->in_info.write_congestion_time_ms, 12u);
  EXPECT_EQ(status.total_retransmissions, 7u);
  EXPECT_TRUE(
      log_.contains("diagnostics report from wanproxy: inbound ip: [10.0.0.9:40000] Session_ID: "
                    "01020304-0506-0708-090a-0b0c0d0e0f10  rtt: 21.5 ms retrans: 7 read idle: 11ms. write "
                    "congestion: 12ms"));
}

// Verifies that an outbound record goes to the Out leg.
TEST_F(MonitorMessages, OutboundDiagnosticsReachTheOutLeg) {
  deliver(msgtype_e::session_identification, identification());
  auto msg = diagnostics();
  msg.outbound = 1;
  deliver(msgtype_e::tcp_conn_diag_info, msg);
  EXPECT_EQ(session()->out_info.tcp_info.rtt, 21500u);
  EXPECT_EQ(session()->in_info.tcp_info.rtt, 0u);
}

// Verifies that nothing is taken while reports are disabled.
TEST_F(MonitorMessages, DiagnosticsAreDroppedWhileReportsAreDisabled) {
  auto& status = status_record();
  deliver(msgtype_e::session_identification, identification());
  zol_monitor::reports_disabled = true;
  deliver(msgtype_e::tcp_conn_diag_info, diagnostics());
  EXPECT_EQ(session()->in_info.tcp_info.rtt, 0u);
  EXPECT_EQ(status.total_retransmissions, 0u);
  EXPECT_TRUE(log_.contains(log_level::debug, "tcp_conn_diag_info_notify: reports disabled"));
}

// Verifies that the six pool counters are added one by one to the running totals of the status record.
TEST_F(MonitorMessages, PoolCountersAddUp) {
  auto& status = status_record();
  ipc_tcp_pool_stats_msg_t msg{};
  for (std::uint32_t i = 0; i < 6; ++i)
    msg.counters[i] = i + 1;
  deliver(msgtype_e::tcp_pool_stats, msg);
  deliver(msgtype_e::tcp_pool_stats, msg);
  for (std::uint32_t i = 0; i < 6; ++i)
    EXPECT_EQ(status.tcp_pool_counters[i], 2 * (i + 1));
  EXPECT_TRUE(log_.contains(log_level::debug, "wanp_tcp_pool_stats Received IPC msg"));
}

// Verifies that without shared memory the pool counters are dropped with a debug line.
TEST_F(MonitorMessages, PoolCountersWithoutSharedMemoryAreDropped) {
  deliver(msgtype_e::tcp_pool_stats, ipc_tcp_pool_stats_msg_t{});
  EXPECT_TRUE(log_.contains(log_level::debug, "Shared memory disabled for: "));
}

// Verifies that an invalid public host counts under its reason.
TEST_F(MonitorMessages, InvalidPublicHostCounts) {
  struct HeaderOnly {
    ipcmsg_t header;
  };
  deliver(msgtype_e::invalid_public_host, HeaderOnly{});
  auto& counters = monitor().sessions.error_counters;
  EXPECT_EQ(counters.get_counter(counters.period, zol::FR_INVALID_HOST), 1u);
}

// Verifies that HTTP notifications count, that an unknown kind is refused, and that a missing session is
// logged.
TEST_F(MonitorMessages, HttpNotifications) {
  deliver(msgtype_e::session_identification, identification());
  msgtyp_http_notification_t msg{};
  std::memcpy(msg.uuid, session_uuid, sizeof session_uuid);
  msg.notification = zol::HTTP_POST_REQUEST;
  deliver(msgtype_e::http_notification, msg);
  EXPECT_EQ(session()->http_counters.get_counter(zol::HTTP_POST_REQUEST), 1u);
  msg.notification = 200;
  deliver(msgtype_e::http_notification, msg);
  EXPECT_EQ(session()->http_counters.total_requests() + session()->http_counters.total_responses(), 1u);
  msg.uuid[0] = 99;
  deliver(msgtype_e::http_notification, msg);
  EXPECT_TRUE(log_.contains(log_level::error, "update_http_counters: Session not found"));
}

// Verifies that an ignored session is marked.
TEST_F(MonitorMessages, IgnoredSession) {
  deliver(msgtype_e::session_identification, identification());
  ipc_ignored_session_info_msg_t msg{};
  std::memcpy(msg.uuid, session_uuid, sizeof session_uuid);
  deliver(msgtype_e::ignored_session_info, msg);
  EXPECT_TRUE(session()->ignored);
}

// Verifies that the dump message logs the table.
TEST_F(MonitorMessages, DumpLogsTheTable) {
  struct HeaderOnly {
    ipcmsg_t header;
  };
  deliver(msgtype_e::session_identification, identification());
  deliver(msgtype_e::dump_session_info, HeaderOnly{});
  EXPECT_TRUE(log_.contains(log_level::info, "ZOL Sessions Dump"));
  EXPECT_TRUE(log_.contains(log_level::info, "01020304-0506-0708-090a-0b0c0d0e0f10"));
}

}  // namespace
