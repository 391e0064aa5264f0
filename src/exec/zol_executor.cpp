#include "exec/zol_executor.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include "exec/zol_executor_launch.h"
#include "sup_logger.h"

namespace zol {

namespace {

constexpr const char* chroot_program = "/usr/sbin/chroot";
constexpr useconds_t check_pause_us = 50000;
constexpr int checks_after_kill = 20;
constexpr int read_size = 1023;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Executor");
  return instance;
}

enum class ChildState { none, running, ended };

// Looks without reaping: the status is left for whom it belongs to.
ChildState child_state(int pid) {
  siginfo_t info{};
  int result = -1;
  do
    result = pid > 0 ? waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) : -1;
  while (result != 0 && pid > 0 && errno == EINTR);
  if (result != 0)
    return ChildState::none;
  return info.si_pid == 0 ? ChildState::running : ChildState::ended;
}

char* argument(const std::string& text) {
  return const_cast<char*>(text.c_str());  // exec(3) takes them so and leaves them alone
}

}  // namespace

ProcessTraits::ProcessTraits(const std::string& command, std::string user_name, std::string root,
                             bool clean_core_dumps)
    : cmd_name(command.substr(command.rfind('/') + 1)),
      cmd(command),
      user(std::move(user_name)),
      root_dir(std::move(root)),
      core_dump(clean_core_dumps) {}

std::string ProcessTraits::get_cmd(const std::vector<std::string>& args) const {
  std::string text = cmd;
  for (const std::string& arg : args)
    text += " " + arg;
  return text;
}

Executor::Executor(char const* program, ...)
    : traits(program == nullptr ? "" : program), core_dump_(traits.core_dump) {
  SUP_LOG(logger(), log_level::debug) << "Executor::Executor: " << traits.cmd << " arguments:";
  va_list list;
  va_start(list, program);
  while (const char* arg = va_arg(list, const char*)) {
    SUP_LOG(logger(), log_level::debug) << "arg: " << arg;
    args.emplace_back(arg);
  }
  va_end(list);
}

Executor::~Executor() {
  drop_start_pipe();
}

bool Executor::start(bool use_vfork, bool die_with_parent) {
  if (traits.cmd.empty()) {
    SUP_LOG(logger(), log_level::error) << "The program name can't be empty.";
    return false;
  }
  if (process_alive()) {
    SUP_LOG(logger(), log_level::error)
        << "The program " << traits.cmd_name << " is already running. PID: " << pid;
    return false;
  }
  const Launch launch = prepare(die_with_parent);
  SUP_LOG(logger(), log_level::info) << "Starting program " << launch.command;
  const int child = spawn(use_vfork, launch);
  if (launch.start_pipe[1] >= 0)
    close(launch.start_pipe[1]);
  drop_start_pipe();
  start_pipe_ = launch.start_pipe[0];
  if (child < 0) {
    SUP_LOG(logger(), log_level::error) << (use_vfork ? "VFork error." : "Fork error.");
    drop_start_pipe();
    pid = 0;
    return false;
  }
  pid = child;
  SUP_LOG(logger(), log_level::info) << "Program " << launch.command << " started with PID " << pid;
  return true;
}

Executor::Launch Executor::prepare(bool die_with_parent) const {
  Launch launch{{}, traits.get_cmd(args), getpid(), die_with_parent, {-1, -1}};
  if (!traits.root_dir.empty()) {
    static const std::string chroot = chroot_program;
    launch.argv = {argument(chroot), argument(traits.root_dir)};
  }
  launch.argv.push_back(argument(traits.cmd));
  for (const std::string& arg : args)
    launch.argv.push_back(argument(arg));
  launch.argv.push_back(nullptr);
  if (pipe2(launch.start_pipe, O_CLOEXEC) != 0)
    launch.start_pipe[0] = launch.start_pipe[1] = -1;
  return launch;
}

// The caller's handlers must not run in the child, where they would write into the caller's loop: all signals
// are held up until the child has put them back to their defaults.
int Executor::spawn(bool use_vfork, const Launch& launch) const {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  // NOLINTNEXTLINE(clang-analyzer-security.insecureAPI.vfork, clang-analyzer-unix.Vfork)
  const pid_t child = use_vfork ? vfork() : fork();
  if (child == 0)
    run_child(launch);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return child;
}

bool Executor::stop() {
  if (pid <= 0) {
    SUP_LOG(logger(), log_level::warning) << "stop"
                                          << ": Trying to stop process with pid 0";
    return true;
  }
  SUP_LOG(logger(), log_level::info) << "Stopping program " << traits.cmd;
  send_signal(SIGTERM);
  if (!process_alive())
    return true;
  usleep(check_pause_us);
  if (process_alive())
    send_signal(SIGKILL);
  for (int check = 0; check < checks_after_kill && process_alive(); ++check)
    usleep(check_pause_us);
  return !process_alive();
}

bool Executor::send_signal(int signal_number) {
  if (pid <= 0) {
    SUP_LOG(logger(), log_level::warning) << "send_signal"
                                          << ": Trying to send signal to pid 0, ignoring";
    return false;
  }
  SUP_LOG(logger(), log_level::info) << "Sending signal " << signal_number << " to pid " << pid;
  const bool reaped = child_state(pid) == ChildState::none;
  if (!reaped && kill(pid, signal_number) == 0)
    return true;
  SUP_LOG(logger(), log_level::error)
      << "Failed to send signal " << signal_number << "(" << strerror(reaped ? ESRCH : errno) << ")";
  return false;
}

bool Executor::process_alive() const {
  return child_state(pid) == ChildState::running;
}

bool Executor::process_alive(int process) {
  if (process <= 0)
    return false;
  const ChildState state = child_state(process);
  if (state != ChildState::none)
    return state == ChildState::running;
  return kill(process, 0) == 0 || errno == EPERM;
}

int Executor::wait() {
  if (pid <= 0)
    return -1;
  int status = 0;
  pid_t reaped = -1;
  do
    reaped = waitpid(pid, &status, 0);
  while (reaped < 0 && errno == EINTR);
  pid = 0;
  return reaped < 0 ? -1 : status;
}

bool Executor::wait_for_program_start() {
  if (start_pipe_ < 0)
    return process_alive();
  char failed = 0;
  ssize_t got = -1;
  do
    got = read(start_pipe_, &failed, sizeof failed);
  while (got < 0 && errno == EINTR);
  drop_start_pipe();
  return got == 0;
}

void Executor::drop_start_pipe() {
  if (start_pipe_ >= 0)
    close(start_pipe_);
  start_pipe_ = -1;
}

void Executor::core_dump(bool clean) {
  core_dump_ = clean;
}

void Executor::do_output_redirection(const std::string& file) {
  output_file = file;
}

std::string Executor::get_output() const {
  if (output_file.empty() || output_file == "/dev/null")
    return "";
  std::ifstream file(output_file, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

bool Executor::run_cmd(char const* cmd, std::string& output) {
  FILE* pipe = cmd == nullptr ? nullptr : popen(cmd, "re");
  if (pipe == nullptr) {
    SUP_LOG(logger(), log_level::error) << "Failed to run cmd: " << (cmd == nullptr ? "" : cmd);
    return false;
  }
  char block[read_size];
  while (fgets(block, sizeof block, pipe) != nullptr)
    output += block;
  pclose(pipe);
  return true;
}

}  // namespace zol
