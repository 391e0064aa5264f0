// The kernel's connection tracking events, and what they say about the sessions.
//
// The node's firewall rules mark each connection of the proxy (nfconntrack.h has the mark's layout). The
// kernel tells of every new, changed and ended connection over netlink
// (linux/netfilter/nfnetlink_conntrack.h), and the session table learns from it which service and logical
// network a session belongs to, who its next hop is, why a leg ended and that it is gone. The table also
// gives, for the traffic report, the clients detected since the last one.
//
// The socket's reader is event_cb, which reads once a wake-up of the loop; the decoder, event_parser_cb,
// takes one netlink message and does no I/O. A netlink overrun loses events and is logged; a lost NEW is made
// good by the connection's next event, a lost DELETE leaves its leg in the session table.
//
// Main thread only. The cost of an event is one allocation and a few hash probes; nothing is formatted for a
// log line that is off.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "config/zol_configurator.h"
#include "conntrack/conntrack_str.h"
#include "conntrack/detected_ip.h"
#include "conntrack/detected_sessions.h"
#include "conntrack/nfct_handle.h"
#include "core/zol_libevent.h"

struct mnl_socket;
struct nf_conntrack;
struct nlmsghdr;

namespace zol_monitor {

class MonitorContext;
class MonitorData;
struct FoundLeg;
struct SessionInfo;
struct nfconntrack_ends_t;

// Forces the receive buffer to 18 MiB, so that a burst of events waits in the kernel while the loop is busy;
// needs CAP_NET_ADMIN. False, with an error line, on failure; true for a negative descriptor.
bool set_netlink_socket_options(int fd);

class ConntrackEvents : public zol::IReconfigure {
 public:
  // Neither is owned; both outlive the object. Registers for reloads, starts to listen and reads the
  // connection table once, uncounted. Without `listen` there is no socket until start() and no reading, and
  // messages come from the caller through event_parser_cb.
  ConntrackEvents(MonitorData* monitor_data, MonitorContext* monitor_context, bool listen = true);
  ~ConntrackEvents() override;

  // Opens the socket and puts it on the loop. A failure is logged and leaves `started` false. Nothing happens
  // while started.
  void start();
  // Events that happen until the next start are lost.
  void stop();

  // Reads the connection table, uncounted; the first time the reading reaches the memory of counters.
  void reconfigure() override;
  bool need_reconf(bool& enabled) override;

  // What the kernel last said of the socket with that end: its smoothed round-trip time in microseconds and
  // its retransmissions. False, and nothing is stored, when it isn't known. Address in network order.
  bool get_stats(std::uint32_t address, std::uint16_t port, std::uint32_t& rtt, int& total_retrans) const;

  // --- the traffic report's walk over the clients of a logical network
  // Takes the snapshot. It holds references to sessions, so that the walk must be finished before the loop
  // goes on.
  void get_detected_ip_start();
  // The next client with sessions of that network, with the figures of all of these, which leave the
  // snapshot; false and zeroed figures when there is none. `new_count` counts the sessions that no report has
  // seen before.
  bool get_detected_ip(const std::string& network, bool accepted, std::string& ip, std::uint32_t& new_count,
                       DetectedIPInfo& in_info, DetectedIPInfo& out_info);
  void get_detected_ip_finished();

  // Applies a connection's state to its session: an Out leg tells the next hop, the first marked In event
  // fixes the session's network, a closing state gives the reason. For a connection with a known session.
  void detect_events(const nf_conntrack* ct);

  // The same for a connection whose session has been looked up.
  void detect_events(const nf_conntrack* ct, const nfconntrack_ends_t& ends, const FoundLeg& leg);

  // The loop's callback; `self` is a ConntrackEvents*.
  static void event_cb(int fd, short what, void* self);
  // What one read of the socket gave, 4-byte aligned: every message of it goes to event_parser_cb. A datagram
  // whose lengths don't fit is logged and dropped.
  void parse_datagram(const void* datagram, std::size_t size);
  // libmnl's callback for one message, whose length must be that of the memory behind it; `self` is a
  // ConntrackEvents*. A message of another kind is passed over, a malformed one is logged and dropped. Always
  // MNL_CB_OK.
  static int event_parser_cb(const nlmsghdr* nlh, void* self);

  bool started = false;          // the socket is up
  mnl_socket* socket = nullptr;  // null while not started
  zol::ZOLEventLibEvent event;
  // Sessions that were given their network since the periodic report last zeroed these.
  std::uint32_t new_tcp_connections = 0;
  std::uint32_t new_udp_connections = 0;
  DetectedSessions detected_sessions;  // the snapshot of a traffic report
  MonitorData* data;
  MonitorContext* context;
  bool reconfigured = false;  // a reload has been seen
  bool is_gxe;                // a middle-mile node, as configured at construction

 private:
  bool open_socket();
  void read_event();
  int handle_connection(NfctHandle ct, bool deleted);
  void forget_counters(const nf_conntrack* ct);
  int event_parser(const nf_conntrack* ct);
  void detect_new_connections(const nf_conntrack* ct, const nfconntrack_ends_t& ends, const FoundLeg& leg);
  void count_new_connection(std::uint8_t protonum);
  void close_reason_diagnostics_parser(const nf_conntrack* ct, const FoundLeg& leg);
};

}  // namespace zol_monitor
