// One shell command in a child process, without holding up the loop: it runs until it ends or its time is
// over, and the subclass is then given what it has printed.
//
// The output goes through a file, since nobody reads while the command writes. The file's name follows from
// the version and the command, so that two objects must not run one command at one time. Only the output of
// the command's last part is caught when it is a list ("a; b"): the redirection is put behind the text.
//
// A command that is stopped is stopped with its children, since the shell is between it and us.
//
// Main thread only: ends and time-outs arrive from the loop. The child dies with the process. A subclass's
// destructor calls terminate() when it may find a command running: from here on nobody hears of its end.
#pragma once

#include <memory>
#include <string>

#include "core/sigchild_handler.h"
#include "core/zol_libevent.h"
#include "exec/zol_executor.h"

namespace zol {

namespace async_state {
inline constexpr int idle = 0;
inline constexpr int running = 1;
inline constexpr int finished = 2;  // the command's status was 0
inline constexpr int failed = 3;    // a status or signal other than 0, out of time, stopped, or never started
}  // namespace async_state

class AsyncExecutor : public SigChildHandler {
 public:
  // `timeout_ms` 0: no limit. With a null command the object is empty until set_cmd.
  AsyncExecutor(char const* command, unsigned timeout);
  ~AsyncExecutor() override;
  AsyncExecutor(const AsyncExecutor&) = delete;
  AsyncExecutor& operator=(const AsyncExecutor&) = delete;

  // The command of the next run. Refused with a warning while one is running.
  void set_cmd(char const* command, unsigned timeout);
  // Starts the command; true also while it is running, which isn't run twice. When it can't be started the
  // result alone says so: handle_async_results isn't called.
  bool run();
  // Stops a running command and leaves it failed; handle_async_results isn't called. May block as
  // Executor::stop does.
  void terminate();
  // Arms the time limit, unless it is armed already or there is none; takes it back.
  void schedule();
  void unschedule();
  void async_restart() {}

  // A child that is merely stopped by a signal is ours, and goes on to be waited for.
  bool sigchld_handler_cb(int child, int status) override;
  // Puts the handler on the process's list and takes it off again; a handler may be registered for good.
  virtual void sigchld_register(SigChildHandler* handler) = 0;
  virtual void sigchld_unregister(SigChildHandler* handler) = 0;
  // The command is over: `state` and `result` tell how. May run the next one.
  virtual void handle_async_results() = 0;

  std::unique_ptr<Executor> executor;
  std::string result;  // the first 64 KiB of the output, without the last line feed
  int state = async_state::idle;
  unsigned timeout_ms = 0;
  ZOLEventLibEventTimer timeout_timer;
  std::string cmd;
  int pid = 0;
  std::string output_path;

 private:
  static void invoke_timeout_handler_cb(int fd, short events, void* self);
  void init_executor();
  void retrieve_result();
  void timed_out();
};

}  // namespace zol
