#include "conntrack/none_tcp_nfct_container.h"

#include <libnetfilter_conntrack/libnetfilter_conntrack.h>

#include <utility>

#include "sup_logger.h"

namespace zol_monitor {

void NfctDestroyer::operator()(nf_conntrack* ct) const {
  nfct_destroy(ct);
}

NoneTcpNFCTContainer& NoneTcpNFCTContainer::instance() {
  static NoneTcpNFCTContainer container;
  return container;
}

NfctHandle NoneTcpNFCTContainer::push(NfctHandle ct) {
  connections_.push_back(std::move(ct));
  if (connections_.size() <= most_waiting)
    return nullptr;
  if (!warned_)
    SUP_LOG(SupLogger::get_instance("NoneTcpNFCTContainer"), log_level::warning)
        << "push"
        << ": More than " << most_waiting << " ended connections wait for a report; dropping the oldest";
  warned_ = true;
  return take_oldest();
}

NfctHandle NoneTcpNFCTContainer::pop() {
  if (connections_.empty()) {
    warned_ = false;
    return nullptr;
  }
  return take_oldest();
}

NfctHandle NoneTcpNFCTContainer::take_oldest() {
  NfctHandle oldest = std::move(connections_.front());
  connections_.pop_front();
  return oldest;
}

void NoneTcpNFCTContainer::clear() {
  connections_.clear();
  warned_ = false;
}

}  // namespace zol_monitor
