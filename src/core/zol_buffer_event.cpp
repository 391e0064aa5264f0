#include "core/zol_buffer_event.h"

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <event2/util.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <stdexcept>

#include "sup_logger.h"

namespace zol {

namespace {

constexpr short all_events = 15;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("ZOLBufferEvent");
  return instance;
}

sockaddr_in make_address(unsigned ip, unsigned short port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = ip;
  return address;
}

// A callback may delete the object: the trampolines don't touch it afterwards.
void read_trampoline(bufferevent*, void* self) {
  auto* event = static_cast<ZOLBufferEvent*>(self);
  event->read_cb(event->arg);
}

void write_trampoline(bufferevent*, void* self) {
  auto* event = static_cast<ZOLBufferEvent*>(self);
  event->write_cb(event->arg);
}

void event_trampoline(bufferevent*, short what, void* self) {
  auto* event = static_cast<ZOLBufferEvent*>(self);
  event->event_cb(what, event->arg);
}

void accept_trampoline(evconnlistener*, evutil_socket_t fd, sockaddr* address, int, void* self) {
  auto* listener = static_cast<ZOLEventConnListener*>(self);
  listener->accept_cb(fd, address, listener->arg);
}

bool set_socket_mark(int fd, int value) {
  return setsockopt(fd, SOL_SOCKET, SO_MARK, &value, sizeof value) == 0;
}

bool checked(int result, const char* message) {
  if (result >= 0)
    return true;
  SUP_LOG(logger(), log_level::error) << message << errno;
  return false;
}

}  // namespace

ZOLBufferEvent::ZOLBufferEvent(event_base* base, int fd, void (*on_read)(void* arg),
                               void (*on_write)(void* arg), void (*on_event)(short what, void* arg),
                               void* callback_arg)
    : bev(bufferevent_socket_new(base, fd, BEV_OPT_CLOSE_ON_FREE)),
      read_cb(on_read),
      write_cb(on_write),
      event_cb(on_event),
      arg(callback_arg) {
  if (bev == nullptr)
    throw std::runtime_error("Exception in ZOLBufferEvent::ZOLBufferEvent");
  bufferevent_setcb(bev, read_cb != nullptr ? read_trampoline : nullptr,
                    write_cb != nullptr ? write_trampoline : nullptr,
                    event_cb != nullptr ? event_trampoline : nullptr, this);
}

ZOLBufferEvent::~ZOLBufferEvent() {
  bufferevent_disable(bev, all_events);
  bufferevent_free(bev);
}

bool ZOLBufferEvent::set_timeouts(const timeval* read_timeout, const timeval* write_timeout) {
  return checked(bufferevent_set_timeouts(bev, read_timeout, write_timeout),
                 "Error in set_timeouts. errno: ");
}

bool ZOLBufferEvent::socket_connect(unsigned ip, unsigned short port) {
  sockaddr_in address = make_address(ip, port);
  return checked(bufferevent_socket_connect(bev, reinterpret_cast<sockaddr*>(&address), sizeof address),
                 "Error in bufferevent_socket_connect. errno: ");
}

bool ZOLBufferEvent::socket_connect(unsigned ip, unsigned short port, int mark_value) {
  if (mark_value < 0)
    return socket_connect(ip, port);
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  // A failure below leaves the new socket open on purpose.
  if (evutil_make_socket_nonblocking(fd) < 0) {
    SUP_LOG(logger(), log_level::error) << "Error in evutil_make_socket_nonblocking";
    return false;
  }
  if (!set_socket_mark(fd, mark_value)) {
    SUP_LOG(logger(), log_level::error) << "Error in setsockopt SO_MARK, errno: " << errno;
    return false;
  }
  bufferevent_setfd(bev, fd);
  return socket_connect(ip, port);
}

bool ZOLBufferEvent::write(const void* data, unsigned long size) {
  return checked(bufferevent_write(bev, data, size), "Error in bufferevent_write. errno: ");
}

long ZOLBufferEvent::read(void* data, unsigned long capacity) {
  const int count = evbuffer_remove(bufferevent_get_input(bev), data, capacity);
  checked(count, "Error in bufferevent_read. errno: ");
  return count;
}

bool ZOLBufferEvent::enable(short events) {
  return checked(bufferevent_enable(bev, events), "Error in enabled. errno: ");
}

bool ZOLBufferEvent::disable(short events) {
  return checked(bufferevent_disable(bev, events), "Error in disable. errno: ");
}

int ZOLBufferEvent::get_fd() const {
  return bufferevent_getfd(bev);
}

bool ZOLBufferEvent::mark(int value) {
  return set_socket_mark(get_fd(), value);
}

ZOLEventConnListener::ZOLEventConnListener(event_base* base, unsigned ip, unsigned short port, unsigned flags,
                                           void (*on_accept)(int fd, sockaddr* address, void* arg),
                                           void* callback_arg)
    : listener(nullptr), accept_cb(on_accept), arg(callback_arg) {
  sockaddr_in address = make_address(ip, port);
  listener = evconnlistener_new_bind(base, accept_trampoline, this, flags, -1,
                                     reinterpret_cast<sockaddr*>(&address), sizeof address);
  if (listener == nullptr)
    throw std::runtime_error("Exception in ZOLEventConnListener::ZOLEventConnListener, bind failed");
}

ZOLEventConnListener::~ZOLEventConnListener() {
  evconnlistener_free(listener);
}

}  // namespace zol
