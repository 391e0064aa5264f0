#include "sessions/tcp_diag_info.h"

#include <dirent.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "sup_logger.h"

namespace zol_monitor {

namespace {

constexpr std::uint32_t all_states = 4095;
constexpr std::size_t receive_buffer_size = 8192;
constexpr std::size_t link_text_size = 254;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("TCPDiagInfo");
  return instance;
}

class DiagSocket {
 public:
  DiagSocket() : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {}
  ~DiagSocket() {
    if (fd_ >= 0)
      close(fd_);
  }
  DiagSocket(const DiagSocket&) = delete;
  DiagSocket& operator=(const DiagSocket&) = delete;

  int fd() const { return fd_; }

 private:
  int fd_;
};

struct DiagRequest {
  nlmsghdr header;
  inet_diag_req body;
};
static_assert(sizeof(DiagRequest) == 76);

bool send_request(int fd) {
  DiagRequest request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = TCPDIAG_GETSOCK;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ROOT | NLM_F_MATCH;
  request.header.nlmsg_seq = tcp_diag_sequence;
  request.body.idiag_family = AF_INET;
  request.body.idiag_ext = 1 << (INET_DIAG_INFO - 1) | 1 << (INET_DIAG_CONG - 1);
  request.body.idiag_states = all_states;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  iovec part{&request, sizeof request};
  msghdr message{};
  message.msg_name = &kernel;
  message.msg_namelen = sizeof kernel;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  ssize_t sent;
  do
    sent = sendmsg(fd, &message, 0);
  while (sent < 0 && errno == EINTR);
  return sent >= 0;
}

// One datagram; its length as recvmsg(2) gives it.
ssize_t receive(int fd, std::span<std::byte> buffer, bool& truncated) {
  iovec part{buffer.data(), buffer.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  ssize_t received;
  do
    received = recvmsg(fd, &message, 0);
  while (received < 0 && errno == EINTR);
  truncated = (message.msg_flags & MSG_TRUNC) != 0;
  return received;
}

bool receive_answer(int fd, ConnStatMap& sockets) {
  alignas(nlmsghdr) std::array<std::byte, receive_buffer_size> buffer;
  for (;;) {
    bool truncated = false;
    const ssize_t received = receive(fd, buffer, truncated);
    if (received < 0) {
      SUP_LOG(logger(), log_level::error) << "Failed to receive netlink message: (" << errno << ")";
      return false;
    }
    if (received == 0) {
      SUP_LOG(logger(), log_level::debug) << "EOF on netlink";
      return true;
    }
    const auto datagram = std::span(buffer).first(static_cast<std::size_t>(received));
    const DiagResult result = decode_tcp_diag(datagram, truncated, sockets);
    if (result != DiagResult::more)
      return result == DiagResult::done;
  }
}

// Enters the inode of a link text such as "socket:[12345]"; other texts are passed over.
void enter_socket_inode(const char* text, std::unordered_set<unsigned>& inodes) {
  unsigned inode = 0;
  if (std::string_view(text).starts_with("socket:[") && std::sscanf(text, "socket:[%u]", &inode) == 1)
    inodes.insert(inode);
}

// Walks an open folder of descriptors; false when reading it failed midway.
bool read_inodes(DIR* folder, const std::string& path, std::unordered_set<unsigned>& inodes) {
  errno = 0;
  while (const dirent* entry = readdir(folder)) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..")
      continue;
    const std::string link = path + "/" + entry->d_name;
    char text[link_text_size + 1];
    const ssize_t length = readlink(link.c_str(), text, link_text_size);
    if (length < 0) {
      SUP_LOG(logger(), log_level::notice) << "get_all_process_inodes"
                                           << " readlink failed for path: " << link;
      errno = 0;
      continue;
    }
    text[length] = '\0';
    enter_socket_inode(text, inodes);
    errno = 0;
  }
  if (errno == 0)
    return true;
  SUP_LOG(logger(), log_level::error) << "get_all_process_inodes"
                                      << " Error reading directory: " << path << "(" << errno << ")";
  return false;
}

}  // namespace

TCPDiagInfo::TCPDiagInfo(bool enabled_in) : enabled(enabled_in) {}

TCPDiagInfo::~TCPDiagInfo() = default;

int TCPDiagInfo::refresh() {
  if (!enabled)
    return 0;
  sockets.clear();
  const DiagSocket netlink;
  if (netlink.fd() < 0) {
    SUP_LOG(logger(), log_level::error) << "Failed to send netlink message";
    return 0;
  }
  if (!send_request(netlink.fd())) {
    SUP_LOG(logger(), log_level::error) << "Failed to send TCP info request";
    return 0;
  }
  return receive_answer(netlink.fd(), sockets) ? enabled : 0;
}

int TCPDiagInfo::parse_nlmsg(const nlmsghdr* message) {
  return decode_tcp_diag_message({reinterpret_cast<const std::byte*>(message), message->nlmsg_len}, sockets);
}

int TCPDiagInfo::get_conn_stat(std::uint32_t address, std::uint16_t port, ConnStat& out) const {
  const auto found = sockets.find(leg_key(address, port));
  if (found == sockets.end()) {
    out = ConnStat{};
    return 0;
  }
  out = found->second;
  return 1;
}

bool TCPDiagInfo::get_all_process_inodes(int pid, std::unordered_set<unsigned>& inodes) const {
  inodes.clear();
  const std::string path = "/proc/" + std::to_string(pid) + "/fd/";
  DIR* folder = opendir(path.c_str());
  if (folder == nullptr) {
    SUP_LOG(logger(), log_level::error) << "get_all_process_inodes"
                                        << " Unable to open dir: " << path;
    return false;
  }
  const bool complete = read_inodes(folder, path, inodes);
  if (closedir(folder) != 0)
    SUP_LOG(logger(), log_level::error) << "get_all_process_inodes"
                                        << " closedir failed errno: " << errno;
  return complete;
}

int TCPDiagInfo::get_number_of_active_sockets_by_pid(int pid) {
  refresh();
  std::unordered_set<unsigned> inodes;
  if (!get_all_process_inodes(pid, inodes))
    return -1;
  int count = 0;
  for (const auto& [key, socket] : sockets) {
    if (socket.state != TCP_ESTABLISHED || inodes.erase(socket.inode) == 0)
      continue;  // erased, so that a socket that stands twice in the table counts once
    SUP_LOG(logger(), log_level::debug) << "get_number_of_active_sockets_by_pid"
                                        << " Inode number " << socket.inode << " found";
    ++count;
  }
  SUP_LOG(logger(), log_level::info) << "get_number_of_active_sockets_by_pid"
                                     << " Found " << count << " active sockets.";
  return count;
}

}  // namespace zol_monitor
