// Who wants to hear of ended children.
#pragma once

namespace zol {

class SigChildHandler {
 public:
  virtual ~SigChildHandler() = default;

  // A child ended or stopped; `status` as waitpid(2) gives it. True ends the walk: the child was this
  // handler's.
  virtual bool sigchld_handler_cb(int pid, int status) = 0;
};

// Handlers are asked in the order of their registration. Not owned; they live as long as the process.
void sigchild_handler_register(SigChildHandler* handler);

}  // namespace zol
