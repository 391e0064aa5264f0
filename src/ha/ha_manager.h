// The high-availability pair that this node may be one half of.
#pragma once

namespace zol {

class HAManager {
 public:
  static HAManager* instance();

  // Whether the node holds the floating address of its pair now. False as long as the roles in the shared
  // VRRP record aren't read: a node that doesn't know its role doesn't take the address for its own.
  bool has_dynamic_floating_ip() const { return false; }
};

}  // namespace zol
