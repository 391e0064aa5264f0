#include "tests/unit/conntrack/intercepted_calls.h"

#include <dlfcn.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <map>

namespace {

bool filters_fail = false;
bool queries_fail = false;
std::map<int, int> forced_receive_buffers;  // by size

}  // namespace

// In place of the libraries', for the whole program.
extern "C" nfct_filter_dump* nfct_filter_dump_create() {
  using Create = nfct_filter_dump* (*)();
  static const auto create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "nfct_filter_dump_create"));
  return filters_fail ? nullptr : create();
}

extern "C" int nfct_query(nfct_handle* handle, nf_conntrack_query query, const void* data) {
  using Query = int (*)(nfct_handle*, nf_conntrack_query, const void*);
  static const auto query_kernel = reinterpret_cast<Query>(dlsym(RTLD_NEXT, "nfct_query"));
  const int result = query_kernel(handle, query, data);
  return queries_fail ? -1 : result;
}

extern "C" int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept {
  int number = 0;
  if (level == SOL_SOCKET && option == SO_RCVBUFFORCE && size == sizeof number) {
    std::memcpy(&number, value, sizeof number);
    ++forced_receive_buffers[number];
  }
  return static_cast<int>(syscall(SYS_setsockopt, fd, level, option, value, size));
}

namespace zol_test {

NoDumpFilter::NoDumpFilter() {
  filters_fail = true;
}

NoDumpFilter::~NoDumpFilter() {
  filters_fail = false;
}

FailingQueries::FailingQueries() {
  queries_fail = true;
}

FailingQueries::~FailingQueries() {
  queries_fail = false;
}

int count_forced_receive_buffers(int size) {
  return forced_receive_buffers[size];
}

}  // namespace zol_test
