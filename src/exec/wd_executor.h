// Things under the care of the node's watchdog: a process, a service or a watched command that another
// process asks it to start and stop. Nothing is run here.
#pragma once

#include <string>

namespace zol {

class WDExecutor {
 public:
  virtual ~WDExecutor() = default;

  // Whether the request has reached the watchdog.
  virtual bool start() = 0;
  // The name under which the watchdog knows it.
  virtual std::string get_pname() = 0;
  virtual bool stop() = 0;
};

}  // namespace zol
