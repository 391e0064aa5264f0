// The role of this node in a pair that shares addresses (VRRP, RFC 5798).
#pragma once

namespace zol {

class VRRPState {
 public:
  // Whether the service that speaks VRRP on this machine runs. Asks the service manager, for two seconds at
  // most.
  static bool is_service_running();
};

}  // namespace zol
