#include "core/zol_buffer_event.h"

#include <arpa/inet.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "loop_fixture.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

using zol::ZOLBufferEvent;
using zol::ZOLEventBase;
using zol::ZOLEventConnListener;
using zol_test::LogCapture;
using zol_test::LoopTest;

namespace {

const unsigned loopback = htonl(INADDR_LOOPBACK);

// One side of a conversation, with what its callbacks saw.
struct Side {
  explicit Side(int fd) : buffer(ZOLEventBase::alloc_buffer_event(fd, on_read, on_write, on_event, this)) {}

  static void on_read(void* self) {
    auto* side = static_cast<Side*>(self);
    char data[64];
    const long size = side->buffer->read(data, sizeof data);
    side->input.append(data, static_cast<std::size_t>(size));
    if (side->die_on_read)
      side->buffer.reset();
  }
  static void on_write(void* self) { ++static_cast<Side*>(self)->writes; }
  static void on_event(short what, void* self) {
    auto* side = static_cast<Side*>(self);
    side->events = static_cast<short>(side->events | what);
    if (side->die_on_event)
      side->buffer.reset();
  }

  std::unique_ptr<ZOLBufferEvent> buffer;
  std::string input;
  int writes = 0;
  short events = 0;
  bool die_on_read = false;
  bool die_on_event = false;
};

class ZolBufferEvent : public LoopTest {
 protected:
  void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0); }
  void TearDown() override { close(fds[1]); }

  int fds[2] = {-1, -1};
};

// Verifies that what is written arrives, that input is read out, and that the descriptor is closed at the
// end.
TEST_F(ZolBufferEvent, CarriesDataBothWays) {
  {
    Side side(fds[0]);
    EXPECT_EQ(side.buffer->get_fd(), fds[0]);
    ASSERT_TRUE(side.buffer->enable(EV_READ | EV_WRITE));
    ASSERT_TRUE(side.buffer->write("ping", 4));
    EXPECT_TRUE(run_until([&] { return side.writes > 0; }));
    char data[8] = {};
    EXPECT_EQ(read(fds[1], data, sizeof data), 4);
    EXPECT_STREQ(data, "ping");
    ASSERT_EQ(write(fds[1], "pong", 4), 4);
    EXPECT_TRUE(run_until([&] { return side.input == "pong"; }));
    char none[8];
    EXPECT_EQ(side.buffer->read(none, sizeof none), 0);
  }
  run_once();
  char data[8];
  EXPECT_EQ(read(fds[1], data, sizeof data), 0) << "the other end is closed";
}

// Verifies that a read time-out and the end of the input reach the event callback.
TEST_F(ZolBufferEvent, TellsTimeoutAndEnd) {
  Side side(fds[0]);
  const timeval wait{0, 1000};
  ASSERT_TRUE(side.buffer->set_timeouts(&wait, nullptr));
  ASSERT_TRUE(side.buffer->enable(EV_READ));
  EXPECT_TRUE(run_until([&] { return side.events == (BEV_EVENT_TIMEOUT | BEV_EVENT_READING); }));
  ASSERT_TRUE(side.buffer->set_timeouts(nullptr, nullptr));
  ASSERT_TRUE(side.buffer->enable(EV_READ));
  ASSERT_EQ(shutdown(fds[1], SHUT_WR), 0);
  EXPECT_TRUE(run_until([&] { return (side.events & BEV_EVENT_EOF) != 0; }));
}

// Verifies that a disabled buffer event reads nothing.
TEST_F(ZolBufferEvent, DisableStopsReading) {
  Side side(fds[0]);
  ASSERT_TRUE(side.buffer->enable(EV_READ));
  ASSERT_TRUE(side.buffer->disable(EV_READ));
  ASSERT_EQ(write(fds[1], "x", 1), 1);
  run_once();
  EXPECT_EQ(side.input, "");
}

// Verifies that null callbacks are never called.
TEST_F(ZolBufferEvent, NullCallbacksAreLeftOut) {
  const std::unique_ptr<ZOLBufferEvent> buffer(
      ZOLEventBase::alloc_buffer_event(fds[0], nullptr, nullptr, nullptr, nullptr));
  ASSERT_TRUE(buffer->enable(EV_READ | EV_WRITE));
  ASSERT_EQ(write(fds[1], "abc", 3), 3);
  ASSERT_EQ(shutdown(fds[1], SHUT_WR), 0);
  char data[8] = {};
  EXPECT_TRUE(run_until([&] { return buffer->read(data, sizeof data) == 3; }));
  run_once();
}

// Verifies that the object may be deleted inside its read callback.
TEST_F(ZolBufferEvent, DeletedInsideReadCallback) {
  Side side(fds[0]);
  side.die_on_read = true;
  ASSERT_TRUE(side.buffer->enable(EV_READ));
  ASSERT_EQ(write(fds[1], "bye", 3), 3);
  EXPECT_TRUE(run_until([&] { return side.buffer == nullptr; }));
  run_once();
  EXPECT_EQ(side.input, "bye");
}

// Verifies that the object may be deleted inside its event callback.
TEST_F(ZolBufferEvent, DeletedInsideEventCallback) {
  Side side(fds[0]);
  side.die_on_event = true;
  ASSERT_TRUE(side.buffer->enable(EV_READ));
  ASSERT_EQ(shutdown(fds[1], SHUT_WR), 0);
  EXPECT_TRUE(run_until([&] { return side.buffer == nullptr; }));
  run_once();
}

// Accepts one connection.
struct Acceptor {
  explicit Acceptor(unsigned short port)
      : listener(ZOLEventBase::alloc_conn_listener(loopback, port, LEV_OPT_CLOSE_ON_FREE, on_accept, this)) {}
  ~Acceptor() { close(fd); }
  Acceptor(const Acceptor&) = delete;
  Acceptor& operator=(const Acceptor&) = delete;

  static void on_accept(int accepted, sockaddr* address, void* self) {
    auto* acceptor = static_cast<Acceptor*>(self);
    acceptor->fd = accepted;
    sockaddr_in ipv4;
    std::memcpy(&ipv4, address, sizeof ipv4);
    acceptor->peer = ipv4.sin_addr.s_addr;
  }
  unsigned short port() const {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(evconnlistener_get_fd(listener->listener), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
  }

  std::unique_ptr<ZOLEventConnListener> listener;
  int fd = -1;
  unsigned peer = 0;
};

// Verifies that a connection to a listener is made, told on both sides, and that a negative mark sets none.
TEST_F(ZolBufferEvent, ConnectsToListener) {
  for (const bool with_mark_argument : {false, true}) {
    Acceptor acceptor(0);
    Side side(-1);
    ASSERT_TRUE(with_mark_argument ? side.buffer->socket_connect(loopback, acceptor.port(), -1)
                                   : side.buffer->socket_connect(loopback, acceptor.port()));
    EXPECT_TRUE(run_until([&] { return acceptor.fd >= 0 && (side.events & BEV_EVENT_CONNECTED) != 0; }));
    EXPECT_EQ(acceptor.peer, loopback);
  }
  close(fds[0]);
}

// Verifies that a mark is on the new socket before it connects, and that it can be changed.
TEST_F(ZolBufferEvent, MarksItsSocket) {
  close(fds[0]);
  if (geteuid() != 0)
    GTEST_SKIP() << "setting a socket's mark needs CAP_NET_ADMIN";
  Acceptor acceptor(0);
  Side side(-1);
  ASSERT_TRUE(side.buffer->socket_connect(loopback, acceptor.port(), 0x1234));
  const auto mark_of = [&] {
    int mark = -1;
    socklen_t size = sizeof mark;
    getsockopt(side.buffer->get_fd(), SOL_SOCKET, SO_MARK, &mark, &size);
    return mark;
  };
  EXPECT_EQ(mark_of(), 0x1234);
  EXPECT_TRUE(run_until([&] { return (side.events & BEV_EVENT_CONNECTED) != 0; }));
  EXPECT_TRUE(side.buffer->mark(7));
  EXPECT_EQ(mark_of(), 7);
}

// Verifies that a mark on no socket fails.
TEST_F(ZolBufferEvent, MarkWithoutSocketFails) {
  close(fds[0]);
  const Side side(-1);
  EXPECT_FALSE(side.buffer->mark(1));
}

// Verifies that a refused connection reaches the event callback.
TEST_F(ZolBufferEvent, RefusedConnectionIsTold) {
  close(fds[0]);
  unsigned short port = 0;
  {
    const Acceptor gone(0);
    port = gone.port();
  }
  Side side(-1);
  side.buffer->socket_connect(loopback, port);
  EXPECT_TRUE(run_until([&] { return (side.events & BEV_EVENT_ERROR) != 0; }));
}

// Verifies that a connection that can't be begun is logged at error and comes back as false.
TEST_F(ZolBufferEvent, ConnectOnWrongSocketIsLogged) {
  Side side(fds[0]);  // a Unix socket takes no IPv4 address
  LogCapture log;
  side.buffer->socket_connect(loopback, 1);
  const bool told = log.contains(log_level::error, "Error in bufferevent_socket_connect. errno: ");
  EXPECT_TRUE(told || run_until([&] { return (side.events & BEV_EVENT_ERROR) != 0; })) << log.all();
}

// Verifies that a listener on an address that is taken throws.
TEST_F(ZolBufferEvent, ListenerOnTakenAddressThrows) {
  close(fds[0]);
  const Acceptor first(0);
  EXPECT_THAT([&] { const Acceptor second(first.port()); },
              testing::ThrowsMessage<std::runtime_error>(
                  "Exception in ZOLEventConnListener::ZOLEventConnListener, bind failed"));
}

}  // namespace
