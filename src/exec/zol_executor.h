// One external program, run as a child process: start, signals, stop, output.
//
// Main thread only. The object doesn't reap: the loop's SIGCHLD handler does (core/sigchild_handler.h), or
// wait(). A child that has ended but isn't reaped yet counts as not alive. The object's end leaves a running
// child alone.
#pragma once

#include <string>
#include <vector>

namespace zol {

// What is run, as whom and where.
class ProcessTraits {
 public:
  // Empty `user_name`: the caller's user. Empty `root`: the caller's root directory.
  explicit ProcessTraits(const std::string& command, std::string user_name = "", std::string root = "",
                         bool clean_core_dumps = false);
  virtual ~ProcessTraits() = default;
  ProcessTraits(const ProcessTraits&) = default;
  ProcessTraits& operator=(const ProcessTraits&) = default;

  // The command and the arguments, joined by blanks.
  std::string get_cmd(const std::vector<std::string>& args) const;

  std::string cmd_name;  // what stands behind the last "/" of the path
  std::string cmd;       // the whole path
  std::string user;
  std::string root_dir;
  bool core_dump;
};

class Executor {
 public:
  // The arguments are `char const*`, ended by a null pointer. A null program is an empty one.
  __attribute__((sentinel)) explicit Executor(char const* program, ...);
  virtual ~Executor();
  Executor(const Executor&) = delete;
  Executor& operator=(const Executor&) = delete;

  // Forks and goes on; false, with an error line, without a program, while the last child is alive, and when
  // no process can be made.
  //
  // What the child does before it becomes the program, in this order: redirect its output, change root, user,
  // death signal, clean-up of old core dumps. The program starts with the usual signal handling and an empty
  // signal mask, and none of the caller's descriptors above 2. A child that can't get so far (no such
  // program, user or output file) says why in the log and ends with status 127; that comes as any other end
  // of a child. With `use_vfork` the caller is held until then.
  //
  // A user is changed with all of its groups, before chroot(8) is run: chroot(8) needs root's rights, so that
  // a root directory together with another user fails.
  //
  // With `die_with_parent` the kernel kills the child when the calling thread ends (PR_SET_PDEATHSIG,
  // prctl(2)), unless the program is set-user-id.
  virtual bool start(bool use_vfork, bool die_with_parent);
  // SIGTERM, and SIGKILL if the child is still alive 50 ms later; blocks for that time, and for a second at
  // most until the child is gone. True when it is gone.
  virtual bool stop();
  // False, with a log line, when the signal can't be sent. A child that was reaped is never signalled: its
  // number may be another process's by now.
  virtual bool send_signal(int signal_number);

  bool process_alive() const;
  // Of any process. One that has ended and that this process hasn't reaped is not alive.
  static bool process_alive(int process);
  // Waits for the child's end and reaps it. Its status as waitpid(2) gives it, -1 when there is no child.
  int wait();
  // Waits until the child has become the program, or chroot(8) with a root directory. False when it has
  // failed to.
  bool wait_for_program_start();

  // Whether "clean_core_dumps.sh" in the program's directory, if there is one, runs before the program.
  void core_dump(bool clean);
  // The program's standard output replaces the text of this file.
  void do_output_redirection(const std::string& file);
  // What the output file holds now; empty without one, or when it can't be read.
  std::string get_output() const;
  // Runs a shell command to its end and adds its output to `output`. False when it can't be run.
  static bool run_cmd(char const* cmd, std::string& output);

  int pid = 0;  // of the last child; 0 before the first and after wait()
  ProcessTraits traits;
  std::vector<std::string> args;
  std::string output_file;

 private:
  struct Launch;

  Launch prepare(bool die_with_parent) const;
  int spawn(bool use_vfork, const Launch& launch) const;
  // The child's side.
  [[noreturn]] void run_child(const Launch& launch) const noexcept;
  bool redirect_output() const;
  void clean_core_dumps() const;
  void drop_start_pipe();

  bool core_dump_;
  int start_pipe_ = -1;  // closed by the child's exec, a byte in it tells of a failure
};

}  // namespace zol
