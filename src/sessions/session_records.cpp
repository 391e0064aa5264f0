// The record form of the table's dump.
#include <ostream>

#include "sessions/session_info.h"
#include "sessions/sessions_log.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

constexpr std::uint64_t ms_in_second = 1000;

void print_endpoint(std::ostream& out, const SessionEndpointInfo& endpoint, const std::string& gateway_ip) {
  out << log_peer(endpoint.address, endpoint.port) << " gateway ip: " << gateway_ip
      << " Rtt: " << endpoint.tcp_info.rtt << " Total Retramissions: " << endpoint.tcp_info.total_retrans
      << " Termination Reason: " << +endpoint.termination_reason << " End time: " << endpoint.end_time_ms
      << " Incoming Bytes: " << *endpoint.incoming_bytes << " Outgoing Bytes: " << *endpoint.outgoing_bytes
      << " Is-Erase: " << endpoint.is_erased << " ]";
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const SessionInfo& session) {
  const auto start_seconds = static_cast<long>(session.start_time_ms / ms_in_second);
  out << std::dec << "\nID: " << uuid_text(session.session_id)
      << " Client Addr: " << log_peer(session.client_ip, session.client_port)
      << " Target Addr: " << log_peer(session.target_ip, session.target_port)
      << " Accepted Locally: " << session.accepted_locally << " Is Next Hop ZOL: " << session.is_next_hop_zol
      << " Reversed: " << session.is_reversed()
      << " Network: " << (session.is_private_network ? "private" : "public") << " State: " << session.state
      << " Domain Name: " << session.domain_name << " User-Agent: " << session.user_agent
      << " Start Time: " << zol::Helper::get_timestamp_gmt_format(&start_seconds)
      << " Logical Network: " << session.network_id << " Service Port: " << session.service_port;
  out << " In [ Address: ";
  print_endpoint(out, *session.in, session.in->gateway_ip);
  out << " Out [ Address: ";
  print_endpoint(out, *session.out,
                 session.in->gateway_ip);  // readers of the dump expect the In leg's gateway
  return out;
}

std::ostream& operator<<(std::ostream& out, const NonTCPSessionInfo& session) {
  return out << "Bytes: " << std::dec << session.bytes;
}

}  // namespace zol_monitor
