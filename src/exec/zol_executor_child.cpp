// The child's side of Executor, from the fork to the exec. Under vfork(2) it runs in the caller's memory:
// nothing here may keep a heap object across the exec, and nothing may return into the caller.
#include <fcntl.h>
#include <grp.h>
#include <linux/close_range.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "exec/zol_executor_launch.h"
#include "sup_logger.h"

namespace zol {

namespace {

constexpr int cannot_run = 127;  // as the shell has it

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Executor");
  return instance;
}

// What the caller ignores, catches or holds up is no matter of the program's.
void reset_signals() {
  for (int number = 1; number < NSIG; ++number)
    signal(number, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

std::vector<gid_t> groups_of(const passwd& entry) {
  int count = 64;
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  if (getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) {
    groups.resize(static_cast<std::size_t>(count));
    getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count);
  }
  groups.resize(static_cast<std::size_t>(count));
  return groups;
}

// The plain system calls: the library's set the ids of all threads that it knows of, and under vfork(2) these
// are the caller's.
bool set_ids(const passwd& entry) {
  const std::vector<gid_t> groups = groups_of(entry);
  const bool privileged = geteuid() == 0;
  return (!privileged || syscall(SYS_setgroups, groups.size(), groups.data()) == 0) &&
         syscall(SYS_setgid, entry.pw_gid) == 0 && syscall(SYS_setuid, entry.pw_uid) == 0;
}

bool change_user(const std::string& user) {
  const passwd* entry = getpwnam(user.c_str());
  if (entry == nullptr) {
    SUP_LOG(logger(), log_level::error) << "Failed to get user info for (" << user << ")";
    return false;
  }
  const group* own_group = getgrgid(entry->pw_gid);
  SUP_LOG(logger(), log_level::info) << "Set user " << user << ":"
                                     << (own_group != nullptr ? std::string(own_group->gr_name)
                                                              : std::to_string(entry->pw_gid))
                                     << " for process " << getpid();
  if (set_ids(*entry))
    return true;
  SUP_LOG(logger(), log_level::error) << "Failed to set user " << user << " (" << strerror(errno) << ")";
  return false;
}

// False when the parent is gone already: no signal would come for it.
bool bind_life_to(int parent) {
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
    SUP_LOG(logger(), log_level::error)
        << "Failed to assign death signal with parent " << parent << " (" << strerror(errno) << ")";
  return getppid() == parent;
}

}  // namespace

bool Executor::redirect_output() const {
  FILE* file = fopen(output_file.c_str(), "w");
  if (file == nullptr) {
    SUP_LOG(logger(), log_level::error)
        << "Failed to open a file " << output_file << " for output redirection";
    return false;
  }
  const bool redirected = dup2(fileno(file), STDOUT_FILENO) >= 0;
  if (!redirected)
    SUP_LOG(logger(), log_level::error) << "Failed to redirect STDOUT";
  if (fileno(file) != STDOUT_FILENO)
    fclose(file);
  return redirected;
}

// The script works on the folder that it stands in; the program's own working directory stays.
void Executor::clean_core_dumps() const {
  const std::string folder = traits.cmd.substr(0, traits.cmd.rfind('/') + 1) + ".";
  if (access((folder + "/clean_core_dumps.sh").c_str(), F_OK) != 0)
    return;
  const int working_directory = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (working_directory < 0)
    return;
  if (chdir(folder.c_str()) == 0)
    static_cast<void>(!system(("./clean_core_dumps.sh " + traits.cmd_name).c_str()));
  static_cast<void>(!fchdir(working_directory));
  close(working_directory);
}

// An exception must not leave: the caller's code would go on in a second process.
void Executor::run_child(const Launch& launch) const noexcept {
  const auto give_up = [&launch]() {
    const char failed = 1;
    static_cast<void>(!write(launch.start_pipe[1], &failed, sizeof failed));
    _exit(cannot_run);
  };
  reset_signals();
  setpgid(0, 0);  // so that what the program starts can be ended with it
  if (!output_file.empty() && !redirect_output()) {
    SUP_LOG(logger(), log_level::error) << "Failed to redirect output to " << output_file;
    give_up();
  }
  if (!traits.root_dir.empty())
    SUP_LOG(logger(), log_level::info)
        << "Changing the root directory for process " << getpid() << " to " << traits.root_dir;
  if (!traits.user.empty() && !change_user(traits.user))
    give_up();
  if (launch.die_with_parent && !bind_life_to(launch.parent))
    give_up();
  if (core_dump_)
    clean_core_dumps();
  close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
  execv(launch.argv.front(), launch.argv.data());
  const int error = errno;
  SUP_LOG(logger(), log_level::error)
      << "Failed to run " << launch.command << " error: " << error << " : " << strerror(error);
  give_up();
  _exit(cannot_run);
}

}  // namespace zol
