// The socket on the loop, against the real kernel in a network namespace of the test's own.
#include <event2/event.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>

#include "core/zol_libevent.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/conntrack/conntrack_fixture.h"
#include "tests/unit/conntrack/kernel_conntrack.h"

namespace zol_test {
namespace {

using zol_monitor::SessionPtr;

constexpr int most_passes = 1000;

class Loop {
 public:
  Loop() { zol::ZOLEventBase::init(); }

 private:
  zol::ZOLEventBase base_;
};

void note_timeout(int, short, void* expired) {
  *static_cast<bool*>(expired) = true;
}

// The loop comes first and goes last.
class ConntrackSocketTest : protected Loop, public ConntrackTest {
 protected:
  // Runs the loop until the state is there; ten seconds are far more than any event takes.
  static bool run_until(const std::function<bool()>& reached) {
    bool expired = false;
    zol::ZOLEventLibEventTimer limit(&note_timeout, &expired, -1);
    limit.charge(10000);
    while (!reached() && !expired)
      event_base_loop(zol::ZOLEventBase::base(), EVLOOP_ONCE);
    return reached();
  }
  int socket_fd() const { return mnl_socket_get_fd(events_.socket); }
};

// The same with the socket up in a namespace of its own.
class ConntrackKernelTest : public ConntrackSocketTest {
 protected:
  void SetUp() override {
    if (!network_.entered())
      GTEST_SKIP() << "needs the right to make a network namespace, and connection tracking in the kernel";
    events_.start();
    ASSERT_TRUE(events_.started);
    table_ = std::make_unique<ConnectionTable>();
  }

  OwnNetwork network_;
  std::unique_ptr<ConnectionTable> table_;
};

constexpr Flow in_flow = {
    .source = client_peer, .target = own_in_peer, .mark = in_mark, .tcp_state = tcp_established};
constexpr Flow out_flow = {
    .source = own_out_peer, .target = hop_peer, .mark = out_mark, .tcp_state = tcp_established};

// Verifies that creating, closing and destroying the kernel's entries takes a session through its life.
TEST_F(ConntrackKernelTest, LifeOfASession) {
  set_monitoring("session_report_resolution_ms = 0;");
  SessionPtr session = identify_in();
  identify_out();
  ASSERT_TRUE(table_->create(in_flow));
  ASSERT_TRUE(table_->create(out_flow));
  EXPECT_TRUE(run_until([&] { return session->next_hop_ip != 0; }));
  EXPECT_EQ(session->network_id, "net-a");
  EXPECT_EQ(session->next_hop_ip, ip(hop_peer.address));
  EXPECT_EQ(events_.new_tcp_connections, 1u);
  EXPECT_EQ(session->in->termination_reason, 0u);

  Flow closing = in_flow;
  closing.mark |= fin_received;
  closing.tcp_state = tcp_fin_wait;
  ASSERT_TRUE(table_->update(closing));
  EXPECT_TRUE(run_until([&] { return session->in->termination_reason != 0; }));
  EXPECT_EQ(session->in->termination_reason, 2u);
  EXPECT_NE(session->in->end_time_ms, 0u);

  session.reset();
  ASSERT_TRUE(table_->destroy(closing));
  ASSERT_TRUE(table_->destroy(out_flow));
  EXPECT_TRUE(run_until([&] { return data_.sessions.sessions_by_id.empty(); }));
  EXPECT_TRUE(data_.sessions.in_sessions.empty());
  EXPECT_TRUE(data_.sessions.out_sessions.empty());
}

// Verifies that each wake-up reads one message, between the context's start and end.
TEST_F(ConntrackKernelTest, OneReadAWakeUp) {
  for (std::uint16_t port = 1; port <= 5; ++port) {
    Flow flow = in_flow;
    flow.source.port = port;
    ASSERT_TRUE(table_->create(flow));
  }
  LogCapture log;
  for (int pass = 1; pass <= 5; ++pass) {
    event_base_loop(zol::ZOLEventBase::base(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    EXPECT_EQ(log.count("Netlink event handled successfully"), pass);
    EXPECT_EQ(context_.started, pass);
    EXPECT_EQ(context_.ended, pass);
  }
  event_base_loop(zol::ZOLEventBase::base(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
  EXPECT_EQ(context_.started, 5);
}

// Verifies that the socket's receive buffer is 18 MiB, which the kernel doubles for its own overhead
// (socket(7)).
TEST_F(ConntrackKernelTest, ReceiveBuffer) {
  int size = 0;
  socklen_t length = sizeof size;
  ASSERT_EQ(getsockopt(socket_fd(), SOL_SOCKET, SO_RCVBUF, &size, &length), 0);
  EXPECT_EQ(size, 2 * 18874368);
}

// Verifies that the socket stays with the daemon when it runs a command.
TEST_F(ConntrackKernelTest, NotInherited) {
  EXPECT_NE(fcntl(socket_fd(), F_GETFD) & FD_CLOEXEC, 0);
}

// Verifies that an overrun is logged with its errno and that the reader goes on with the next event.
TEST_F(ConntrackKernelTest, OverrunIsLoggedAndTheReaderGoesOn) {
  const int tiny = 1;
  ASSERT_EQ(setsockopt(socket_fd(), SOL_SOCKET, SO_RCVBUF, &tiny, sizeof tiny), 0);
  for (std::uint16_t port = 1; port <= 100; ++port) {
    Flow flow = in_flow;
    flow.source.port = port;
    ASSERT_TRUE(table_->create(flow));
  }
  LogCapture log;
  const std::string text =
      "Error reading from netlink socket; Connection reporting may be incomplete. (errno=" +
      std::to_string(ENOBUFS) + ")";
  EXPECT_TRUE(run_until([&] { return log.contains(log_level::error, text); })) << log.all();

  const SessionPtr session = identify_in();
  for (int pass = 0; pass < most_passes; ++pass)
    event_base_loop(zol::ZOLEventBase::base(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
  ASSERT_TRUE(table_->create(in_flow));
  EXPECT_TRUE(run_until([&] { return session->network_id == "net-a"; }));
}

// Verifies that a stopped reader hears nothing and that it can be started again.
TEST_F(ConntrackKernelTest, StopAndStart) {
  const SessionPtr session = identify_in();
  events_.stop();
  EXPECT_FALSE(events_.started);
  EXPECT_EQ(events_.socket, nullptr);
  EXPECT_FALSE(events_.event.is_pending());
  ASSERT_TRUE(table_->create(in_flow));
  events_.start();
  EXPECT_TRUE(events_.started);
  const Peer next_client = {client_peer.address, 40001};
  const SessionPtr next = identify_in(2, next_client);
  Flow flow = in_flow;
  flow.source = next_client;
  ASSERT_TRUE(table_->create(flow));
  EXPECT_TRUE(run_until([&] { return next->network_id == "net-a"; }));
  EXPECT_TRUE(session->network_id.empty());
}

// Verifies that a second start keeps the socket that is up.
TEST_F(ConntrackKernelTest, StartTwice) {
  const mnl_socket* first = events_.socket;
  events_.start();
  EXPECT_EQ(events_.socket, first);
}

// Verifies that the constructor starts to listen, says so, and registers for reloads.
TEST_F(ConntrackSocketTest, ConstructorStarts) {
  const OwnNetwork network;
  if (!network.entered())
    GTEST_SKIP() << "needs the right to make a network namespace, and connection tracking in the kernel";
  LogCapture log;
  zol_monitor::ConntrackEvents events(&data_, &context_);
  EXPECT_TRUE(events.started);
  EXPECT_TRUE(log.contains(log_level::info, "Starting conntrack events")) << log.all();
  EXPECT_FALSE(events.reconfigured);
  config_.configurator().reload_configuration("", 0);
  EXPECT_TRUE(events.reconfigured);
}

// Verifies that every reload is wanted and that the service behind it isn't judged.
TEST_F(ConntrackTest, NeedReconf) {
  for (bool enabled : {false, true}) {
    const bool before = enabled;
    EXPECT_TRUE(events_.need_reconf(enabled));
    EXPECT_EQ(enabled, before);
  }
}

// Verifies that a reload listener that has gone isn't called.
TEST_F(ConntrackTest, UnregistersAtItsEnd) {
  { const zol_monitor::ConntrackEvents events(&data_, &context_, false); }
  config_.configurator().reload_configuration("", 0);
  EXPECT_TRUE(events_.reconfigured);
}

// Verifies that without a loop the event can't be added, which is logged and leaves no socket.
TEST_F(ConntrackTest, NoLoop) {
  const OwnNetwork network;
  if (!network.entered())
    GTEST_SKIP() << "needs the right to make a network namespace, and connection tracking in the kernel";
  LogCapture log;
  events_.start();
  EXPECT_FALSE(events_.started);
  EXPECT_EQ(events_.socket, nullptr);
  EXPECT_TRUE(log.contains(log_level::error, "Failed register connection reporting event")) << log.all();
}

// Verifies that a wake-up without a descriptor or for another reason than reading reads nothing.
TEST_F(ConntrackTest, OtherWakeUps) {
  LogCapture log;
  zol_monitor::ConntrackEvents::event_cb(-1, EV_READ, &events_);
  zol_monitor::ConntrackEvents::event_cb(0, EV_TIMEOUT, &events_);
  EXPECT_EQ(context_.started, 2);
  EXPECT_EQ(context_.ended, 2);
  EXPECT_EQ(log.count("netlink"), 0);
}

// Verifies that a descriptor that takes no receive buffer is logged, and a missing one isn't asked.
TEST(NetlinkSocketOptions, Failure) {
  LogCapture log;
  EXPECT_TRUE(zol_monitor::set_netlink_socket_options(-1));
  EXPECT_EQ(log.count("setsockopt"), 0);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  EXPECT_FALSE(zol_monitor::set_netlink_socket_options(ends[0]));
  EXPECT_TRUE(log.contains(log_level::error, "Failed to setsockopt netlink socket (SO_RCVBUFFORCE)"))
      << log.all();
  close(ends[0]);
  close(ends[1]);
}

// Verifies that a socket that can't be opened is logged.
TEST_F(ConntrackTest, NoSocket) {
  LogCapture log;
  {
    const NoDescriptors none;
    events_.start();
  }
  EXPECT_FALSE(events_.started);
  EXPECT_EQ(events_.socket, nullptr);
  EXPECT_TRUE(log.contains(log_level::error, "Failed to open netlink socket")) << log.all();
}

}  // namespace
}  // namespace zol_test
