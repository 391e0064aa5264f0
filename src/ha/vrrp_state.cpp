#include "ha/vrrp_state.h"

#include "zol_helper.h"

namespace zol {

bool VRRPState::is_service_running() {
  const std::string output =
      Helper::run_cmd("timeout 2 service keepalived status 2>/dev/null | grep 'Active:'");
  return output.find("(running)") != std::string::npos;
}

}  // namespace zol
