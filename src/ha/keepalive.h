// The client of the node's watchdog in a process of its own endpoint: it tells each second that the process
// is alive, once its start-up checks have passed.
//
// A process says with init() how many checks it has; each part of it that has come up passes one, and with
// the last the beats begin. Long work that holds up the loop, and so the timer, sends a beat of its own with
// send_keepalive(). In a process that never calls init() nothing is sent.
//
// Logs under "KeepAlive". Main thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/zol_libevent.h"

namespace zol {

class KeepAlive : public ZOLEventLibEventTimer {
 public:
  // The one of the process.
  static KeepAlive* instance();
  // Closes the endpoint.
  ~KeepAlive() override;

  // Opens an endpoint of the name `own_ipc_name`, or `process_name` when that is empty, unless `socket` is
  // set already, and waits for the checks; without any it begins. A second call does nothing. Without the
  // node's id in the configuration it throws std::runtime_error.
  void init(int checks, const std::string& process_name, const std::string& own_ipc_name);
  // Passes the check of that number, from 1. A number that isn't there is a programming fault: a fatal log
  // line and std::runtime_error.
  void pass_check(unsigned char number);
  // A beat from inside long work; nothing before all checks have passed.
  void send_keepalive();
  // A beat, in any state.
  void send_heartbeat();

  int socket = 0;  // 0 until init
  bool ready = false;
  std::string name;                                            // who is alive
  std::unique_ptr<std::vector<std::uint32_t>> pending_checks;  // one flag a check, 0 until it has passed

 protected:
  KeepAlive();

 private:
  static void timer_cb(int fd, short events, void* self);

  void schedule();
  void beat();
};

}  // namespace zol
