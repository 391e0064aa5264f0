#include "stats/monitor_system.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "stats_fixture.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace {

using zol_monitor::get_icmp_flood_drop;
using zol_monitor::get_syn_flood_drop;
using zol_test::FakeCommands;

class MonitorSystemTest : public zol_test::StatsFixture {
 protected:
  // What was run, one command a line, by an iptables that prints `output` for -L and ends with `status` for
  // -Z.
  void fake_iptables(const std::string& output, int status = 0) {
    commands_.add("iptables", "echo \"$@\" >>" + runs_ + "; case $1 in -L) printf '" + output +
                                  "';; -Z) exit " + std::to_string(status) + ";; esac");
  }
  std::string runs() const {
    std::ostringstream text;
    text << std::ifstream(runs_).rdbuf();
    return text.str();
  }
  ~MonitorSystemTest() override { std::filesystem::remove(runs_); }

  FakeCommands commands_;
  std::string runs_ =
      (std::filesystem::temp_directory_path() / ("zol_iptables_" + std::to_string(getpid()))).string();
};

TEST_F(MonitorSystemTest, syn_flood) {
  // Verifies command, figure, zeroing and the shared record.
  zol_utils::ZolStatusData& status = status_record();
  fake_iptables("      42     2520 DROP  all  --  *  *  0.0.0.0/0  0.0.0.0/0\\n");
  EXPECT_EQ(get_syn_flood_drop(), 42U);
  EXPECT_EQ(status.syn_flood_drop, 42U);
  EXPECT_EQ(status.icmp_flood_drop, 0U);
  EXPECT_EQ(runs(), "-L syn-rate-limit 2 -nvx\n-Z syn-rate-limit\n");
}

TEST_F(MonitorSystemTest, icmp_flood) {
  // Verifies command, figure, zeroing and the shared record.
  zol_utils::ZolStatusData& status = status_record();
  fake_iptables("      43     2520 DROP  all  --  *  *  0.0.0.0/0  0.0.0.0/0\\n");
  EXPECT_EQ(get_icmp_flood_drop(), 43U);
  EXPECT_EQ(status.icmp_flood_drop, 43U);
  EXPECT_EQ(status.syn_flood_drop, 0U);
  EXPECT_EQ(runs(), "-L ICMP_FLOOD 4 -nvx\n-Z ICMP_FLOOD\n");
}

TEST_F(MonitorSystemTest, nothing_printed) {
  // Verifies that an empty output is told, counts as 0 and zeroes nothing.
  zol_utils::ZolStatusData& status = status_record();
  status.syn_flood_drop = 5;
  status.icmp_flood_drop = 6;
  fake_iptables("");
  EXPECT_EQ(get_syn_flood_drop(), 0U);
  EXPECT_EQ(get_icmp_flood_drop(), 0U);
  EXPECT_EQ(status.syn_flood_drop, 0U);
  EXPECT_EQ(status.icmp_flood_drop, 0U);
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to retrieve iptables SYN flood counters"));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to retrieve iptables ICMP counters"));
  EXPECT_EQ(runs(), "-L syn-rate-limit 2 -nvx\n-L ICMP_FLOOD 4 -nvx\n");
}

TEST_F(MonitorSystemTest, no_number) {
  // Verifies that an output that is no number throws.
  fake_iptables("pkts bytes\\n");
  EXPECT_THROW(get_syn_flood_drop(), std::invalid_argument);
  EXPECT_THROW(get_icmp_flood_drop(), std::invalid_argument);
  fake_iptables("99999999999999999999999 1\\n");
  EXPECT_THROW(get_syn_flood_drop(), std::out_of_range);
}

TEST_F(MonitorSystemTest, zeroing_fails) {
  // Verifies that a command that fails to zero the chain is told, and the figure stands.
  fake_iptables("7 8\\n", 4);
  EXPECT_EQ(get_syn_flood_drop(), 7U);
  EXPECT_EQ(get_icmp_flood_drop(), 7U);
  EXPECT_TRUE(
      log_.contains(log_level::warning, "An error occurred while running:iptables -Z syn-rate-limit"));
  EXPECT_TRUE(log_.contains(log_level::warning, "An error occurred while running:iptables -Z ICMP_FLOOD"));
}

TEST_F(MonitorSystemTest, locked_record) {
  // Verifies that the figure is given when the shared record's lock can't be had.
  hold_lock();
  fake_iptables("7 8\\n");
  EXPECT_EQ(get_syn_flood_drop(), 7U);
  EXPECT_EQ(get_icmp_flood_drop(), 7U);
  const std::string rest = ": Failed locking shared memory for N9zol_utils13ZolStatusDataE object";
  EXPECT_TRUE(log_.contains(log_level::error, "get_syn_flood_drop" + rest));
  EXPECT_TRUE(log_.contains(log_level::error, "get_icmp_flood_drop" + rest));
}

// A network of this test's own, which it leaves with the object.
class OwnNetwork {
 public:
  OwnNetwork() : former_(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)) {
    entered_ = former_ >= 0 && unshare(CLONE_NEWNET) == 0;
  }
  ~OwnNetwork() {
    if (entered_ && setns(former_, CLONE_NEWNET) != 0)
      std::perror("setns");
    if (former_ >= 0)
      close(former_);
  }
  OwnNetwork(const OwnNetwork&) = delete;
  OwnNetwork& operator=(const OwnNetwork&) = delete;
  bool entered() const { return entered_; }

 private:
  int former_;
  bool entered_ = false;
};

TEST(MonitorSystemKernelTest, real_firewall) {
  // Verifies that the right rules of a real firewall are read, and that a second reading is 0.
  const OwnNetwork network;
  std::string output;
  if (!network.entered() || zol::Helper::run_cmd_stderr("ip link set lo up && iptables -S", output) != 0)
    GTEST_SKIP() << "needs the right to make a network, and iptables: " << output;
  zol_utils::shared_mem_enabled = false;
  zol_test::LogCapture log;
  EXPECT_EQ(get_syn_flood_drop(), 0U) << "the chain isn't there yet";
  EXPECT_TRUE(log.contains(log_level::error, "Failed to retrieve iptables SYN flood counters"));
  ASSERT_EQ(zol::Helper::run_cmd_stderr(
                "iptables -N syn-rate-limit && iptables -A syn-rate-limit -s 10.9.9.9 -j ACCEPT && "
                "iptables -A syn-rate-limit -j DROP && iptables -A syn-rate-limit -j ACCEPT && "
                "iptables -N ICMP_FLOOD && iptables -A ICMP_FLOOD -s 10.9.9.9 -j DROP && "
                "iptables -A ICMP_FLOOD -s 10.9.9.9 -j DROP && iptables -A ICMP_FLOOD -s 10.9.9.9 -j DROP && "
                "iptables -A ICMP_FLOOD -j DROP && "
                "iptables -A OUTPUT -p udp --dport 7 -j syn-rate-limit && "
                "iptables -A OUTPUT -p udp --dport 9 -j ICMP_FLOOD",
                output),
            0)
      << output;
  EXPECT_EQ(get_syn_flood_drop(), 0U);
  zol::Helper::run_cmd_stderr(
      "bash -c 'for i in 1 2 3; do echo x >/dev/udp/127.0.0.1/7; done; for i in 1 2; do echo x "
      ">/dev/udp/127.0.0.1/9; done'",
      output);
  EXPECT_EQ(get_syn_flood_drop(), 3U);
  EXPECT_EQ(get_icmp_flood_drop(), 2U);
  EXPECT_EQ(get_syn_flood_drop(), 0U);
  EXPECT_EQ(get_icmp_flood_drop(), 0U);
  EXPECT_FALSE(log.contains("An error occurred"));
}

}  // namespace
