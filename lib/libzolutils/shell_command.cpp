// Shell commands of zol::Helper; posix_spawn(3), waitpid(2).
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "common/unique_fd.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("Helper");
  return l;
}

// What the shell starts with: the pipe as its output, and no trace of the signals that this process ignores
// or blocks, which it would hand down to every command.
class SpawnSettings {
 public:
  SpawnSettings() {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawnattr_init(&attributes_);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    ::posix_spawnattr_setsigmask(&attributes_, &none);
    ::posix_spawnattr_setsigdefault(&attributes_, &all);
    ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~SpawnSettings() {
    ::posix_spawnattr_destroy(&attributes_);
    ::posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  void send_to(int from, int to) { ::posix_spawn_file_actions_adddup2(&actions_, from, to); }
  int spawn(pid_t& pid, const std::string& command) const {
    std::string shell = "sh";
    std::string option = "-c";
    std::string text = command;
    std::array<char*, 4> arguments = {shell.data(), option.data(), text.data(), nullptr};
    return ::posix_spawn(&pid, "/bin/sh", &actions_, &attributes_, arguments.data(), environ);
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

void read_to_end(int fd, std::string& output) {
  std::array<char, 4096> block;
  for (;;) {
    const ssize_t got = ::read(fd, block.data(), block.size());
    if (got > 0)
      output.append(block.data(), static_cast<std::size_t>(got));
    else if (got == 0 || errno != EINTR)
      return;
  }
}

// The daemon reaps children of any kind when its loop handles SIGCHLD. That comes after this call has
// returned, so that nobody takes the status away in between.
int wait_for(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR)
      return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int run_shell(const std::string& command, bool with_errors, std::string& output) {
  output.clear();
  std::array<int, 2> ends;
  if (command.find('\0') != std::string::npos || ::pipe2(ends.data(), O_CLOEXEC) != 0) {
    SUP_LOG(logger(), log_level::error) << "run_cmd: couldn't run \"" << command.c_str() << "\"";
    return -1;
  }
  const zol_utils::UniqueFd reader(ends[0]);
  zol_utils::UniqueFd writer(ends[1]);
  SpawnSettings settings;
  settings.send_to(writer.get(), STDOUT_FILENO);
  if (with_errors)
    settings.send_to(writer.get(), STDERR_FILENO);
  pid_t pid = -1;
  if (const int error = settings.spawn(pid, command); error != 0) {
    SUP_LOG(logger(), log_level::error)
        << "run_cmd: couldn't run \"" << command << "\": " << std::strerror(error);
    return -1;
  }
  writer.reset();
  read_to_end(reader.get(), output);
  return wait_for(pid);
}

}  // namespace

std::string Helper::run_cmd(const std::string& command) {
  std::string output;
  run_shell(command, false, output);
  return output;
}

int Helper::run_cmd_stderr(const std::string& command, std::string& output) {
  return run_shell(command, true, output);
}

}  // namespace zol
