// One process's end of the node's IPC: what it listens on, who is connected to it, and its own connections.
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <string>

#include "libzolipc/endpoint_files.h"
#include "libzolipc/instance_file.h"
#include "libzolipc/outbox.h"

namespace zol_ipc {

// A line about refused peers at most so often, with the number of those that went unmentioned.
class RefusalLog {
 public:
  void note(const std::string& whom);

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point next_line_{};
  unsigned unmentioned_ = 0;
};

class Endpoint {
 public:
  Endpoint(std::string own_name, std::string node_folder);
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;
  ~Endpoint() = default;

  bool open();
  bool hold_instance_file(const std::string& folder, const std::string& version);

  // The epoll set: readable while a connection or a message waits.
  int fd() const { return epoll_.get(); }
  // The program closed the descriptor by itself, and its number is in use again.
  void forget_fd() { epoll_.release(); }
  const std::string& node_folder() const { return node_folder_; }
  Outbox& outbox() { return outbox_; }

  // As read_msg of ipc.h.
  int read(void* buffer, unsigned long capacity, int timeout_ms);

 private:
  enum class Taken { message, nothing, failure };

  Taken take_from_turns(void* buffer, unsigned long capacity, int& size);
  Taken take_from_peer(int peer, void* buffer, unsigned long capacity, int& size);
  bool has_hung_up(int peer) const;
  bool refill_turns(int timeout_ms);
  bool accept_waiting();
  void admit(UniqueFd peer);
  void give_up_one_connection();
  void drop_peer(int peer);
  bool watch(int fd);

  std::string own_name_;
  std::string node_folder_;
  UniqueFd epoll_;
  UniqueFd reserve_;  // given up for a moment when no descriptor is left to accept with
  std::map<int, UniqueFd> peers_;
  std::deque<int> turns_;  // who has something to say in this round: one message each
  RefusalLog refusals_;
  RefusalLog shortage_;
  Outbox outbox_;
  InstanceFile instance_file_;
  ListeningSocket listener_;
};

}  // namespace zol_ipc
