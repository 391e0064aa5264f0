// A network namespace of a test's own, and entries in its connection table.
#pragma once

#include <sys/resource.h>

#include "tests/unit/conntrack/conntrack_fixture.h"

struct nfct_handle;

namespace zol_test {

// Moves the calling thread into a new network namespace, its loopback up and the table's accounting on, and
// back at its end.
class OwnNetwork {
 public:
  OwnNetwork();
  ~OwnNetwork();
  OwnNetwork(const OwnNetwork&) = delete;
  OwnNetwork& operator=(const OwnNetwork&) = delete;

  // False when this process may not do that, or when the kernel has no connection tracking.
  bool entered() const { return entered_; }

 private:
  int former_ = -1;
  bool entered_ = false;
};

// Writes to the connection table of the namespace it was made in.
class ConnectionTable {
 public:
  ConnectionTable();
  ~ConnectionTable();
  ConnectionTable(const ConnectionTable&) = delete;
  ConnectionTable& operator=(const ConnectionTable&) = delete;

  bool create(const Flow& flow) { return query(0, flow); }
  bool create(const nf_conntrack* ct);
  // Takes the flow's mark and state over.
  bool update(const Flow& flow) { return query(1, flow); }
  bool destroy(const Flow& flow) { return query(2, flow); }

 private:
  bool query(int type, const Flow& flow);

  nfct_handle* handle_;
};

// Runs with no descriptors left: a netlink socket can't be opened then.
class NoDescriptors {
 public:
  NoDescriptors();
  ~NoDescriptors();
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  rlimit former_{};
};

}  // namespace zol_test
