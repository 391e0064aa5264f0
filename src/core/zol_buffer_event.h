// Buffered sockets and listening sockets on the process's event loop, over libevent's bufferevent and
// evconnlistener.
//
// Addresses are IPv4 in network order, ports in host order. Objects come from
// ZOLEventBase::alloc_buffer_event and alloc_conn_listener, and the caller owns them; deleting one inside its
// own callback is allowed, as long as the callback touches it no more. libevent closes the descriptor at the
// loop's next pass, or with the base, before which the objects have to go. Main thread only.
#pragma once

#include <sys/time.h>

#include <cstdint>

struct bufferevent;
struct evconnlistener;
struct event_base;
struct sockaddr;

namespace zol {

// Failures are logged at error under the category "ZOLBufferEvent" and come back as false, or negative from
// read.
class ZOLBufferEvent {
 public:
  // Takes the descriptor over and closes it at the end; -1 leaves it to socket_connect. Each callback may be
  // null. Throws std::runtime_error when libevent gives none.
  ZOLBufferEvent(event_base* base, int fd, void (*on_read)(void* arg), void (*on_write)(void* arg),
                 void (*on_event)(short what, void* arg), void* callback_arg);
  ZOLBufferEvent(const ZOLBufferEvent&) = delete;
  ZOLBufferEvent& operator=(const ZOLBufferEvent&) = delete;
  virtual ~ZOLBufferEvent();

  // Null switches a time-out off.
  bool set_timeouts(const timeval* read_timeout, const timeval* write_timeout);
  bool socket_connect(unsigned ip, unsigned short port);
  // A mark of 0 or more is set on a new TCP socket before it connects (SO_MARK, needs CAP_NET_ADMIN).
  bool socket_connect(unsigned ip, unsigned short port, int mark_value);
  bool write(const void* data, unsigned long size);
  // Moves at most `capacity` bytes out of the input buffer; the number of bytes, 0 when it is empty.
  long read(void* data, unsigned long capacity);
  bool enable(short events);  // EV_READ, EV_WRITE
  bool disable(short events);
  int get_fd() const;
  bool mark(int value);

  bufferevent* bev;
  void (*read_cb)(void* arg);
  void (*write_cb)(void* arg);
  void (*event_cb)(short what, void* arg);  // `what` are libevent's BEV_EVENT_ bits
  void* arg;
};

// Takes connections and hands each descriptor to `accept_cb`, which owns it from there.
class ZOLEventConnListener {
 public:
  // Throws std::runtime_error when the address can't be bound.
  ZOLEventConnListener(event_base* base, unsigned ip, unsigned short port, unsigned flags,
                       void (*on_accept)(int fd, sockaddr* address, void* arg), void* callback_arg);
  ZOLEventConnListener(const ZOLEventConnListener&) = delete;
  ZOLEventConnListener& operator=(const ZOLEventConnListener&) = delete;
  virtual ~ZOLEventConnListener();

  evconnlistener* listener;
  void (*accept_cb)(int fd, sockaddr* address, void* arg);
  void* arg;
};

}  // namespace zol
