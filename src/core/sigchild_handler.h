// Who wants to hear of ended children. The process's SIGCHLD event reaps them all, on the loop, and asks each
// handler in turn whether a child was its own.
//
// Main thread only.
#pragma once

namespace zol {

class SigChildHandler {
 public:
  virtual ~SigChildHandler() = default;

  // A child ended or stopped; `status` as waitpid(2) gives it. True ends the walk: the child was this
  // handler's. A handler may register and unregister itself here.
  virtual bool sigchld_handler_cb(int pid, int status) = 0;
};

// Handlers are asked in the order of their registration; one that is registered already keeps its place. Not
// owned: a handler unregisters before it goes.
void sigchild_handler_register(SigChildHandler* handler);
void sigchild_handler_unregister(SigChildHandler* handler);

}  // namespace zol

namespace zol_monitor {

// The callback of the SIGCHLD event. One signal may stand for several children: all that have ended are
// reaped.
void sigchild_handler(int signal, short events, void* arg);

}  // namespace zol_monitor
