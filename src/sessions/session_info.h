// The records of the sessions: one proxied TCP connection with its two legs, or one non-TCP flow.
//
// IP addresses are in network byte order, ports in host order, times in milliseconds since the epoch as
// Helper::get_timestamp_ms gives them.
#pragma once

#include <netinet/tcp.h>
#include <uuid/uuid.h>

#include <array>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>

#include "core/ipc_messages.h"
#include "sessions/session_news.h"

namespace zol {

class SiteServicesBase;

// The peer that the proxy could not reach, and why.
struct FailureInfo {
  std::uint32_t address = 0;
  std::uint16_t port = 0;
  failure_reason_t reason{};
};

}  // namespace zol

namespace zol_monitor {

// Why a leg ended. The values up to 4 come from the connection mark, the others from the proxy's failures.
enum SessionTerminationReason : std::uint32_t {
  STR_NONE = 0,
  STR_FIN_FROM_TARGET_SIDE = 1,
  STR_FIN_FROM_CLIENT_SIDE = 2,
  STR_RST_FROM_TARGET_SIDE = 3,
  STR_RST_FROM_CLIENT_SIDE = 4,
  STR_RESOLUTION_FAILURE = 5,
  STR_CONNECTION_TIMEOUT = 6,
  STR_CONNECTION_REFUSED = 7,
};

// What the kernel's tcp_info said of one leg.
struct tcp_sock_info_t {
  std::uint32_t rtt = 0;  // smoothed, microseconds
  std::uint32_t total_retrans = 0;
  std::uint32_t sent_wscale = 0;      // that this side announced
  std::uint32_t received_wscale = 0;  // that the peer announced
  std::uint32_t cwnd = 0;
  std::uint32_t ssthresh = 0;  // 0 for the kernel's "infinite", 65535 and above
  std::uint32_t unacked = 0;
  std::uint32_t mss = 0;
};

void copy_tcp_info_stats(tcp_sock_info_t& to, const tcp_info& from);

// One leg of a session.
//
// The two byte counters are reached through the pointers, which change places when the session is reversed;
// what was counted before a reversal stays in its word.
struct SessionEndpointInfo {
  SessionEndpointInfo() = default;
  SessionEndpointInfo(const SessionEndpointInfo&) = delete;
  SessionEndpointInfo& operator=(const SessionEndpointInfo&) = delete;

  std::uint32_t address = 0;  // with the port, the key of this leg in the table
  std::uint16_t port = 0;
  std::string gateway_ip;    // from the site record, empty when the peer is no site
  tcp_sock_info_t tcp_info;  // last reported by the proxy
  SessionTerminationReason termination_reason = STR_NONE;  // 0 while open
  std::uint64_t first_bytes = 0;
  std::uint64_t* incoming_bytes = &first_bytes;
  std::uint64_t second_bytes = 0;
  std::uint64_t* outgoing_bytes = &second_bytes;
  std::uint64_t end_time_ms = 0;  // 0 while open
  std::uint32_t read_idle_time_ms = 0;
  std::uint32_t write_congestion_time_ms = 0;
  bool is_erased = true;             // not in the table's map of this leg
  std::uint32_t destination_ip = 0;  // that the client really aimed at; In leg only
  std::string site_id;
  std::string entry_id;
  std::string metadata;
  bool is_site = false;  // the peer is a site, not the public internet
};

// What TCP and non-TCP sessions share. A session is reversed by swapping pointers, never by copying.
struct SessionInfoBase {
  SessionInfoBase() = default;
  SessionInfoBase(const SessionInfoBase&) = delete;
  SessionInfoBase& operator=(const SessionInfoBase&) = delete;

  // Fills the site fields of both legs, in GXE mode only: In by client_ip, Out by next_hop_ip. A leg whose
  // address is 0 or 127.0.0.1, or that has its gateway already, stays as it is.
  void set_vpn_data(zol::SiteServicesBase* sites);
  void set_reversed_io(bool reversed);
  bool is_reversed() const { return in == &out_info; }

  std::uint32_t client_ip = 0;
  std::uint32_t next_hop_ip = 0;
  SessionEndpointInfo* in = &in_info;
  SessionEndpointInfo in_info;
  SessionEndpointInfo* out = &out_info;
  SessionEndpointInfo out_info;
};

// HTTP messages by kind. A kind beyond the known ones counts nowhere and reads as 0.
class HTTPCounters {
 public:
  static constexpr std::size_t kinds = 7;

  HTTPCounters() { reset(); }
  void reset() { counters_.fill(0); }
  // False, with an error line, for an unknown kind.
  bool update(zol::http_notification_t kind);
  std::uint32_t get_counter(zol::http_notification_t kind) const;
  std::uint32_t total_requests() const;
  std::uint32_t total_responses() const;
  bool is_empty() const { return total_requests() == 0 && total_responses() == 0; }
  HTTPCounters& operator+=(const HTTPCounters& other);
  bool operator==(const HTTPCounters& other) const = default;
  friend HTTPCounters operator+(HTTPCounters one, const HTTPCounters& other) { return one += other; }

 private:
  std::array<std::uint32_t, kinds> counters_;
};

// One TCP connection that the proxy carries for a client. Always held by shared_ptr, made with make_shared.
struct SessionInfo : SessionInfoBase, SessionNewsHook {
  SessionInfo(const unsigned char* uuid, std::uint32_t client_address, std::uint16_t port);

  uuid_t session_id;              // the proxy's
  bool accepted_locally = false;  // this node is the entry node
  std::uint16_t hop_order = 0;    // of this node in the hop chain, from 0
  bool failopen = false;
  std::uint16_t client_port = 0;
  std::uint32_t target_ip = 0;
  std::uint16_t target_port = 0;
  std::string network_id;  // logical network
  std::uint16_t service_port = 0;
  std::string domain_name = "unknown";
  std::string user_agent;
  std::uint32_t state = 0;  // 0 new, 1 seen by the traffic report, 2 finished for it
  std::uint64_t start_time_ms = 0;
  std::uint16_t next_hop_port = 0;
  bool is_next_hop_zol = false;  // the next hop is another node
  std::uint8_t retries_count = 0;
  bool target_failure_counted = false;
  HTTPCounters http_counters;       // since the last traffic report
  bool is_private_network = false;  // the outward peer of a non-entry node lies in a private network
  bool connection_recover = false;  // survived a fail-open by reconnecting
  bool ignored = false;             // stays out of the session report

  // The table's own book: how many entries hold this session, and whether it has left the map by id.
  std::uint32_t in_entries = 0;
  std::uint32_t out_entries = 0;
  bool unlisted = false;
};

// The lower-case text of a session id.
std::string uuid_text(const unsigned char* uuid);

// One flow of another protocol than TCP, seen by connection tracking alone.
struct NonTCPSessionInfo : SessionInfoBase {
  NonTCPSessionInfo(std::uint32_t protonum, std::uint32_t src, std::uint32_t dst, int src_port, int dst_port);

  void update_traffic(std::uint64_t more_bytes);
  void set_net_id(const std::string& id) { network_id = id; }
  // Until 30 seconds of silence, and for one hour at most, however busy it is.
  bool is_alive() const;
  // "[network@half-minute of the start]:client==>next hop".
  std::string gen_session_id() const;

  std::uint32_t protonum;
  std::uint64_t bytes = 0;
  std::uint64_t start_time_ms;
  std::uint64_t last_seen_ms;
  int src_port;
  int dst_port;
  std::string network_id;
};

// The record form of the table's dump.
std::ostream& operator<<(std::ostream& out, const SessionInfo& session);
std::ostream& operator<<(std::ostream& out, const NonTCPSessionInfo& session);

// Failures of sessions by reason. A reason outside 1 to 5 is logged as an error and counted nowhere.
class SessionsErrorCounter {
 public:
  using Map = std::map<zol::failure_reason_t, unsigned long>;

  static bool verify_failure_reason(zol::failure_reason_t reason);
  void update_counters(zol::failure_reason_t reason);
  // 0 for a reason that isn't in the map yet.
  static unsigned long get_counter(const Map& map, zol::failure_reason_t reason);

  Map total;   // since start, never cleared
  Map period;  // since the last periodic report, which clears it
};

}  // namespace zol_monitor
