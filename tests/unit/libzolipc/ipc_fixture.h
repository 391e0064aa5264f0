// A folder in the place of /run/zol, and endpoints that close themselves.
#pragma once

#include <gtest/gtest.h>
#include <sys/poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "ipc.h"
#include "libzolipc/ipc_internal.h"

namespace zol_test {

constexpr const char* node = "node-1";

class Socket {
 public:
  explicit Socket(const std::string& name) { result = start_socket(&fd, name.c_str(), node); }
  ~Socket() { close(); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  void close() { close_socket(std::exchange(fd, -1)); }
  // 0 on success, as send_msg.
  int send(const std::string& destination, std::string text) const {
    return send_msg(fd, destination.c_str(), text.data(), text.size());
  }
  // The next message; "" when none came within the time.
  std::string read(int timeout_ms = 0) const {
    static std::vector<char> buffer(ipc_max_message);
    const int size = read_msg(fd, buffer.data(), buffer.size(), timeout_ms);
    EXPECT_GE(size, 0);
    return {buffer.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
  }
  bool is_readable() const {
    pollfd state = {fd, POLLIN, 0};
    return ::poll(&state, 1, 0) == 1;
  }

  int fd = 7;
  int result;
};

class IpcTest : public testing::Test {
 protected:
  IpcTest() {
    std::string pattern = "/tmp/zol_ipc_XXXXXX";
    base = ::mkdtemp(pattern.data());
    zol_ipc::set_ipc_base_folder(base);
    set_ipc_sleep_time_us(1000);
  }
  ~IpcTest() override { std::filesystem::remove_all(base); }

  std::string node_folder() const { return base + "/" + node; }
  std::string socket_path(const std::string& name) const { return node_folder() + "/" + name; }

  // Connects without the library. Negative on failure.
  static int raw_connect(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
      return fd;
    ::close(fd);
    return -1;
  }

  // Runs `body` in a child process, whose exit status it gives; waits for it to end.
  template <typename Body>
  static int in_child(Body body) {
    const pid_t child = start_child(body);
    return wait_for(child);
  }
  template <typename Body>
  static pid_t start_child(Body body) {
    const pid_t child = ::fork();
    if (child == 0)
      ::_exit(body());
    return child;
  }
  static int wait_for(pid_t child) {
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string base;
};

}  // namespace zol_test
