#include "core/monitor_ipc.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cstddef>
#include <string>
#include <vector>

#include "ipc_fixture.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

using zol_test::Bytes;
using zol_test::LogCapture;
using zol_test::make_message;

namespace {

static_assert(offsetof(ipc_tcp_conn_diag_info_msg_t, info) + offsetof(tcp_info, tcpi_rtt) == 147);
static_assert(offsetof(ipc_tcp_conn_diag_info_msg_t, info) + offsetof(tcp_info, tcpi_total_retrans) == 179);
static_assert(sizeof(tcp_info) >= ipc_tcp_info_size);

// Notes which handler was called, and a copy of the message.
class Listener : public zol_monitor::MonitorIPC {
 public:
  void reload_conf_notify(ipcmsg_t* msg) override { note("reload_conf_notify", msg); }
  void term_notify(ipcmsg_t* msg) override { note("term_notify", msg); }
  void failure_notify(ipc_failure_msg_t* msg) override { note("failure_notify", msg); }
  void failopen_notify(ipc_failopen_msg_t* msg) override { note("failopen_notify", msg); }
  void session_identification_notify(ipc_session_identification_msg_t* msg) override {
    note("session_identification_notify", msg);
  }
  void tcp_conn_diag_info_notify(ipc_tcp_conn_diag_info_msg_t* msg) override {
    note("tcp_conn_diag_info_notify", msg);
  }
  void dump_session_notify(ipcmsg_t* msg) override { note("dump_session_notify", msg); }
  void set_out_failure_reason_notify(msgtyp_failure_reason_msg_t* msg) override {
    note("set_out_failure_reason_notify", msg);
  }
  void invalid_public_host_notify(ipcmsg_t* msg) override { note("invalid_public_host_notify", msg); }
  void http_msg_notify(msgtyp_http_notification_t* msg) override { note("http_msg_notify", msg); }
  void bh_event_notify(ipc_bh_event_msg_t* msg) override { note("bh_event_notify", msg); }
  void bgp_provider_fail_notify(ipc_bgp_provider_fail_msg_t* msg) override {
    note("bgp_provider_fail_notify", msg);
  }
  void next_hop_api_event(ipcmsg_t* msg) override { note("next_hop_api_event", msg); }
  void ignored_session_info(ipc_ignored_session_info_msg_t* msg) override {
    note("ignored_session_info", msg);
  }
  void wanp_tcp_pool_stats(ipc_tcp_pool_stats_msg_t* msg) override { note("wanp_tcp_pool_stats", msg); }
  void routing_anomaly_notify(ipc_routing_anomaly_msg_t* msg) override {
    note("routing_anomaly_notify", msg);
  }
  void vpn_log_cli(ipcmsg_t* msg) override { note("vpn_log_cli", msg); }
  void vpn_info_cli(ipcmsg_t* msg) override { note("vpn_info_cli", msg); }

  void take(const Bytes& message) { handle_ipc_msg(message.data(), message.size()); }

  std::string called;  // the names of the handlers, one behind the other
  Bytes last;

 private:
  template <typename T>
  void note(const char* handler, T* msg) {
    called += handler;
    const auto* bytes = reinterpret_cast<const unsigned char*>(msg);
    last.assign(bytes, bytes + sizeof(T));
  }
};

struct Row {
  unsigned short type;
  const char* name;  // in the log
  std::size_t size;
  const char* handler;
};

std::string row_name(const testing::TestParamInfo<Row>& info) {
  return "Type" + std::to_string(info.param.type);
}

class MonitorIpcTypes : public testing::TestWithParam<Row> {
 protected:
  LogCapture log;
  Listener listener;
};

INSTANTIATE_TEST_SUITE_P(
    AllTypes, MonitorIpcTypes,
    testing::Values(Row{2, "reloadconf", 56, "reload_conf_notify"}, Row{5, "terminate", 56, "term_notify"},
                    Row{7, "failure", 69, "failure_notify"}, Row{8, "failopen", 57, "failopen_notify"},
                    Row{16, "session_identification", 620, "session_identification_notify"},
                    Row{17, "tcp_conn_diag_info", 191, "tcp_conn_diag_info_notify"},
                    Row{18, "dump_session_info", 56, "dump_session_notify"},
                    Row{20, "termination_reason", 85, "set_out_failure_reason_notify"},
                    Row{22, "invalid_public_host", 56, "invalid_public_host_notify"},
                    Row{24, "http_notification", 73, "http_msg_notify"},
                    Row{26, "black_hole_event", 312, "bh_event_notify"},
                    Row{27, "ignored_session_info", 72, "ignored_session_info"},
                    Row{28, "unknown", 80, "wanp_tcp_pool_stats"},
                    Row{29, "next_hop_api_event", 56, "next_hop_api_event"},
                    Row{32, "unknown", 68, "routing_anomaly_notify"}, Row{36, "vpn_log", 56, "vpn_log_cli"},
                    Row{37, "vpn_info", 56, "vpn_info_cli"},
                    Row{42, "unknown", 60, "bgp_provider_fail_notify"}),
    row_name);

// Verifies that a message of exactly its record's size reaches its handler, with the sender's name in the
// log.
TEST_P(MonitorIpcTypes, SmallestMessageIsTaken) {
  const Row& row = GetParam();
  listener.take(make_message(row.type, row.size));
  EXPECT_EQ(listener.called, row.handler);
  EXPECT_EQ(listener.last.size(), row.size);
  EXPECT_TRUE(
      log.contains(log_level::debug, std::string("parse_msg: ") + row.name + " requested by: [ tester ]."))
      << log.all();
}

// Verifies that a longer message is taken, so that a sender may add fields.
TEST_P(MonitorIpcTypes, LongerMessageIsTaken) {
  const Row& row = GetParam();
  listener.take(make_message(row.type, row.size + 100));
  EXPECT_EQ(listener.called, row.handler);
}

// Verifies that a message that is one byte short is refused and consumed; one byte less than a header is no
// message.
TEST_P(MonitorIpcTypes, ShortMessageIsRefused) {
  const Row& row = GetParam();
  const std::string size = std::to_string(row.size - 1);
  listener.take(make_message(row.type, row.size - 1));
  EXPECT_TRUE(listener.called.empty());
  EXPECT_TRUE(log.contains(log_level::warning,
                           row.size == sizeof(ipcmsg_t)
                               ? "handle_ipc_msg: incoming message size (" + size + ") is too small."
                               : "parse_msg: invalid message size: " + size + " for type: " + row.name))
      << log.all();
  EXPECT_FALSE(log.contains("unsupported message type"));
}

class MonitorIpc : public testing::Test {
 protected:
  LogCapture log;
  Listener listener;
};

// Verifies that a message of 55 bytes is dropped as too small.
TEST_F(MonitorIpc, LessThanHeaderIsDropped) {
  for (const std::size_t size : {0U, 1U, 55U}) {
    log.clear();
    listener.take(make_message(2, size));
    EXPECT_TRUE(listener.called.empty());
    EXPECT_TRUE(log.contains(log_level::warning, "handle_ipc_msg: incoming message size (" +
                                                     std::to_string(size) + ") is too small."))
        << log.all();
  }
}

// Verifies that a message of 56 bytes with a type that the monitor doesn't take is told as unsupported, those
// that it only sends among them.
TEST_F(MonitorIpc, UnsupportedTypesAreTold) {
  for (const unsigned short type : {0, 1, 3, 9, 10, 11, 14, 15, 21, 40, 41, 43, 44, 999}) {
    log.clear();
    listener.take(make_message(type, 56));
    EXPECT_TRUE(listener.called.empty());
    EXPECT_TRUE(
        log.contains(log_level::warning, "handle_ipc_msg: unsupported message type: " + std::to_string(type)))
        << log.all();
  }
}

// Verifies that the two categories tell reader and dispatcher apart.
TEST_F(MonitorIpc, CategoriesAreNamed) {
  listener.take(make_message(999, 56));
  listener.take(make_message(8, 56));
  ASSERT_EQ(log.records().size(), 2U);
  EXPECT_EQ(log.records()[0].category, "MonitorIPC");
  EXPECT_EQ(log.records()[1].category, "IPCSocket");
}

// Verifies that a source field without a NUL is shown no further than the field goes.
TEST_F(MonitorIpc, UnterminatedSourceIsCut) {
  Bytes message = make_message(2, 56);
  std::memset(message.data() + 2, 'x', 25);
  listener.take(message);
  EXPECT_TRUE(log.contains("[ " + std::string(25, 'x') + " ].")) << log.all();
}

// Verifies that a message at an odd address is handled.
TEST_F(MonitorIpc, UnalignedMessageIsTaken) {
  const Bytes message = make_message(17, 191);
  Bytes shifted(1 + message.size());
  std::copy(message.begin(), message.end(), shifted.begin() + 1);
  listener.handle_ipc_msg(shifted.data() + 1, message.size());
  EXPECT_EQ(listener.called, "tcp_conn_diag_info_notify");
}

// Verifies that the fields of a failure record lie where the sender puts them.
TEST_F(MonitorIpc, FailureRecordFromBytes) {
  Bytes message = make_message(7, 69);
  const unsigned char body[] = {
      192,  0,    2, 1,  // address, network order
      0xd2, 0x04,        // first port, 1234, host order
      0x2e, 0x16,        // second port, 5678
      2,                 // two valid ports
      0,    0,    0, 0,  // status
  };
  std::copy(std::begin(body), std::end(body), message.begin() + 56);
  listener.take(message);
  ASSERT_EQ(listener.last.size(), sizeof(ipc_failure_msg_t));
  ipc_failure_msg_t record;
  std::memcpy(&record, listener.last.data(), sizeof record);
  EXPECT_EQ(std::uint32_t{record.address}, inet_addr("192.0.2.1"));
  EXPECT_EQ(std::uint16_t{record.ports[0]}, 1234);
  EXPECT_EQ(std::uint16_t{record.ports[1]}, 5678);
  EXPECT_EQ(record.count, 2);
  EXPECT_EQ(std::uint32_t{record.status}, 0U);
}

// Verifies that the fields of a session identification lie where the sender puts them.
TEST_F(MonitorIpc, SessionIdentificationFromBytes) {
  Bytes message = make_message(16, 620);
  message[56] = 1;     // outbound
  message[61] = 0x1f;  // port1, 8080 in network order
  message[62] = 0x90;
  message[69] = 0xaa;   // uuid, first byte
  message[84] = 0xbb;   // uuid, last byte
  message[91] = 3;      // retries
  message[96] = 'd';    // domain name
  message[352] = 'u';   // user agent
  message[608] = 0xbb;  // service port, 443 in host order
  message[609] = 0x01;
  message[610] = 2;     // hop order
  message[612] = 1;     // failopen
  message[613] = 1;     // recover
  message[618] = 0x01;  // target port, 443 in network order
  message[619] = 0xbb;
  listener.take(message);
  ipc_session_identification_msg_t record;
  ASSERT_EQ(listener.last.size(), sizeof record);
  std::memcpy(&record, listener.last.data(), sizeof record);
  EXPECT_EQ(record.outbound, 1);
  EXPECT_EQ(ntohs(record.port1), 8080);
  EXPECT_EQ(record.uuid[0], 0xaa);
  EXPECT_EQ(record.uuid[15], 0xbb);
  EXPECT_EQ(record.retries, 3);
  EXPECT_STREQ(record.domain_name, "d");
  EXPECT_STREQ(record.user_agent, "u");
  EXPECT_EQ(std::uint16_t{record.service_port}, 443);
  EXPECT_EQ(std::uint16_t{record.hop_order}, 2);
  EXPECT_EQ(record.failopen, 1);
  EXPECT_EQ(record.recover, 1);
  EXPECT_EQ(ntohs(record.target_port), 443);
}

}  // namespace
