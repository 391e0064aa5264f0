#include "probes/raw_socket.h"

#include <event2/event.h>
#include <event2/util.h>
#include <linux/filter.h>
#include <linux/icmp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <stdexcept>

#include "probes/raw_socket_filters.h"
#include "sup_logger.h"

namespace zol {

namespace {

constexpr int send_priority = 6;  // TC_PRIO_INTERACTIVE: what may be sent without CAP_NET_ADMIN at most
constexpr int no_event_priority = -1;
constexpr std::uint32_t all_but_echo_replies = 0xfffffffe;  // a bit for each ICMP type that is to be dropped
constexpr std::size_t flush_bytes = 2048;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("RawSocket");
  return instance;
}

SupLogger& icmp_logger() {
  static SupLogger& instance = SupLogger::get_instance("ICMPRawSocket");
  return instance;
}

SupLogger& tcmp_logger() {
  static SupLogger& instance = SupLogger::get_instance("TCMPRawSocket");
  return instance;
}

int to_bytes(unsigned long rcvbuf) {
  return static_cast<int>(std::min<unsigned long>(rcvbuf, INT_MAX));
}

constexpr int raw_type = SOCK_RAW | SOCK_CLOEXEC;
constexpr const char* no_header = "Failed to set IP_HDRINCL on socket";
constexpr const char* no_priority = "Failed to set SO_PRIORITY to 6 on socket";

}  // namespace

RawSocket::RawSocket(int domain, int type, int protocol)
    : fd(-1), read_event(EV_READ | EV_PERSIST, socket_probe_raw_read_cb, this) {
  fd = ::socket(domain, type, protocol);
  if (fd < 0)
    throw std::runtime_error("Failed to open new socket");
  try {
    require_option(SOL_SOCKET, SO_TIMESTAMPNS, 1, "Failed to enable SO_TIMESTAMPNS option on socket");
  } catch (const std::runtime_error&) {
    close(fd);
    throw;
  }
}

RawSocket::~RawSocket() {
  raw_rcv_async_stop();
  if (close(fd) != 0)
    SUP_LOG(logger(), log_level::error) << "~RawSocket: Failed to close raw socket: " << std::strerror(errno);
}

void RawSocket::require_option(int level, int option, int value, const char* failure) const {
  if (setsockopt(fd, level, option, &value, sizeof value) != 0)
    throw std::runtime_error(failure);
}

bool RawSocket::attach_l4_filter(RawSocketL4Filter&) {
  return true;
}

bool RawSocket::attach_filter(sock_filter* filter, unsigned short count) {
  const sock_fprog program{count, filter};
  const int result = setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
  if (result == 0)
    return true;
  SUP_LOG(logger(), log_level::error) << "Failed to attach filter, result " << result << "(" << errno << ")";
  return false;
}

bool RawSocket::raw_rcv_async_start(receive_callback receive_cb, void* context) {
  if (read_event.is_pending()) {
    SUP_LOG(logger(), log_level::warning) << "Failed to start receiving - already started";
    return false;
  }
  if (evutil_make_socket_nonblocking(fd) != 0) {
    SUP_LOG(logger(), log_level::error) << "Failed to set socket as non-blocking";
    return false;
  }
  if (!read_event.add(fd, no_event_priority)) {
    SUP_LOG(logger(), log_level::error) << "Failed to create new event";
    return false;
  }
  callback = receive_cb;
  callback_context = context;
  return true;
}

void RawSocket::raw_rcv_async_stop() {
  if (!read_event.del(false))
    SUP_LOG(logger(), log_level::error) << "raw_rcv_async_stop: Failed to delete raw socket event handler";
}

bool RawSocket::set_rcv_buffer(int bytes) {
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) == 0 ||
      setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) == 0)
    return true;
  SUP_LOG(logger(), log_level::error) << "Failed to set socket receive buffer to " << bytes;
  return false;
}

void RawSocket::flush() {
  unsigned char dropped[flush_bytes];
  while (recv(fd, dropped, sizeof dropped, MSG_DONTWAIT) >= 1) {
  }
}

bool RawSocket::raw_sendto(Packet& packet, unsigned address) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = address;
  const auto bytes = static_cast<std::size_t>(packet.get_length());
  if (sendto(fd, packet.data, bytes, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) >= 0)
    return true;
  SUP_LOG(logger(), log_level::error) << "Failed to send packet " << std::strerror(errno);
  return false;
}

TCPRawSocket::TCPRawSocket(unsigned long rcvbuf) : RawSocket(AF_INET, raw_type, IPPROTO_TCP) {
  require_option(IPPROTO_IP, IP_HDRINCL, 1, no_header);
  require_option(SOL_SOCKET, SO_PRIORITY, send_priority, no_priority);
  set_rcv_buffer(to_bytes(rcvbuf));
}

bool TCPRawSocket::attach_l4_filter(RawSocketL4Filter& filter) {
  auto program = tcp_reply_filter(filter.first_port, filter.last_port);
  return attach_filter(program.data(), program.size());
}

ICMPRawSocket::ICMPRawSocket(unsigned long rcvbuf) : RawSocket(AF_INET, raw_type, IPPROTO_ICMP) {
  require_option(IPPROTO_IP, IP_HDRINCL, 1, no_header);
  require_option(SOL_SOCKET, SO_PRIORITY, send_priority, no_priority);
  require_option(SOL_RAW, ICMP_FILTER, static_cast<int>(all_but_echo_replies),
                 "Failed to set ICMP_FILTER on socket");
  set_rcv_buffer(to_bytes(rcvbuf));
}

bool ICMPRawSocket::attach_l4_filter(RawSocketL4Filter& filter) {
  if (filter.address == 0)
    return true;
  auto program = destination_filter(filter.address);
  return attach_filter(program.data(), program.size());
}

bool ICMPRawSocket::bind_to_iface(const std::string& name) {
  if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name.c_str(), static_cast<socklen_t>(name.size() + 1)) == 0)
    return true;
  SUP_LOG(icmp_logger(), log_level::error)
      << "bind_to_iface: Unable to bind socket to " << name << ", error [" << std::strerror(errno) << "]";
  return false;
}

bool ICMPRawSocket::set_mark(int mark, int ip_header_included) {
  if (mark < 0) {
    SUP_LOG(icmp_logger(), log_level::error)
        << "set_mark: Invalid mark " << mark << ", mark cannot be negative";
    return false;
  }
  if (setsockopt(fd, SOL_SOCKET, SO_MARK, &mark, sizeof mark) != 0) {
    SUP_LOG(icmp_logger(), log_level::error)
        << "set_mark: Unable to set sender mark to " << mark << ", error [" << std::strerror(errno) << "]";
    return false;
  }
  require_option(IPPROTO_IP, IP_HDRINCL, ip_header_included, no_header);
  return true;
}

TCMPRawSocket::TCMPRawSocket(unsigned long rcvbuf) : RawSocket(AF_INET, raw_type, tcmp_protocol) {
  require_option(IPPROTO_IP, IP_HDRINCL, 1, no_header);
  require_option(SOL_SOCKET, SO_PRIORITY, send_priority, no_priority);
  set_rcv_buffer(to_bytes(rcvbuf));
}

bool TCMPRawSocket::attach_l4_filter(RawSocketL4Filter& filter) {
  if (filter.address == 0) {
    auto program = tcmp_filter(filter.type);
    return attach_filter(program.data(), program.size());
  }
  SUP_LOG(tcmp_logger(), log_level::debug) << "filter host " << std::hex << filter.address;
  auto program = tcmp_filter_from(filter.address, filter.type);
  return attach_filter(program.data(), program.size());
}

}  // namespace zol
