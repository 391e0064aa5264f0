#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "tests/support/log_capture.h"
#include "zol_helper.h"

using zol::Helper;

namespace {

// Verifies that run_cmd gives all of the standard output and nothing of the standard error.
TEST(ShellCommand, StandardOutputOnly) {
  EXPECT_EQ(Helper::run_cmd("echo one; echo two >&2; printf three"), "one\nthree");
  EXPECT_EQ(Helper::run_cmd("true"), "");
  EXPECT_EQ(Helper::run_cmd("head -c 300000 /dev/zero").size(), 300000U);
}

// Verifies that the command goes through a shell.
TEST(ShellCommand, ThroughAShell) {
  EXPECT_EQ(Helper::run_cmd("x=5; echo $((x + 2)) | tr 7 s # comment"), "s\n");
}

// Verifies that run_cmd_stderr collects both streams and replaces what the text held.
TEST(ShellCommand, BothStreams) {
  std::string output = "before";
  EXPECT_EQ(Helper::run_cmd_stderr("echo out; echo err >&2", output), 0);
  EXPECT_EQ(output, "out\nerr\n");
}

// Verifies that the result is the command's own exit status.
TEST(ShellCommand, ExitStatus) {
  std::string output;
  EXPECT_EQ(Helper::run_cmd_stderr("exit 3", output), 3);
  EXPECT_EQ(output, "");
  EXPECT_EQ(Helper::run_cmd_stderr("exit 255", output), 255);
  EXPECT_EQ(Helper::run_cmd_stderr("no-such-command-of-ours", output), 127);
  EXPECT_NE(output.find("no-such-command-of-ours"), std::string::npos);
}

// Verifies that a command that is killed gives -1 and what it printed before.
TEST(ShellCommand, Killed) {
  std::string output;
  EXPECT_EQ(Helper::run_cmd_stderr("echo first; kill -9 $$", output), -1);
  EXPECT_EQ(output, "first\n");
}

// Verifies that a command with a NUL inside is refused rather than cut.
TEST(ShellCommand, NulInside) {
  const zol_test::LogCapture log;
  std::string output;
  EXPECT_EQ(Helper::run_cmd_stderr(std::string("echo a\0b", 8), output), -1);
  EXPECT_EQ(output, "");
  EXPECT_TRUE(log.contains(300, "run_cmd: couldn't run"));
}

// Verifies that no child is left behind, neither running nor as a zombie.
TEST(ShellCommand, ChildIsReaped) {
  Helper::run_cmd("true");
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

// Verifies that a command doesn't inherit that this process ignores or blocks a signal.
TEST(ShellCommand, SignalsAreAsUsual) {
  const auto old_handler = std::signal(SIGTERM, SIG_IGN);
  sigset_t blocked;
  sigset_t old_mask;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &blocked, &old_mask);
  std::string output;
  const int status = Helper::run_cmd_stderr("kill -TERM $$; echo survived", output);
  ::sigprocmask(SIG_SETMASK, &old_mask, nullptr);
  std::signal(SIGTERM, old_handler);
  EXPECT_EQ(status, -1);
  EXPECT_EQ(output, "");
}

// Verifies that a command has the pipe as its standard output and under no other descriptor.
TEST(ShellCommand, NoDescriptorLeaks) {
  const std::string links = Helper::run_cmd("readlink /proc/$$/fd/1; ls -l /proc/$$/fd");
  const std::string pipe = links.substr(0, links.find('\n'));
  ASSERT_EQ(pipe.rfind("pipe:[", 0), 0U) << links;
  const std::size_t as_output = links.find(pipe, pipe.size());
  ASSERT_NE(as_output, std::string::npos) << links;
  EXPECT_EQ(links.find(pipe, as_output + 1), std::string::npos) << links;
}

}  // namespace
