// A manager of the pair's roles on a machine of the tests' own.
#pragma once

#include <memory>
#include <string>

#include "ha/ha_manager.h"
#include "tests/unit/ha/ha_fixture.h"

namespace zol_test {

// Members of this node's hop with a floating address that moves.
inline const std::string autonomous = R"(ha_mode = "autonomous"; floating_ips = ( "203.0.113.1" );)";

class HAManagerTest : public HaTest {
 protected:
  zol::HAManager& make() {
    manager_ = std::make_unique<zol::HAManager>();
    return *manager_;
  }
  zol::HAState& add_state(const std::string& name) {
    return manager_->states.emplace(name, zol::HAState(name, zol::VRRPState(name))).first->second;
  }

  std::unique_ptr<zol::HAManager> manager_;
};

}  // namespace zol_test
