// Against the running kernel, with sockets of this process on the loopback device.
#include "sessions/tcp_diag_info.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <list>
#include <set>

#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace zol_test {
namespace {

using zol_monitor::ConnStat;
using zol_monitor::TCPDiagInfo;

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0)
      close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// A connection of this process to itself.
class LoopbackConnection {
 public:
  LoopbackConnection()
      : listener(socket(AF_INET, SOCK_STREAM, 0)),
        client(socket(AF_INET, SOCK_STREAM, 0)),
        server(connect_both()) {}

  sockaddr_in listener_address() const { return name_of(listener.get()); }
  sockaddr_in client_address() const { return name_of(client.get()); }

  Descriptor listener;
  Descriptor client;
  Descriptor server;

 private:
  static sockaddr_in name_of(int fd) {
    sockaddr_in name{};
    socklen_t size = sizeof name;
    getsockname(fd, reinterpret_cast<sockaddr*>(&name), &size);
    return name;
  }
  int connect_both() const {
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener.get(), reinterpret_cast<sockaddr*>(&any), sizeof any) != 0 ||
        listen(listener.get(), 1) != 0)
      return -1;
    const sockaddr_in target = listener_address();
    if (::connect(client.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0)
      return -1;
    return accept(listener.get(), nullptr, nullptr);
  }
};

unsigned inode_of(const Descriptor& descriptor) {
  struct stat status {};
  fstat(descriptor.get(), &status);
  return static_cast<unsigned>(status.st_ino);
}

// Verifies that a disabled table answers nothing and asks nothing.
TEST(TCPDiagInfoTest, Disabled) {
  TCPDiagInfo diag(false);
  diag.sockets[1].inode = 5;
  EXPECT_EQ(diag.refresh(), 0);
  EXPECT_EQ(diag.sockets.size(), 1U);  // as it was
  ConnStat stat;
  stat.inode = 9;
  EXPECT_EQ(diag.get_conn_stat(htonl(INADDR_LOOPBACK), 1, stat), 0);
  EXPECT_EQ(stat.inode, 0U);
}

// Verifies that both ends of a connection are found, each by either pair.
TEST(TCPDiagInfoTest, FindsConnection) {
  const LoopbackConnection connection;
  ASSERT_GE(connection.server.get(), 0);
  ASSERT_EQ(write(connection.client.get(), "hello", 5), 5);
  TCPDiagInfo diag(true);
  ASSERT_NE(diag.refresh(), 0);
  const sockaddr_in client = connection.client_address();
  ConnStat stat;
  ASSERT_EQ(diag.get_conn_stat(client.sin_addr.s_addr, ntohs(client.sin_port), stat), 1);
  const std::set<unsigned> inodes = {inode_of(connection.client), inode_of(connection.server)};
  EXPECT_TRUE(inodes.contains(stat.inode)) << stat.inode;
  EXPECT_EQ(stat.state, TCP_ESTABLISHED);
  EXPECT_EQ(stat.family, AF_INET);
  EXPECT_EQ(stat.src, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(stat.dst, htonl(INADDR_LOOPBACK));
  EXPECT_GT(stat.info.tcpi_snd_mss, 0U);
  const sockaddr_in target = connection.listener_address();
  ASSERT_EQ(diag.get_conn_stat(target.sin_addr.s_addr, ntohs(target.sin_port), stat), 1);
}

// Verifies that a socket is found by its local pair and by its remote one: each pair stands in the other's
// record.
TEST(TCPDiagInfoTest, LocalAndRemotePair) {
  const LoopbackConnection connection;
  TCPDiagInfo diag(true);
  ASSERT_NE(diag.refresh(), 0);
  const std::uint16_t client_port = ntohs(connection.client_address().sin_port);
  ConnStat stat;
  ASSERT_EQ(diag.get_conn_stat(htonl(INADDR_LOOPBACK), client_port, stat), 1);
  const bool is_local = stat.sport == client_port;
  EXPECT_TRUE(is_local ? stat.inode == inode_of(connection.client)
                       : stat.dport == client_port && stat.inode == inode_of(connection.server));
}

// Verifies that an unknown pair gives 0 and a zeroed record.
TEST(TCPDiagInfoTest, UnknownPair) {
  TCPDiagInfo diag(true);
  ASSERT_NE(diag.refresh(), 0);
  ConnStat stat;
  stat.src = 1;
  stat.info.tcpi_rtt = 1;
  EXPECT_EQ(diag.get_conn_stat(inet_addr("203.0.113.1"), 1, stat), 0);
  EXPECT_EQ(stat.src, 0U);
  EXPECT_EQ(stat.info.tcpi_rtt, 0U);
}

// Verifies that a refresh forgets the sockets that have gone.
TEST(TCPDiagInfoTest, RefreshStartsAnew) {
  TCPDiagInfo diag(true);
  diag.sockets[1].inode = 5;
  ASSERT_NE(diag.refresh(), 0);
  EXPECT_FALSE(diag.sockets.contains(1));
}

// Verifies that many sockets, over several datagrams of the kernel's, are all found.
TEST(TCPDiagInfoTest, ManySockets) {
  std::list<LoopbackConnection> connections;
  for (int i = 0; i < 100; ++i)
    ASSERT_GE(connections.emplace_back().server.get(), 0);
  TCPDiagInfo diag(true);
  ASSERT_NE(diag.refresh(), 0);
  for (const auto& connection : connections) {
    ConnStat stat;
    EXPECT_EQ(diag.get_conn_stat(htonl(INADDR_LOOPBACK), ntohs(connection.client_address().sin_port), stat),
              1);
  }
}

// Verifies that one message is entered through the header's own length.
TEST(TCPDiagInfoTest, ParseMessage) {
  struct {
    nlmsghdr header;
    inet_diag_msg body;
  } message{};
  message.header.nlmsg_len = sizeof message;
  message.body.idiag_family = AF_INET6;
  TCPDiagInfo diag(true);
  EXPECT_EQ(diag.parse_nlmsg(&message.header), 1);
  message.body.idiag_family = AF_INET;
  EXPECT_EQ(diag.parse_nlmsg(&message.header), 0);
  message.body.idiag_family = AF_UNIX;
  EXPECT_EQ(diag.parse_nlmsg(&message.header), 2);
}

// Verifies that a process's socket inodes are found, and nothing but those.
TEST(TCPDiagInfoTest, ProcessInodes) {
  const LoopbackConnection connection;
  const TCPDiagInfo diag(true);
  std::unordered_set<unsigned> inodes = {4};
  ASSERT_TRUE(diag.get_all_process_inodes(getpid(), inodes));
  EXPECT_TRUE(inodes.contains(inode_of(connection.client)));
  EXPECT_TRUE(inodes.contains(inode_of(connection.server)));
  EXPECT_TRUE(inodes.contains(inode_of(connection.listener)));
  EXPECT_FALSE(inodes.contains(4));  // cleared first
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  const Descriptor read_end(pipe_ends[0]);
  const Descriptor write_end(pipe_ends[1]);
  ASSERT_TRUE(diag.get_all_process_inodes(getpid(), inodes));
  EXPECT_FALSE(inodes.contains(inode_of(read_end)));
}

// The number of a child that has been reaped.
int gone_pid() {
  const pid_t child = fork();
  if (child == 0)
    _exit(0);
  waitpid(child, nullptr, 0);
  return child;
}

// Verifies that a process that has gone has no inodes, an error line, and -1 active sockets.
TEST(TCPDiagInfoTest, GoneProcess) {
  const int pid = gone_pid();
  TCPDiagInfo diag(true);
  std::unordered_set<unsigned> inodes = {4};
  const LogCapture log;
  EXPECT_FALSE(diag.get_all_process_inodes(pid, inodes));
  EXPECT_TRUE(inodes.empty());
  EXPECT_TRUE(log.contains(
      log_level::error, "get_all_process_inodes Unable to open dir: /proc/" + std::to_string(pid) + "/fd/"))
      << log.all();
  EXPECT_EQ(diag.get_number_of_active_sockets_by_pid(pid), -1);
}

// Verifies that established sockets of a process count once each, and listening ones don't.
TEST(TCPDiagInfoTest, ActiveSockets) {
  TCPDiagInfo diag(true);
  const int before = diag.get_number_of_active_sockets_by_pid(getpid());
  ASSERT_GE(before, 0);
  const LoopbackConnection connection;
  ASSERT_GE(connection.server.get(), 0);
  const LogCapture log;
  const int count = diag.get_number_of_active_sockets_by_pid(getpid());
  // Both ends are this process's and share their two pairs, so that the table holds the later of them.
  EXPECT_EQ(count, before + 1);
  EXPECT_TRUE(log.contains(log_level::info, "get_number_of_active_sockets_by_pid Found " +
                                                std::to_string(count) + " active sockets."))
      << log.all();
  EXPECT_EQ(log.count("get_number_of_active_sockets_by_pid Inode number "), count);
  EXPECT_FALSE(log.contains("Inode number " + std::to_string(inode_of(connection.listener)) + " found"));
}

// Verifies that a refresh without a free descriptor is logged and fails.
TEST(TCPDiagInfoTest, NoDescriptor) {
  TCPDiagInfo diag(true);
  const LogCapture log;
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  rlimit none = limit;
  none.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const int result = diag.refresh();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(log.contains(log_level::error, "Failed to send netlink message")) << log.all();
}

}  // namespace
}  // namespace zol_test
