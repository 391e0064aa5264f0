#include "ha/route_reader.h"

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "config/address_text.h"
#include "ha/route_message.h"
#include "sup_logger.h"

namespace {

// A burst of notifications waits here while the loop is busy: some 10,000 changes at the kernel's accounting.
constexpr int receive_buffer_size = 16 * 1024 * 1024;
constexpr std::string_view vpn_prefix = "vti";
constexpr std::size_t most_names = 4096;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("RouteReader");
  return l;
}

void set_options(int fd) {
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer_size, sizeof receive_buffer_size) != 0)
    SUP_LOG(logger(), log_level::warning)
        << "init: Failed to enlarge the receive buffer: " << strerror(errno);
}

}  // namespace

RouteReader::~RouteReader() {
  if (socket != nullptr)
    mnl_socket_close(socket);
}

bool RouteReader::init() {
  return socket != nullptr || open_socket();
}

bool RouteReader::open_socket() {
  socket = mnl_socket_open(NETLINK_ROUTE);
  if (socket == nullptr) {
    SUP_LOG(logger(), log_level::error) << "Failed to open netlink socket";
    return false;
  }
  if (mnl_socket_bind(socket, RTMGRP_IPV4_ROUTE, getpid()) < 0) {
    SUP_LOG(logger(), log_level::error) << "Failed to bind netlink socket";
    mnl_socket_close(socket);
    socket = nullptr;
    return false;
  }
  set_options(mnl_socket_get_fd(socket));
  return true;
}

bool RouteReader::send_dump_request() {
  if (socket == nullptr)
    return false;
  alignas(nlmsghdr) std::array<char, MNL_ALIGN(sizeof(nlmsghdr)) + MNL_ALIGN(sizeof(rtmsg))> request;
  nlmsghdr* header = mnl_nlmsg_put_header(request.data());
  header->nlmsg_type = RTM_GETROUTE;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  header->nlmsg_seq = static_cast<std::uint32_t>(time(nullptr));
  auto* route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(rtmsg)));
  route->rtm_family = AF_INET;
  route->rtm_flags = RTM_F_NOTIFY;
  dump_unfinished = true;
  dump_interrupted_ = false;
  if (mnl_socket_sendto(socket, header, header->nlmsg_len) >= 0)
    return true;
  SUP_LOG(logger(), log_level::error) << "Failed to send request to netlink socket";
  return false;
}

void RouteReader::recv_route_result() {
  ++reads_;
  noted_ = 0;
  if (names_.size() > most_names)
    names_.clear();
  for (int datagrams = 0; socket != nullptr && datagrams < datagrams_a_read && noted_ < routes_a_read;
       ++datagrams) {
    const ssize_t size = mnl_socket_recvfrom(socket, buffer_.data(), buffer_.size());
    if (size > 0) {
      run_messages(buffer_.data(), static_cast<std::size_t>(size));
      continue;
    }
    if (size < 0 && errno != EAGAIN)
      SUP_LOG(logger(), log_level::error)
          << "Failed to receive results from netlink socket : " << strerror(errno);
    return;
  }
}

void RouteReader::run_messages(void* datagram, std::size_t size) {
  char* at = static_cast<char*>(datagram);
  while (size >= sizeof(nlmsghdr)) {
    auto* message = static_cast<nlmsghdr*>(static_cast<void*>(at));
    const std::size_t length = message->nlmsg_len;
    if (length < sizeof(nlmsghdr) || length > size)
      break;
    run_message(message);
    const std::size_t step = std::min<std::size_t>(MNL_ALIGN(length), size);
    at += step;
    size -= step;
  }
  if (size > 0)
    SUP_LOG(logger(), log_level::error) << "run_messages: " << size << " bytes are no message";
}

void RouteReader::run_message(nlmsghdr* message) {
  if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
    // libmnl gives such a message up. What it tells is true all the same; only the whole may have gaps.
    dump_interrupted_ = true;
    message->nlmsg_flags &= static_cast<std::uint16_t>(~NLM_F_DUMP_INTR);
  }
  if (message->nlmsg_type == NLMSG_DONE)
    end_dump(message);
  else if (mnl_cb_run(message, message->nlmsg_len, 0, 0, data_cb, this) < MNL_CB_STOP)
    SUP_LOG(logger(), log_level::error) << "The kernel refused to dump the routes: " << strerror(errno);
}

void RouteReader::end_dump(const nlmsghdr* message) {
  int status = 0;
  if (mnl_nlmsg_get_payload_len(message) >= sizeof status)
    std::memcpy(&status, mnl_nlmsg_get_payload(message), sizeof status);
  if (status == 0 && !dump_interrupted_)
    dump_unfinished = false;
  else
    SUP_LOG(logger(), log_level::debug) << "end_dump: the dump has gaps, status " << status;
}

int RouteReader::data_cb(const nlmsghdr* message, void* data) {
  const std::optional<zol::RouteMessage> route = zol::decode_route(message);
  if (!route)
    return MNL_CB_OK;
  auto* reader = static_cast<RouteReader*>(data);
  reader->add_route_result(route->subnet, route->has_gateway ? zol::address_text(route->gateway) : "",
                           route->oif != 0 ? reader->interface_name(route->oif) : std::string(), route->table,
                           route->added, route->has_gateway && zol::is_link_local_gateway(route->gateway));
  return MNL_CB_OK;
}

const std::string& RouteReader::interface_name(std::uint32_t index) {
  InterfaceName& known = names_[index];
  if (known.read == reads_)
    return known.name;
  known.read = reads_;
  char name[IF_NAMESIZE];
  if (if_indextoname(index, name) != nullptr)
    known.name = name;
  return known.name;
}

void RouteReader::add_route_result(const zol::Subnet& subnet, const std::string& via, const std::string& dev,
                                   std::uint32_t table, bool added, bool link_local) {
  if (via.empty() && !dev.starts_with(vpn_prefix))
    return;
  ++noted_;
  pending[static_cast<int>(table)].push_back(
      {subnet, via, dev, added, link_local, static_cast<std::uint16_t>(table), zol::route_seen});
  SUP_LOG(logger(), log_level::trace) << "noted " << (added ? "added" : "deleted") << " route : " << subnet
                                      << " via " << via << " dev " << dev << " in table " << table;
}
