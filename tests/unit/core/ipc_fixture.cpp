#include "ipc_fixture.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

namespace zol_test {

TestNode::TestNode() : id_("unit-core-" + std::to_string(getpid())), folder_("/run/zol/" + id_) {}

TestNode::~TestNode() {
  for (const int fd : fds_)
    close_socket(fd);
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

int TestNode::open(const char* name) {
  int fd = -1;
  EXPECT_EQ(start_socket(&fd, name, id_.c_str()), 0);
  fds_.push_back(fd);
  return fd;
}

Bytes receive(int fd) {
  Bytes buffer(ipc_max_message);
  const int size = read_msg(fd, buffer.data(), buffer.size(), 0);
  buffer.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return buffer;
}

Bytes make_message(unsigned short type, std::size_t size) {
  Bytes message(std::max(size, sizeof(ipcmsg_t)));
  init_ipc_hdr(message.data(), type, "tester", "zol_monitor");
  message.resize(size);
  return message;
}

}  // namespace zol_test
