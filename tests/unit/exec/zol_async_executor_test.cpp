// Commands run beside the loop.
#include "exec/zol_async_executor.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>

#include "exec_fixture.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/core/loop_fixture.h"
#include "tests/unit/libzolutils/temp_folder.h"

using zol_test::ends;

namespace {

class Command : public zol::AsyncExecutor {
 public:
  explicit Command(char const* command, unsigned timeout = 0) : AsyncExecutor(command, timeout) {}
  ~Command() override { terminate(); }

  void sigchld_register(zol::SigChildHandler* handler) override {
    ++registered;
    zol::sigchild_handler_register(handler);
  }
  void sigchld_unregister(zol::SigChildHandler* handler) override {
    --registered;
    zol::sigchild_handler_unregister(handler);
  }
  void handle_async_results() override {
    ++handled;
    handled_state = state;
    if (next)
      next();
  }

  int registered = 0;
  int handled = 0;
  int handled_state = -1;
  std::function<void()> next;
};

class ZolAsyncExecutor : public zol_test::LoopTest {
 protected:
  ZolAsyncExecutor() { signal_.add(SIGCHLD, -1); }

  static bool run_to_end(Command& command) {
    const int before = command.handled;
    return command.run() && run_until([&] { return command.handled > before; });
  }
  static bool stops(int pid) {
    return run_until([pid] { return zol_test::state_of(pid) == 'T'; });
  }

  zol_test::TempFolder folder_;
  zol_test::LogCapture log_;
  zol::ZOLEventLibEventSignal signal_{SIGCHLD, zol_monitor::sigchild_handler, nullptr};
};

// Verifies that a command's output is what the subclass is given, without the last line feed, and that its
// file is gone.
TEST_F(ZolAsyncExecutor, GivesOutput) {
  Command command("printf 'one\\ntwo\\n'");
  EXPECT_EQ(command.state, zol::async_state::idle);
  ASSERT_TRUE(command.run());
  EXPECT_EQ(command.state, zol::async_state::running);
  EXPECT_EQ(command.pid, command.executor->pid);
  EXPECT_EQ(command.registered, 1);
  EXPECT_TRUE(log_.contains("run: Running printf 'one\\ntwo\\n'"));
  ASSERT_TRUE(run_until([&] { return command.handled == 1; }));
  EXPECT_EQ(command.handled_state, zol::async_state::finished);
  EXPECT_EQ(command.result, "one\ntwo");
  EXPECT_EQ(command.registered, 0);
  EXPECT_FALSE(std::filesystem::exists(command.output_path));
  EXPECT_TRUE(log_.contains(
      log_level::debug, "sigchld_handler_cb: SIGCHLD recieved for printf 'one\\ntwo\\n' result: one\ntwo"));
}

// Verifies that of a flood of output the first 64 KiB are taken, and that an empty line at the end stays.
TEST_F(ZolAsyncExecutor, LongOutput) {
  Command command("head -c 10000000 /dev/zero | tr '\\0' x");
  ASSERT_TRUE(run_to_end(command));
  EXPECT_EQ(command.result, std::string(65536, 'x'));
  command.set_cmd("printf 'one\\n\\n'", 0);
  ASSERT_TRUE(run_to_end(command));
  EXPECT_EQ(command.result, "one\n");
}

// Verifies that the output file's name is the version and the hash of the command, worked out by hand for
// "true" (the string hash of the standard library, seed 0xc70f6907).
TEST_F(ZolAsyncExecutor, OutputFileFollowsFromCommand) {
  const Command command("true");
  EXPECT_EQ(command.output_path, "/tmp/zol-1.0.0_exec_output_1325321672193711394");
  EXPECT_EQ(Command("true").output_path, command.output_path);
  EXPECT_NE(Command("false").output_path, command.output_path);
}

// Verifies that the command is run by the shell with its output sent to the file.
TEST_F(ZolAsyncExecutor, ShellGetsCommandAndFile) {
  Command command("exec sleep 1000");
  ASSERT_TRUE(command.run());
  EXPECT_EQ(command.executor->traits.cmd, "/bin/sh");
  EXPECT_EQ(command.executor->args,
            (std::vector<std::string>{"-c", "exec sleep 1000 > " + command.output_path}));
}

// Verifies that an object without a command is empty until it gets one.
TEST_F(ZolAsyncExecutor, EmptyUntilCommand) {
  Command command(nullptr, 5000);
  EXPECT_EQ(command.cmd, "");
  EXPECT_EQ(command.output_path, "");
  EXPECT_EQ(command.timeout_ms, 0U);
  EXPECT_EQ(command.executor, nullptr);
  EXPECT_FALSE(command.sigchld_handler_cb(1, 0));
  command.set_cmd("echo set", 5000);
  EXPECT_EQ(command.timeout_ms, 5000U);
  ASSERT_TRUE(run_to_end(command));
  EXPECT_EQ(command.result, "set");
}

// Verifies that an empty command's file is read and removed as any other.
TEST_F(ZolAsyncExecutor, EmptyCommandMakesEmptyFile) {
  Command command("");
  ASSERT_TRUE(run_to_end(command));
  EXPECT_EQ(command.handled_state, zol::async_state::finished);
  EXPECT_EQ(command.result, "");
  EXPECT_FALSE(log_.contains("output file does not exist"));
  EXPECT_FALSE(std::filesystem::exists(command.output_path));
}

// Verifies that a command that ends with another status than 0 has failed, with what it has printed.
TEST_F(ZolAsyncExecutor, FailedCommand) {
  Command command("sh -c 'echo partly; exit 3'");
  ASSERT_TRUE(run_to_end(command));
  EXPECT_EQ(command.handled_state, zol::async_state::failed);
  EXPECT_EQ(command.result, "partly");
  EXPECT_TRUE(
      log_.contains("sigchld_handler_cb: command: sh -c 'echo partly; exit 3'failed with exit status: " +
                    std::to_string(3 << 8)));
}

// Verifies that a command that a signal ends has failed.
TEST_F(ZolAsyncExecutor, KilledCommand) {
  Command command("exec sleep 1000");
  ASSERT_TRUE(command.run());
  kill(command.pid, SIGKILL);
  ASSERT_TRUE(run_until([&] { return command.handled == 1; }));
  EXPECT_EQ(command.handled_state, zol::async_state::failed);
  EXPECT_TRUE(log_.contains("failed with exit status: 9"));
}

// Verifies that a file that isn't there gives an empty result and a line, and not the last run's result.
TEST_F(ZolAsyncExecutor, MissingFile) {
  Command command("echo one");
  ASSERT_TRUE(run_to_end(command));
  ASSERT_EQ(command.result, "one");
  command.output_path = folder_.path() + "/absent/file";
  ASSERT_TRUE(run_to_end(command));
  EXPECT_EQ(command.handled_state, zol::async_state::failed);
  EXPECT_EQ(command.result, "");
  EXPECT_TRUE(
      log_.contains(log_level::debug, "retrieve_result: failed for echo one output file does not exist"));
}

// Verifies that what an earlier run has left behind isn't taken for the output of one that makes none.
TEST_F(ZolAsyncExecutor, OldFileIsNotRead) {
  Command command("exit 4; true");
  std::ofstream(command.output_path) << "old";
  ASSERT_TRUE(run_to_end(command));
  EXPECT_EQ(command.result, "");
  EXPECT_FALSE(std::filesystem::exists(command.output_path));
}

// Verifies that a running command isn't run twice and keeps its text.
TEST_F(ZolAsyncExecutor, RunningCommandIsNotRunTwice) {
  Command command("exec sleep 1000");
  ASSERT_TRUE(command.run());
  const int pid = command.pid;
  EXPECT_TRUE(command.run());
  EXPECT_EQ(command.pid, pid);
  EXPECT_EQ(command.registered, 1);
  command.set_cmd("echo other", 0);
  EXPECT_EQ(command.cmd, "exec sleep 1000");
  EXPECT_TRUE(log_.contains(log_level::warning, "set_cmd: Still running exec sleep 1000"));
}

// Verifies that a child that ends before its id is noted anywhere is still told of: the signal waits for the
// loop.
TEST_F(ZolAsyncExecutor, ChildMayEndBeforeItIsRegistered) {
  Command command("echo quick");
  ASSERT_TRUE(command.run());
  ASSERT_TRUE(ends(command.executor->pid));
  EXPECT_EQ(command.handled, 0);
  ASSERT_TRUE(run_until([&] { return command.handled == 1; }));
  EXPECT_EQ(command.result, "quick");
}

// Verifies that two commands that end together each get their own result.
TEST_F(ZolAsyncExecutor, TwoEndTogether) {
  Command first("echo first");
  Command second("echo second");
  ASSERT_TRUE(first.run());
  ASSERT_TRUE(second.run());
  ASSERT_TRUE(ends(first.pid) && ends(second.pid));
  zol_monitor::sigchild_handler(SIGCHLD, 0, nullptr);
  EXPECT_EQ(first.handled, 1);
  EXPECT_EQ(second.handled, 1);
  EXPECT_EQ(first.result, "first");
  EXPECT_EQ(second.result, "second");
}

// Verifies that a command that runs over its time is stopped and handed over as failed with what it has
// printed, and that its end, which comes later, isn't heard.
TEST_F(ZolAsyncExecutor, TimeLimit) {
  Command command("exec sh -c 'echo begun; exec sleep 1000'", 100);
  ASSERT_TRUE(command.run());
  EXPECT_TRUE(command.timeout_timer.is_pending());
  const int pid = command.pid;
  ASSERT_TRUE(run_until([&] { return command.handled == 1; }));
  EXPECT_EQ(command.handled_state, zol::async_state::failed);
  EXPECT_EQ(command.registered, 0);
  EXPECT_FALSE(std::filesystem::exists(command.output_path));
  EXPECT_FALSE(zol::Executor::process_alive(pid));
  ASSERT_TRUE(run_until([pid] { return zol_test::state_of(pid) == '\0'; }));  // reaped
  EXPECT_EQ(command.handled, 1);
  EXPECT_FALSE(log_.contains("SIGCHLD recieved"));
}

// Verifies that what the command's shell has started ends with it, though it ignores SIGTERM.
TEST_F(ZolAsyncExecutor, TimeLimitOfShellsChild) {
  zol_test::Announcements announcements(folder_.file("said"));
  const std::string text = "sh -c 'trap \"\" TERM; echo $$ > " + folder_.file("said") + "; exec sleep 1000'";
  Command command(text.c_str(), 0);
  ASSERT_TRUE(command.run());
  const int child = std::stoi(announcements.next());
  ASSERT_NE(child, command.pid);
  command.terminate();
  EXPECT_TRUE(ends(child));
}

// Verifies that a command that ignores SIGTERM doesn't outlive its time either, and that its output is kept.
TEST_F(ZolAsyncExecutor, TimeLimitOfStubbornCommand) {
  zol_test::Announcements announcements(folder_.file("said"));
  const std::string text =
      "exec sh -c 'trap \"\" TERM; echo begun; echo ready > " + folder_.file("said") + "; exec sleep 1000'";
  Command command(text.c_str(), 0);
  ASSERT_TRUE(command.run());
  ASSERT_EQ(announcements.next(), "ready");
  command.timeout_ms = 1;
  command.schedule();
  ASSERT_TRUE(run_until([&] { return command.handled == 1; }));
  EXPECT_EQ(command.handled_state, zol::async_state::failed);
  EXPECT_EQ(command.result, "begun");
  EXPECT_TRUE(log_.contains("Sending signal 9 to pid " + std::to_string(command.pid)));
}

// Verifies that the end of a command disarms its time limit.
TEST_F(ZolAsyncExecutor, EndDisarmsTimeLimit) {
  Command command("true", 60000);
  ASSERT_TRUE(run_to_end(command));
  EXPECT_FALSE(command.timeout_timer.is_pending());
}

// Verifies that without a limit no timer is armed, and that an armed one isn't put off by another schedule.
TEST_F(ZolAsyncExecutor, Schedule) {
  Command command("true");
  command.schedule();
  EXPECT_FALSE(command.timeout_timer.is_pending());
  command.set_cmd("true", 1);
  command.schedule();
  ASSERT_TRUE(command.timeout_timer.is_pending());
  command.timeout_ms = 3600000;
  command.schedule();
  ASSERT_TRUE(run_until([&] { return command.handled == 1; }));
  command.schedule();
  ASSERT_TRUE(command.timeout_timer.is_pending());
  command.unschedule();
  EXPECT_FALSE(command.timeout_timer.is_pending());
}

// Verifies that a command stopped by hand is left failed, unheard of and without a call for its results.
TEST_F(ZolAsyncExecutor, Terminate) {
  Command command("exec sleep 1000", 60000);
  command.terminate();
  EXPECT_EQ(command.state, zol::async_state::idle);
  ASSERT_TRUE(command.run());
  const int pid = command.pid;
  command.terminate();
  EXPECT_EQ(command.state, zol::async_state::failed);
  EXPECT_EQ(command.registered, 0);
  EXPECT_FALSE(command.timeout_timer.is_pending());
  ASSERT_TRUE(run_until([pid] { return zol_test::state_of(pid) == '\0'; }));
  EXPECT_EQ(command.handled, 0);
}

// Verifies that the end of a stopped command isn't handed over a second time by a subclass that stays
// registered.
TEST_F(ZolAsyncExecutor, LateEndIsNotHandedOverAgain) {
  Command command("exec sleep 1000");
  ASSERT_TRUE(command.run());
  const int pid = command.pid;
  command.terminate();
  EXPECT_TRUE(command.sigchld_handler_cb(pid, SIGTERM));
  EXPECT_EQ(command.handled, 0);
}

// Verifies that the end of another's child isn't taken.
TEST_F(ZolAsyncExecutor, OtherChildIsNotTaken) {
  Command command("exec sleep 1000");
  EXPECT_FALSE(command.sigchld_handler_cb(1, 0));
  ASSERT_TRUE(command.run());
  EXPECT_FALSE(command.sigchld_handler_cb(command.pid + 1, 0));
  EXPECT_EQ(command.state, zol::async_state::running);
}

// Verifies that the end of a child that nobody waits for is logged and not handed over.
TEST_F(ZolAsyncExecutor, UnexpectedEnd) {
  Command command("exec sleep 1000");
  ASSERT_TRUE(command.run());
  command.state = zol::async_state::idle;
  kill(command.pid, SIGKILL);
  ASSERT_TRUE(run_until([&] { return command.registered == 0; }));
  EXPECT_TRUE(log_.contains("sigchld_handler_cb: Unexpected Signal (SIGCHLD) from exec sleep 1000"));
  EXPECT_EQ(command.handled, 0);
}

// Verifies that a command that is merely stopped goes on to be waited for.
TEST_F(ZolAsyncExecutor, StoppedCommandHasNotEnded) {
  Command command("kill -STOP $$; echo went on");
  ASSERT_TRUE(command.run());
  ASSERT_TRUE(stops(command.pid));
  zol_monitor::sigchild_handler(SIGCHLD, 0, nullptr);
  EXPECT_EQ(command.handled, 0);
  EXPECT_EQ(command.state, zol::async_state::running);
  kill(command.pid, SIGCONT);
  ASSERT_TRUE(run_until([&] { return command.handled == 1; }));
  EXPECT_EQ(command.handled_state, zol::async_state::finished);
  EXPECT_EQ(command.result, "went on");
}

// Verifies that the next command may be run while the results of the last are handled.
TEST_F(ZolAsyncExecutor, NextCommandFromResults) {
  Command command("echo first");
  std::string results;
  command.next = [&] {
    results += command.result + " ";
    if (command.handled == 1) {
      command.set_cmd("echo second", 60000);
      EXPECT_TRUE(command.run());
    }
  };
  ASSERT_TRUE(command.run());
  ASSERT_TRUE(run_until([&] { return command.handled == 2; }));
  EXPECT_EQ(results, "first second ");
  EXPECT_EQ(command.registered, 0);
}

// Verifies that the next command may be run from a time-out, and that the end of the one that was stopped
// isn't taken for its own.
TEST_F(ZolAsyncExecutor, NextCommandFromTimeout) {
  Command command("exec sleep 1000", 1);
  command.next = [&] {
    if (command.handled == 1) {
      command.set_cmd("echo second", 0);
      EXPECT_TRUE(command.run());
    }
  };
  ASSERT_TRUE(command.run());
  ASSERT_TRUE(run_until([&] { return command.handled == 2; }));
  EXPECT_EQ(command.handled_state, zol::async_state::finished);
  EXPECT_EQ(command.result, "second");
}

// Verifies that a command that can't be started leaves the object failed and unregistered, told by the result
// alone.
TEST_F(ZolAsyncExecutor, StartFailure) {
  if (geteuid() != 0)
    GTEST_SKIP() << "needs root to become a user without processes";
  EXPECT_TRUE(zol_test::holds_in_own_process([] {
    zol_test::LogCapture log;
    const rlimit none{0, 0};
    if (setrlimit(RLIMIT_NPROC, &none) != 0 || syscall(SYS_setuid, 65534) != 0)
      return false;
    Command command("echo never", 60000);
    return !command.run() && command.state == zol::async_state::failed && command.registered == 0 &&
           command.handled == 0 && !command.timeout_timer.is_pending() &&
           log.contains(log_level::error, "run: Failed to run echo never");
  }));
}

// Verifies that a restart does nothing.
TEST_F(ZolAsyncExecutor, RestartDoesNothing) {
  Command command("echo x");
  command.async_restart();
  EXPECT_EQ(command.state, zol::async_state::idle);
  EXPECT_EQ(command.executor, nullptr);
}

}  // namespace
