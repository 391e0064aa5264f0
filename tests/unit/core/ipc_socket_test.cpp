#include "core/ipc_socket.h"

#include <event2/event.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ipc_fixture.h"
#include "loop_fixture.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"

using zol_test::Bytes;
using zol_test::LogCapture;
using zol_test::make_message;
using zol_test::receive;
using zol_test::ScopedConfig;
using zol_test::TestNode;
using zol_test::text_at;
using zol_test::value_at;

namespace {

// Keeps what arrives.
class Reader : public zol::IPCSocket {
 public:
  void handle_ipc_msg(const unsigned char* data, unsigned long size) override {
    messages.emplace_back(data, data + size);
  }
  void open(int endpoint) { fd = endpoint; }
  int descriptor() const { return fd; }
  const zol::ZOLEventLibEvent& read_event() const { return event; }
  long timeout_ms() const {
    timeval due{};
    timeval now{};
    if (event_pending(&event.ev, EV_TIMEOUT, &due) == 0)
      return -1;
    event_base_gettimeofday_cached(zol::ZOLEventBase::base(), &now);
    return (due.tv_sec - now.tv_sec) * 1000 + (due.tv_usec - now.tv_usec) / 1000;
  }
  void start(const std::string& path = "") { start_ipc("zol_monitor", path); }
  // Counts how often the event fires, on its way to the handler.
  void count_firings() { event.callback = counting_cb; }

  std::vector<Bytes> messages;
  int firings = 0;

 private:
  static void counting_cb(int event_fd, short events, void* self) {
    ++static_cast<Reader*>(static_cast<zol::IPCSocket*>(self))->firings;
    msg_check_cb(event_fd, events, self);
  }
};

class IpcSocket : public zol_test::LoopTest {
 protected:
  void SetUp() override {
    reader_fd_ = node_.open("zol_monitor");
    peer_ = node_.open("wanproxy");
    reader_.open(reader_fd_);
  }
  void send(Bytes message) { ASSERT_EQ(send_msg(peer_, "zol_monitor", message.data(), message.size()), 0); }

  ScopedConfig config_{"General: { message_check_timeout_ms = 60000; };"};
  TestNode node_;
  Reader reader_;
  int reader_fd_ = -1;
  int peer_ = -1;
};

// Verifies that a new object isn't opened and that its event only reads.
TEST_F(IpcSocket, BeginsClosed) {
  const Reader fresh;
  EXPECT_EQ(fresh.descriptor(), -1);
  EXPECT_EQ(fresh.read_event().flags, EV_READ);
  EXPECT_FALSE(fresh.read_event().is_pending());
}

// Verifies that one pass of the loop drains all that is waiting, message by message and in order.
TEST_F(IpcSocket, DrainsAllThatWaits) {
  reader_.start();
  for (unsigned short i = 0; i < 20; ++i)
    send(make_message(i, 56U + i));
  EXPECT_TRUE(run_until([&] { return !reader_.messages.empty(); }));
  ASSERT_EQ(reader_.messages.size(), 20U);
  for (unsigned short i = 0; i < 20; ++i) {
    EXPECT_EQ(reader_.messages[i].size(), 56U + i);
    EXPECT_EQ(value_at<std::uint16_t>(reader_.messages[i], 0), i);
  }
  EXPECT_TRUE(reader_.read_event().is_pending());
}

// Verifies that the largest message is read whole.
TEST_F(IpcSocket, ReadsLargestMessage) {
  const pid_t sender = fork();  // such a message may need a reader while it is sent
  if (sender == 0) {
    Bytes message = make_message(16, ipc_max_message);
    message.back() = 0x5a;
    int fd = -1;
    const bool ready = start_socket(&fd, "other", node_.id().c_str()) == 0;
    bool sent = false;
    for (int i = 0; ready && !sent && i < 100; ++i)
      sent = send_msg(fd, "zol_monitor", message.data(), message.size()) == 0;
    close_socket(fd);
    _exit(sent ? 0 : 1);
  }
  reader_.start();
  EXPECT_TRUE(run_until([&] { return !reader_.messages.empty(); }));
  int status = 0;
  waitpid(sender, &status, 0);
  EXPECT_EQ(status, 0);
  ASSERT_EQ(reader_.messages.size(), 1U);
  EXPECT_EQ(reader_.messages[0].size(), 2097152U);
  EXPECT_EQ(reader_.messages[0].back(), 0x5a);
}

// Verifies that the read event's time-out is the configured one.
TEST_F(IpcSocket, TimeoutIsConfigured) {
  LogCapture log;
  reader_.start();
  EXPECT_GT(reader_.timeout_ms(), 30000);
  EXPECT_LE(reader_.timeout_ms(), 61000);  // the loop reads a coarse clock
  EXPECT_FALSE(log.contains("charge_msgchk"));
}

// Verifies that a missing time-out is told and stands for 5000 ms.
TEST_F(IpcSocket, MissingTimeoutIsFiveSeconds) {
  config_.set("General: { };");
  LogCapture log;
  reader_.start();
  EXPECT_GT(reader_.timeout_ms(), 1000);
  EXPECT_LE(reader_.timeout_ms(), 6000);
  EXPECT_TRUE(
      log.contains(log_level::debug,
                   "charge_msgchk: missing configuration value for message check timeout; defaulting to "
                   "5000 ms."))
      << log.all();
}

// Verifies that a time-out reads nothing and charges the event again.
TEST_F(IpcSocket, TimeoutOnlyRecharges) {
  send(make_message(2, 56));
  reader_.msg_check(reader_fd_, EV_TIMEOUT);
  EXPECT_TRUE(reader_.messages.empty());
  EXPECT_TRUE(reader_.read_event().is_pending());
}

// Verifies that after a read failure the descriptor stays -1, while the time-out goes on firing and reads
// nothing.
TEST_F(IpcSocket, ReadFailureClosesForGood) {
  config_.set("General: { message_check_timeout_ms = 1; };");
  reader_.count_firings();
  reader_.start();
  close_socket(reader_fd_);  // the next read fails
  reader_.msg_check(reader_fd_, EV_READ);
  EXPECT_EQ(reader_.descriptor(), -1);
  EXPECT_TRUE(run_until([&] { return reader_.firings >= 3; }));
  EXPECT_EQ(reader_.descriptor(), -1);
  EXPECT_TRUE(reader_.messages.empty());
}

// Verifies that a message without a descriptor isn't read, whatever the event says.
TEST_F(IpcSocket, NoDescriptorReadsNothing) {
  reader_.open(-1);
  reader_.msg_check(-1, EV_READ);
  EXPECT_EQ(reader_.descriptor(), -1);
  EXPECT_TRUE(reader_.read_event().is_pending());
}

// Verifies that a sent record carries type, names and process id.
TEST_F(IpcSocket, SendFillsHeader) {
  reader_.start();
  ipc_failopen_msg_t record{};
  record.enabled = 1;
  EXPECT_EQ(reader_.send_msg(&record.header, sizeof record, 8, "wanproxy"), 0);
  const Bytes message = receive(peer_);
  ASSERT_EQ(message.size(), 57U);
  EXPECT_EQ(value_at<std::uint16_t>(message, 0), 8);
  EXPECT_EQ(text_at(message, 2), "zol_monitor");
  EXPECT_EQ(value_at<std::int32_t>(message, 27), getpid());
  EXPECT_EQ(text_at(message, 31), "wanproxy");
  EXPECT_EQ(message[56], 1);
}

// Verifies that names are cut at 24 characters and stay terminated.
TEST_F(IpcSocket, LongNamesAreCut) {
  const std::string long_name = "a_name_of_more_than_24_characters";
  reader_.start_ipc(long_name.c_str(), "");
  ipcmsg_t header;
  std::memset(&header, 0xff, sizeof header);
  reader_.send_msg(&header, sizeof header, 2, long_name);
  EXPECT_EQ(std::string(header.source), long_name.substr(0, 24));
  EXPECT_EQ(std::string(header.destination), long_name.substr(0, 24));
}

// Verifies that a payload is sent behind a header of its own, an empty one too.
TEST_F(IpcSocket, SendsPayloadWithHeader) {
  reader_.start();
  char payload[] = "abc";
  EXPECT_EQ(reader_.send_msg_no_header(payload, 3, 26, "wanproxy"), 0);
  EXPECT_EQ(reader_.send_msg_no_header(nullptr, 0, 2, "wanproxy"), 0);
  const Bytes message = receive(peer_);
  ASSERT_EQ(message.size(), 59U);
  EXPECT_EQ(value_at<std::uint16_t>(message, 0), 26);
  EXPECT_EQ(std::string(message.begin() + 56, message.end()), "abc");
  EXPECT_EQ(receive(peer_).size(), 56U);
}

// Verifies that a direct path is where receivers are looked for.
TEST_F(IpcSocket, DirectPathNamesReceiversFolder) {
  reader_.start(node_.folder());
  ipcmsg_t header{};
  EXPECT_EQ(reader_.send_msg(&header, sizeof header, 2, "wanproxy"), 0);
  EXPECT_EQ(receive(peer_).size(), 56U);
  reader_.start(node_.folder() + "/nowhere");
  EXPECT_NE(reader_.send_msg(&header, sizeof header, 2, "wanproxy"), 0);
}

// Verifies that sending to nobody is a failure.
TEST_F(IpcSocket, SendToNobodyFails) {
  reader_.start();
  ipcmsg_t header{};
  EXPECT_NE(reader_.send_msg(&header, sizeof header, 2, "nobody"), 0);
}

// Verifies that each type has its name in the log, and that all others are unknown.
TEST(IpcSocketNames, Type2str) {
  const std::vector<std::pair<unsigned short, std::string>> names = {
      {2, "reloadconf"},
      {5, "terminate"},
      {7, "failure"},
      {8, "failopen"},
      {16, "session_identification"},
      {17, "tcp_conn_diag_info"},
      {18, "dump_session_info"},
      {20, "termination_reason"},
      {22, "invalid_public_host"},
      {24, "http_notification"},
      {26, "black_hole_event"},
      {27, "ignored_session_info"},
      {29, "next_hop_api_event"},
      {36, "vpn_log"},
      {37, "vpn_info"},
  };
  std::size_t next = 0;
  for (unsigned short type = 0; type < 300; ++type) {
    const bool named = next < names.size() && names[next].first == type;
    EXPECT_EQ(zol::IPCSocket::type2str(type), named ? names[next].second : "unknown") << type;
    next += named ? 1 : 0;
  }
  EXPECT_STREQ(zol::IPCSocket::type2str(65535), "unknown");
}

}  // namespace
