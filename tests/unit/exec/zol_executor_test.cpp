// The caller's side of an executor.
#include "exec/zol_executor.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "exec_fixture.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/libzolutils/temp_folder.h"

using zol::Executor;
using zol::ProcessTraits;
using zol_test::Announcements;
using zol_test::end_status;
using zol_test::ends;
using zol_test::holds_in_own_process;

namespace {

class ZolExecutor : public testing::Test {
 protected:
  zol_test::TempFolder folder_;
  zol_test::LogCapture log_;
};

// Fork fails for a user who may have no process.
bool without_processes(bool use_vfork, const char* message) {
  zol_test::LogCapture log;
  const rlimit none{0, 0};
  if (setrlimit(RLIMIT_NPROC, &none) != 0 || syscall(SYS_setuid, 65534) != 0)
    return false;
  Executor executor("/bin/true", nullptr);
  return !executor.start(use_vfork, false) && executor.pid == 0 && log.contains(log_level::error, message);
}

// Verifies that the traits hold the path, its last component and what they were given.
TEST_F(ZolExecutor, TraitsHoldPathAndName) {
  const ProcessTraits traits("/usr/sbin/service", "nobody", "/srv", true);
  EXPECT_EQ(traits.cmd, "/usr/sbin/service");
  EXPECT_EQ(traits.cmd_name, "service");
  EXPECT_EQ(traits.user, "nobody");
  EXPECT_EQ(traits.root_dir, "/srv");
  EXPECT_TRUE(traits.core_dump);
  EXPECT_EQ(ProcessTraits("service").cmd_name, "service");
  EXPECT_FALSE(ProcessTraits("service").core_dump);
}

// Verifies that a command line is the path and the arguments, joined by blanks.
TEST_F(ZolExecutor, CommandLineIsJoinedByBlanks) {
  EXPECT_EQ(ProcessTraits("/bin/a").get_cmd({}), "/bin/a");
  EXPECT_EQ(ProcessTraits("/bin/a").get_cmd({"b", "c d"}), "/bin/a b c d");
}

// Verifies that the constructor takes arguments up to the null pointer, empty ones too, and logs each.
TEST_F(ZolExecutor, ConstructorTakesAndLogsArguments) {
  const Executor executor("/bin/echo", "one", "", "three", nullptr);
  EXPECT_EQ(executor.args, (std::vector<std::string>{"one", "", "three"}));
  EXPECT_EQ(executor.pid, 0);
  EXPECT_TRUE(log_.contains(log_level::debug, "Executor::Executor: /bin/echo arguments:"));
  EXPECT_EQ(log_.count("arg: "), 3);
  EXPECT_TRUE(log_.contains(log_level::debug, "arg: three"));
}

// Verifies that an empty program, or a null one, isn't started.
TEST_F(ZolExecutor, EmptyProgramIsRefused) {
  Executor empty("", nullptr);
  EXPECT_FALSE(empty.start(false, false));
  EXPECT_TRUE(log_.contains(log_level::error, "The program name can't be empty."));
  Executor null(static_cast<char const*>(nullptr), nullptr);
  EXPECT_FALSE(null.start(true, false));
  EXPECT_EQ(log_.count("The program name can't be empty."), 2);
}

// Verifies that a start gives the child's id and says what was started.
TEST_F(ZolExecutor, StartRunsProgram) {
  Executor executor("/bin/sh", "-c", "exit 7", nullptr);
  ASSERT_TRUE(executor.start(false, false));
  const int pid = executor.pid;
  ASSERT_GT(pid, 0);
  EXPECT_TRUE(log_.contains("Starting program /bin/sh -c exit 7"));
  EXPECT_TRUE(log_.contains("Program /bin/sh -c exit 7 started with PID " + std::to_string(pid)));
  EXPECT_EQ(WEXITSTATUS(executor.wait()), 7);
}

// Verifies that a program that is still running isn't started again, and that it may be once it has ended,
// reaped or not.
TEST_F(ZolExecutor, RunningProgramIsNotStartedAgain) {
  Executor executor("/bin/sleep", "1000", nullptr);
  ASSERT_TRUE(executor.start(true, false));
  const int first = executor.pid;
  EXPECT_FALSE(executor.start(true, false));
  EXPECT_TRUE(
      log_.contains(log_level::error, "The program sleep is already running. PID: " + std::to_string(first)));
  EXPECT_EQ(executor.pid, first);
  kill(first, SIGKILL);
  ASSERT_TRUE(ends(first));
  ASSERT_TRUE(executor.start(true, false));
  EXPECT_NE(executor.pid, first);
  executor.stop();
  executor.wait();
  EXPECT_EQ(WTERMSIG(end_status(first)), SIGKILL);
}

// Verifies that a fork that fails is told by the result and the log.
TEST_F(ZolExecutor, ForkFailureIsTold) {
  if (geteuid() != 0)
    GTEST_SKIP() << "needs root to become a user without processes";
  EXPECT_TRUE(holds_in_own_process([] { return without_processes(false, "Fork error."); }));
  EXPECT_TRUE(holds_in_own_process([] { return without_processes(true, "VFork error."); }));
}

// Verifies that a stop without a child warns and does nothing.
TEST_F(ZolExecutor, StopWithoutChildOnlyWarns) {
  Executor executor("/bin/true", nullptr);
  executor.stop();
  ASSERT_EQ(log_.records().size(), 2U) << log_.all();  // the constructor's and this one
  EXPECT_TRUE(log_.contains(log_level::warning, "stop: Trying to stop process with pid 0"));
}

// Verifies that a stop ends a child with SIGTERM, though the caller ignores that signal, and leaves the
// status to whom it belongs to.
TEST_F(ZolExecutor, StopEndsChildWithSigterm) {
  const auto before = signal(SIGTERM, SIG_IGN);
  Executor executor("/bin/sleep", "1000", nullptr);
  ASSERT_TRUE(executor.start(false, false));
  ASSERT_TRUE(executor.wait_for_program_start());
  log_.clear();
  EXPECT_TRUE(executor.stop());
  signal(SIGTERM, before);
  EXPECT_TRUE(log_.contains("Stopping program /bin/sleep"));
  EXPECT_TRUE(log_.contains("Sending signal 15 to pid " + std::to_string(executor.pid)));
  EXPECT_FALSE(executor.process_alive());
  EXPECT_EQ(WTERMSIG(end_status(executor.pid)), SIGTERM);
}

// Verifies that a child that ignores SIGTERM is ended with SIGKILL.
TEST_F(ZolExecutor, StopKillsChildThatIgnoresSigterm) {
  Announcements announcements(folder_.file("said"));
  Executor executor("/bin/sh", "-c", "trap '' TERM; echo ready; exec sleep 1000", nullptr);
  executor.do_output_redirection(folder_.file("said"));
  ASSERT_TRUE(executor.start(false, false));
  ASSERT_EQ(announcements.next(), "ready");
  EXPECT_TRUE(executor.stop());
  EXPECT_TRUE(log_.contains("Sending signal 9 to pid " + std::to_string(executor.pid)));
  EXPECT_EQ(WTERMSIG(executor.wait()), SIGKILL);
}

// Verifies that a signal without a child is ignored with a line.
TEST_F(ZolExecutor, SignalWithoutChildIsIgnored) {
  Executor executor("/bin/true", nullptr);
  EXPECT_FALSE(executor.send_signal(SIGTERM));
  EXPECT_TRUE(log_.contains("send_signal: Trying to send signal to pid 0, ignoring"));
  EXPECT_FALSE(log_.contains("Sending signal"));
}

// Verifies that a signal that the kernel refuses is logged with the reason.
TEST_F(ZolExecutor, RefusedSignalIsLogged) {
  Executor executor("/bin/sleep", "1000", nullptr);
  ASSERT_TRUE(executor.start(true, false));
  EXPECT_FALSE(executor.send_signal(9999));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to send signal 9999(Invalid argument)"));
  executor.stop();
  executor.wait();
}

// Verifies that nothing is sent to the number of a child that was reaped: it may be anybody's by now.
TEST_F(ZolExecutor, ReapedChildIsNotSignalled) {
  Executor executor("/bin/true", nullptr);
  executor.pid = getppid();  // lives, and is no child
  EXPECT_FALSE(executor.process_alive());
  EXPECT_FALSE(executor.send_signal(0));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to send signal 0(No such process)"));
}

// Verifies what counts as alive: a running process of anybody's, not one that has ended and isn't reaped.
TEST_F(ZolExecutor, EndedProcessIsNotAlive) {
  EXPECT_TRUE(Executor::process_alive(getpid()));
  EXPECT_TRUE(Executor::process_alive(getppid()));
  EXPECT_FALSE(Executor::process_alive(0));
  EXPECT_FALSE(Executor::process_alive(-1));
  Executor executor("/bin/sleep", "1000", nullptr);
  EXPECT_FALSE(executor.process_alive());
  ASSERT_TRUE(executor.start(true, false));
  const int pid = executor.pid;
  EXPECT_TRUE(executor.process_alive());
  EXPECT_TRUE(Executor::process_alive(pid));
  kill(pid, SIGKILL);
  ASSERT_TRUE(ends(pid));
  EXPECT_FALSE(executor.process_alive());
  EXPECT_FALSE(Executor::process_alive(pid));
  EXPECT_EQ(WTERMSIG(executor.wait()), SIGKILL);
  EXPECT_FALSE(Executor::process_alive(pid));
}

// Verifies that a wait without a child gives -1, and that a second wait has none.
TEST_F(ZolExecutor, WaitWithoutChild) {
  Executor executor("/bin/true", nullptr);
  EXPECT_EQ(executor.wait(), -1);
  ASSERT_TRUE(executor.start(false, false));
  EXPECT_EQ(executor.wait(), 0);
  EXPECT_EQ(executor.wait(), -1);
}

// Verifies that the caller can wait until the child has become the program, and learns when it can't.
TEST_F(ZolExecutor, ProgramStartCanBeWaitedFor) {
  for (const bool use_vfork : {false, true}) {
    Executor executor("/bin/sleep", "1000", nullptr);
    EXPECT_FALSE(executor.wait_for_program_start());
    ASSERT_TRUE(executor.start(use_vfork, false));
    EXPECT_TRUE(executor.wait_for_program_start());
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(executor.pid) + "/exe"),
              std::filesystem::canonical("/bin/sleep"));
    executor.stop();
    executor.wait();
    Executor none("/nonexistent/program", nullptr);
    ASSERT_TRUE(none.start(use_vfork, false));
    EXPECT_FALSE(none.wait_for_program_start());
    none.wait();
  }
}

// Verifies that a redirected program's output can be read, and replaces what the file held.
TEST_F(ZolExecutor, OutputGoesToFile) {
  Executor executor("/bin/echo", "new", nullptr);
  executor.do_output_redirection(folder_.write("out", "a much longer old text\n"));
  ASSERT_TRUE(executor.start(false, false));
  EXPECT_EQ(executor.wait(), 0);
  EXPECT_EQ(executor.get_output(), "new\n");
}

// Verifies that there is no output without a file, without the file being there, and with /dev/null.
TEST_F(ZolExecutor, NoFileNoOutput) {
  Executor executor("/bin/true", nullptr);
  EXPECT_EQ(executor.get_output(), "");
  executor.do_output_redirection("/dev/null");
  EXPECT_EQ(executor.get_output(), "");
  executor.do_output_redirection(folder_.file("absent"));
  EXPECT_EQ(executor.get_output(), "");
}

// Verifies that a shell command's output is added whole to what is there, however long its lines are.
TEST_F(ZolExecutor, RunCmdAddsOutput) {
  std::string output = "before ";
  EXPECT_TRUE(Executor::run_cmd("printf '%03000d\\nend' 0", output));
  EXPECT_EQ(output, "before " + std::string(3000, '0') + "\nend");
}

// Verifies that a command that can't be run is logged.
TEST_F(ZolExecutor, RunCmdFailureIsLogged) {
  EXPECT_TRUE(holds_in_own_process([] {
    zol_test::LogCapture log;
    const rlimit no_files{0, 0};
    std::string output;
    return setrlimit(RLIMIT_NOFILE, &no_files) == 0 && !Executor::run_cmd("echo x", output) &&
           log.contains(log_level::error, "Failed to run cmd: echo x") && output.empty();
  }));
  std::string output;
  EXPECT_FALSE(Executor::run_cmd(nullptr, output));
}

}  // namespace
