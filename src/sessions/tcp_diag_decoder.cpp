#include "sessions/tcp_diag_decoder.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "sup_logger.h"

namespace zol_monitor {

namespace {

using Bytes = std::span<const std::byte>;

constexpr std::size_t diag_header_size = NLMSG_HDRLEN + sizeof(inet_diag_msg);
static_assert(diag_header_size == 88);
constexpr std::size_t error_message_size = NLMSG_HDRLEN + sizeof(nlmsgerr);
static_assert(error_message_size == 36);

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("TCPDiagInfo");
  return instance;
}

// A copy of the record at the front, since the bytes may stand at any address. The caller has checked the
// size.
template <typename Record>
Record read_record(Bytes bytes) {
  Record record;
  std::memcpy(&record, bytes.data(), sizeof record);
  return record;
}

// What is left behind a record of that length, which is padded to four bytes, the last one perhaps not.
Bytes behind(Bytes bytes, std::size_t length) {
  return bytes.subspan(std::min((length + 3) & ~std::size_t{3}, bytes.size()));
}

void enter_socket(ConnStat& socket, Bytes payload, ConnStatMap& sockets) {
  std::memcpy(&socket.info, payload.data(), std::min(payload.size(), sizeof socket.info));
  sockets[leg_key(socket.src, socket.sport)] = socket;
  sockets[leg_key(socket.dst, socket.dport)] = socket;
}

DiagResult decode_error(Bytes message) {
  if (message.size() < error_message_size) {
    SUP_LOG(logger(), log_level::error) << "Netlink message truncated";
    return DiagResult::failed;
  }
  // Negated without a sign, since the lowest number has no positive one.
  const auto code = static_cast<unsigned>(read_record<nlmsgerr>(message.subspan(NLMSG_HDRLEN)).error);
  const auto number = static_cast<int>(0U - code);
  errno = number;
  SUP_LOG(logger(), log_level::error) << "Netlink error message: (" << number << ")";
  return DiagResult::failed;
}

DiagResult decode_message(const nlmsghdr& header, Bytes message, ConnStatMap& sockets) {
  if (header.nlmsg_seq != tcp_diag_sequence)
    return DiagResult::more;
  if (header.nlmsg_type == NLMSG_DONE) {
    SUP_LOG(logger(), log_level::debug) << "Last nlheader, done";
    return DiagResult::done;
  }
  if (header.nlmsg_type == NLMSG_ERROR)
    return decode_error(message);
  switch (decode_tcp_diag_message(message, sockets)) {
    case 0:
      return DiagResult::more;
    case 1:
      SUP_LOG(logger(), log_level::debug) << "Netlink message skipped";
      return DiagResult::more;
    default:
      SUP_LOG(logger(), log_level::error) << "Failed to parse netlink message";
      return DiagResult::failed;
  }
}

}  // namespace

DiagResult decode_tcp_diag(Bytes datagram, bool truncated, ConnStatMap& sockets) {
  while (datagram.size() >= sizeof(nlmsghdr)) {
    const auto header = read_record<nlmsghdr>(datagram);
    if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > datagram.size())
      break;
    const DiagResult result = decode_message(header, datagram.first(header.nlmsg_len), sockets);
    if (result != DiagResult::more)
      return result;
    datagram = behind(datagram, header.nlmsg_len);
  }
  if (truncated) {
    SUP_LOG(logger(), log_level::error) << "Message truncated";
    return DiagResult::failed;
  }
  if (!datagram.empty()) {
    SUP_LOG(logger(), log_level::error) << "!!!Remnant of size " << datagram.size();
    return DiagResult::failed;
  }
  return DiagResult::more;
}

int decode_tcp_diag_message(Bytes message, ConnStatMap& sockets) {
  if (message.size() < diag_header_size) {
    SUP_LOG(logger(), log_level::error) << "Socket message of " << message.size() << " bytes is too short";
    return 2;
  }
  const auto body = read_record<inet_diag_msg>(message.subspan(NLMSG_HDRLEN));
  if (body.idiag_family == AF_INET6) {
    SUP_LOG(logger(), log_level::debug) << "AF_INET6 protocol family not supported";
    return 1;
  }
  if (body.idiag_family != AF_INET) {
    SUP_LOG(logger(), log_level::error) << "Unknown protocol family";
    return 2;
  }
  ConnStat socket;
  socket.src = body.id.idiag_src[0];
  socket.dst = body.id.idiag_dst[0];
  socket.family = body.idiag_family;
  socket.sport = ntohs(body.id.idiag_sport);
  socket.dport = ntohs(body.id.idiag_dport);
  socket.state = body.idiag_state;
  socket.inode = body.idiag_inode;
  Bytes attributes = message.subspan(diag_header_size);
  while (attributes.size() >= sizeof(rtattr)) {
    const auto attribute = read_record<rtattr>(attributes);
    if (attribute.rta_len < sizeof(rtattr) || attribute.rta_len > attributes.size())
      break;
    if (attribute.rta_type == INET_DIAG_INFO)
      enter_socket(socket, attributes.first(attribute.rta_len).subspan(sizeof(rtattr)), sockets);
    attributes = behind(attributes, attribute.rta_len);
  }
  return 0;
}

}  // namespace zol_monitor
