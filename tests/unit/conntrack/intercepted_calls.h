// Calls of the whole test program that are watched, or fail when a test wants it.
#pragma once

namespace zol_test {

// While it lives libnetfilter_conntrack makes no filter for a dump.
class NoDumpFilter {
 public:
  NoDumpFilter();
  ~NoDumpFilter();
  NoDumpFilter(const NoDumpFilter&) = delete;
  NoDumpFilter& operator=(const NoDumpFilter&) = delete;
};

// While it lives libnetfilter_conntrack's queries tell of an error at their end.
class FailingQueries {
 public:
  FailingQueries();
  ~FailingQueries();
  FailingQueries(const FailingQueries&) = delete;
  FailingQueries& operator=(const FailingQueries&) = delete;
};

// How often SO_RCVBUFFORCE was set to that size.
int count_forced_receive_buffers(int size);

}  // namespace zol_test
