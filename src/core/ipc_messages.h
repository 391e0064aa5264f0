// The messages between the processes of a node: types and records.
//
// Each record starts with the header of ipc.h. Records are packed and in host byte order; IPv4 addresses are
// in network order, and so are the ports whose comment says it. A name or text is NUL-terminated inside its
// field, but a reader doesn't trust the sender for that. A sender may add fields at the end: a longer message
// is taken, a shorter one is refused.
//
// Messages are handled where they were read, at any alignment: take members by value, never by reference or
// pointer.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ipc.h"

namespace zol {

// Why a session's outgoing side failed. The numbers travel in IPC records.
enum failure_reason_t : std::uint8_t {
  FR_NONE = 0,  // the sender had no reason
  FR_RESOLUTION_FAILURE = 1,
  FR_PEER_TIMEOUT = 2,
  FR_CONNECTION_REFUSED = 3,
  FR_INVALID_HOST = 4,
  FR_FAILOPEN_CONNECTION = 5,
};

// What the proxy saw of an HTTP session.
enum http_notification_t : std::uint8_t {
  HTTP_GET_REQUEST = 0,
  HTTP_POST_REQUEST = 1,
  HTTP_OTHER_REQUEST = 2,
  HTTP_2XX_RESPONSE = 3,
  HTTP_3XX_RESPONSE = 4,
  HTTP_4XX_RESPONSE = 5,
  HTTP_5XX_RESPONSE = 6,
};

}  // namespace zol

enum class msgtype_e : std::uint16_t {
  health_beat = 1,  // to "watchdog" each second
  reloadconf = 2,
  terminate = 5,
  failure = 7,
  failopen = 8,
  vrrp_role = 9,
  process_start = 10,
  process_stop = 11,
  ha_suspend = 14,
  ha_resume = 15,
  session_identification = 16,
  tcp_conn_diag_info = 17,
  dump_session_info = 18,
  termination_reason = 20,
  service_start = 21,
  invalid_public_host = 22,
  http_notification = 24,
  black_hole_event = 26,
  ignored_session_info = 27,
  tcp_pool_stats = 28,
  next_hop_api_event = 29,
  routing_anomaly = 32,
  vpn_log = 36,   // answered by a stream of the same type, see zol_cli_passthrough.h
  vpn_info = 37,  // likewise
  forward = 40,
  command_watcher = 41,
  bgp_provider_fail = 42,
  service_control = 43,
  process_restart = 44,
};

// The type as the header holds it.
constexpr std::uint16_t msgtype_value(msgtype_e type) {
  return static_cast<std::uint16_t>(type);
}

inline constexpr std::size_t ipc_uuid_size = 16;
inline constexpr std::size_t ipc_text_size = 256;      // domain names, user agents, targets
inline constexpr std::size_t ipc_tcp_info_size = 104;  // the first bytes of the kernel's struct tcp_info
inline constexpr std::size_t ipc_command_size = 513;
inline constexpr std::size_t ipc_long_text_size = 65;
inline constexpr std::size_t ipc_short_text_size = 33;
inline constexpr std::size_t ipc_argument_slots = 12;

inline constexpr std::uint32_t ipc_service_restart = 1;
inline constexpr std::uint32_t ipc_service_reload = 2;

#pragma pack(push, 1)

// Ports of a neighbouring node that failed.
struct ipc_failure_msg_t {
  ipcmsg_t header;
  std::uint32_t address;
  std::uint16_t ports[2];
  std::uint8_t count;    // valid entries of `ports`
  std::uint32_t status;  // 0; a record with any other value is ignored
};

struct ipc_failopen_msg_t {
  ipcmsg_t header;
  std::uint8_t enabled;  // non-zero when fail-open is on
};

// One side of a proxied session, as the proxy opened it.
struct ipc_session_identification_msg_t {
  ipcmsg_t header;
  std::uint8_t outbound;  // non-zero for the outgoing side
  std::uint32_t address1;
  std::uint16_t port1;  // network order
  std::uint16_t port2;  // network order
  std::uint32_t address2;
  std::uint8_t uuid[ipc_uuid_size];
  std::uint32_t client_address;
  std::uint16_t client_port;  // network order
  std::uint8_t retries;
  std::uint32_t destination_address;
  char domain_name[ipc_text_size];
  char user_agent[ipc_text_size];
  std::uint16_t service_port;
  std::uint16_t hop_order;
  std::uint8_t failopen;
  std::uint8_t recover;
  std::uint32_t target_address;
  std::uint16_t target_port;  // network order
};

// TCP figures of one side of a session.
struct ipc_tcp_conn_diag_info_msg_t {
  ipcmsg_t header;
  std::uint8_t outbound;
  std::uint32_t ip;
  std::uint8_t uuid[ipc_uuid_size];
  std::uint16_t port;  // network order
  std::uint8_t info[ipc_tcp_info_size];
  std::uint32_t read_idle_ms;
  std::uint32_t write_congestion_ms;
};

// Why a session's outgoing side failed.
struct msgtyp_failure_reason_msg_t {
  ipcmsg_t header;
  std::uint32_t ip;
  std::uint16_t port;  // network order
  std::uint8_t uuid[ipc_uuid_size];
  std::uint32_t failed_address;
  std::uint16_t failed_port;    // as it stands, no byte swap
  std::uint8_t failure_reason;  // zol::failure_reason_t
};

struct msgtyp_http_notification_t {
  ipcmsg_t header;
  std::uint8_t uuid[ipc_uuid_size];
  std::uint8_t notification;  // zol::http_notification_t
};

struct ipc_ignored_session_info_msg_t {
  ipcmsg_t header;
  std::uint8_t uuid[ipc_uuid_size];
};

// What the proxy's pool of connections did since its last message; each is added to its total.
struct ipc_tcp_pool_stats_msg_t {
  ipcmsg_t header;
  std::uint32_t counters[6];
};

struct ipc_bgp_provider_fail_msg_t {
  ipcmsg_t header;
  std::uint32_t address;
};

struct ipc_routing_anomaly_msg_t {
  ipcmsg_t header;
  std::uint32_t values[3];
};

// A target that takes packets and answers none.
struct ipc_bh_event_msg_t {
  ipcmsg_t header;
  char text[ipc_text_size];  // "unknown" when the sender has none; the remainder is zero
};

// Asks the watchdog to stop or to restart a process.
struct ipc_process_stop_msg_t {
  ipcmsg_t header;
  char name[ipc_name_size];
  std::uint32_t flag;  // always 0 in a restart
};

struct ipc_service_control_msg_t {
  ipcmsg_t header;
  std::uint32_t action;  // ipc_service_restart or ipc_service_reload
  char name[ipc_name_size];
};

struct ipc_command_watcher_msg_t {
  ipcmsg_t header;
  char name[ipc_name_size];
  char command[ipc_command_size];
  char text[ipc_long_text_size];
  std::uint32_t number;
};

struct ipc_service_start_msg_t {
  ipcmsg_t header;
  char name[ipc_name_size];
  char first_text[ipc_command_size];
  char second_text[ipc_long_text_size];
  char third_text[ipc_command_size];
  std::uint32_t first_flag;
  std::uint32_t number;
  std::uint32_t second_flag;
};

struct ipc_process_start_msg_t {
  ipcmsg_t header;
  char name[ipc_name_size];
  char path[ipc_text_size];
  std::uint32_t argument_count;
  char arguments[ipc_argument_slots][ipc_text_size];
  char short_text[ipc_short_text_size];
  char long_text[ipc_long_text_size];
  double weight;  // 1.0 by default
};

// One piece of a long answer to the command-line client; `length` bytes of data follow. A length of 0 ends
// it.
struct ipc_cli_stream_msg_t {
  ipcmsg_t header;
  std::uint64_t length;
};

#pragma pack(pop)

#define ZOL_IPC_SIZE(record, size) \
  static_assert(sizeof(record) == (size), "the record's size is part of the wire format")
#define ZOL_IPC_AT(record, member, offset) \
  static_assert(offsetof(record, member) == (offset), "the offset is part of the wire format")

ZOL_IPC_AT(ipcmsg_t, type, 0);
ZOL_IPC_AT(ipcmsg_t, source, 2);
ZOL_IPC_AT(ipcmsg_t, pid, 27);
ZOL_IPC_AT(ipcmsg_t, destination, 31);

ZOL_IPC_SIZE(ipc_failure_msg_t, 69);
ZOL_IPC_AT(ipc_failure_msg_t, address, 56);
ZOL_IPC_AT(ipc_failure_msg_t, ports, 60);
ZOL_IPC_AT(ipc_failure_msg_t, count, 64);
ZOL_IPC_AT(ipc_failure_msg_t, status, 65);

ZOL_IPC_SIZE(ipc_failopen_msg_t, 57);
ZOL_IPC_AT(ipc_failopen_msg_t, enabled, 56);

ZOL_IPC_SIZE(ipc_session_identification_msg_t, 620);
ZOL_IPC_AT(ipc_session_identification_msg_t, outbound, 56);
ZOL_IPC_AT(ipc_session_identification_msg_t, address1, 57);
ZOL_IPC_AT(ipc_session_identification_msg_t, port1, 61);
ZOL_IPC_AT(ipc_session_identification_msg_t, port2, 63);
ZOL_IPC_AT(ipc_session_identification_msg_t, address2, 65);
ZOL_IPC_AT(ipc_session_identification_msg_t, uuid, 69);
ZOL_IPC_AT(ipc_session_identification_msg_t, client_address, 85);
ZOL_IPC_AT(ipc_session_identification_msg_t, client_port, 89);
ZOL_IPC_AT(ipc_session_identification_msg_t, retries, 91);
ZOL_IPC_AT(ipc_session_identification_msg_t, destination_address, 92);
ZOL_IPC_AT(ipc_session_identification_msg_t, domain_name, 96);
ZOL_IPC_AT(ipc_session_identification_msg_t, user_agent, 352);
ZOL_IPC_AT(ipc_session_identification_msg_t, service_port, 608);
ZOL_IPC_AT(ipc_session_identification_msg_t, hop_order, 610);
ZOL_IPC_AT(ipc_session_identification_msg_t, failopen, 612);
ZOL_IPC_AT(ipc_session_identification_msg_t, recover, 613);
ZOL_IPC_AT(ipc_session_identification_msg_t, target_address, 614);
ZOL_IPC_AT(ipc_session_identification_msg_t, target_port, 618);

ZOL_IPC_SIZE(ipc_tcp_conn_diag_info_msg_t, 191);
ZOL_IPC_AT(ipc_tcp_conn_diag_info_msg_t, outbound, 56);
ZOL_IPC_AT(ipc_tcp_conn_diag_info_msg_t, ip, 57);
ZOL_IPC_AT(ipc_tcp_conn_diag_info_msg_t, uuid, 61);
ZOL_IPC_AT(ipc_tcp_conn_diag_info_msg_t, port, 77);
ZOL_IPC_AT(ipc_tcp_conn_diag_info_msg_t, info, 79);
ZOL_IPC_AT(ipc_tcp_conn_diag_info_msg_t, read_idle_ms, 183);
ZOL_IPC_AT(ipc_tcp_conn_diag_info_msg_t, write_congestion_ms, 187);

ZOL_IPC_SIZE(msgtyp_failure_reason_msg_t, 85);
ZOL_IPC_AT(msgtyp_failure_reason_msg_t, ip, 56);
ZOL_IPC_AT(msgtyp_failure_reason_msg_t, port, 60);
ZOL_IPC_AT(msgtyp_failure_reason_msg_t, uuid, 62);
ZOL_IPC_AT(msgtyp_failure_reason_msg_t, failed_address, 78);
ZOL_IPC_AT(msgtyp_failure_reason_msg_t, failed_port, 82);
ZOL_IPC_AT(msgtyp_failure_reason_msg_t, failure_reason, 84);

ZOL_IPC_SIZE(msgtyp_http_notification_t, 73);
ZOL_IPC_AT(msgtyp_http_notification_t, uuid, 56);
ZOL_IPC_AT(msgtyp_http_notification_t, notification, 72);

ZOL_IPC_SIZE(ipc_ignored_session_info_msg_t, 72);
ZOL_IPC_AT(ipc_ignored_session_info_msg_t, uuid, 56);

ZOL_IPC_SIZE(ipc_tcp_pool_stats_msg_t, 80);
ZOL_IPC_AT(ipc_tcp_pool_stats_msg_t, counters, 56);

ZOL_IPC_SIZE(ipc_bgp_provider_fail_msg_t, 60);
ZOL_IPC_AT(ipc_bgp_provider_fail_msg_t, address, 56);

ZOL_IPC_SIZE(ipc_routing_anomaly_msg_t, 68);
ZOL_IPC_AT(ipc_routing_anomaly_msg_t, values, 56);

ZOL_IPC_SIZE(ipc_bh_event_msg_t, 312);
ZOL_IPC_AT(ipc_bh_event_msg_t, text, 56);

ZOL_IPC_SIZE(ipc_process_stop_msg_t, 85);
ZOL_IPC_AT(ipc_process_stop_msg_t, name, 56);
ZOL_IPC_AT(ipc_process_stop_msg_t, flag, 81);

ZOL_IPC_SIZE(ipc_service_control_msg_t, 85);
ZOL_IPC_AT(ipc_service_control_msg_t, action, 56);
ZOL_IPC_AT(ipc_service_control_msg_t, name, 60);

ZOL_IPC_SIZE(ipc_command_watcher_msg_t, 663);
ZOL_IPC_AT(ipc_command_watcher_msg_t, name, 56);
ZOL_IPC_AT(ipc_command_watcher_msg_t, command, 81);
ZOL_IPC_AT(ipc_command_watcher_msg_t, text, 594);
ZOL_IPC_AT(ipc_command_watcher_msg_t, number, 659);

ZOL_IPC_SIZE(ipc_service_start_msg_t, 1184);
ZOL_IPC_AT(ipc_service_start_msg_t, name, 56);
ZOL_IPC_AT(ipc_service_start_msg_t, first_text, 81);
ZOL_IPC_AT(ipc_service_start_msg_t, second_text, 594);
ZOL_IPC_AT(ipc_service_start_msg_t, third_text, 659);
ZOL_IPC_AT(ipc_service_start_msg_t, first_flag, 1172);
ZOL_IPC_AT(ipc_service_start_msg_t, number, 1176);
ZOL_IPC_AT(ipc_service_start_msg_t, second_flag, 1180);

ZOL_IPC_SIZE(ipc_process_start_msg_t, 3519);
ZOL_IPC_AT(ipc_process_start_msg_t, name, 56);
ZOL_IPC_AT(ipc_process_start_msg_t, path, 81);
ZOL_IPC_AT(ipc_process_start_msg_t, argument_count, 337);
ZOL_IPC_AT(ipc_process_start_msg_t, arguments, 341);
ZOL_IPC_AT(ipc_process_start_msg_t, short_text, 3413);
ZOL_IPC_AT(ipc_process_start_msg_t, long_text, 3446);
ZOL_IPC_AT(ipc_process_start_msg_t, weight, 3511);

ZOL_IPC_SIZE(ipc_cli_stream_msg_t, 64);
ZOL_IPC_AT(ipc_cli_stream_msg_t, length, 56);

ZOL_IPC_AT(fwd_ipcmsg_t, inner, 56);

#undef ZOL_IPC_SIZE
#undef ZOL_IPC_AT
