// Real IPC endpoints of a node of the test's own.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "core/ipc_messages.h"

namespace zol_test {

// A node's folder, with its endpoints; both go with the object.
class TestNode {
 public:
  TestNode();
  ~TestNode();
  TestNode(const TestNode&) = delete;
  TestNode& operator=(const TestNode&) = delete;

  // Opens an endpoint; its descriptor.
  int open(const char* name);
  const std::string& folder() const { return folder_; }
  const std::string& id() const { return id_; }

 private:
  std::string id_;
  std::string folder_;
  std::vector<int> fds_;
};

using Bytes = std::vector<unsigned char>;

// The next message of an endpoint, empty when none is waiting.
Bytes receive(int fd);

// A message of that type and size, from "tester", zero behind its header.
Bytes make_message(unsigned short type, std::size_t size);

template <typename T>
T value_at(const Bytes& message, std::size_t offset) {
  T value;
  std::memcpy(&value, message.data() + offset, sizeof value);
  return value;
}

inline std::string text_at(const Bytes& message, std::size_t offset) {
  return reinterpret_cast<const char*>(message.data() + offset);
}

}  // namespace zol_test
