#include "libzolipc/endpoint.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include "ipc.h"
#include "sup_logger.h"

namespace zol_ipc {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("IPCEndpoint");
  return l;
}

// Past its time a read gives way to the caller after so many rounds of nothing but connections and refused
// messages; its descriptor stays readable.
constexpr int most_rounds_past_time = 1000;
constexpr int most_accepts_a_round = 64;

bool may_speak(const ucred& peer) {
  return peer.uid == 0 || peer.uid == ::geteuid();
}

UniqueFd open_reserve() {
  return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

bool is_shortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

void log_oversize(int peer, ssize_t size, unsigned long capacity) {
  ucred who{};
  socklen_t length = sizeof(who);
  ::getsockopt(peer, SOL_SOCKET, SO_PEERCRED, &who, &length);
  SUP_LOG(logger(), log_level::error) << "read_msg: dropped a message of " << size << " bytes from pid "
                                      << who.pid << "; the buffer holds " << capacity;
}

// What is left of a time-out, for epoll_wait: negative for ever.
int remaining_ms(int timeout_ms, Clock::time_point start) {
  if (timeout_ms <= 0)
    return timeout_ms;
  const auto left = milliseconds(timeout_ms) - (Clock::now() - start);
  return static_cast<int>(std::max<long>(0, std::chrono::ceil<milliseconds>(left).count()));
}

}  // namespace

void RefusalLog::note(const std::string& whom) {
  const Clock::time_point now = Clock::now();
  if (now < next_line_) {
    ++unmentioned_;
    return;
  }
  next_line_ = now + std::chrono::minutes(1);
  SUP_LOG(logger(), log_level::warning) << "read_msg: refused a connection from " << whom << "; "
                                        << unmentioned_ << " more since the last line";
  unmentioned_ = 0;
}

Endpoint::Endpoint(std::string own_name, std::string node_folder)
    : own_name_(std::move(own_name)), node_folder_(std::move(node_folder)) {}

bool Endpoint::open() {
  if (!listener_.open(node_folder_, own_name_))
    return false;
  reserve_ = open_reserve();
  epoll_ = UniqueFd(::epoll_create1(EPOLL_CLOEXEC));
  if (epoll_ && watch(listener_.fd()))
    return true;
  SUP_LOG(logger(), log_level::error)
      << "start_socket: no epoll set for " << own_name_ << ": " << std::strerror(errno);
  return false;
}

bool Endpoint::hold_instance_file(const std::string& folder, const std::string& version) {
  return instance_file_.open(folder, own_name_, version);
}

bool Endpoint::watch(int fd) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  return ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

int Endpoint::read(void* buffer, unsigned long capacity, int timeout_ms) {
  const Clock::time_point start = Clock::now();
  int rounds_past_time = 0;
  for (;;) {
    int size = 0;
    switch (take_from_turns(buffer, capacity, size)) {
      case Taken::message:
        return size;
      case Taken::failure:
        return -1;
      case Taken::nothing:
        break;
    }
    const int left = remaining_ms(timeout_ms, start);
    if (!refill_turns(left))
      return -1;
    if (left == 0 && (turns_.empty() || ++rounds_past_time > most_rounds_past_time))
      return 0;
  }
}

// Walks the round to the first message. Each gets one turn a round, so that all have had theirs before one
// that sends much gets its next.
Endpoint::Taken Endpoint::take_from_turns(void* buffer, unsigned long capacity, int& size) {
  while (!turns_.empty()) {
    const int peer = turns_.front();
    turns_.pop_front();
    if (peer == listener_.fd()) {
      if (!accept_waiting())
        return Taken::failure;
    } else if (take_from_peer(peer, buffer, capacity, size) == Taken::message) {
      return Taken::message;
    }
  }
  return Taken::nothing;
}

// A round of what epoll has ready, oldest first. False when the set itself has failed.
bool Endpoint::refill_turns(int timeout_ms) {
  std::array<epoll_event, 64> ready;
  const int count = ::epoll_wait(epoll_.get(), ready.data(), static_cast<int>(ready.size()), timeout_ms);
  if (count < 0 && errno != EINTR) {
    SUP_LOG(logger(), log_level::error)
        << "read_msg: the endpoint " << own_name_ << " has failed: " << std::strerror(errno);
    return false;
  }
  for (int i = 0; i < count; ++i)
    turns_.push_back(ready[static_cast<std::size_t>(i)].data.fd);
  return true;
}

Endpoint::Taken Endpoint::take_from_peer(int peer, void* buffer, unsigned long capacity, int& size) {
  // With MSG_TRUNC the result is the message's whole length, however much of it the buffer took.
  const ssize_t length = ::recv(peer, buffer, capacity, MSG_DONTWAIT | MSG_TRUNC);
  if (length > 0 && static_cast<unsigned long>(length) <= capacity && length <= INT_MAX) {
    size = static_cast<int>(length);
    return Taken::message;
  }
  if (length > 0) {
    log_oversize(peer, length, capacity);
  } else if (length == 0) {
    if (has_hung_up(peer))
      drop_peer(peer);
  } else if (errno != EAGAIN && errno != EINTR && errno != ECONNRESET) {
    // After a reset the messages that came before it are still to be read.
    SUP_LOG(logger(), log_level::warning) << "read_msg: lost a connection: " << std::strerror(errno);
    drop_peer(peer);
  }
  return Taken::nothing;
}

// A read of no bytes is the end of the connection or an empty message; only a peer that has gone and left
// nothing behind is at its end. The order counts: nothing can arrive after the hang-up was seen.
bool Endpoint::has_hung_up(int peer) const {
  pollfd state = {peer, POLLRDHUP, 0};
  if (::poll(&state, 1, 0) != 1 || (state.revents & (POLLRDHUP | POLLHUP | POLLERR)) == 0)
    return false;
  int waiting = 0;
  return ::ioctl(peer, SIOCINQ, &waiting) != 0 || waiting == 0;
}

// False when the listening socket itself has failed.
bool Endpoint::accept_waiting() {
  for (int i = 0; i < most_accepts_a_round; ++i) {
    UniqueFd peer(::accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (peer) {
      admit(std::move(peer));
      continue;
    }
    if (errno == EAGAIN)
      return true;
    if (is_shortage(errno)) {
      shortage_.note("a peer that no descriptor is left for");
      give_up_one_connection();
      return true;
    }
    if (errno != EINTR && errno != ECONNABORTED) {
      SUP_LOG(logger(), log_level::error)
          << "read_msg: couldn't accept for " << own_name_ << ": " << std::strerror(errno);
      return false;
    }
  }
  return true;
}

void Endpoint::admit(UniqueFd peer) {
  ucred who{};
  socklen_t length = sizeof(who);
  if (::getsockopt(peer.get(), SOL_SOCKET, SO_PEERCRED, &who, &length) != 0 || !may_speak(who)) {
    refusals_.note("uid " + std::to_string(who.uid) + ", pid " + std::to_string(who.pid));
    return;
  }
  const int fd = peer.get();
  if (watch(fd)) {
    peers_.emplace(fd, std::move(peer));
  } else {
    SUP_LOG(logger(), log_level::error) << "read_msg: couldn't watch a connection: " << std::strerror(errno);
  }
}

// A connection that can't be accepted would keep the descriptor readable for ever: with the reserve's
// descriptor it is accepted and closed, and its sender learns of that at its next message.
void Endpoint::give_up_one_connection() {
  reserve_.reset();
  UniqueFd(::accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)).reset();
  reserve_ = open_reserve();
}

// A closed descriptor leaves the epoll set, so that a peer that has gone doesn't keep it readable.
void Endpoint::drop_peer(int peer) {
  peers_.erase(peer);
}

}  // namespace zol_ipc
