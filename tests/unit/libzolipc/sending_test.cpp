// The sending side: kept connections, peers that restart, full queues.
#include <fcntl.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>

#include "ipc_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using zol_test::node;
using zol_test::Socket;
using Clock = std::chrono::steady_clock;

// The pauses of the library, which go through nanosleep(2) below.
std::vector<std::int64_t> pauses_ns;
std::function<void()> at_pause;

class IpcSending : public zol_test::IpcTest {
 protected:
  IpcSending() { pauses_ns.clear(); }
  ~IpcSending() override { at_pause = nullptr; }

  static unsigned open_descriptors() {
    unsigned count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
      ++count;
    return count;
  }
  // Sends until the queue is full; how many were taken.
  static int fill(const Socket& sender) {
    int taken = 0;
    while (sender.send("zol_monitor", std::to_string(taken)) == 0)
      ++taken;
    return taken;
  }

  zol_test::LogCapture log;
  const Socket sender{"wanproxy"};
};

// Verifies that a connection is made once for each destination and kept.
TEST_F(IpcSending, ConnectionIsKept) {
  const Socket one("one");
  const Socket two("two");
  const unsigned before = open_descriptors();
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(sender.send("one", "x"), 0);
    ASSERT_EQ(sender.send("two", "x"), 0);
  }
  EXPECT_EQ(open_descriptors(), before + 2);
}

// Verifies that nobody under a name makes the call fail, and is logged as a warning once until it answers.
TEST_F(IpcSending, NobodyThere) {
  for (int i = 0; i < 3; ++i)
    EXPECT_NE(sender.send("zol_monitor", "x"), 0);
  const auto warnings = [this] {
    int count = 0;
    for (const zol_test::LogRecord& record : log.records())
      count += record.level == 400 ? 1 : 0;
    return count;
  };
  EXPECT_TRUE(log.contains(400, "send_msg: couldn't send to " + socket_path("zol_monitor")));
  EXPECT_EQ(warnings(), 1);
  {
    const Socket reader("zol_monitor");
    EXPECT_EQ(sender.send("zol_monitor", "x"), 0);
    EXPECT_TRUE(log.contains(600, "answers again"));
  }
  EXPECT_NE(sender.send("zol_monitor", "x"), 0);
  EXPECT_EQ(warnings(), 2);
}

// Verifies that a peer that has restarted gets the next message over a new connection.
TEST_F(IpcSending, PeerRestarts) {
  for (int i = 0; i < 3; ++i) {
    const Socket reader("zol_monitor");
    EXPECT_EQ(sender.send("zol_monitor", "run " + std::to_string(i)), 0);
    EXPECT_EQ(reader.read(), "run " + std::to_string(i));
  }
}

// Verifies the same when the old process hadn't read or even accepted what was sent before.
TEST_F(IpcSending, PeerRestartsUnread) {
  for (const bool accept_first : {false, true}) {
    {
      const Socket reader("zol_monitor");
      ASSERT_EQ(sender.send("zol_monitor", "first"), 0);
      ASSERT_EQ(sender.send("zol_monitor", "never read"), 0);
      if (accept_first) {
        ASSERT_EQ(reader.read(), "first");
      }
    }
    const Socket reader("zol_monitor");
    EXPECT_EQ(sender.send("zol_monitor", "new"), 0);
    EXPECT_EQ(reader.read(), "new");
  }
}

// Verifies that a peer that has gone for good makes the call fail without a signal.
TEST_F(IpcSending, PeerGone) {
  {
    const Socket reader("zol_monitor");
    ASSERT_EQ(sender.send("zol_monitor", "x"), 0);
  }
  EXPECT_NE(sender.send("zol_monitor", "x"), 0);
}

// Verifies that a process can send to itself.
TEST_F(IpcSending, ToItself) {
  EXPECT_EQ(sender.send("wanproxy", "note"), 0);
  EXPECT_EQ(sender.read(), "note");
}

// Verifies that messages that can't be sent are refused: no size, too large, bad names, bad descriptors.
TEST_F(IpcSending, BadArguments) {
  const Socket reader("zol_monitor");
  std::string text(ipc_max_message + 1, 'x');
  EXPECT_NE(sender.send("zol_monitor", ""), 0);
  EXPECT_NE(sender.send("zol_monitor", text), 0);
  EXPECT_NE(send_msg(sender.fd, "zol_monitor", nullptr, 5), 0);
  EXPECT_NE(send_msg(sender.fd, nullptr, text.data(), 5), 0);
  for (const std::string& bad : {std::string(), std::string(25, 'n'), std::string("../node-1/zol_monitor"),
                                 std::string("."), std::string("..")})
    EXPECT_NE(sender.send(bad, "x"), 0) << bad;
  EXPECT_NE(send_msg(-1, "zol_monitor", text.data(), 5), 0);
  EXPECT_NE(send_msg(0, "zol_monitor", text.data(), 5), 0);
  EXPECT_EQ(reader.read(), "");
}

// Verifies that send_msg_dir reaches a socket of another folder, and that a missing folder is refused.
TEST_F(IpcSending, OtherFolder) {
  int other = -1;
  ASSERT_EQ(start_socket(&other, "watchdog", "node-2"), 0);
  char text[] = "over";
  EXPECT_EQ(send_msg_dir(sender.fd, "watchdog", text, 4, (base + "/node-2").c_str()), 0);
  char got[8];
  EXPECT_EQ(read_msg(other, got, sizeof(got), 0), 4);
  EXPECT_NE(send_msg_dir(sender.fd, "watchdog", text, 4, (base + "/node-3").c_str()), 0);
  EXPECT_NE(send_msg_dir(sender.fd, "watchdog", text, 4, ""), 0);
  EXPECT_NE(send_msg_dir(sender.fd, "watchdog", text, 4, nullptr), 0);
  EXPECT_NE(send_msg_dir(-1, "watchdog", text, 4, (base + "/node-2").c_str()), 0);
  close_socket(other);
}

// Verifies that dispatch_msg sends a header and nothing else.
TEST_F(IpcSending, DispatchMsg) {
  const Socket reader("watchdog");
  ASSERT_EQ(dispatch_msg(1, sender.fd, "zol_monitor", "watchdog"), 0);
  const std::string text = reader.read();
  ASSERT_EQ(text.size(), sizeof(ipcmsg_t));
  ipcmsg_t expected;
  init_ipc_hdr(&expected, 1, "zol_monitor", "watchdog");
  EXPECT_EQ(std::memcmp(text.data(), &expected, sizeof(expected)), 0);
  EXPECT_NE(dispatch_msg(1, -1, "zol_monitor", "watchdog"), 0);
}

// Verifies that a full queue gives a non-zero result and that exactly the messages with a zero one arrive.
TEST_F(IpcSending, FullQueueLosesNothing) {
  const Socket reader("zol_monitor");
  for (const int pause_us : {-1, 0, 1000}) {
    set_ipc_sleep_time_us(pause_us);
    const int taken = fill(sender);
    EXPECT_GT(taken, 100);
    for (int i = 0; i < taken; ++i)
      ASSERT_EQ(reader.read(), std::to_string(i)) << pause_us;
    EXPECT_EQ(reader.read(), "");
  }
}

// Verifies that a full queue is waited for in pauses of the time given, and for 100 ms in all.
TEST_F(IpcSending, FullQueueIsWaitedFor) {
  const Socket reader("zol_monitor");
  set_ipc_sleep_time_us(0);
  fill(sender);
  set_ipc_sleep_time_us(5000);
  pauses_ns.clear();
  const auto start = Clock::now();
  EXPECT_NE(sender.send("zol_monitor", "x"), 0);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(100));
  ASSERT_GE(pauses_ns.size(), 2U);
  EXPECT_LE(pauses_ns.size(), 21U);
  for (std::size_t i = 0; i + 1 < pauses_ns.size(); ++i)
    EXPECT_EQ(pauses_ns[i], 5'000'000);
}

// Verifies that a pause that is longer than the whole wait is cut to it.
TEST_F(IpcSending, LongPauseIsCut) {
  const Socket reader("zol_monitor");
  set_ipc_sleep_time_us(0);
  fill(sender);
  set_ipc_sleep_time_us(2'000'000'000);
  EXPECT_NE(sender.send("zol_monitor", "x"), 0);
  ASSERT_EQ(pauses_ns.size(), 1U);
  EXPECT_EQ(pauses_ns[0], 100'000'000);
}

// Verifies that 0 and -1 mean no pause and no second try.
TEST_F(IpcSending, NoSecondTry) {
  const Socket reader("zol_monitor");
  for (const int pause_us : {0, -1}) {
    set_ipc_sleep_time_us(pause_us);
    fill(sender);
    EXPECT_NE(sender.send("zol_monitor", "x"), 0);
  }
  EXPECT_TRUE(pauses_ns.empty());
}

// Verifies that a message that met a full queue goes out at the try after the reader has made room.
TEST_F(IpcSending, RoomDuringThePause) {
  const Socket reader("zol_monitor");
  set_ipc_sleep_time_us(0);
  const int taken = fill(sender);
  set_ipc_sleep_time_us(100);
  at_pause = [&] {
    for (int i = 0; i < taken; ++i)
      ASSERT_EQ(reader.read(), std::to_string(i));
  };
  EXPECT_EQ(sender.send("zol_monitor", "patient"), 0);
  EXPECT_EQ(pauses_ns, std::vector<std::int64_t>{100'000});
  EXPECT_EQ(reader.read(), "patient");
}

// Verifies that a peer that restarts while its full queue is waited for gets the message.
TEST_F(IpcSending, RestartDuringThePause) {
  auto old_one = std::make_unique<Socket>("zol_monitor");
  set_ipc_sleep_time_us(0);
  fill(sender);
  set_ipc_sleep_time_us(100);
  std::unique_ptr<Socket> new_one;
  at_pause = [&] {
    old_one.reset();
    new_one = std::make_unique<Socket>("zol_monitor");
  };
  EXPECT_EQ(sender.send("zol_monitor", "patient"), 0);
  ASSERT_NE(new_one, nullptr);
  EXPECT_EQ(new_one->read(), "patient");
}

constexpr int burst = 100'000;
constexpr std::size_t record_size = 620;

std::string make_record(int number) {
  std::string record(record_size, static_cast<char>('a' + number % 26));
  std::memcpy(record.data(), &number, sizeof(number));
  return record;
}

// Sends the burst, each message until it is taken, and writes a byte to `refusals` for each that wasn't.
int send_burst(int refusals) {
  const Socket socket("wanproxy_burst");
  for (int i = 0; i < burst; ++i) {
    while (socket.send("zol_monitor", make_record(i)) != 0) {
      if (::write(refusals, "x", 1) != 1)
        return 1;
    }
  }
  return 0;
}

// Verifies that 100,000 records arrive whole and in order from a sender that repeats, though the receiver is
// busy for two seconds: for twenty waits of the sender, of 100 ms each.
TEST_F(IpcSending, BurstToABusyReceiver) {
  const Socket reader("zol_monitor");
  int refusals[2];
  ASSERT_EQ(::pipe2(refusals, O_CLOEXEC), 0);
  const pid_t child = start_child([&] { return send_burst(refusals[1]); });
  ::close(refusals[1]);
  for (int i = 0; i < 20; ++i) {
    char refused;
    ASSERT_EQ(::read(refusals[0], &refused, 1), 1) << "the sender ended without being turned away";
  }
  std::vector<char> buffer(ipc_max_message);
  for (int i = 0; i < burst; ++i) {
    ASSERT_EQ(read_msg(reader.fd, buffer.data(), buffer.size(), 60'000), static_cast<int>(record_size)) << i;
    ASSERT_EQ(std::string(buffer.data(), record_size), make_record(i)) << i;
  }
  EXPECT_EQ(wait_for(child), 0);
  EXPECT_EQ(reader.read(), "");
  ::close(refusals[0]);
}

}  // namespace

// Stands before the C library's, so that tests see the pauses and act in them.
extern "C" int nanosleep(const timespec* time, timespec* rest) {
  pauses_ns.push_back(time->tv_sec * 1'000'000'000LL + time->tv_nsec);
  if (at_pause) {
    std::exchange(at_pause, nullptr)();
    return 0;
  }
  return ::clock_nanosleep(CLOCK_MONOTONIC, 0, time, rest);
}
