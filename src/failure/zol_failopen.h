// Who hears from the failure handling (zol_failure.h): of fail-open, and of black holes.
#pragma once

#include <string>

namespace zol {

// Told of each change of the fail-open state.
class IFailopen {
 public:
  virtual ~IFailopen() = default;
  virtual void failopen_notification(bool active) = 0;
};

// A target that takes packets and answers none.
struct BHInfo {
  std::string target;
  bool handled = false;  // its service's ports are being closed, nobody else has to act
};

// Told of each black hole.
class IBlackHoleNotify {
 public:
  virtual ~IBlackHoleNotify() = default;
  virtual void bh_notification(BHInfo info) = 0;
};

}  // namespace zol
