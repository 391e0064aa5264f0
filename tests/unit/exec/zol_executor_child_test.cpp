// The child's side of an executor: what it does before it becomes the program. Under vfork the child's log
// lines land in the test's own log.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "exec/zol_executor.h"
#include "exec_fixture.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/libzolutils/temp_folder.h"

using zol::Executor;
using zol_test::end_status;
using zol_test::ends;

namespace {

constexpr int cannot_run = 127;

class ZolExecutorChild : public testing::Test {
 protected:
  // Runs the program to its end under vfork; its status.
  int run(Executor& executor) {
    EXPECT_TRUE(executor.start(true, false));
    pid_ = executor.pid;
    return executor.wait();
  }
  std::string run_for_output(Executor& executor) {
    executor.do_output_redirection(folder_.file("out"));
    EXPECT_EQ(run(executor), 0) << log_.all();
    return executor.get_output();
  }
  std::string pid() const { return std::to_string(pid_); }

  zol_test::TempFolder folder_;
  zol_test::LogCapture log_;
  int pid_ = 0;
};

bool is_root() {
  return geteuid() == 0;
}

// Verifies that a program that can't be run is logged with the reason, and ends the child only.
TEST_F(ZolExecutorChild, ExecFailureIsLogged) {
  Executor executor("/nonexistent/program", "one", nullptr);
  EXPECT_EQ(WEXITSTATUS(run(executor)), cannot_run);
  EXPECT_TRUE(log_.contains(log_level::error,
                            "Failed to run /nonexistent/program one error: 2 : No such file or directory"));
}

// Verifies that after a fork, too, the reason reaches the log, and the caller sees a child that has ended.
TEST(ZolExecutorFork, ExecFailureIsLogged) {
  testing::internal::CaptureStderr();
  Executor executor("/nonexistent/program", nullptr);
  const bool started = executor.start(false, false);
  const int status = executor.wait();
  const std::string logged = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(started);
  EXPECT_EQ(WEXITSTATUS(status), cannot_run);
  EXPECT_NE(logged.find("Failed to run /nonexistent/program error: 2 : No such file or directory"),
            std::string::npos)
      << logged;
}

// Verifies that an output file that can't be opened keeps the program from running.
TEST_F(ZolExecutorChild, RedirectionFailureEndsChild) {
  const std::string file = folder_.path() + "/absent/out";
  Executor executor("/bin/true", nullptr);
  executor.do_output_redirection(file);
  EXPECT_EQ(WEXITSTATUS(run(executor)), cannot_run);
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to open a file " + file + " for output redirection"));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to redirect output to " + file));
}

// Verifies that the program inherits none of the caller's descriptors, not even the one that its output was
// opened with.
TEST_F(ZolExecutorChild, DescriptorsAreNotInherited) {
  const int low = open("/dev/null", O_RDONLY);
  const int high = fcntl(low, F_DUPFD, 100);
  ASSERT_EQ(high, 100);
  Executor executor("/bin/sh", "-c", "for fd in 3 4 5 6 7 8 9 100; do readlink /proc/$$/fd/$fd; done; true",
                    nullptr);
  EXPECT_EQ(run_for_output(executor), "");
  close(low);
  close(high);
}

// Verifies that signals that the caller ignores or blocks work as usual in the program.
TEST_F(ZolExecutorChild, SignalsWorkAsUsual) {
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  sigprocmask(SIG_BLOCK, &blocked, &before);
  const auto handler = signal(SIGTERM, SIG_IGN);
  Executor executor("/bin/grep", "-E", "^Sig(Blk|Ign)", "/proc/self/status", nullptr);
  EXPECT_EQ(run_for_output(executor), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
  sigset_t after;
  sigprocmask(SIG_SETMASK, &before, &after);
  EXPECT_EQ(sigismember(&after, SIGUSR1), 1);  // the caller's own are as they were
  EXPECT_EQ(sigismember(&after, SIGHUP), sigismember(&before, SIGHUP));
  EXPECT_EQ(signal(SIGTERM, handler), SIG_IGN);
}

// Verifies that the program runs with the user's id and with the user's groups only.
TEST_F(ZolExecutorChild, UserIsChanged) {
  if (!is_root())
    GTEST_SKIP() << "needs root to change the user";
  for (const bool use_vfork : {true, false}) {
    Executor executor("/bin/grep", "-E", "^(Uid|Gid|Groups)", "/proc/self/status", nullptr);
    executor.traits.user = "nobody";
    executor.do_output_redirection(folder_.file("out"));
    ASSERT_TRUE(executor.start(use_vfork, false));
    const int child = executor.pid;
    EXPECT_EQ(executor.wait(), 0);
    EXPECT_EQ(executor.get_output(),
              "Uid:\t65534\t65534\t65534\t65534\nGid:\t65534\t65534\t65534\t65534\nGroups:\t65534 \n");
    EXPECT_EQ(log_.contains("Set user nobody:nogroup for process " + std::to_string(child)), use_vfork);
  }
  EXPECT_EQ(geteuid(), 0U);  // the caller's own is as it was
}

// Verifies that a program isn't run at all when its user doesn't exist, let alone as the caller's.
TEST_F(ZolExecutorChild, MissingUserEndsChild) {
  Executor executor("/bin/touch", folder_.file("touched").c_str(), nullptr);
  executor.traits.user = "no-such-user";
  EXPECT_EQ(WEXITSTATUS(run(executor)), cannot_run);
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to get user info for (no-such-user)"));
  EXPECT_FALSE(std::filesystem::exists(folder_.file("touched")));
}

// Verifies that a user that the caller may not become ends the child.
TEST_F(ZolExecutorChild, ForbiddenUserEndsChild) {
  if (!is_root())
    GTEST_SKIP() << "needs root to give its rights up";
  EXPECT_TRUE(zol_test::holds_in_own_process([] {
    zol_test::LogCapture log;
    Executor executor("/bin/true", nullptr);
    executor.traits.user = "root";
    return setuid(65534) == 0 && executor.start(true, false) && WEXITSTATUS(executor.wait()) == cannot_run &&
           log.contains(log_level::error, "Failed to set user root (Operation not permitted)");
  }));
}

// Copies a program and its libraries under a root directory of their own.
void furnish(const std::string& root, const std::string& program) {
  const std::string copy =
      "cp -L --parents " + program + " $(ldd " + program + " | grep -o '/[^ ]*') " + root;
  std::string output;
  ASSERT_TRUE(Executor::run_cmd(copy.c_str(), output));
}

// Verifies that the program sees the other root directory, while its output goes to the caller's.
TEST_F(ZolExecutorChild, RootDirectoryIsChanged) {
  if (!is_root())
    GTEST_SKIP() << "needs root to change the root directory";
  const std::string root = folder_.path() + "/root";
  folder_.write("root/marker", "inside\n");
  furnish(root, "/bin/cat");
  Executor executor("/bin/cat", "/marker", nullptr);
  executor.traits.root_dir = root;
  EXPECT_EQ(run_for_output(executor), "inside\n");
  EXPECT_TRUE(log_.contains("Changing the root directory for process " + pid() + " to " + root));
}

// Verifies that a root directory together with a user without rights fails in chroot(8) and doesn't run the
// program outside.
TEST_F(ZolExecutorChild, UserMayNotChangeRoot) {
  if (!is_root())
    GTEST_SKIP() << "needs root to change the user";
  Executor executor("/bin/sh", "-c", "exit 0", nullptr);
  executor.traits.user = "nobody";
  executor.traits.root_dir = "/";
  testing::internal::CaptureStderr();
  const int status = run(executor);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(WEXITSTATUS(status), 125);
  EXPECT_NE(said.find("chroot"), std::string::npos) << said;
}

// The id of a sleeper that a process of its own has started, and that process's end, by the kernel's hand.
int orphan_of_killed_parent(bool die_with_parent) {
  int ends_of_pipe[2];
  EXPECT_EQ(pipe(ends_of_pipe), 0);
  const pid_t parent = fork();
  if (parent == 0) {
    Executor executor("/bin/sleep", "1000", nullptr);
    executor.start(false, die_with_parent);
    executor.wait_for_program_start();
    static_cast<void>(!write(ends_of_pipe[1], &executor.pid, sizeof executor.pid));
    pause();
    _exit(0);
  }
  int sleeper = 0;
  EXPECT_EQ(read(ends_of_pipe[0], &sleeper, sizeof sleeper), static_cast<ssize_t>(sizeof sleeper));
  close(ends_of_pipe[0]);
  close(ends_of_pipe[1]);
  kill(parent, SIGKILL);
  EXPECT_EQ(WTERMSIG(end_status(parent)), SIGKILL);
  return sleeper;
}

// Verifies that a child dies with its parent when that was asked for, and outlives it otherwise.
TEST_F(ZolExecutorChild, DiesWithParent) {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);  // orphans come to the test
  const int bound = orphan_of_killed_parent(true);
  EXPECT_EQ(WTERMSIG(end_status(bound)), SIGKILL);
  const int free_one = orphan_of_killed_parent(false);
  EXPECT_TRUE(Executor::process_alive(free_one));
  kill(free_one, SIGTERM);
  EXPECT_EQ(WTERMSIG(end_status(free_one)), SIGTERM);
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

// Verifies that a child whose parent is gone before it can ask to die with it doesn't run.
TEST_F(ZolExecutorChild, OrphanDoesNotStart) {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  const std::string gate = folder_.file("gate");  // the child's opening waits for the test's
  ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
  const std::string touched = folder_.file("touched");
  const pid_t parent = fork();
  if (parent == 0) {
    Executor executor("/bin/touch", touched.c_str(), nullptr);
    executor.do_output_redirection(gate);
    _exit(executor.start(false, true) ? 0 : 1);
  }
  EXPECT_EQ(end_status(parent), 0);
  const std::ifstream released(gate);
  siginfo_t info{};
  ASSERT_EQ(waitid(P_ALL, 0, &info, WEXITED), 0);
  EXPECT_EQ(info.si_status, cannot_run);
  EXPECT_FALSE(std::filesystem::exists(touched));
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

class CoreDumps : public ZolExecutorChild {
 protected:
  // A program that writes "program", and a clean-up script beside it that writes its argument and folder.
  std::string make_program() const {
    const std::string program = folder_.write(
        "bin/worker", "#!/bin/sh\nread line < \"$0.cleaned\"\necho \"$line, program in $PWD\"\n");
    const std::string script =
        folder_.write("bin/clean_core_dumps.sh", "#!/bin/sh\necho \"cleaned for $1\" > worker.cleaned\n");
    chmod(program.c_str(), 0755);
    chmod(script.c_str(), 0755);
    return program;
  }
};

// Verifies that the clean-up script beside the program runs before it, with its name, in its folder, and that
// the program keeps the caller's working directory.
TEST_F(CoreDumps, AreCleanedBeforeProgram) {
  Executor executor(make_program().c_str(), nullptr);
  executor.core_dump(true);
  EXPECT_EQ(run_for_output(executor),
            "cleaned for worker, program in " + std::filesystem::current_path().string() + "\n");
}

// Verifies that nothing is cleaned without the flag.
TEST_F(CoreDumps, AreLeftWithoutFlag) {
  Executor executor(make_program().c_str(), nullptr);
  executor.core_dump(true);
  executor.core_dump(false);
  run(executor);
  EXPECT_FALSE(std::filesystem::exists(folder_.file("bin/worker.cleaned")));
}

// Verifies that a program without a clean-up script beside it runs all the same.
TEST_F(CoreDumps, ScriptMayBeMissing) {
  Executor executor("/bin/echo", "ran", nullptr);
  executor.core_dump(true);
  EXPECT_EQ(run_for_output(executor), "ran\n");
}

}  // namespace
