// The connections other than TCP that ended between two dumps of the connection table.
#pragma once

#include <cstddef>
#include <deque>

#include "conntrack/nfct_handle.h"

namespace zol_monitor {

// On a middle-mile node traffic without a session is counted at each dump of the kernel's table. What such a
// connection carried after the last dump is gone from the table when it ends, so its destroy event, which
// carries the final counters, is kept here until the dump has counted it. Owns what it holds. Main thread
// only.
//
// Where the traffic report is off nobody empties it: beyond most_waiting the oldest goes, with one warning
// until it is emptied again.
class NoneTcpNFCTContainer {
 public:
  static constexpr std::size_t most_waiting = 100000;

  // The one of the process.
  static NoneTcpNFCTContainer& instance();

  NoneTcpNFCTContainer() = default;
  NoneTcpNFCTContainer(const NoneTcpNFCTContainer&) = delete;
  NoneTcpNFCTContainer& operator=(const NoneTcpNFCTContainer&) = delete;

  // Gives the one that had to go for it, mostly null.
  NfctHandle push(NfctHandle ct);
  // The oldest; null when there is none.
  NfctHandle pop();
  // Drops, uncounted, what is held.
  void clear();
  std::size_t size() const { return connections_.size(); }

 private:
  NfctHandle take_oldest();

  std::deque<NfctHandle> connections_;
  bool warned_ = false;
};

}  // namespace zol_monitor
