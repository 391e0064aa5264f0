// Ownership of libnetfilter_conntrack's tracked connections.
#pragma once

#include <memory>

struct nf_conntrack;

namespace zol_monitor {

struct NfctDestroyer {
  void operator()(nf_conntrack* ct) const;
};

// A tracked connection that goes with its holder.
using NfctHandle = std::unique_ptr<nf_conntrack, NfctDestroyer>;

}  // namespace zol_monitor
