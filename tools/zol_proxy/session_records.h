// What the proxy knows of a session, and the IPC records that tell it.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <uuid/uuid.h>

#include <cstdint>
#include <string>

#include "core/ipc_messages.h"

namespace standin {

struct SessionFacts {
  SessionFacts();  // with a fresh id

  std::string id_text() const;

  uuid_t id;
  sockaddr_in client{};
  std::uint32_t destination = 0;  // the address that the client aimed at, network order
  std::uint16_t service_port = 0;
  std::uint16_t hop_order = 0;
  sockaddr_in target{};  // zero until a connection onward stands
  std::uint8_t retries = 0;
  bool failopen = false;
  bool recover = false;
  std::string domain = "unknown";
  std::string user_agent;
};

// The In leg is keyed by its peer, the client. The Out leg is keyed by the proxy's own end first and by the
// peer's second, so that the report names the proxy's own port as the leg's.
ipc_session_identification_msg_t identify_in(const SessionFacts& facts, const sockaddr_in& local);
ipc_session_identification_msg_t identify_out(const SessionFacts& facts, const sockaddr_in& local,
                                              const sockaddr_in& peer);
ipc_tcp_conn_diag_info_msg_t diagnose(const SessionFacts& facts, bool outbound, const sockaddr_in& key,
                                      const tcp_info& info, std::uint32_t read_idle_ms,
                                      std::uint32_t write_congestion_ms);
msgtyp_failure_reason_msg_t fail(const SessionFacts& facts, const sockaddr_in& failed,
                                 zol::failure_reason_t reason);
msgtyp_http_notification_t notify(const SessionFacts& facts, zol::http_notification_t what);
ipc_ignored_session_info_msg_t ignore(const SessionFacts& facts);

}  // namespace standin
