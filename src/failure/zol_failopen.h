// Fail-open: who hears that the node enters or leaves it, and where listeners are kept.
#pragma once

namespace zol {

// Told of each change of the fail-open state.
class IFailopen {
 public:
  virtual ~IFailopen() = default;
  virtual void failopen_notification(bool active) = 0;
};

// The fail-open controller, as far as the reload needs it: it keeps the listeners, and owns none.
class IFailopenRegistry {
 public:
  virtual ~IFailopenRegistry() = default;
  virtual void add(IFailopen* listener) = 0;
  virtual void remove(IFailopen* listener) = 0;
};

// The process's controller; null in a process without one, and then nobody is kept. Not owned.
inline IFailopenRegistry* failopen_registry = nullptr;

}  // namespace zol
