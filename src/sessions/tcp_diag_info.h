// The kernel's TCP sockets with their struct tcp_info, by address and port (sock_diag(7), linux/inet_diag.h).
#pragma once

#include <cstdint>
#include <map>
#include <unordered_set>

#include "sessions/tcp_diag_decoder.h"

struct nlmsghdr;

namespace zol_monitor {

// A picture of the sockets as they were at the last refresh. Main thread only.
class TCPDiagInfo {
 public:
  explicit TCPDiagInfo(bool enabled);
  virtual ~TCPDiagInfo();

  // Asks the kernel anew, and blocks until its answer is complete. Returns non-zero on success; 0, with an
  // error line, when the table is now partial or empty. When not enabled, 0 and the table stays as it is.
  int refresh();
  // Enters one message of the kernel's answer: 0 taken, 1 passed over (IPv6), 2 malformed. The header's
  // length must be that of the memory behind it.
  int parse_nlmsg(const nlmsghdr* message);
  // 1 and the socket that has the pair as its local or its remote end; 0 and a zeroed `out` without one. The
  // address in network order, the port in host order.
  int get_conn_stat(std::uint32_t address, std::uint16_t port, ConnStat& out) const;
  // The inodes of a process's sockets, from /proc. False, with an error line, when its folder can't be read.
  bool get_all_process_inodes(int pid, std::unordered_set<unsigned>& inodes) const;
  // After a refresh, the established sockets of a process; -1 on failure.
  int get_number_of_active_sockets_by_pid(int pid);

  bool enabled;
  ConnStatMap sockets;
};

}  // namespace zol_monitor
