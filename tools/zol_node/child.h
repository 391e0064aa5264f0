// A child process.
#pragma once

#include <sys/types.h>

#include <string>

namespace standin {

// Starts the program with no arguments, in the present working directory; its standard output goes to
// standard error, since this program's own has a format. -1 when no process could be made; a program that
// can't be run ends with status 127.
pid_t start_child(const std::string& program);

// The exit status as a shell gives it would lose which it was: how a process ended.
struct Ending {
  bool by_signal = false;
  int number = 0;  // the exit status, or the signal
};
Ending ending_of(int wait_status);

}  // namespace standin
