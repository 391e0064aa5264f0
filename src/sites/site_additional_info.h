// Who adds keys of its own to the report of each VPN connection.
#pragma once

#include <string>

#include "variant.h"

namespace zol {

struct VPNConnInfo;

// The site table asks while it builds the report. Keys that the report has already stay as they are, so an
// implementation can't replace any. Main thread only.
class ISiteAdditionalInfo {
 public:
  virtual ~ISiteAdditionalInfo() = default;

  // A map of keys for every connection of a site; null or empty when there is nothing to add.
  virtual libvariant::Variant add_info(const std::string& site_id) const = 0;
  // Keys for the one connection that gen_entry_key named.
  virtual libvariant::Variant add_info(const std::string& site_id, std::string entry_key) const = 0;
  virtual std::string gen_entry_key(const VPNConnInfo& conn) const = 0;
};

}  // namespace zol
