// A storm of marked connections, created and then destroyed as fast as libnetfilter_conntrack can, in a
// network namespace of its own, heard by the daemon's reader and, in a second storm, by `conntrack -E` with
// the same buffer. Says how many events each lost. Needs root.
#include <arpa/inet.h>
#include <event2/event.h>
#include <fcntl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack_tcp.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "bench/bench_monitor.h"

namespace {

constexpr std::uint32_t connections = 200000;
constexpr std::uint32_t mark_service_1_in = 0x110;
constexpr int quiet_ms = 1000;

// Connection `n` of the storm runs from the client of identification number `n`.
nf_conntrack* connection(std::uint32_t n) {
  const auto session = zol_bench::identification(n, false);
  nf_conntrack* ct = nfct_new();
  nfct_set_attr_u8(ct, ATTR_L3PROTO, AF_INET);
  nfct_set_attr_u32(ct, ATTR_IPV4_SRC, session.address1);
  nfct_set_attr_u32(ct, ATTR_IPV4_DST, htonl(0xc0000201));
  nfct_set_attr_u8(ct, ATTR_L4PROTO, IPPROTO_TCP);
  nfct_set_attr_u16(ct, ATTR_PORT_SRC, session.port1);
  nfct_set_attr_u16(ct, ATTR_PORT_DST, htons(8080));
  return ct;
}

bool query(nfct_handle* handle, nf_conntrack_query what, std::uint32_t n) {
  nf_conntrack* ct = connection(n);
  if (what == NFCT_Q_CREATE) {
    nfct_setobjopt(ct, NFCT_SOPT_SETUP_REPLY);
    nfct_set_attr_u8(ct, ATTR_TCP_STATE, TCP_CONNTRACK_ESTABLISHED);
    nfct_set_attr_u32(ct, ATTR_TIMEOUT, 3600);
    nfct_set_attr_u32(ct, ATTR_MARK, mark_service_1_in);
    nfct_set_attr_u32(ct, ATTR_STATUS, IPS_CONFIRMED | IPS_ASSURED | IPS_SEEN_REPLY);
  }
  const bool done = nfct_query(handle, what, ct) == 0;
  nfct_destroy(ct);
  return done;
}

// Runs in a child of its own. Its exit status is 0 when every connection came and went.
[[noreturn]] void storm() {
  nfct_handle* handle = nfct_open(CONNTRACK, 0);
  std::uint32_t failures = handle == nullptr ? connections : 0;
  const auto start = std::chrono::steady_clock::now();
  for (std::uint32_t n = 0; handle != nullptr && n < connections; ++n)
    failures += query(handle, NFCT_Q_CREATE, n) ? 0 : 1;
  for (std::uint32_t n = 0; handle != nullptr && n < connections; ++n)
    failures += query(handle, NFCT_Q_DESTROY, n) ? 0 : 1;
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  std::printf("storm: %u connections created and destroyed in %.2f s, %u failures\n", connections,
              took.count(), failures);
  std::fflush(stdout);
  _exit(failures == 0 ? 0 : 1);
}

pid_t start_storm() {
  std::fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0)
    storm();
  return pid;
}

// Dropped messages of the netlink sockets of a process in this namespace.
unsigned long netlink_drops(std::uint32_t groups) {
  std::ifstream sockets("/proc/self/net/netlink");
  std::string line;
  std::getline(sockets, line);
  unsigned long drops = 0;
  while (std::getline(sockets, line)) {
    unsigned protocol = 0;
    unsigned mask = 0;
    unsigned long dropped = 0;
    // sk Eth Pid Groups Rmem Wmem Dump Locks Drops Inode
    if (std::sscanf(line.c_str(), "%*s %u %*d %x %*d %*d %*d %*d %lu", &protocol, &mask, &dropped) == 3 &&
        protocol == 12 && mask == groups)
      drops += dropped;
  }
  return drops;
}

bool is_running(pid_t pid) {
  return waitpid(pid, nullptr, WNOHANG) == 0;
}

// The loop runs until the storm has ended and nothing has happened for a while.
void run_daemon(zol_test::BareMonitor& monitor) {
  for (std::uint32_t n = 0; n < connections; ++n) {
    auto msg = zol_bench::identification(n, false);
    zol_bench::handle(monitor, msg);
  }
  monitor.start();
  const pid_t pid = start_storm();
  bool running = true;
  for (std::size_t before = 0, left = connections; running || before != left;) {
    running = running && is_running(pid);
    before = monitor.sessions.in_sessions.size();
    const timeval pause = {quiet_ms / 1000, quiet_ms % 1000 * 1000};
    event_base_loopexit(zol::ZOLEventBase::base(), &pause);
    zol::ZOLEventBase::dispatch();
    left = monitor.sessions.in_sessions.size();
  }
  std::printf("daemon: %zu of %u destroys missing in the table, %lu messages dropped by the kernel\n",
              monitor.sessions.in_sessions.size(), connections, netlink_drops(7));
  monitor.stop();
}

long count_lines(const char* path, const char* word) {
  std::ifstream file(path);
  long count = 0;
  for (std::string line; std::getline(file, line);)
    count += line.find(word) != std::string::npos ? 1 : 0;
  return count;
}

void run_peer(const char* path) {
  const pid_t peer = fork();
  if (peer == 0) {
    const int out = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    execlp("conntrack", "conntrack", "-E", "-b", "18874368", static_cast<char*>(nullptr));
    _exit(127);
  }
  sleep(1);  // the peer opens its socket
  const pid_t pid = start_storm();
  waitpid(pid, nullptr, 0);
  sleep(3);
  kill(peer, SIGINT);
  waitpid(peer, nullptr, 0);
  const long new_events = count_lines(path, "[NEW]");
  const long destroys = count_lines(path, "[DESTROY]");
  std::printf("conntrack -E: %ld of %u creations and %ld of %u destroys missing\n", connections - new_events,
              connections, connections - destroys, connections);
}

}  // namespace

int main() {
  zol_bench::log_errors_only(zol_test::lone_config_text);
  if (unshare(CLONE_NEWNET) != 0) {
    std::perror("unshare");
    return 1;
  }
  std::ofstream("/proc/sys/net/netfilter/nf_conntrack_max") << 1000000;
  run_daemon(zol_test::lone_monitor());
  char path[] = "/tmp/conntrack_storm_XXXXXX";
  close(mkstemp(path));
  run_peer(path);
  unlink(path);
  return 0;
}
