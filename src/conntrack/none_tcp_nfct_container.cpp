#include "conntrack/none_tcp_nfct_container.h"

#include <libnetfilter_conntrack/libnetfilter_conntrack.h>

#include <utility>

namespace zol_monitor {

void NfctDestroyer::operator()(nf_conntrack* ct) const {
  nfct_destroy(ct);
}

NoneTcpNFCTContainer& NoneTcpNFCTContainer::instance() {
  static NoneTcpNFCTContainer container;
  return container;
}

void NoneTcpNFCTContainer::push(NfctHandle ct) {
  connections_.push_back(std::move(ct));
}

NfctHandle NoneTcpNFCTContainer::pop() {
  if (connections_.empty())
    return nullptr;
  NfctHandle oldest = std::move(connections_.front());
  connections_.pop_front();
  return oldest;
}

void NoneTcpNFCTContainer::clear() {
  connections_.clear();
}

}  // namespace zol_monitor
