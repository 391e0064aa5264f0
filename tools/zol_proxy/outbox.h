// Sends IPC records in order, and holds back what the receiver couldn't take yet.
//
// A send that fails has sent nothing: the record goes to a queue, and a timer tries again until the receiver
// takes it. So nothing is lost while the receiver is slow, restarting or not yet there.
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "ipc.h"
#include "zol_proxy/event_handles.h"

namespace standin {

class Outbox {
 public:
  // `fd` is the endpoint of libzolipc, not owned.
  Outbox(event_base* base, int fd, std::string source, std::string destination);

  template <typename Record>
  void send(Record record, unsigned short type) {
    init_ipc_hdr(&record, type, source_.c_str(), destination_.c_str());
    const char* bytes = reinterpret_cast<const char*>(&record);
    push(std::vector<char>(bytes, bytes + sizeof record));
  }

  std::size_t waiting() const { return queue_.size(); }

 private:
  void push(std::vector<char> message);
  void flush();

  int fd_;
  std::string source_;
  std::string destination_;
  std::deque<std::vector<char>> queue_;
  Event retry_;
};

}  // namespace standin
