#include "ha/vrrp_state.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "ha/ha_manager.h"
#include "tests/unit/ha/hop_map_fixture.h"

namespace zol {
namespace {

// Puts a command named "service" of the test's own first in the path.
class FakeService {
 public:
  explicit FakeService(const std::string& status) : former_(getenv("PATH")) {
    folder_ = mkdtemp((std::filesystem::temp_directory_path() / "zol_service_XXXXXX").string().data());
    const std::string file = folder_ + "/service";
    std::ofstream(file) << "#!/bin/sh\n[ \"$*\" = 'keepalived status' ] || exit 1\n" << status << "\n";
    chmod(file.c_str(), S_IRWXU);
    setenv("PATH", (folder_ + ":" + former_).c_str(), 1);
  }
  ~FakeService() {
    setenv("PATH", former_.c_str(), 1);
    std::filesystem::remove_all(folder_);
  }
  FakeService(const FakeService&) = delete;
  FakeService& operator=(const FakeService&) = delete;

 private:
  std::string folder_;
  std::string former_;
};

constexpr const char* running = "echo 'Loaded: x'; echo 'Active: active (running) since today'";
constexpr const char* dead = "echo 'Active: inactive (dead)'";

// Verifies that the service runs when its status says so in the "Active:" line.
TEST(VRRPState, ServiceRuns) {
  const FakeService service(running);
  EXPECT_TRUE(VRRPState::is_service_running());
}

// Verifies that any other status, and another line with the word, is not running.
TEST(VRRPState, ServiceDoesNotRun) {
  for (const char* status : {dead, "echo 'Log: was (running)'", "exit 3", "echo 'Active: (running)' >&2"}) {
    const FakeService service(status);
    EXPECT_FALSE(VRRPState::is_service_running()) << status;
  }
}

// Verifies that on a node without a mode the alias goes unless the service runs.
TEST(VRRPState, AliasOfANodeWithoutMode) {
  const zol_test::Node node(zol_test::hop_config("hops = ( { hop_id = \"a\"; } );"));
  {
    const FakeService service(running);
    EXPECT_FALSE(node.networks.should_remove_vrrp_alias());
  }
  const FakeService service(dead);
  EXPECT_TRUE(node.networks.should_remove_vrrp_alias());
}

// Verifies that a node that doesn't know its role doesn't hold the pair's address.
TEST(HAManager, NoDynamicFloatingIp) {
  EXPECT_FALSE(HAManager::instance()->has_dynamic_floating_ip());
}

}  // namespace
}  // namespace zol
