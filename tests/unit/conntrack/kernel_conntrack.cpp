#include "tests/unit/conntrack/kernel_conntrack.h"

#include <fcntl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>

#include "tests/support/loopback.h"

namespace zol_test {

namespace {

constexpr std::uint32_t entry_lifetime_s = 600;

bool turn_accounting_on() {
  std::ofstream setting("/proc/sys/net/netfilter/nf_conntrack_acct");
  setting << 1 << std::flush;
  return setting.good();
}

}  // namespace

OwnNetwork::OwnNetwork() : former_(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)) {
  entered_ = former_ >= 0 && unshare(CLONE_NEWNET) == 0 && raise_loopback() && turn_accounting_on();
}

OwnNetwork::~OwnNetwork() {
  if (former_ < 0)
    return;
  if (setns(former_, CLONE_NEWNET) != 0)
    std::perror("setns");
  close(former_);
}

ConnectionTable::ConnectionTable() : handle_(nfct_open(CONNTRACK, 0)) {}

ConnectionTable::~ConnectionTable() {
  if (handle_ != nullptr)
    nfct_close(handle_);
}

bool ConnectionTable::query(int type, const Flow& flow) {
  constexpr nf_conntrack_query queries[] = {NFCT_Q_CREATE, NFCT_Q_UPDATE, NFCT_Q_DESTROY};
  const zol_monitor::NfctHandle ct = make_ct(flow);
  nfct_set_attr_u32(ct.get(), ATTR_TIMEOUT, entry_lifetime_s);
  return handle_ != nullptr && nfct_query(handle_, queries[type], ct.get()) == 0;
}

bool ConnectionTable::create(const nf_conntrack* ct) {
  return handle_ != nullptr && nfct_query(handle_, NFCT_Q_CREATE, ct) == 0;
}

NoDescriptors::NoDescriptors() {
  getrlimit(RLIMIT_NOFILE, &former_);
  rlimit none = former_;
  none.rlim_cur = 0;
  setrlimit(RLIMIT_NOFILE, &none);
}

NoDescriptors::~NoDescriptors() {
  setrlimit(RLIMIT_NOFILE, &former_);
}

}  // namespace zol_test
