// What a child of Executor needs, made ready before the fork: under vfork(2) the child shares the caller's
// memory, and what it allocated would stay behind when it becomes the program.
#pragma once

#include <string>
#include <vector>

#include "exec/zol_executor.h"

namespace zol {

struct Executor::Launch {
  std::vector<char*> argv;  // into the executor's own texts
  std::string command;      // for the log
  int parent;
  bool die_with_parent;
  int start_pipe[2];  // -1 when it couldn't be made
};

}  // namespace zol
