// A named set of addresses that the firewall rules refer to.
#pragma once

#include <set>
#include <string>

namespace zol {

class IIPSetSink {
 public:
  virtual ~IIPSetSink() = default;

  // Replaces what the set holds; dotted addresses.
  virtual void set_ips(const std::set<std::string>& addresses) = 0;
};

}  // namespace zol
