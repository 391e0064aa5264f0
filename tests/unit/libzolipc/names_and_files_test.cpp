// Starting and closing endpoints: names, folders, socket files and pid files.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <fstream>

#include "ipc_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using zol_test::node;
using zol_test::Socket;

class IpcFiles : public zol_test::IpcTest {
 protected:
  static unsigned mode_of(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & ALLPERMS;
  }
  std::string pid_file(const std::string& name = "zol_monitor") const {
    return base + "/instances/" + name + "-zol-1.0.0.pid";
  }
  static bool is_locked(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0) << path;
    const bool locked = ::flock(fd, LOCK_EX | LOCK_NB) != 0;
    ::close(fd);
    return locked;
  }
  // A socket file that nobody answers on.
  void leave_stale_file(const std::string& name) {
    ASSERT_EQ(in_child([&] {
                const Socket socket(name);
                ::_exit(socket.result);
                return 1;
              }),
              0);
    ASSERT_TRUE(std::filesystem::exists(socket_path(name)));
  }

  zol_test::LogCapture log;
};

// Verifies that the node's folder is 0700 and the socket file 0600, whatever the umask.
TEST_F(IpcFiles, Modes) {
  for (const mode_t mask : {0U, 022U, 077U}) {
    const mode_t old = ::umask(mask);
    const Socket socket("zol_monitor");
    ::umask(old);
    ASSERT_EQ(socket.result, 0) << log.all();
    EXPECT_EQ(mode_of(node_folder()), 0700U);
    EXPECT_EQ(mode_of(socket_path("zol_monitor")), 0600U);
  }
}

// Verifies that a folder that was open to others is closed to them.
TEST_F(IpcFiles, OpenFolderIsClosed) {
  ASSERT_EQ(::mkdir(node_folder().c_str(), 0755), 0);
  const Socket socket("zol_monitor");
  EXPECT_EQ(socket.result, 0);
  EXPECT_EQ(mode_of(node_folder()), 0700U);
}

// Verifies that a folder of another user, or a link in its place, is refused.
TEST_F(IpcFiles, ForeignFolder) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "needs root to give a folder away";
  ASSERT_EQ(::mkdir(node_folder().c_str(), 0700), 0);
  ASSERT_EQ(::chown(node_folder().c_str(), 65534, 65534), 0);
  EXPECT_NE(Socket("zol_monitor").result, 0);
  EXPECT_TRUE(log.contains(300, "belongs to uid 65534"));
  std::filesystem::remove(node_folder());
  std::filesystem::create_directory(base + "/elsewhere");
  std::filesystem::create_symlink(base + "/elsewhere", node_folder());
  EXPECT_NE(Socket("zol_monitor").result, 0);
}

// Verifies that names with 1 to 24 characters and no '/' are taken and all others refused, with fd -1.
TEST_F(IpcFiles, OwnNames) {
  EXPECT_EQ(Socket("a").result, 0);
  EXPECT_EQ(Socket(std::string(24, 'n')).result, 0);
  for (const std::string& bad : {std::string(), std::string(25, 'n'), std::string("a/b"), std::string("/"),
                                 std::string("."), std::string("..")}) {
    const Socket socket(bad);
    EXPECT_NE(socket.result, 0) << bad;
    EXPECT_EQ(socket.fd, -1) << bad;
  }
  EXPECT_TRUE(log.contains(300, "start_socket: bad name \"a/b\""));
}

// Verifies that a node id or a version that isn't one part of a path is refused.
TEST_F(IpcFiles, NodeIdAndVersion) {
  for (const char* bad : {"", "..", "a/b", static_cast<const char*>(nullptr)}) {
    int fd = 7;
    EXPECT_NE(start_socket(&fd, "zol_monitor", bad), 0);
    EXPECT_EQ(fd, -1);
    fd = 7;
    EXPECT_NE(start_socket_zol(&fd, node, "zol_monitor", bad), 0);
    EXPECT_EQ(fd, -1);
  }
  int fd = 7;
  EXPECT_NE(start_socket(&fd, nullptr, node), 0);
  EXPECT_EQ(fd, -1);
}

// Verifies that a path that doesn't fit a socket address fails with a clear line.
TEST_F(IpcFiles, PathTooLong) {
  zol_ipc::set_ipc_base_folder(base + "/" + std::string(100, 'x'));
  EXPECT_NE(Socket("zol_monitor").result, 0);
  EXPECT_TRUE(log.contains(300, "File name too long"));
}

// Verifies that a socket file that nobody answers on is taken over.
TEST_F(IpcFiles, StaleFileIsTakenOver) {
  leave_stale_file("zol_monitor");
  const Socket socket("zol_monitor");
  ASSERT_EQ(socket.result, 0) << log.all();
  EXPECT_EQ(socket.send("zol_monitor", "to myself"), 0);
  EXPECT_EQ(socket.read(), "to myself");
  EXPECT_TRUE(log.contains(600, "took over the stale socket"));
}

// Verifies that a name that a process answers on can't be started again, and that its owner goes on.
TEST_F(IpcFiles, LiveOneFails) {
  const Socket owner("zol_monitor");
  const Socket second("zol_monitor");
  EXPECT_NE(second.result, 0);
  EXPECT_EQ(second.fd, -1);
  EXPECT_TRUE(log.contains(300, "another process answers on " + socket_path("zol_monitor")));
  const Socket sender("watchdog");
  EXPECT_EQ(sender.send("zol_monitor", "still here"), 0);
  EXPECT_EQ(owner.read(), "still here");
}

// Verifies that a file that is no socket stays and makes the call fail.
TEST_F(IpcFiles, OtherFileStays) {
  std::filesystem::create_directory(node_folder());
  std::ofstream(socket_path("zol_monitor")) << "precious";
  EXPECT_NE(Socket("zol_monitor").result, 0);
  EXPECT_TRUE(std::filesystem::is_regular_file(socket_path("zol_monitor")));
  EXPECT_TRUE(log.contains(300, "not a socket"));
}

// Verifies that closing removes the socket file and that -1 and unknown descriptors are allowed.
TEST_F(IpcFiles, CloseRemovesTheFile) {
  Socket socket("zol_monitor");
  const int fd = socket.fd;
  socket.close();
  EXPECT_FALSE(std::filesystem::exists(socket_path("zol_monitor")));
  EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
  close_socket(-1);
  close_socket(fd);
}

// Verifies that closing leaves a file alone that another process has put in its place.
TEST_F(IpcFiles, CloseLeavesAnotherOnesFile) {
  Socket socket("zol_monitor");
  std::filesystem::remove(socket_path("zol_monitor"));
  const Socket successor("zol_monitor");
  ASSERT_EQ(successor.result, 0);
  socket.close();
  EXPECT_TRUE(std::filesystem::exists(socket_path("zol_monitor")));
}

// Verifies that a forked child that closes its copy takes nothing from its parent.
TEST_F(IpcFiles, CloseInAChild) {
  int fd = -1;
  ASSERT_EQ(start_socket_zol(&fd, node, "zol_monitor", "zol-1.0.0"), 0);
  ASSERT_EQ(in_child([fd] {
              close_socket(fd);
              return 0;
            }),
            0);
  EXPECT_TRUE(std::filesystem::exists(socket_path("zol_monitor")));
  EXPECT_TRUE(is_locked(pid_file()));
  close_socket(fd);
}

// Verifies that a descriptor that was closed behind the library's back and is used again belongs to the new
// one.
TEST_F(IpcFiles, DescriptorUsedAgain) {
  const Socket reader("reader");
  // Two lower numbers to be free later, for what the new endpoint opens before its epoll set.
  const int lower = ::dup(reader.fd);
  const int low = ::dup(reader.fd);
  int abandoned = -1;
  ASSERT_EQ(start_socket(&abandoned, "abandoned", node), 0);
  ::close(abandoned);
  ::close(low);
  ::close(lower);
  const Socket successor("successor");
  ASSERT_EQ(successor.fd, abandoned) << "the test needs the number to come back";
  EXPECT_EQ(reader.send("successor", "x"), 0);
  EXPECT_EQ(successor.read(), "x");
  EXPECT_FALSE(std::filesystem::exists(socket_path("abandoned")));
}

// Verifies that the pid file holds the process id, is locked while the endpoint is open, and goes with it.
TEST_F(IpcFiles, PidFile) {
  int fd = -1;
  ASSERT_EQ(start_socket_zol(&fd, node, "zol_monitor", "zol-1.0.0"), 0) << log.all();
  std::string line;
  std::ifstream file(pid_file());
  ASSERT_TRUE(std::getline(file, line));
  EXPECT_EQ(line, std::to_string(::getpid()));
  EXPECT_TRUE(is_locked(pid_file()));
  close_socket(fd);
  EXPECT_FALSE(std::filesystem::exists(pid_file()));
}

// Verifies that the plain form writes no pid file.
TEST_F(IpcFiles, NoPidFile) {
  const Socket socket("zol_monitor");
  EXPECT_FALSE(std::filesystem::exists(base + "/instances"));
}

// Verifies that a process that dies leaves an unlocked pid file, which the next one takes.
TEST_F(IpcFiles, PidFileAfterACrash) {
  ASSERT_EQ(in_child([] {
              int fd = -1;
              return start_socket_zol(&fd, node, "zol_monitor", "zol-1.0.0");
            }),
            0);
  ASSERT_TRUE(std::filesystem::exists(pid_file()));
  EXPECT_FALSE(is_locked(pid_file()));
  int fd = -1;
  ASSERT_EQ(start_socket_zol(&fd, node, "zol_monitor", "zol-1.0.0"), 0) << log.all();
  EXPECT_TRUE(is_locked(pid_file()));
  close_socket(fd);
}

// Verifies that two nodes on one machine share the pid file of a version until the last one ends.
TEST_F(IpcFiles, PidFileOfTwoNodes) {
  int one = -1;
  int two = -1;
  ASSERT_EQ(start_socket_zol(&one, "node-1", "zol_monitor", "zol-1.0.0"), 0);
  ASSERT_EQ(start_socket_zol(&two, "node-2", "zol_monitor", "zol-1.0.0"), 0) << log.all();
  close_socket(one);
  EXPECT_TRUE(is_locked(pid_file()));
  close_socket(two);
  EXPECT_FALSE(std::filesystem::exists(pid_file()));
}

// Verifies that without a pid file the versioned form fails and leaves no socket behind.
TEST_F(IpcFiles, PidFileFails) {
  std::ofstream(base + "/instances") << "in the way";
  int fd = 7;
  EXPECT_NE(start_socket_zol(&fd, node, "zol_monitor", "zol-1.0.0"), 0);
  EXPECT_EQ(fd, -1);
  EXPECT_FALSE(std::filesystem::exists(socket_path("zol_monitor")));
  EXPECT_TRUE(log.contains(300, "start_socket_zol: couldn't hold the pid file " + pid_file()));
}

// Verifies that no descriptor of an endpoint survives an exec.
TEST_F(IpcFiles, CloseOnExec) {
  const auto survivors = [] {
    int count = 0;
    for (int fd = 0; fd < 256; ++fd) {
      const int flags = ::fcntl(fd, F_GETFD);
      count += flags >= 0 && (flags & FD_CLOEXEC) == 0 ? 1 : 0;
    }
    return count;
  };
  const int before = survivors();
  int fd = -1;
  ASSERT_EQ(start_socket_zol(&fd, node, "zol_monitor", "zol-1.0.0"), 0);
  char text[] = "x";
  ASSERT_EQ(send_msg(fd, "zol_monitor", text, 1), 0);
  ASSERT_EQ(read_msg(fd, text, 1, 0), 1);
  EXPECT_EQ(survivors(), before);
  close_socket(fd);
}

}  // namespace
