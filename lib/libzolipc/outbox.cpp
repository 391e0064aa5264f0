#include "libzolipc/outbox.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <utility>

#include "sup_logger.h"

namespace zol_ipc {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

// The loop of a daemon is never held for longer by a reader that has stopped.
constexpr microseconds longest_wait = std::chrono::milliseconds(100);

microseconds send_pause{1000};

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("IPCOutbox");
  return l;
}

// The peer closed or died; a new process may answer under its name.
bool is_peer_gone(int error) {
  return error == EPIPE || error == ECONNRESET || error == ENOTCONN;
}

// No room in the queue, in the queue of connections, or no memory for the message right now.
bool is_full(int error) {
  return error == EAGAIN || error == ENOBUFS || error == ENOMEM;
}

void pause_for(microseconds time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  const auto rest = std::chrono::nanoseconds(time - seconds);
  const timespec pause = {static_cast<time_t>(seconds.count()), static_cast<long>(rest.count())};
  ::nanosleep(&pause, nullptr);
}

void log_refusal(const std::string& path, int error, unsigned long size, bool first) {
  if (is_full(error)) {
    SUP_LOG(logger(), log_level::debug) << "send_msg: the queue of " << path << " is full";
  } else if (error == EMSGSIZE) {
    SUP_LOG(logger(), log_level::error)
        << "send_msg: a message of " << size << " bytes to " << path << " is larger than the send buffer";
  } else {
    SUP_LOG(logger(), first ? log_level::warning : log_level::debug)
        << "send_msg: couldn't send to " << path << ": " << std::strerror(error);
  }
}

}  // namespace

void set_send_pause_us(int microseconds_to_pause) {
  send_pause = microseconds(microseconds_to_pause);
}

int Outbox::send(const std::string& path, const void* message, unsigned long size) {
  Peer& peer = peers_[path];
  const int error = send_to(peer, path, message, size);
  if (error == 0) {
    if (peer.unreachable)
      SUP_LOG(logger(), log_level::info) << "send_msg: " << path << " answers again";
    peer.unreachable = false;
    return 0;
  }
  log_refusal(path, error, size, !peer.unreachable);
  peer.unreachable = peer.unreachable || (!is_full(error) && error != EMSGSIZE);
  return -1;
}

// One new connection for a peer that has gone, and pauses for a full one, until the time is over.
int Outbox::send_to(Peer& peer, const std::string& path, const void* message, unsigned long size) {
  bool may_reconnect = true;
  Clock::time_point deadline{};
  for (;;) {
    const int error = try_once(peer, path, message, size);
    if (is_peer_gone(error)) {
      peer.connection.reset();
      if (!may_reconnect)
        return error;
      may_reconnect = false;
      continue;
    }
    if (!is_full(error) || send_pause.count() <= 0)
      return error;
    const Clock::time_point now = Clock::now();
    if (deadline == Clock::time_point{})
      deadline = now + longest_wait;
    if (now >= deadline)
      return error;
    pause_for(std::min(send_pause, std::chrono::ceil<microseconds>(deadline - now)));
  }
}

// A message goes whole or not at all: the socket is of the kind that keeps the boundaries.
int Outbox::try_once(Peer& peer, const std::string& path, const void* message, unsigned long size) {
  if (const int error = ensure_connected(peer, path); error != 0)
    return error;
  while (::send(peer.connection.get(), message, size, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
    if (errno != EINTR)
      return errno;
  }
  return 0;
}

int Outbox::ensure_connected(Peer& peer, const std::string& path) {
  if (peer.connection)
    return 0;
  UniqueFd connection = make_seqpacket_socket();
  if (!connection)
    return errno;
  widen_send_buffer(connection.get());
  if (const int error = connect_socket(connection.get(), path); error != 0)
    return error;
  peer.connection = std::move(connection);
  return 0;
}

}  // namespace zol_ipc
