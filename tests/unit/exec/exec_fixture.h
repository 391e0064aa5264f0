// Real children: what the tests wait for, and which processes of their own they wait in.
#pragma once

#include <functional>
#include <string>

namespace zol_test {

// Waits until a process, of anybody's, has ended; false when it doesn't within a generous time. Doesn't reap.
bool ends(int pid);
// The same, for a child that is to be reaped; its status, -1 when it doesn't end.
int end_status(int pid);
// The state letter of proc(5), 0 when there is no such process.
char state_of(int pid);

// Runs the function in a process of its own and gives its result. Checks of the test framework don't count
// there.
bool holds_in_own_process(const std::function<bool()>& check);

// A named pipe's text: commands announce themselves through it.
class Announcements {
 public:
  explicit Announcements(const std::string& path);
  ~Announcements();
  Announcements(const Announcements&) = delete;
  Announcements& operator=(const Announcements&) = delete;

  // The next line, without its end; empty when none comes within a generous time.
  std::string next();

 private:
  int fd_;
};

}  // namespace zol_test
