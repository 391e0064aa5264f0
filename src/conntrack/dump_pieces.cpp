#include "conntrack/dump_pieces.h"

#include <libmnl/libmnl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "conntrack/conntrack_message.h"
#include "sup_logger.h"

namespace zol_monitor {

namespace {

// netlink_recvmsg (net/netlink/af_netlink.c) takes pieces up to 32 KiB less what a socket buffer needs for
// itself, some 300 bytes.
constexpr unsigned largest_piece = 32000;
using Piece = std::array<char, largest_piece>;

struct SocketCloser {
  void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using Socket = std::unique_ptr<mnl_socket, SocketCloser>;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("ConntrackStats");
  return l;
}

bool send_message(int fd, const nlmsghdr* message) {
  return send(fd, message, message->nlmsg_len, 0) == static_cast<ssize_t>(message->nlmsg_len);
}

// The kernel has an answer ready when the request has been sent, and the next piece when one has been read.
ssize_t receive_piece(int fd, Piece& piece, std::size_t size) {
  return recv(fd, piece.data(), size, MSG_DONTWAIT);
}

bool request_dump(int fd, const nfct_filter_dump* filter) {
  alignas(nlmsghdr) std::array<char, 256> request{};
  nlmsghdr* header = mnl_nlmsg_put_header(request.data());
  header->nlmsg_type = (NFNL_SUBSYS_CTNETLINK << 8) | IPCTNL_MSG_CT_GET;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  auto* family = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
  family->version = NFNETLINK_V0;
  return nfct_nlmsg_build_filter(header, filter) == 0 && send_message(fd, header);
}

// By the first two pieces of a dump that resets nothing and is then given up: the first is a small one.
bool look_at_table(const nfct_filter_dump* filter, unsigned& message_length) {
  const Socket socket(mnl_socket_open(NETLINK_NETFILTER));
  if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0)
    return false;
  const int fd = mnl_socket_get_fd(socket.get());
  if (!request_dump(fd, filter))
    return false;
  alignas(nlmsghdr) Piece piece;
  message_length = 0;
  for (int i = 0; i < 2; ++i) {
    const ssize_t size = receive_piece(fd, piece, piece.size());
    if (size < 0)
      return i > 0 && errno == EAGAIN;  // the first piece was the end already: the table is empty
    if (const unsigned length = usual_message_length(piece.data(), static_cast<std::size_t>(size)))
      message_length = length;
  }
  return true;
}

// The kernel makes pieces as large as the largest read so far: a message that only asks for its
// acknowledgement lets that read happen before the dump.
bool set_piece_size(nfct_handle* table, unsigned size) {
  const int fd = nfct_fd(table);
  alignas(nlmsghdr) std::array<char, NLMSG_HDRLEN> request{};
  nlmsghdr* header = mnl_nlmsg_put_header(request.data());
  header->nlmsg_type = NLMSG_NOOP;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  alignas(nlmsghdr) Piece piece;
  if (!send_message(fd, header) || receive_piece(fd, piece, size) < 0)
    return false;
  nfnl_set_rcv_buffer_size(const_cast<nfnl_handle*>(nfct_nfnlh(table)), size);
  return true;
}

}  // namespace

void fit_dump_pieces(nfct_handle* table, const nfct_filter_dump* filter) {
  unsigned message_length = 0;
  if (!look_at_table(filter, message_length) || !set_piece_size(table, dump_piece_size(message_length)))
    SUP_LOG(logger(), log_level::warning)
        << "fit_dump_pieces: a resetting reading may lose counters: " << strerror(errno);
}

unsigned usual_message_length(const void* piece, std::size_t size) {
  if (!is_sound_datagram(piece, size))
    return 0;
  std::array<unsigned, 512> found{};  // by the number of 4-byte words
  constexpr unsigned word = NLMSG_ALIGNTO;
  const auto* header = static_cast<const nlmsghdr*>(piece);
  for (int left = static_cast<int>(size); mnl_nlmsg_ok(header, left);
       header = mnl_nlmsg_next(header, &left)) {
    const std::size_t words = MNL_ALIGN(header->nlmsg_len) / word;
    if (NFNL_SUBSYS_ID(header->nlmsg_type) == NFNL_SUBSYS_CTNETLINK && words < found.size())
      ++found[words];
  }
  std::size_t usual = 0;
  for (std::size_t words = 1; words < found.size(); ++words)
    usual = found[words] > 0 && found[words] >= found[usual] ? words : usual;
  return static_cast<unsigned>(usual) * word;
}

unsigned dump_piece_size(unsigned message_length) {
  if (message_length == 0 || message_length > largest_piece)
    return largest_piece;
  return largest_piece - largest_piece % message_length;
}

}  // namespace zol_monitor
