// The one event loop of the process and the events on it, over libevent 2.1.
//
// Every timer, signal and descriptor that the program waits for is one of these classes. An event carries its
// own callback and argument and may be charged any number of times: a charge that meets a pending event
// replaces it. They are clean under libevent's debug mode, which follows each event from its set-up to its
// end.
//
// Main thread only. An event may outlive the base; it then counts as not pending.
#pragma once

#include <event2/event_struct.h>
#include <sys/time.h>

#include <cstdint>

struct event_base;
struct sockaddr;

namespace zol {

class ZOLBufferEvent;
class ZOLEventConnListener;

// The process-wide base. One object of this class stands for it; the base itself is shared by all.
class ZOLEventBase {
 public:
  ZOLEventBase() = default;
  ZOLEventBase(const ZOLEventBase&) = delete;
  ZOLEventBase& operator=(const ZOLEventBase&) = delete;
  // Frees the base. What is still pending on it never fires.
  virtual ~ZOLEventBase();

  // Each of these throws std::runtime_error: init when a base stands or can't be made, the others without
  // one.
  static void init();
  // Runs until the loop is broken (event_base_loopbreak); a loop with nothing left to wait for throws.
  static void dispatch();
  static int get_event_base_priorities();
  static void set_event_base_priorities(int priorities);

  // The caller owns the result. See zol_buffer_event.h.
  static ZOLBufferEvent* alloc_buffer_event(int fd, void (*read_cb)(void* arg), void (*write_cb)(void* arg),
                                            void (*event_cb)(short what, void* arg), void* arg);
  // `ip` in network order, `port` in host order, `flags` are libevent's LEV_OPT_ bits.
  static ZOLEventConnListener* alloc_conn_listener(unsigned ip, unsigned short port, unsigned flags,
                                                   void (*accept_cb)(int fd, sockaddr* address, void* arg),
                                                   void* arg);

  // Null until init.
  static event_base* base() { return base_; }

 private:
  static event_base* base_;
};

// Any event: `flags` are libevent's EV_ bits.
class ZOLEventLibEvent {
 public:
  using event_callback = void (*)(int fd, short events, void* arg);

  ZOLEventLibEvent(short event_flags, event_callback event_cb, void* callback_arg);
  ZOLEventLibEvent(const ZOLEventLibEvent&) = delete;
  ZOLEventLibEvent& operator=(const ZOLEventLibEvent&) = delete;
  // Takes the event off the loop.
  virtual ~ZOLEventLibEvent();

  // False for an event that was never added.
  bool is_pending() const;
  // Takes the event off the loop; true also when it wasn't on it. A failure is logged when `log` is set.
  bool del(bool log);
  // Puts the event on the loop, in place of an earlier charge. A descriptor above 0 is made non-blocking (a
  // signal's number is left alone). A delay of 0 ms fires at the loop's next pass. A negative priority, or
  // one that the base doesn't have, leaves the default. False, with an error line, on failure.
  bool add(int fd, unsigned ms, int priority);
  bool add(int fd, int priority);  // without a time-out

  short flags;
  struct event ev;
  event_callback callback;
  void* arg;

 protected:
  bool internal_add(int fd, timeval* timeout, int priority);

 private:
  bool is_on_loop(short event_mask) const;
};

// Fires once, `ms` milliseconds after its charge.
class ZOLEventLibEventTimer : public ZOLEventLibEvent {
 public:
  ZOLEventLibEventTimer(event_callback event_cb, void* callback_arg, int timer_fd);
  ~ZOLEventLibEventTimer() override;

  // Counts from now and not from the start of the loop's present pass.
  bool charge(unsigned ms);

  int fd;  // -1 for all timers
};

// Fires again and again, at the period that add(-1, ms, priority) gives.
class ZOLEventLibEventPersistTimer : public ZOLEventLibEvent {
 public:
  ZOLEventLibEventPersistTimer(event_callback event_cb, void* callback_arg);
  ~ZOLEventLibEventPersistTimer() override;
};

// Fires each time the signal arrives, as a callback of the loop; add(signal, -1) starts it.
class ZOLEventLibEventSignal : public ZOLEventLibEvent {
 public:
  ZOLEventLibEventSignal(int signal, event_callback event_cb, void* callback_arg);
  ~ZOLEventLibEventSignal() override;

  int fd;  // the signal's number
};

}  // namespace zol
