#include "exec/zol_async_executor.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <functional>

#include "dual_zol_helper.h"
#include "sup_logger.h"

namespace zol {

namespace {

constexpr std::streamsize max_result_size = 65536;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("AsyncExecutor");
  return instance;
}

// The same for a given command and version in each run.
std::string output_path_of(const std::string& command) {
  return "/tmp/" + zol_utils::DualZOLHelper::instance()->get_zol_version() + "_exec_output_" +
         std::to_string(std::hash<std::string>()(command));
}

}  // namespace

AsyncExecutor::AsyncExecutor(char const* command, unsigned timeout)
    : timeout_timer(invoke_timeout_handler_cb, this, -1) {
  if (command != nullptr)
    set_cmd(command, timeout);
}

AsyncExecutor::~AsyncExecutor() = default;

void AsyncExecutor::set_cmd(char const* command, unsigned timeout) {
  if (state == async_state::running) {
    SUP_LOG(logger(), log_level::warning) << "set_cmd"
                                          << ": Still running " << cmd;
    return;
  }
  cmd = command == nullptr ? "" : command;
  timeout_ms = timeout;
  output_path = output_path_of(cmd);
}

bool AsyncExecutor::run() {
  if (state == async_state::running)
    return true;
  SUP_LOG(logger(), log_level::info) << "run"
                                     << ": Running " << cmd;
  init_executor();
  sigchld_register(this);
  if (!executor->start(false, true)) {
    sigchld_unregister(this);
    state = async_state::failed;
    SUP_LOG(logger(), log_level::error) << "run"
                                        << ": Failed to run " << cmd;
    return false;
  }
  unschedule();
  schedule();
  pid = executor->pid;
  state = async_state::running;
  return true;
}

// What an earlier run has left behind goes too: its output must not pass for this one's.
void AsyncExecutor::init_executor() {
  const std::string shell_text = cmd + " > " + output_path;
  result.clear();
  unlink(output_path.c_str());
  executor = std::make_unique<Executor>("/bin/sh", "-c", shell_text.c_str(), nullptr);
}

void AsyncExecutor::schedule() {
  if (timeout_ms != 0 && !timeout_timer.is_pending())
    timeout_timer.charge(timeout_ms);
}

void AsyncExecutor::unschedule() {
  timeout_timer.del(false);
}

bool AsyncExecutor::sigchld_handler_cb(int child, int status) {
  if (!executor || executor->pid != child)
    return false;
  if (WIFSTOPPED(status))
    return true;
  unschedule();
  sigchld_unregister(this);
  if (state == async_state::idle)
    SUP_LOG(logger(), log_level::warning) << "sigchld_handler_cb"
                                          << ": Unexpected Signal (SIGCHLD) from " << cmd;
  if (state != async_state::running)
    return true;  // its result has been given already, or nobody waits for one
  retrieve_result();
  SUP_LOG(logger(), log_level::debug) << "sigchld_handler_cb"
                                      << ": SIGCHLD recieved for " << cmd << " result: " << result;
  const bool well = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (!well)
    SUP_LOG(logger(), log_level::warning) << "sigchld_handler_cb"
                                          << ": command: " << cmd << "failed with exit status: " << status;
  state = well ? async_state::finished : async_state::failed;
  handle_async_results();
  return true;
}

void AsyncExecutor::invoke_timeout_handler_cb(int, short, void* self) {
  static_cast<AsyncExecutor*>(self)->timed_out();
}

void AsyncExecutor::timed_out() {
  if (state > async_state::running)
    return;
  terminate();
  retrieve_result();
  handle_async_results();
}

void AsyncExecutor::terminate() {
  unschedule();
  if (state != async_state::running)
    return;
  if (executor->process_alive())
    executor->stop();
  kill(-executor->pid, SIGKILL);  // the shell's own children, which don't end with it
  sigchld_unregister(this);
  state = async_state::failed;
}

void AsyncExecutor::retrieve_result() {
  std::ifstream file(output_path, std::ios::binary);
  result.clear();
  if (!file) {
    SUP_LOG(logger(), log_level::debug) << "retrieve_result"
                                        << ": failed for " << cmd << " output file does not exist";
    return;
  }
  result.resize(max_result_size);
  file.read(result.data(), max_result_size);
  result.resize(static_cast<std::size_t>(file.gcount()));
  if (result.ends_with('\n'))
    result.pop_back();
  unlink(output_path.c_str());
}

}  // namespace zol
