// The table of live sessions.
//
// Two sources that don't know each other feed it: the proxy tells over IPC which session uses which sockets,
// the kernel tells by connection tracking which connections exist and end. The table finds, for a tracked
// connection that carries nothing but addresses and ports, its session and leg, and notices when both legs
// have gone; the session then moves to the finished list.
//
// A leg's key is `address << 32 | port`, the address in network order as it stands in the u32, the port in
// host order. An address or port of 0 is never looked up. Every miss is logged and the message dropped;
// nothing throws on purpose. No session times out: it lives until the kernel has reported the end of its
// legs.
//
// Main thread only. A look-up is a handful of hash probes; report queries walk the maps.
#pragma once

#include <absl/container/flat_hash_map.h>
#include <uuid/uuid.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "conntrack/conntrack_counters.h"
#include "sessions/finished_sessions.h"
#include "sessions/session_groups.h"
#include "sessions/session_info.h"
#include "sessions/session_keys.h"
#include "sessions/sessions_events.h"

struct nf_conntrack;

namespace zol {
class Services;
class SiteServicesBase;
}  // namespace zol

namespace zol_monitor {

struct nfconntrack_ends_t;

using SessionPtr = std::shared_ptr<SessionInfo>;
// A reading of the connection table looks a hundred thousand legs up: keys and pointers lie in one array.
using LegMap = absl::flat_hash_map<std::uint64_t, SessionPtr, LegKeyHash>;
using OutLegMap = absl::flat_hash_map<std::uint64_t, LegMap, LegKeyHash>;

// One end of a tracked connection, the peer of a leg.
struct LegPeer {
  bool is_known() const { return address != 0 && port != 0; }

  std::uint32_t address;
  std::uint16_t port;
};

// Where a tracked connection stands in the table.
struct LegPlace {
  SessionEndpointInfo* endpoint = nullptr;  // in_info or out_info of the session found
  LegMap* map = nullptr;                    // in_sessions, or an inner map of out_sessions
  LegMap::iterator node;                    // of that map
  OutLegMap::iterator outer_node;           // of out_sessions; meaningless when map is in_sessions
};

// The session of a tracked connection. Good until the table changes.
struct FoundLeg {
  explicit operator bool() const { return session != nullptr; }

  SessionInfo* session = nullptr;  // the table's
  LegPlace place;                  // meaningless without a session
};

// Sessions whose target failed, by what this node is to them.
struct TargetFailureCounts {
  std::uint32_t private_network = 0;
  std::uint32_t public_network = 0;
  std::uint32_t accepted = 0;
};

// HTTP messages by what this node is to the session that carried them.
struct HTTPCountersCointainer {
  HTTPCounters accepted;
  HTTPCounters public_network;
  HTTPCounters private_network;
};

class ZOLSessions {
 public:
  // Neither is owned; both outlive the table.
  ZOLSessions(zol::Services* services, zol::SiteServicesBase* site_services);
  virtual ~ZOLSessions();
  ZOLSessions(const ZOLSessions&) = delete;
  ZOLSessions& operator=(const ZOLSessions&) = delete;

  void set_listener(ISessionsEvents* events) { listener = events; }

  // --- look-ups; null when nothing is found. What is passed for the place found may be null
  SessionPtr get(std::uint64_t key, LegMap& map, LegMap::iterator* node = nullptr);
  SessionPtr get(std::uint32_t address, std::uint16_t port, LegMap& map, LegMap::iterator* node = nullptr);
  SessionPtr get_outbound(std::uint32_t first_address, std::uint16_t first_port, std::uint32_t second_address,
                          std::uint16_t second_port, LegPlace* place = nullptr);
  // The session of a tracked connection, whichever way the connection runs.
  SessionPtr get(const nf_conntrack* ct, LegPlace* place = nullptr);
  SessionPtr get(const nfconntrack_ends_t& ends, LegPlace* place);
  // The same as get(), for who does several of the things below with one connection and looks it up once.
  FoundLeg find(const nfconntrack_ends_t& ends);
  // Bring into the cache what find() will read, then what counting will of the session, then of its texts.
  // For who looks several connections up: with each step done for all of them, the processor waits for their
  // memory at once and not for one after the other.
  void prefetch(const nfconntrack_ends_t& ends) const;
  static void prefetch(const FoundLeg& leg);
  static void prefetch_texts(const FoundLeg& leg);
  // The session of an IPC message: by its keys when they point at that uuid, else by the uuid.
  SessionPtr get(std::uint32_t address1, std::uint16_t port1, std::uint32_t address2, std::uint16_t port2,
                 const unsigned char* uuid);
  SessionPtr get(const unsigned char* uuid);

  // --- operations on a tracked connection; without a session they log or do nothing
  void set_str(const nf_conntrack* ct, SessionTerminationReason reason);
  bool get_str(const nf_conntrack* ct, SessionTerminationReason& reason);
  void set_end_time(const nf_conntrack* ct);
  void add_counters(const nf_conntrack* ct, const conntrack_counters_t& counters);
  static void add_counters(const FoundLeg& leg, const conntrack_counters_t& counters);
  // For a connection that has an Out role.
  void set_next_hop_ip(const nf_conntrack* ct);
  void set_reversed_io(const nf_conntrack* ct, bool reversed);
  void set_next_hop_ip(const FoundLeg& leg, const nfconntrack_ends_t& ends);
  // Both 0 without a session.
  void get_session_endpoints(const nf_conntrack* ct, std::uint32_t& client, std::uint32_t& next_hop);
  // Without a session, false and the connection's own source and "unknown".
  bool get_user_identification(const nf_conntrack* ct, std::uint32_t& client, std::uint16_t& port,
                               std::string& domain);
  // Logs the same warning; the domain is good as long as the session.
  static const std::string& get_user_identification(const FoundLeg& leg, const nfconntrack_ends_t& ends,
                                                    std::uint32_t& client);
  // The kernel has destroyed the connection: its leg goes, and with the last leg the session.
  void erase(const nf_conntrack* ct);
  // Moves a session with no leg left to the finished list. The caller holds the one reference that is
  // expected beside the table's; a further one is a leak and drops the session unreported.
  void erase_if_unused(const std::weak_ptr<SessionInfo>& unused);

  // --- operations of the proxy's messages; `uuid` is 16 bytes
  // ------------------------------------------------- Each message refines what earlier ones said: a zero or
  // empty argument leaves the session's value alone.
  void set_session_identification(bool is_outbound, std::uint32_t address1, std::uint16_t port1,
                                  std::uint32_t address2, std::uint16_t port2, const unsigned char* uuid,
                                  std::uint32_t client_address, std::uint16_t client_port,
                                  std::uint16_t service_port, std::uint32_t destination_address,
                                  std::uint8_t retries, std::uint16_t hop_order, bool failopen,
                                  std::string_view user_agent, std::string_view domain_name, bool recover,
                                  std::uint32_t target_address, std::uint16_t target_port);
  // The proxy could not reach the next hop, so that no Out connection exists.
  void set_out_termination_reason(std::uint32_t client_address, std::uint16_t client_port,
                                  const unsigned char* uuid, const zol::FailureInfo& info);
  void ignored_session_info(const unsigned char* uuid);
  void update_http_counters(const unsigned char* uuid, zol::http_notification_t kind);
  void set_in_stats(std::uint32_t address, std::uint16_t port, const unsigned char* uuid,
                    const tcp_info& info, std::uint32_t read_idle_ms, std::uint32_t write_congestion_ms);
  void set_out_stats(std::uint32_t address, std::uint16_t port, const unsigned char* uuid,
                     const tcp_info& info, std::uint32_t read_idle_ms, std::uint32_t write_congestion_ms);

  // --- queries of the traffic report; an empty domain stands for all
  std::uint32_t get_new_count(const std::string& network, traffic_dir_t dir) const;
  std::uint32_t get_domain_new_count(const std::string& network, const std::string& domain) const;
  std::uint32_t get_domain_new_count(const std::string& network, const std::string& domain,
                                     traffic_dir_t dir) const;
  static bool should_counter_updated(const SessionInfo& session, traffic_dir_t dir);
  // Counts each session once: what is returned is marked as counted.
  TargetFailureCounts get_target_failure_by_domain_count(const std::string& network,
                                                         const std::string& domain);
  // Takes the counters out of the sessions: each message is reported once.
  HTTPCountersCointainer get_http_counters(const std::string& network, const std::string& domain);
  std::list<SessionPtr> get_zol_sessions() const;
  // Between the two, the queries of counts above look only at the sessions that have something to tell to the
  // network and domain they are about. The table must not change meanwhile.
  void begin_report();
  void end_report();

  // --- non-TCP flows
  static std::string gen_non_tcp_key(std::uint32_t protonum, std::uint32_t src, std::uint32_t dst,
                                     int src_port, int dst_port);
  void update_non_tcp_traffic(std::uint32_t protonum, std::uint32_t src, std::uint32_t dst,
                              std::uint64_t bytes, int src_port, int dst_port, bool not_reversed,
                              const std::string& network);
  // Moves the flows that have ended to the finished list.
  void update_non_tcp_sessions();
  // Lets them go where no session report does that.
  void drop_unreported_non_tcp_sessions();

  // Logs the whole table at info level.
  void dump() const;

  LegMap in_sessions;      // In legs, by the key of the leg's peer
  OutLegMap out_sessions;  // Out legs: first pair, then second pair
  std::unordered_map<std::string, std::shared_ptr<NonTCPSessionInfo>> non_tcp_sessions;  // by gen_non_tcp_key
  absl::flat_hash_map<SessionId, SessionPtr, SessionIdHash> sessions_by_id;              // every live session
  SessionsErrorCounter error_counters;
  // Sessions that recovered from a fail-open, and black hole events; the periodic report clears the first of
  // each.
  std::uint64_t recovered_period = 0;
  std::uint64_t recovered_total = 0;
  std::uint64_t failed_to_target_period = 0;
  std::uint64_t failed_to_target_total = 0;
  FinishedSessionsInfo finished_sessions;
  // Sums of the congestion times that the proxy reported; the periodic report clears them.
  std::uint64_t in_write_waiting_ms = 0;
  std::uint64_t out_write_waiting_ms = 0;
  zol::Services* services;
  std::string next_hop;        // TrafficReport.next_hop when that is a host name
  std::string next_hop_cname;  // its canonical name in lower case
  zol::SiteServicesBase* site_services;
  ISessionsEvents* listener = nullptr;  // not owned

 private:
  // The table's own pointer, null when nothing is found.
  static const SessionPtr* look_up(std::uint64_t key, LegMap& map, LegMap::iterator& node);
  static const SessionPtr* look_up(const LegPeer& peer, LegMap& map, LegMap::iterator& node);
  const SessionPtr* look_up_outbound(const LegPeer& first, const LegPeer& second, LegPlace& place);
  const SessionPtr* look_up(const nfconntrack_ends_t& ends, LegPlace& place);

  SessionPtr create(const unsigned char* uuid, std::uint32_t client_address, std::uint16_t client_port);
  void note_failopen(SessionInfo& session, bool recover);
  void set_info_in(const SessionPtr& session, std::uint32_t address, std::uint16_t port,
                   const unsigned char* uuid, std::uint32_t destination);
  void set_info_out(const SessionPtr& session, std::uint32_t address, std::uint16_t port,
                    std::uint32_t address2, std::uint16_t port2, const unsigned char* uuid, bool recover);
  bool erase_out_leg(const LegPlace& place, SessionInfo& session);
  template <typename Visit>
  void for_each_in_leg(const std::string& network, const std::string& domain, Visit visit) const;
  template <typename Visit>
  void for_each_session(const std::string& network, const std::string& domain, Visit visit) const;

  void count_out_entry(SessionInfo& session);
  void uncount_out_entry(SessionInfo& session);
  void unlist(SessionInfo& session);

  // Out entries of sessions that have left sessions_by_id. While there are none, a session whose own count is
  // 0 is known to have no other entry, and the walk through an inner map, long where one next hop serves
  // thousands of sessions, is left out.
  std::uint64_t unlisted_out_entries_ = 0;
  SessionNewsList<SessionInfo> news_;            // new, or with something to tell since the last report
  std::unique_ptr<const SessionGroups> groups_;  // of news_, while a report is made
};

}  // namespace zol_monitor
