#include "conntrack/conntrack.h"

#include <arpa/inet.h>
#include <event2/event.h>
#include <fcntl.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <libmnl/libmnl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <utility>

#include "config/services.h"
#include "config/zol_networks.h"
#include "conntrack/conntrack_message.h"
#include "conntrack/conntrack_states.h"
#include "conntrack/conntrack_stats.h"
#include "conntrack/nfconntrack.h"
#include "conntrack/none_tcp_nfct_container.h"
#include "core/monitor_context.h"
#include "sessions/zol_monitor_data.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

constexpr int receive_buffer_bytes = 18 * 1024 * 1024;
constexpr std::size_t largest_read = 8192;
constexpr std::uint8_t tcp_state_established = 3;  // TCP_CONNTRACK_ESTABLISHED
constexpr unsigned event_groups =
    NF_NETLINK_CONNTRACK_NEW | NF_NETLINK_CONNTRACK_UPDATE | NF_NETLINK_CONNTRACK_DESTROY;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("ConntrackEvents");
  return l;
}

std::size_t read_size() {
  static const std::size_t size =
      std::min(largest_read, static_cast<std::size_t>(std::max(sysconf(_SC_PAGESIZE), 1L)));
  return size;
}

bool has_loopback_ends(const nf_conntrack* ct) {
  const std::uint32_t loopback = htonl(INADDR_LOOPBACK);
  return nfconntrack_get_orig_src(ct) == loopback && nfconntrack_get_dst(ct) == loopback;
}

// What the kernel leaves out by its settings (nf_conntrack-sysctl of the kernel's documentation) would look
// like a node without traffic.
void warn_about_kernel_settings() {
  const auto is_off = [](const char* path) {
    std::ifstream file(path);
    int value = 1;
    return file >> value && value == 0;
  };
  if (is_off("/proc/sys/net/netfilter/nf_conntrack_acct"))
    SUP_LOG(logger(), log_level::warning)
        << "net.netfilter.nf_conntrack_acct is off: no bytes can be counted; "
           "sysctl -w net.netfilter.nf_conntrack_acct=1 puts it on";
  if (is_off("/proc/sys/net/netfilter/nf_conntrack_events"))
    SUP_LOG(logger(), log_level::warning)
        << "net.netfilter.nf_conntrack_events is off: no connection can be followed; "
           "sysctl -w net.netfilter.nf_conntrack_events=1 puts it on";
}

SessionTerminationReason side(bool client, SessionTerminationReason from_client,
                              SessionTerminationReason from_target) {
  return client ? from_client : from_target;
}

// A FIN that came in over the In leg, or went out over the Out leg, is the client's.
SessionTerminationReason fin_reason(std::uint32_t mark, std::uint32_t nibble) {
  const std::uint32_t role =
      (mark & conntrack_mark::fin_received) != 0 ? conntrack_mark::in_bit : conntrack_mark::out_bit;
  return side((nibble & role) != 0, STR_FIN_FROM_CLIENT_SIDE, STR_FIN_FROM_TARGET_SIDE);
}

// An RST overrules the reason that stands.
SessionTerminationReason rst_reason(std::uint32_t mark, std::uint32_t nibble,
                                    SessionTerminationReason standing) {
  if ((mark & conntrack_mark::rst_received) != 0)
    return side((nibble & conntrack_mark::in_bit) != 0, STR_RST_FROM_CLIENT_SIDE, STR_RST_FROM_TARGET_SIDE);
  if ((mark & conntrack_mark::rst_sent) != 0)
    return side((nibble & conntrack_mark::out_bit) != 0, STR_RST_FROM_CLIENT_SIDE, STR_RST_FROM_TARGET_SIDE);
  return standing;
}

}  // namespace

bool set_netlink_socket_options(int fd) {
  if (fd < 0)
    return true;
  const int size = receive_buffer_bytes;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) == 0)
    return true;
  SUP_LOG(logger(), log_level::error) << "Failed to setsockopt netlink socket (SO_RCVBUFFORCE)";
  return false;
}

ConntrackEvents::ConntrackEvents(MonitorData* monitor_data, MonitorContext* monitor_context, bool listen)
    : event(EV_READ | EV_PERSIST, &ConntrackEvents::event_cb, this),
      data(monitor_data),
      context(monitor_context),
      is_gxe(zol::Helper::is_middle_mile_network()) {
  zol::TheConfigurator::get_configuration()->register_reconfiguration_cb(this);
  if (!listen)
    return;
  SUP_LOG(logger(), log_level::info) << "Starting conntrack events";
  start();
  warn_about_kernel_settings();
  ConntrackStats(data, true, true);  // reads the table once, uncounted
}

ConntrackEvents::~ConntrackEvents() {
  stop();
  try {
    zol::TheConfigurator::get_configuration()->unregister_reconfiguration_cb(this);
  } catch (const std::exception&) {  // no configuration is left to unregister from
  }
}

void ConntrackEvents::start() {
  if (started)
    return;
  socket = mnl_socket_open(NETLINK_NETFILTER);
  if (socket == nullptr) {
    SUP_LOG(logger(), log_level::error) << "Failed to open netlink socket";
    return;
  }
  fcntl(mnl_socket_get_fd(socket), F_SETFD, FD_CLOEXEC);  // commands that the daemon runs don't inherit it
  started = open_socket();
  if (!started)
    stop();
}

bool ConntrackEvents::open_socket() {
  if (mnl_socket_bind(socket, event_groups, MNL_SOCKET_AUTOPID) < 0) {
    SUP_LOG(logger(), log_level::error) << "Failed to bind netlink socket";
    return false;
  }
  if (!set_netlink_socket_options(mnl_socket_get_fd(socket)))
    return false;
  if (!event.add(mnl_socket_get_fd(socket), -1)) {
    SUP_LOG(logger(), log_level::error) << "Failed register connection reporting event";
    return false;
  }
  return true;
}

void ConntrackEvents::stop() {
  if (socket == nullptr)
    return;
  event.del(true);
  mnl_socket_close(socket);
  socket = nullptr;
  started = false;
}

void ConntrackEvents::reconfigure() {
  const ConntrackStats first_primes_the_memory(data, true, reconfigured);
  reconfigured = true;
  zol::ZOLNetworks::instance();
}

bool ConntrackEvents::need_reconf(bool&) {
  return true;
}

void ConntrackEvents::event_cb(int fd, short what, void* self) {
  auto* events = static_cast<ConntrackEvents*>(self);
  events->context->context_start();
  if (fd != -1 && what == EV_READ)
    events->read_event();
  events->context->context_end();
}

void ConntrackEvents::read_event() {
  alignas(nlmsghdr) std::array<char, largest_read> buffer;
  std::fill_n(buffer.begin(), read_size(), '\0');
  const ssize_t received = mnl_socket_recvfrom(socket, buffer.data(), read_size());
  if (received == -1) {
    SUP_LOG(logger(), log_level::error)
        << "Error reading from netlink socket; Connection reporting may be incomplete. (errno=" << errno
        << ")";
    return;
  }
  parse_datagram(buffer.data(), static_cast<std::size_t>(received));
}

void ConntrackEvents::parse_datagram(const void* datagram, std::size_t size) {
  if (!is_sound_datagram(datagram, size) ||
      mnl_cb_run(datagram, size, 0, 0, &ConntrackEvents::event_parser_cb, this) == -1)
    SUP_LOG(logger(), log_level::error)
        << "Error parsing netlink buffer; Connection reporting may be incomplete";
  else
    SUP_LOG(logger(), log_level::trace) << "Netlink event handled successfully";
}

int ConntrackEvents::event_parser_cb(const nlmsghdr* nlh, void* self) {
  const unsigned type = NFNL_MSG_TYPE(nlh->nlmsg_type);
  if (type != IPCTNL_MSG_CT_NEW && type != IPCTNL_MSG_CT_DELETE)
    return MNL_CB_OK;
  NfctHandle ct(nfct_new());
  if (!ct) {
    SUP_LOG(logger(), log_level::error)
        << "Failed to allocate conntrack parser; Connection reporting may be incomplete";
    return MNL_CB_OK;
  }
  if (!is_sound_conntrack_message(nlh) || nfct_nlmsg_parse(nlh, ct.get()) < 0) {
    SUP_LOG(logger(), log_level::error)
        << "event_parser_cb"
        << ": Malformed conntrack event; Connection reporting may be incomplete";
    return MNL_CB_OK;
  }
  return static_cast<ConntrackEvents*>(self)->handle_connection(std::move(ct), type == IPCTNL_MSG_CT_DELETE);
}

int ConntrackEvents::handle_connection(NfctHandle ct, bool deleted) {
  if (nfconntrack_get_mark(ct.get()) != 0 && !has_loopback_ends(ct.get())) {
    const int result = event_parser(ct.get());
    if (deleted) {
      SUP_LOG(logger(), log_level::trace) << "event_parser_cb"
                                          << ": Deleting " << ConntrackStats::debug_dump(ct.get(), data);
      data->sessions.erase(ct.get());
      forget_counters(ct.get());
    }
    return result;
  }
  if (!deleted)
    return MNL_CB_OK;
  if (!is_gxe || nfconntrack_get_protonum(ct.get()) == IPPROTO_TCP)
    forget_counters(ct.get());
  else if (const NfctHandle uncounted = NoneTcpNFCTContainer::instance().push(std::move(ct)))
    forget_counters(uncounted.get());
  return MNL_CB_OK;
}

// A reading remembers more connections than it counts.
void ConntrackEvents::forget_counters(const nf_conntrack* ct) {
  if (data->states_manager != nullptr && data->states_manager->is_enabled())
    data->states_manager->delete_state(ct);
}

int ConntrackEvents::event_parser(const nf_conntrack* ct) {
  if (nfconntrack_get_protonum(ct) != IPPROTO_TCP)
    return MNL_CB_OK;
  const nfconntrack_ends_t ends = nfconntrack_get_ends(ct);
  const FoundLeg leg = data->sessions.find(ends);
  if (leg)
    leg.session->set_reversed_io(conntrack_mark::is_io_reversed(nfconntrack_get_mark(ct)));
  if (ends.src == 0 || ends.sport == 0) {
    SUP_LOG(logger(), log_level::error) << "event_parser"
                                        << " Failed to retrieve connection address";
    return MNL_CB_OK;
  }
  if (leg)
    detect_events(ct, ends, leg);
  return MNL_CB_OK;
}

void ConntrackEvents::detect_events(const nf_conntrack* ct) {
  const nfconntrack_ends_t ends = nfconntrack_get_ends(ct);
  if (const FoundLeg leg = data->sessions.find(ends))
    detect_events(ct, ends, leg);
}

void ConntrackEvents::detect_events(const nf_conntrack* ct, const nfconntrack_ends_t& ends,
                                    const FoundLeg& leg) {
  detect_new_connections(ct, ends, leg);
  close_reason_diagnostics_parser(ct, leg);
}

void ConntrackEvents::detect_new_connections(const nf_conntrack* ct, const nfconntrack_ends_t& ends,
                                             const FoundLeg& leg) {
  const std::uint32_t mark = nfconntrack_get_mark(ct);
  const std::uint8_t service_id = conntrack_mark::service_id(mark);
  if (service_id == 0)
    return;
  if ((conntrack_mark::normalised_nibble(mark) & conntrack_mark::out_bit) != 0) {
    data->sessions.set_next_hop_ip(leg, ends);
    return;
  }
  SessionInfo& session = *leg.session;
  if (!session.network_id.empty())
    return;
  const std::string& network = data->services->find_by_service_id(service_id, true).logical_network_id;
  SUP_LOG(logger(), log_level::debug) << "Detected: " << zol::Helper::make_anonymous_address(ends.src) << ":"
                                      << ends.sport << " on id: " << network;
  session.network_id = network;
  const bool reversed = conntrack_mark::is_io_reversed(mark);
  session.accepted_locally = !zol::Services::is_internal_port(reversed ? ends.sport : ends.dport);
  if (!session.accepted_locally)
    session.is_private_network =
        zol::ZOLNetworks::instance()->is_private_network(reversed ? ends.src : ends.dst);
  count_new_connection(nfconntrack_get_protonum(ct));
}

void ConntrackEvents::count_new_connection(std::uint8_t protonum) {
  if (protonum == IPPROTO_TCP)
    ++new_tcp_connections;
  else if (protonum == IPPROTO_UDP)
    ++new_udp_connections;
  else
    SUP_LOG(logger(), log_level::info) << "Unknown protonum new connection: " << unsigned{protonum};
}

void ConntrackEvents::close_reason_diagnostics_parser(const nf_conntrack* ct, const FoundLeg& leg) {
  const std::uint32_t mark = nfconntrack_get_mark(ct);
  if (nfconntrack_get_tcp_state(ct) <= tcp_state_established || conntrack_mark::service_id(mark) == 0)
    return;
  SessionEndpointInfo& endpoint = *leg.place.endpoint;
  const std::uint32_t nibble = conntrack_mark::normalised_nibble(mark);
  SessionTerminationReason reason = endpoint.termination_reason;
  if (reason == STR_NONE) {  // the first sight of the closing
    endpoint.end_time_ms = zol::Helper::get_timestamp_ms();
    reason = fin_reason(mark, nibble);
  }
  reason = rst_reason(mark, nibble, reason);
  SUP_LOG(logger(), log_level::debug)
      << "close_reason_diagnostics_parser"
      << " [Diagnostics] Connection close reason for " << ct_ntoa_s(ct) << " is " << reason;
  endpoint.termination_reason = reason;
}

}  // namespace zol_monitor
