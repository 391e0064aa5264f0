// Where proc(5) is mounted, for everything that reads the kernel's figures.
#pragma once

#include <string>

namespace zol_monitor {

// A test puts a folder of its own here, before any reader or the sampler's thread runs.
inline std::string proc_folder = "/proc";

inline std::string proc_file(const std::string& name) {
  return proc_folder + "/" + name;
}
inline std::string proc_file(int pid, const std::string& name) {
  return proc_folder + "/" + std::to_string(pid) + "/" + name;
}

}  // namespace zol_monitor
