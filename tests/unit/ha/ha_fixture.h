// A machine of the tests' own for the high-availability pair: network devices, /tmp, /run, the shared record
// of the roles, a loop and the node's IPC.
#pragma once

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <string>

#include "config/zol_networks.h"
#include "core/zol_dispatch.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/support/vrrp_record.h"
#include "tests/unit/core/ipc_fixture.h"
#include "tests/unit/core/loop_fixture.h"
#include "tests/unit/ha/hop_map_fixture.h"

namespace zol_test {

// Takes the process into network and mount namespaces of its own; before the first thread.
void enter_own_machine();
bool on_own_machine();

// An empty folder over one of the machine's; only on a machine of our own.
class EmptyMount {
 public:
  explicit EmptyMount(const char* path)
      : path_(path), mounted_(on_own_machine() && mount("tmpfs", path, "tmpfs", 0, "") == 0) {}
  ~EmptyMount() {
    if (mounted_)
      umount2(path_, MNT_DETACH);
  }
  EmptyMount(const EmptyMount&) = delete;
  EmptyMount& operator=(const EmptyMount&) = delete;

 private:
  const char* path_;
  bool mounted_;
};

// What a shell command printed.
std::string output_of(const std::string& command);
void write_text(const std::string& path, const std::string& text);
std::string read_text(const std::string& path);

// Two devices, eth0 with 192.0.2.1/24 and the default route, eth1 with 198.51.100.1/24.
inline constexpr const char* wan_address = "192.0.2.1";

class HaTest : public LoopTest {
 protected:
  HaTest();
  ~HaTest() override;

  // The configuration behind the node's id; tells nobody but ZOLNetworks.
  void configure(const std::string& more);
  // A configuration with this node's hop, "a".
  static std::string hop(const std::string& hop_members, const std::string& clusters = "");
  // The messages that have come to an endpoint of the node since the last call.
  static std::vector<Bytes> messages(int fd);

  void SetUp() override {
    if (!on_own_machine())
      GTEST_SKIP() << "namespaces of its own need root";
  }

  EmptyMount tmp_{"/tmp"};
  EmptyMount run_{"/run"};
  TestNode node_;
  ScopedConfig config_;
  VrrpRecord record_;
  LogCapture log_;
  zol::ZOLNetworks& networks_ = *zol::ZOLNetworks::instance();
};

}  // namespace zol_test
