// The shared ZolStatusData for who asks for it many times in a row: a record that somebody sits on holds the
// loop up once, not at each access. See zol_utils::with_locked_record for the rest.
#pragma once

#include <utility>

#include "shared_object.h"
#include "shared_records.h"

namespace zol_monitor {

class StatusAccess {
 public:
  // A new row of accesses: the first one waits again.
  void begin() { failed_ = false; }
  // As with_locked_record. Behind an access that failed none waits, until one goes well.
  template <typename F>
  bool with(const char* caller, F&& work) {
    const int wait_ms = failed_ ? 0 : zol_utils::shared_lock_wait_ms;
    failed_ =
        !zol_utils::with_locked_record<zol_utils::ZolStatusData>(caller, std::forward<F>(work), wait_ms);
    return !failed_;
  }

 private:
  bool failed_ = false;
};

}  // namespace zol_monitor
