// The memory against the kernel's own counters, with real datagrams in a network namespace of the test's own.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "conntrack/conntrack_stats.h"
#include "sup_logger.h"
#include "tests/unit/conntrack/states_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::ConntrackStats;

// In role of service 7, whose network is "net-a".
constexpr const char* marking_rule =
    "iptables -w -t mangle -A OUTPUT -p udp -j CONNMARK --set-mark 0x710 2>&1";
constexpr std::uint64_t ip_and_udp_headers = 28;

class UdpSocket {
 public:
  UdpSocket(const char* address, std::uint16_t port) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in own = name(address, port);
    is_bound_ = bind(fd_, reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0;
  }
  ~UdpSocket() { close(fd_); }
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  bool is_bound() const { return is_bound_; }
  bool send(const char* address, std::uint16_t port, std::size_t size) const {
    const sockaddr_in target = name(address, port);
    const std::string bytes(size, 'x');
    return sendto(fd_, bytes.data(), size, 0, reinterpret_cast<const sockaddr*>(&target), sizeof target) ==
           static_cast<ssize_t>(size);
  }

 private:
  static sockaddr_in name(const char* address, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = ip(address);
    result.sin_port = htons(port);
    return result;
  }

  int fd_;
  bool is_bound_ = false;
};

int add_orig_bytes(nf_conntrack_msg_type, nf_conntrack* ct, void* sum) {
  *static_cast<std::uint64_t*>(sum) += zol_monitor::nfconntrack_get_orig_stats(ct).bytes;
  return NFCT_CB_CONTINUE;
}

// What the kernel has counted, without touching it.
std::uint64_t kernels_bytes() {
  std::uint64_t sum = 0;
  nfct_handle* table = nfct_open(CONNTRACK, 0);
  nfct_callback_register(table, NFCT_T_ALL, &add_orig_bytes, &sum);
  std::uint32_t family = AF_INET;
  nfct_query(table, NFCT_Q_DUMP, &family);
  nfct_close(table);
  return sum;
}

class StatesKernelTest : public StatesTest {
 protected:
  void SetUp() override {
    if (!network_.entered() || std::system(marking_rule) != 0)
      GTEST_SKIP() << "needs the right to make a network namespace, connection tracking and iptables";
    near_ = std::make_unique<UdpSocket>("127.0.0.2", 5000);
    far_ = std::make_unique<UdpSocket>("127.0.0.3", 5001);
    ASSERT_TRUE(near_->is_bound() && far_->is_bound());
  }
  // A datagram that counts that many bytes.
  void send(std::uint64_t size) { ASSERT_TRUE(near_->send("127.0.0.3", 5001, size - ip_and_udp_headers)); }
  // What the reading of one interval counts.
  std::uint64_t reading() {
    const LogCapture quiet;
    ConntrackStats stats(&data_, false, false);
    return stats.networks["net-a"].total.counters[1][0][1].rx_bytes;
  }

  std::unique_ptr<UdpSocket> near_;
  std::unique_ptr<UdpSocket> far_;
};

// Verifies that readings count each byte once and leave the kernel's counters alone, and that what a
// connection carried before the start isn't counted.
TEST_F(StatesKernelTest, ReadingsLeaveTheKernelAlone) {
  send(100);
  activate();
  EXPECT_EQ(manager_->states.size(), 1U);
  EXPECT_EQ(reading(), 0U);
  send(200);
  EXPECT_EQ(reading(), 200U);
  EXPECT_EQ(reading(), 0U);
  send(300);
  send(400);
  EXPECT_EQ(reading(), 700U);
  EXPECT_EQ(kernels_bytes(), 1000U);
}

// Verifies that without the memory a reading resets the kernel's counters.
TEST_F(StatesKernelTest, WithoutTheMemory) {
  switch_states(false);
  send(100);
  EXPECT_EQ(reading(), 100U);
  EXPECT_EQ(kernels_bytes(), 0U);
}

// Verifies that an entry with a connection goes on without a gap when the daemon has died, and that one
// without is dropped.
TEST_F(StatesKernelTest, RestartAfterDeath) {
  send(100);
  activate();
  EXPECT_EQ(reading(), 0U);
  kill_manager();
  remember(77, "gone", {1, 1}, {1, 1});
  send(30);  // while nobody is there
  make_manager();
  activate();
  EXPECT_EQ(manager_->states.size(), 1U);
  EXPECT_EQ(entry(77).id[0], 0);
  send(200);
  EXPECT_EQ(reading(), 230U);
}

// Verifies that the dump file carries the memory over to a record that is new.
TEST_F(StatesKernelTest, RestartWithANewRecord) {
  send(100);
  activate();
  send(50);
  EXPECT_EQ(reading(), 50U);
  drop_manager();
  Record::drop_instance();
  record_.reset();
  create_record();
  make_manager();
  activate();
  EXPECT_EQ(manager_->states.size(), 1U);
  send(200);
  EXPECT_EQ(reading(), 200U);
}

// Verifies that turning the setting off resets the kernel's counters, once, without counting anything.
TEST_F(StatesKernelTest, SwitchedOff) {
  send(100);
  activate();
  switch_states(false);
  LogCapture log;
  manager_->reconfigure();
  EXPECT_FALSE(manager_->active);
  EXPECT_TRUE(log.contains(log_level::info, "reconfigure: Conntrack States is not active!")) << log.all();
  EXPECT_EQ(kernels_bytes(), 0U);
  send(200);
  manager_->reconfigure();
  EXPECT_EQ(kernels_bytes(), 200U);
  EXPECT_EQ(reading(), 200U);
}

// Verifies that nothing of the time before is subtracted when the setting is turned on again.
TEST_F(StatesKernelTest, SwitchedOffAndOn) {
  activate();
  send(100);
  EXPECT_EQ(reading(), 100U);
  switch_states(false);
  manager_->reconfigure();
  EXPECT_EQ(entry(0).id[0], 0);
  switch_states(true);
  manager_->reconfigure();
  send(500);  // beyond what was remembered
  EXPECT_EQ(reading(), 500U);
}

}  // namespace
}  // namespace zol_test
