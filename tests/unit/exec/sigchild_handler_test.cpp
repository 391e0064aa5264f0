// How the ends of children reach their handlers.
#include "core/sigchild_handler.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "exec_fixture.h"
#include "tests/unit/core/loop_fixture.h"

using zol_test::ends;

namespace {

class Handler : public zol::SigChildHandler {
 public:
  Handler(std::string handler_name, std::vector<std::string>& all_calls)
      : name(std::move(handler_name)), calls(all_calls) {
    zol::sigchild_handler_register(this);
  }
  ~Handler() override { zol::sigchild_handler_unregister(this); }

  bool sigchld_handler_cb(int pid, int status) override {
    calls.push_back(name);
    statuses[pid] = status;
    if (on_call)
      on_call();
    return takes;
  }

  std::string name;
  std::vector<std::string>& calls;
  std::map<int, int> statuses;
  std::function<void()> on_call;
  bool takes = false;
};

class SigchildHandler : public zol_test::LoopTest {
 protected:
  SigchildHandler() { signal_.add(SIGCHLD, -1); }

  static int child(int exit_code) {
    const pid_t pid = fork();
    if (pid == 0)
      _exit(exit_code);
    return pid;
  }
  static void on_signal(int number, short events, void* self) {
    ++static_cast<SigchildHandler*>(self)->runs_;
    zol_monitor::sigchild_handler(number, events, nullptr);
  }

  std::vector<std::string> calls_;
  int runs_ = 0;
  zol::ZOLEventLibEventSignal signal_{SIGCHLD, on_signal, this};
};

// Verifies that two children that end together are both reaped by one run, each with its own status.
TEST_F(SigchildHandler, TwoChildrenEndingTogether) {
  Handler handler("only", calls_);
  const int first = child(1);
  const int second = child(2);
  ASSERT_TRUE(ends(first) && ends(second));
  zol_monitor::sigchild_handler(SIGCHLD, 0, nullptr);
  EXPECT_EQ(handler.statuses, (std::map<int, int>{{first, 1 << 8}, {second, 2 << 8}}));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

// Verifies that a signal of the loop reaches the handlers.
TEST_F(SigchildHandler, RunsFromLoop) {
  Handler handler("only", calls_);
  const int pid = child(3);
  ASSERT_TRUE(run_until([&] { return handler.statuses.contains(pid); }));
  EXPECT_EQ(handler.statuses[pid], 3 << 8);
  EXPECT_GE(runs_, 1);
}

// Verifies that handlers are asked in the order of their registration, until one takes the child.
TEST_F(SigchildHandler, FirstThatTakesEndsWalk) {
  Handler first("first", calls_);
  Handler second("second", calls_);
  Handler third("third", calls_);
  second.takes = true;
  ASSERT_TRUE(ends(child(0)));
  zol_monitor::sigchild_handler(SIGCHLD, 0, nullptr);
  EXPECT_EQ(calls_, (std::vector<std::string>{"first", "second"}));
}

// Verifies that a handler registered twice is asked once, at its first place.
TEST_F(SigchildHandler, RegisteredOnce) {
  Handler first("first", calls_);
  Handler second("second", calls_);
  zol::sigchild_handler_register(&first);
  ASSERT_TRUE(ends(child(0)));
  zol_monitor::sigchild_handler(SIGCHLD, 0, nullptr);
  EXPECT_EQ(calls_, (std::vector<std::string>{"first", "second"}));
}

// Verifies that a handler that takes itself off while it is asked doesn't keep the next from being asked, and
// isn't asked again.
TEST_F(SigchildHandler, MayUnregisterWhileAsked) {
  Handler first("first", calls_);
  Handler second("second", calls_);
  first.on_call = [&] { zol::sigchild_handler_unregister(&first); };
  ASSERT_TRUE(ends(child(0)));
  zol_monitor::sigchild_handler(SIGCHLD, 0, nullptr);
  ASSERT_TRUE(ends(child(0)));
  zol_monitor::sigchild_handler(SIGCHLD, 0, nullptr);
  EXPECT_EQ(calls_, (std::vector<std::string>{"first", "second", "second"}));
}

// Verifies that a handler that was taken off by another in the same walk isn't asked.
TEST_F(SigchildHandler, MayUnregisterOther) {
  Handler first("first", calls_);
  Handler second("second", calls_);
  first.on_call = [&] { zol::sigchild_handler_unregister(&second); };
  ASSERT_TRUE(ends(child(0)));
  zol_monitor::sigchild_handler(SIGCHLD, 0, nullptr);
  EXPECT_EQ(calls_, std::vector<std::string>{"first"});
}

// Verifies that a stopped child is told of too, as waitpid(2) does with WUNTRACED.
TEST_F(SigchildHandler, StoppedChildIsTold) {
  Handler handler("only", calls_);
  const pid_t pid = fork();
  if (pid == 0) {
    raise(SIGSTOP);
    _exit(0);
  }
  ASSERT_TRUE(run_until([&] { return handler.statuses.contains(pid); }));
  EXPECT_TRUE(WIFSTOPPED(handler.statuses[pid]));
  kill(pid, SIGKILL);
  ASSERT_TRUE(run_until([&] { return WIFSIGNALED(handler.statuses[pid]); }));
}

}  // namespace
