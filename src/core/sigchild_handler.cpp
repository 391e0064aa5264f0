#include "core/sigchild_handler.h"

#include <sys/wait.h>

#include <algorithm>
#include <vector>

namespace zol {

namespace {

using Handlers = std::vector<SigChildHandler*>;

// Never destroyed: handlers with static storage unregister when the process ends.
Handlers& handlers() {
  static auto& instance = *new Handlers;
  return instance;
}

bool is_registered(SigChildHandler* handler) {
  return std::find(handlers().begin(), handlers().end(), handler) != handlers().end();
}

// Over a copy: a handler may change the list while it is asked.
void offer(int pid, int status) {
  const Handlers asked = handlers();
  for (SigChildHandler* handler : asked) {
    if (is_registered(handler) && handler->sigchld_handler_cb(pid, status))
      return;
  }
}

}  // namespace

void sigchild_handler_register(SigChildHandler* handler) {
  if (!is_registered(handler))
    handlers().push_back(handler);
}

void sigchild_handler_unregister(SigChildHandler* handler) {
  handlers().erase(std::remove(handlers().begin(), handlers().end(), handler), handlers().end());
}

}  // namespace zol

namespace zol_monitor {

void sigchild_handler(int, short, void*) {
  int status = 0;
  for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG | WUNTRACED)) >= 1;)
    zol::offer(pid, status);
}

}  // namespace zol_monitor
