// Two versions of the node's software side by side: which one is this, and which one should do the work.
//
//   /run/zol/active_version             one line, the version that should run, with "zol-" or without;
//                                       when the file is missing or empty it is this one
//   /run/zol/instances/<name>-<version>.pid   one file a running version, flocked while its process lives
//
// Main thread only.
#pragma once

#include <string>

namespace zol_utils {

class DualZOLHelper {
 public:
  static DualZOLHelper* instance();

  const std::string& get_zol_version_num() const;  // "1.0.0"
  const std::string& get_zol_version() const;      // "zol-1.0.0"

  // Whether this version is the active one; looked up at each call.
  bool zol_is_services_should_run() const;
  bool zol_is_running() const;
  // Whether a process of this program runs in another version. Looks up to `tries` times (at least once),
  // `timeout_us` apart; the first look that finds none ends it.
  bool check_for_other_running_zol_instances(unsigned timeout_us, int tries) const;
  // The folder of instances holds more than one version.
  bool is_dual_installation() const;

 private:
  DualZOLHelper();

  std::string version_num_;
  std::string version_;
};

// Shared records are in use; false when the file /run/zol/no_shared_memory exists at start.
extern bool shared_mem_enabled;

}  // namespace zol_utils
