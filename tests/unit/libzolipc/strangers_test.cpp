// Who may speak: root and the endpoint's own user.
#include <grp.h>
#include <sys/stat.h>
#include <sys/time.h>

#include "ipc_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using zol_test::node;
using zol_test::Socket;

constexpr uid_t stranger = 65534;
constexpr uid_t another = 65533;

bool become(uid_t uid) {
  return ::setgroups(0, nullptr) == 0 && ::setgid(uid) == 0 && ::setuid(uid) == 0;
}

class IpcStrangers : public zol_test::IpcTest {
 protected:
  void SetUp() override {
    if (::geteuid() != 0)
      GTEST_SKIP() << "needs root to become other users";
    ASSERT_EQ(::chmod(base.c_str(), 0755), 0);
  }
  // Takes away what the file modes guard, so that the credentials alone decide.
  void open_files(const std::string& name) const {
    ASSERT_EQ(::chmod(node_folder().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(socket_path(name).c_str(), 0666), 0);
  }
  // What a process of that user sees that connects and sends: 0 when its connection is still open afterwards.
  static int speak_as(uid_t uid, const std::string& path, const std::string& text) {
    if (!become(uid))
      return 2;
    const int fd = raw_connect(path);
    if (fd < 0)
      return 3;
    ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    return 0;
  }

  zol_test::LogCapture log;
};

// Verifies that the file modes alone keep another user from connecting.
TEST_F(IpcStrangers, ModesKeepOthersOut) {
  const Socket reader("zol_monitor");
  const std::string path = socket_path("zol_monitor");
  EXPECT_EQ(in_child([&] { return speak_as(stranger, path, "hello"); }), 3);
  EXPECT_FALSE(reader.is_readable());
}

// Verifies that a stranger that gets as far as connecting is closed unheard, while root is heard.
TEST_F(IpcStrangers, StrangerIsNotHeard) {
  const Socket reader("zol_monitor");
  open_files("zol_monitor");
  const std::string path = socket_path("zol_monitor");
  ASSERT_EQ(in_child([&] { return speak_as(stranger, path, "evil"); }), 0);
  const Socket root("watchdog");
  ASSERT_EQ(root.send("zol_monitor", "good"), 0);
  EXPECT_EQ(reader.read(), "good");
  EXPECT_EQ(reader.read(), "");
  EXPECT_FALSE(reader.is_readable());
  EXPECT_TRUE(log.contains(400, "read_msg: refused a connection from uid 65534"));
}

// Verifies that a stranger that waits sees its connection closed.
TEST_F(IpcStrangers, StrangerIsClosed) {
  const Socket reader("zol_monitor");
  open_files("zol_monitor");
  const std::string path = socket_path("zol_monitor");
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = start_child([&] {
    if (!become(stranger))
      return 2;
    const int fd = raw_connect(path);
    const timeval patience = {60, 0};
    char byte = 'x';
    if (fd < 0 || ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)) != 0 ||
        ::write(ready[1], &byte, 1) != 1)
      return 3;
    return ::recv(fd, &byte, 1, 0) == 0 ? 0 : 4;
  });
  char byte;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_EQ(reader.read(), "");
  EXPECT_EQ(wait_for(child), 0);
  ::close(ready[0]);
  ::close(ready[1]);
}

// Verifies that many strangers cost one line in a minute.
TEST_F(IpcStrangers, OneLineAMinute) {
  const Socket reader("zol_monitor");
  open_files("zol_monitor");
  const std::string path = socket_path("zol_monitor");
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(in_child([&] { return speak_as(stranger, path, "evil"); }), 0);
    EXPECT_EQ(reader.read(), "");
  }
  EXPECT_EQ(log.count("refused a connection"), 1);
}

// Verifies that an endpoint of an ordinary user hears that user and root, and no other.
TEST_F(IpcStrangers, OwnUserAndRoot) {
  ASSERT_EQ(::mkdir(node_folder().c_str(), 0700), 0);
  ASSERT_EQ(::chown(node_folder().c_str(), stranger, stranger), 0);
  const std::string path = socket_path("zol_monitor");
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  int go[2];
  ASSERT_EQ(::pipe(go), 0);
  const pid_t owner = start_child([&] {
    if (!become(stranger))
      return 2;
    const Socket reader("zol_monitor");
    if (reader.result != 0)
      return 3;
    ::chmod(node_folder().c_str(), 0755);
    ::chmod(path.c_str(), 0666);
    char byte = 'x';
    if (::write(ready[1], &byte, 1) != 1 || ::read(go[0], &byte, 1) != 1)
      return 4;
    const std::string first = reader.read();
    const std::string second = reader.read();
    return first + second == "ownroot" && reader.read().empty() ? 0 : 5;
  });
  char byte;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_EQ(in_child([&] { return speak_as(another, path, "evil"); }), 0);
  EXPECT_EQ(in_child([&] { return speak_as(stranger, path, "own"); }), 0);
  EXPECT_EQ(in_child([&] { return speak_as(0, path, "root"); }), 0);
  ASSERT_EQ(::write(go[1], &byte, 1), 1);
  EXPECT_EQ(wait_for(owner), 0);
  for (const int fd : {ready[0], ready[1], go[0], go[1]})
    ::close(fd);
}

// Verifies that an ordinary user's messages are as large as the system's buffers allow, and no part of a
// larger one goes out.
TEST_F(IpcStrangers, OrdinaryUserSends) {
  ASSERT_EQ(::mkdir(node_folder().c_str(), 0700), 0);
  ASSERT_EQ(::chown(node_folder().c_str(), stranger, stranger), 0);
  EXPECT_EQ(in_child([&] {
              if (!become(stranger))
                return 2;
              const Socket reader("zol_monitor");
              const Socket sender("wanproxy");
              const std::string text(100'000, 'x');
              if (sender.send("zol_monitor", text) != 0 || reader.read() != text)
                return 3;
              const std::string large(ipc_max_message, 'x');
              const int result = sender.send("zol_monitor", large);
              return reader.read() == (result == 0 ? large : "") ? 0 : 4;
            }),
            0);
}

}  // namespace
