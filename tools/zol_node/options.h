// The command line of zol_node.
#pragma once

#include <string>

namespace standin {

struct NodeOptions {
  std::string workdir = ".";
  std::string monitor;   // the program to run, made absolute
  std::string node_id;   // General.zol_id of the working directory's zol.conf when empty
  bool once = false;     // the child isn't started again
  bool control = false;  // commands are read from standard input
  bool records_on_command = false;
  unsigned records_after_ms = 0;
  unsigned stop_limit_ms = 10000;  // from "terminate" to SIGKILL
};

// False, with a usage text on standard error, for what the program doesn't know.
bool parse_options(int argc, char** argv, NodeOptions& options);

}  // namespace standin
