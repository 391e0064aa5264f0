#include "zol_proxy/session_records.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace standin {

namespace {

template <typename Record>
void put_id(Record& record, const SessionFacts& facts) {
  memcpy(record.uuid, facts.id, sizeof record.uuid);
}

// NUL-terminated and cut to the field.
template <std::size_t size>
void put_text(char (&field)[size], const std::string& text) {
  memcpy(field, text.data(), std::min(text.size(), size - 1));
}

ipc_session_identification_msg_t identify(const SessionFacts& facts, const sockaddr_in& first,
                                          const sockaddr_in& second) {
  ipc_session_identification_msg_t record{};
  put_id(record, facts);
  record.address1 = first.sin_addr.s_addr;
  record.port1 = first.sin_port;
  record.address2 = second.sin_addr.s_addr;
  record.port2 = second.sin_port;
  record.client_address = facts.client.sin_addr.s_addr;
  record.client_port = facts.client.sin_port;
  record.retries = facts.retries;
  record.destination_address = facts.destination;
  put_text(record.domain_name, facts.domain);
  put_text(record.user_agent, facts.user_agent);
  record.service_port = facts.service_port;
  record.hop_order = facts.hop_order;
  record.failopen = facts.failopen ? 1 : 0;
  record.recover = facts.recover ? 1 : 0;
  record.target_address = facts.target.sin_addr.s_addr;
  record.target_port = facts.target.sin_port;
  return record;
}

}  // namespace

SessionFacts::SessionFacts() {
  uuid_generate_random(id);
}

std::string SessionFacts::id_text() const {
  char text[UUID_STR_LEN];
  uuid_unparse_lower(id, text);
  return text;
}

ipc_session_identification_msg_t identify_in(const SessionFacts& facts, const sockaddr_in& local) {
  return identify(facts, facts.client, local);
}

ipc_session_identification_msg_t identify_out(const SessionFacts& facts, const sockaddr_in& local,
                                              const sockaddr_in& peer) {
  ipc_session_identification_msg_t record = identify(facts, local, peer);
  record.outbound = 1;
  return record;
}

ipc_tcp_conn_diag_info_msg_t diagnose(const SessionFacts& facts, bool outbound, const sockaddr_in& key,
                                      const tcp_info& info, std::uint32_t read_idle_ms,
                                      std::uint32_t write_congestion_ms) {
  ipc_tcp_conn_diag_info_msg_t record{};
  put_id(record, facts);
  record.outbound = outbound ? 1 : 0;
  record.ip = key.sin_addr.s_addr;
  record.port = key.sin_port;
  static_assert(sizeof info >= sizeof record.info);
  memcpy(record.info, &info, sizeof record.info);
  record.read_idle_ms = read_idle_ms;
  record.write_congestion_ms = write_congestion_ms;
  return record;
}

msgtyp_failure_reason_msg_t fail(const SessionFacts& facts, const sockaddr_in& failed,
                                 zol::failure_reason_t reason) {
  msgtyp_failure_reason_msg_t record{};
  put_id(record, facts);
  record.ip = facts.client.sin_addr.s_addr;
  record.port = facts.client.sin_port;
  record.failed_address = failed.sin_addr.s_addr;
  record.failed_port = ntohs(failed.sin_port);
  record.failure_reason = reason;
  return record;
}

msgtyp_http_notification_t notify(const SessionFacts& facts, zol::http_notification_t what) {
  msgtyp_http_notification_t record{};
  put_id(record, facts);
  record.notification = what;
  return record;
}

ipc_ignored_session_info_msg_t ignore(const SessionFacts& facts) {
  ipc_ignored_session_info_msg_t record{};
  put_id(record, facts);
  return record;
}

}  // namespace standin
