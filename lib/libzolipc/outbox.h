// The sending side: one kept connection to each destination.
#pragma once

#include <map>
#include <string>

#include "libzolipc/unix_socket.h"

namespace zol_ipc {

// The pause between two tries of all outboxes, in microseconds; 0 or less: no second try.
void set_send_pause_us(int microseconds);

class Outbox {
 public:
  // Sends one message to the socket file `path`: 0, or -1 when nothing of it has gone. A peer that went away
  // is connected to once more, a full queue is waited for; a destination that can't be reached is logged when
  // that begins and when it ends.
  int send(const std::string& path, const void* message, unsigned long size);

 private:
  struct Peer {
    UniqueFd connection;
    bool unreachable = false;
  };

  int send_to(Peer& peer, const std::string& path, const void* message, unsigned long size);
  static int try_once(Peer& peer, const std::string& path, const void* message, unsigned long size);
  static int ensure_connected(Peer& peer, const std::string& path);

  std::map<std::string, Peer> peers_;
};

}  // namespace zol_ipc
