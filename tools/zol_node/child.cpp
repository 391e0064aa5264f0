#include "zol_node/child.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

namespace standin {

pid_t start_child(const std::string& program) {
  const pid_t pid = fork();
  if (pid != 0)
    return pid;
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  char* const arguments[] = {const_cast<char*>(program.c_str()), nullptr};
  execv(program.c_str(), arguments);
  perror(program.c_str());
  _exit(127);
}

Ending ending_of(int wait_status) {
  if (WIFSIGNALED(wait_status))
    return {true, WTERMSIG(wait_status)};
  return {false, WEXITSTATUS(wait_status)};
}

}  // namespace standin
