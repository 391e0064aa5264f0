#include "core/zol_libevent.h"

#include <event2/event.h>
#include <event2/event_compat.h>
#include <event2/util.h>

#include <cerrno>
#include <stdexcept>

#include "core/zol_buffer_event.h"
#include "sup_logger.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("ZOLEventLibEvent");
  return instance;
}

}  // namespace

event_base* ZOLEventBase::base_ = nullptr;

ZOLEventBase::~ZOLEventBase() {
  if (base_ != nullptr)
    event_base_free(base_);
  base_ = nullptr;
}

void ZOLEventBase::init() {
  if (base_ != nullptr)
    throw std::runtime_error("Duplicate initialization of ZOLEventBase");
  base_ = event_init();  // makes the base the current one, which event_set uses
  if (base_ == nullptr)
    throw std::runtime_error("Failed to allocate a new event base.");
}

void ZOLEventBase::dispatch() {
  if (base_ == nullptr || event_base_dispatch(base_) != 0)
    throw std::runtime_error("Exception in event_base_dispatch");
}

int ZOLEventBase::get_event_base_priorities() {
  if (base_ == nullptr)
    throw std::runtime_error("Exception in get_event_base_priorities");
  return event_base_get_npriorities(base_);
}

void ZOLEventBase::set_event_base_priorities(int priorities) {
  if (base_ == nullptr || event_base_priority_init(base_, priorities) != 0)
    throw std::runtime_error("Exception in set_event_base_priorities");
}

ZOLBufferEvent* ZOLEventBase::alloc_buffer_event(int fd, void (*read_cb)(void* arg),
                                                 void (*write_cb)(void* arg),
                                                 void (*event_cb)(short what, void* arg), void* arg) {
  if (base_ == nullptr)
    throw std::runtime_error("Exception in alloc_buffer_event");
  return new ZOLBufferEvent(base_, fd, read_cb, write_cb, event_cb, arg);
}

ZOLEventConnListener* ZOLEventBase::alloc_conn_listener(unsigned ip, unsigned short port, unsigned flags,
                                                        void (*accept_cb)(int fd, sockaddr* address,
                                                                          void* arg),
                                                        void* arg) {
  if (base_ == nullptr)
    throw std::runtime_error("Exception in alloc_conn_listener");
  return new ZOLEventConnListener(base_, ip, port, flags, accept_cb, arg);
}

ZOLEventLibEvent::ZOLEventLibEvent(short event_flags, event_callback event_cb, void* callback_arg)
    : flags(event_flags), ev{}, callback(event_cb), arg(callback_arg) {}

ZOLEventLibEvent::~ZOLEventLibEvent() {
  del(false);
  // libevent's debug mode follows an event from its set-up to here; otherwise this does nothing.
  if (event_initialized(&ev) != 0)
    event_debug_unassign(&ev);
}

bool ZOLEventLibEvent::is_on_loop(short event_mask) const {
  if (event_initialized(&ev) == 0)
    return false;
  // The base that the event was set up on may have been freed since; it took the event off itself.
  if (ZOLEventBase::base() == nullptr || event_get_base(&ev) != ZOLEventBase::base())
    return false;
  return event_pending(&ev, event_mask, nullptr) != 0;
}

bool ZOLEventLibEvent::is_pending() const {
  return is_on_loop(flags);
}

bool ZOLEventLibEvent::del(bool log) {
  // A descriptor's event whose time-out has just passed waits for its callback with the time-out alone; it
  // isn't pending by its flags, but it must not be set up anew or freed there.
  if (!is_on_loop(static_cast<short>(flags | EV_TIMEOUT)))
    return true;
  if (event_del(&ev) < 0) {
    if (log)
      SUP_LOG(logger(), log_level::error) << "Failed to delete event. errno: " << errno;
    return false;
  }
  if (log)
    SUP_LOG(logger(), log_level::trace) << "Event removed";
  return true;
}

bool ZOLEventLibEvent::add(int fd, unsigned ms, int priority) {
  timeval timeout{};
  timeout.tv_sec = ms / 1000;
  timeout.tv_usec = static_cast<suseconds_t>(ms % 1000) * 1000;
  return internal_add(fd, &timeout, priority);
}

bool ZOLEventLibEvent::add(int fd, int priority) {
  return internal_add(fd, nullptr, priority);
}

bool ZOLEventLibEvent::internal_add(int fd, timeval* timeout, int priority) {
  const bool was_pending = is_pending();
  if (!del(false))
    return false;
  if ((flags & EV_SIGNAL) == 0 && fd > 0 && evutil_make_socket_nonblocking(fd) < 0) {
    SUP_LOG(logger(), log_level::error) << "Failed to set socket as non-blocking. errno: " << errno;
    return false;
  }
  event_set(&ev, fd, flags, callback, arg);
  if (priority >= 0 && priority <= ZOLEventBase::get_event_base_priorities())
    event_priority_set(&ev, priority);
  if (event_add(&ev, timeout) < 0) {
    const int error = errno;
    if (event_get_base(&ev) != nullptr)
      event_del(&ev);  // libevent's debug mode counts an event as added even when that failed
    SUP_LOG(logger(), log_level::error)
        << "Failed to " << (was_pending ? "recharged" : "add") << " event. errno: " << error;
    return false;
  }
  if (was_pending)
    SUP_LOG(logger(), log_level::trace) << "Event was recharged";
  return true;
}

ZOLEventLibEventTimer::ZOLEventLibEventTimer(event_callback event_cb, void* callback_arg, int timer_fd)
    : ZOLEventLibEvent(EV_TIMEOUT, event_cb, callback_arg), fd(timer_fd) {}

ZOLEventLibEventTimer::~ZOLEventLibEventTimer() = default;

bool ZOLEventLibEventTimer::charge(unsigned ms) {
  if (ZOLEventBase::base() != nullptr)
    event_base_update_cache_time(ZOLEventBase::base());
  return add(fd, ms, -1);
}

ZOLEventLibEventPersistTimer::ZOLEventLibEventPersistTimer(event_callback event_cb, void* callback_arg)
    : ZOLEventLibEvent(EV_TIMEOUT | EV_PERSIST, event_cb, callback_arg) {}

ZOLEventLibEventPersistTimer::~ZOLEventLibEventPersistTimer() = default;

ZOLEventLibEventSignal::ZOLEventLibEventSignal(int signal, event_callback event_cb, void* callback_arg)
    : ZOLEventLibEvent(EV_SIGNAL | EV_PERSIST, event_cb, callback_arg), fd(signal) {}

ZOLEventLibEventSignal::~ZOLEventLibEventSignal() = default;

}  // namespace zol
