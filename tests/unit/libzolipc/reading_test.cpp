// The receiving side: boundaries, order, turns, sizes, time-outs, peers that go away.
#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "ipc_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using zol_test::Socket;

class IpcReading : public zol_test::IpcTest {
 protected:
  zol_test::LogCapture log;
  const Socket reader{"zol_monitor"};
};

// Verifies that messages come one at a time, in order, neither joined nor split.
TEST_F(IpcReading, BoundariesAndOrder) {
  const Socket sender("wanproxy");
  const std::vector<std::string> sent = {"a", "bb", std::string(65536, 'c'), "d", std::string("\0e\0", 3)};
  for (const std::string& text : sent)
    ASSERT_EQ(sender.send("zol_monitor", text), 0) << log.all();
  for (const std::string& text : sent)
    EXPECT_EQ(reader.read(), text);
  EXPECT_EQ(reader.read(), "");
}

// Verifies that a message of the largest size arrives whole.
TEST_F(IpcReading, LargestMessage) {
  const Socket sender("wanproxy");
  std::string text(ipc_max_message, '\0');
  for (std::size_t i = 0; i < text.size(); ++i)
    text[i] = static_cast<char>(i * 31 / 7);
  ASSERT_EQ(sender.send("zol_monitor", text), 0) << log.all();
  EXPECT_TRUE(reader.read() == text);
}

// Verifies that the descriptor is readable exactly while a connection or a message waits.
TEST_F(IpcReading, ReadableWhileSomethingWaits) {
  EXPECT_FALSE(reader.is_readable());
  const Socket sender("wanproxy");
  ASSERT_EQ(sender.send("zol_monitor", "one"), 0);
  ASSERT_EQ(sender.send("zol_monitor", "two"), 0);
  EXPECT_TRUE(reader.is_readable());
  EXPECT_EQ(reader.read(), "one");
  EXPECT_TRUE(reader.is_readable());
  EXPECT_EQ(reader.read(), "two");
  EXPECT_EQ(reader.read(), "");
  EXPECT_FALSE(reader.is_readable());
}

// Verifies that a message longer than the buffer is dropped with one error line and the next one is read.
TEST_F(IpcReading, OversizeIsDropped) {
  const Socket sender("wanproxy");
  ASSERT_EQ(sender.send("zol_monitor", std::string(101, 'x')), 0);
  ASSERT_EQ(sender.send("zol_monitor", std::string(100, 'y')), 0);
  std::string text(100, '\0');
  EXPECT_EQ(read_msg(reader.fd, text.data(), text.size(), 0), 100);
  EXPECT_EQ(text, std::string(100, 'y'));
  EXPECT_EQ(log.count("read_msg: dropped a message of 101 bytes from pid " + std::to_string(::getpid())), 1);
  EXPECT_EQ(read_msg(reader.fd, text.data(), text.size(), 0), 0);
}

// Verifies that one who sends much doesn't keep another waiting: each gets one message a round.
TEST_F(IpcReading, SendersTakeTurns) {
  const Socket busy("busy");
  const Socket quiet("quiet");
  const Socket third("third");
  for (int i = 0; i < 500; ++i)
    ASSERT_EQ(busy.send("zol_monitor", "busy"), 0);
  ASSERT_EQ(reader.read(), "busy") << "the busy one is in the midst of its messages";
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(quiet.send("zol_monitor", "quiet"), 0);
    ASSERT_EQ(third.send("zol_monitor", "third"), 0);
  }
  std::string order;
  for (int i = 0; i < 9; ++i)
    order += reader.read()[0];
  const std::string between = order.substr(order.find('q'), order.rfind('q') - order.find('q'));
  EXPECT_EQ(std::count(order.begin(), order.end(), 'q'), 2) << order;
  EXPECT_EQ(std::count(order.begin(), order.end(), 't'), 2) << order;
  EXPECT_EQ(std::count(between.begin(), between.end(), 't'), 1) << "one after the other: " << order;
  EXPECT_EQ(std::count(between.begin(), between.end(), 'b'), 1) << "one after the other: " << order;
}

// Verifies that no sender is left out when there are more than fit one look at the epoll set.
TEST_F(IpcReading, ManySenders) {
  constexpr int senders = 150;
  std::vector<std::unique_ptr<Socket>> sockets;
  for (int i = 0; i < senders; ++i) {
    sockets.push_back(std::make_unique<Socket>("s" + std::to_string(i)));
    for (int j = 0; j < 3; ++j)
      ASSERT_EQ(sockets.back()->send("zol_monitor", std::to_string(i)), 0);
  }
  std::vector<int> got(senders);
  for (int i = 0; i < senders * 3; ++i)
    ++got[static_cast<std::size_t>(std::stoi(reader.read()))];
  EXPECT_EQ(got, std::vector<int>(senders, 3));
  EXPECT_EQ(reader.read(), "");
}

// Verifies that what a peer sent before it went away is read, and that it leaves nothing readable behind.
TEST_F(IpcReading, HungUpPeer) {
  {
    const Socket sender("wanproxy");
    for (const char* text : {"one", "two", "three"})
      ASSERT_EQ(sender.send("zol_monitor", text), 0);
  }
  for (const char* text : {"one", "two", "three"})
    EXPECT_EQ(reader.read(), text);
  EXPECT_EQ(reader.read(), "");
  EXPECT_FALSE(reader.is_readable());
}

// Verifies that a connection's reset isn't taken for its end: what the peer sent before is read.
TEST_F(IpcReading, ResetPeer) {
  const int peer = raw_connect(socket_path("zol_monitor"));
  ASSERT_EQ(::send(peer, "one", 3, 0), 3);
  const int accepted = ::dup(0);  // the lowest free number, which the accepted connection gets
  ::close(accepted);
  ASSERT_EQ(reader.read(), "one");
  // A peer that goes away with something unread resets the connection.
  ASSERT_EQ(::send(accepted, "unread", 6, MSG_NOSIGNAL), 6);
  ASSERT_EQ(::send(peer, "two", 3, 0), 3);
  ::close(peer);
  EXPECT_EQ(reader.read(), "two");
  EXPECT_EQ(reader.read(), "");
  EXPECT_FALSE(reader.is_readable());
}

// Verifies that a peer that connects and goes away without a word leaves nothing readable behind.
TEST_F(IpcReading, SilentPeer) {
  ::close(raw_connect(socket_path("zol_monitor")));
  EXPECT_TRUE(reader.is_readable());
  EXPECT_EQ(reader.read(), "");
  EXPECT_FALSE(reader.is_readable());
}

// Verifies that an empty message is passed over and isn't taken for the end of its connection.
TEST_F(IpcReading, EmptyMessage) {
  const int peer = raw_connect(socket_path("zol_monitor"));
  ASSERT_EQ(::send(peer, "", 0, 0), 0);
  EXPECT_EQ(reader.read(), "");
  ASSERT_EQ(::send(peer, "alive", 5, MSG_NOSIGNAL), 5);
  EXPECT_EQ(reader.read(), "alive");
  ASSERT_EQ(::send(peer, "", 0, MSG_NOSIGNAL), 0);
  ASSERT_EQ(::send(peer, "last", 4, MSG_NOSIGNAL), 4);
  ::close(peer);
  EXPECT_EQ(reader.read(), "last");
  EXPECT_EQ(reader.read(), "");
  EXPECT_FALSE(reader.is_readable());
}

// Verifies that a zero-size buffer drops a message and doesn't close its connection.
TEST_F(IpcReading, NoCapacity) {
  const Socket sender("wanproxy");
  ASSERT_EQ(sender.send("zol_monitor", "one"), 0);
  char none;
  EXPECT_EQ(read_msg(reader.fd, &none, 0, 0), 0);
  ASSERT_EQ(sender.send("zol_monitor", "two"), 0);
  EXPECT_EQ(reader.read(), "two");
}

// Verifies that a read waits for its time and then gives 0.
TEST_F(IpcReading, TimesOut) {
  const auto start = std::chrono::steady_clock::now();
  char text[8];
  EXPECT_EQ(read_msg(reader.fd, text, sizeof(text), 30), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
}

// Verifies that a waiting read, limited or for ever, wakes for a message, and a bare connection doesn't end
// it.
TEST_F(IpcReading, WaitsForAMessage) {
  for (const int timeout_ms : {600'000, -1}) {
    const std::string path = socket_path("zol_monitor");
    const pid_t child = start_child([path] {
      ::close(raw_connect(path));
      const Socket sender("child");
      return sender.send("zol_monitor", "hello");
    });
    EXPECT_EQ(reader.read(timeout_ms), "hello");
    EXPECT_EQ(wait_for(child), 0);
  }
}

// Verifies that a descriptor that is no endpoint's fails.
TEST_F(IpcReading, UnknownDescriptor) {
  char text[8];
  EXPECT_LT(read_msg(-1, text, sizeof(text), 0), 0);
  EXPECT_LT(read_msg(0, text, sizeof(text), 0), 0);
  EXPECT_LT(read_msg(reader.fd, nullptr, 8, 0), 0);
}

// Verifies that an endpoint whose listening socket has failed says so with a negative result.
TEST_F(IpcReading, FailedEndpoint) {
  int fd = -1;
  ASSERT_EQ(start_socket(&fd, "failing", zol_test::node), 0);
  ::close(fd);  // the library's own descriptor is gone
  char text[8];
  EXPECT_LT(read_msg(fd, text, sizeof(text), 0), 0);
  EXPECT_TRUE(log.contains(300, "read_msg: the endpoint failing has failed"));
  const int filler = ::open("/dev/null", 0);
  close_socket(fd);
  if (filler != fd)
    ::close(filler);
}

// Verifies that without a descriptor to accept with, a sender is turned away, the endpoint doesn't stay
// readable, and later senders are let in.
TEST_F(IpcReading, NoDescriptorsLeft) {
  const Socket sender("wanproxy");
  const Socket other("other");
  ASSERT_EQ(sender.send("zol_monitor", "lost"), 0);
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
  const int lowest_free = ::dup(0);
  ::close(lowest_free);
  const rlimit tight = {static_cast<rlim_t>(lowest_free), old.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
  const std::string got = reader.read();
  const bool readable = reader.is_readable();
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
  EXPECT_EQ(got, "");
  EXPECT_FALSE(readable);
  EXPECT_TRUE(log.contains(400, "a peer that no descriptor is left for"));
  EXPECT_EQ(sender.send("zol_monitor", "again"), 0);
  EXPECT_EQ(other.send("zol_monitor", "other"), 0);
  EXPECT_EQ(reader.read(), "again");
  EXPECT_EQ(reader.read(), "other");
}

}  // namespace
