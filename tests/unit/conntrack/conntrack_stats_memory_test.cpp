// Readings where the memory of counters is on.
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "conntrack/conntrack_states.h"
#include "conntrack/none_tcp_nfct_container.h"
#include "shared_object.h"
#include "shared_records.h"
#include "tests/unit/conntrack/intercepted_calls.h"
#include "tests/unit/conntrack/stats_kernel_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::ConntrackStatesManager;
using zol_monitor::ConntrackStats;
using zol_monitor::NoneTcpNFCTContainer;

class StatsMemoryTest : public StatsKernelTest {
 protected:
  explicit StatsMemoryTest(bool gxe = false) : StatsKernelTest(gxe) {}

  void SetUp() override {
    StatsKernelTest::SetUp();
    if (IsSkipped())
      return;
    if (!mark_traffic())
      GTEST_SKIP() << needs_iptables;
    former_version_ = zol_utils::shared_object_version;
    zol_utils::shared_object_version = "test-" + std::to_string(getpid());
    record_ = zol_utils::create_shared_record<zol_utils::ConntrackStates>(zol_utils::shared_object_version);
    set_monitoring("conntrack_states_enabled = true;");
    manager_ = std::make_unique<ConntrackStatesManager>(&data_);
    manager_->dump_base = config_.folder() + "/states";
    data_.states_manager = manager_.get();
    manager_->reconfigure();
  }
  void TearDown() override {
    data_.states_manager = nullptr;
    manager_.reset();
    if (!record_)
      return;
    zol_utils::SharedObject<zol_utils::ConntrackStates>::drop_instance();
    zol_utils::shared_object_version = former_version_;
  }

  // The kernel's event of a connection's end, with the id that fed connections have.
  void end(const Flow& flow) {
    std::vector<char> message = make_message(flow, true);
    message.resize(MNL_SOCKET_BUFFER_SIZE);
    auto* nlh = static_cast<nlmsghdr*>(static_cast<void*>(message.data()));
    mnl_attr_put_u32(nlh, CTA_ID, htonl(1));
    EXPECT_EQ(zol_monitor::ConntrackEvents::event_parser_cb(nlh, &events_), MNL_CB_OK);
  }

  std::string former_version_;
  std::unique_ptr<zol_utils::SharedObject<zol_utils::ConntrackStates>> record_;
  std::unique_ptr<ConntrackStatesManager> manager_;
};

class GxeStatsMemoryTest : public StatsMemoryTest {
 protected:
  GxeStatsMemoryTest() : StatsMemoryTest(true) {}
};

// Verifies that readings see the bytes since the one before and leave the kernel's counters as they are.
TEST_F(StatsMemoryTest, DifferencesWithoutReset) {
  const UdpTraffic traffic;
  traffic.exchange(10, 10);
  EXPECT_EQ(count_received(), 10 + udp_overhead);
  EXPECT_EQ(count_received(), 0u);
  traffic.exchange(100, 100);
  EXPECT_EQ(count_received(), 100 + udp_overhead);
  data_.states_manager = nullptr;
  EXPECT_EQ(count_received(), 110 + 2 * udp_overhead);
}

// Verifies that the first reload primes the memory: what was carried before is counted by nobody. Later ones
// leave it alone.
TEST_F(StatsMemoryTest, FirstReloadPrimes) {
  const UdpTraffic traffic;
  traffic.exchange(10, 10);
  events_.reconfigure();
  EXPECT_EQ(count_received(), 0u);
  traffic.exchange(100, 100);
  events_.reconfigure();
  EXPECT_EQ(count_received(), 100 + udp_overhead);
}

// Verifies that a closing connection without session counts when an earlier reading has counted it, and that
// one that no reading has seen doesn't.
TEST_F(StatsMemoryTest, ClosingButKnown) {
  Flow flow = in_connection;
  FedStats stats(&data_);
  stats.parse(flow, {1, 100}, {1, 100});
  flow.tcp_state = tcp_fin_wait;
  stats.parse(flow, {3, 300}, {1, 100});
  EXPECT_EQ(stats.networks.at("net-a").total.counters[0][0][1].rx_bytes, 300u);
  Flow unseen = flow;
  unseen.source.port = 40001;
  stats.parse(unseen, {1, 5000}, {1, 100});
  EXPECT_EQ(stats.networks.at("net-a").total.counters[0][0][1].rx_bytes, 300u);
}

// Verifies that a connection on the path of other protocols is counted by its difference too, and that the
// drain forgets it.
TEST_F(StatsMemoryTest, OtherProtocols) {
  set_udp_enabled(true);
  Flow flow = in_connection;
  flow.protonum = IPPROTO_UDP;
  flow.tcp_state = -1;
  FedStats stats(&data_);
  stats.parse(flow, {1, 100}, {1, 100});
  stats.parse(flow, {3, 300}, {1, 100});
  EXPECT_EQ(received(stats), 300u);
  EXPECT_EQ(manager_->states.size(), 1u);
  NoneTcpNFCTContainer::instance().push(make_counted_ct(flow, {4, 400}, {1, 100}));
  EXPECT_EQ(count_received(), 100u);
  EXPECT_TRUE(manager_->states.empty());
}

// Verifies that a priming reading on that path fills the memory and counts nothing, and that one that ignores
// the dump doesn't reach it.
TEST_F(StatsMemoryTest, OtherProtocolsFirstTime) {
  set_udp_enabled(true);
  Flow flow = in_connection;
  flow.protonum = IPPROTO_UDP;
  flow.tcp_state = -1;
  FedStats(&data_, true, true).parse(flow, {1, 100}, {1, 100});
  EXPECT_TRUE(manager_->states.empty());
  FedStats(&data_, true).parse(flow, {1, 100}, {1, 100});
  EXPECT_EQ(manager_->states.size(), 1u);
  FedStats stats(&data_);
  stats.parse(flow, {2, 150}, {1, 100});
  EXPECT_EQ(received(stats), 50u);
}

// Verifies that the event of its end forgets a connection, also one of no session.
TEST_F(StatsMemoryTest, EndOfConnection) {
  FedStats(&data_).parse(in_connection);
  ASSERT_EQ(manager_->states.size(), 1u);
  end(in_connection);
  EXPECT_TRUE(manager_->states.empty());
}

// Verifies that what a reading remembers without counting it, an unmarked flow and one between the node and
// itself, is forgotten too: over the years it would fill the memory.
TEST_F(StatsMemoryTest, EndOfUncountedConnection) {
  set_udp_enabled(true);
  Flow to_itself = udp(in_connection);
  to_itself.source.address = to_itself.target.address = "127.0.0.1";
  for (const Flow& flow : {with_mark(udp(in_connection), 0), to_itself}) {
    FedStats(&data_).parse(flow);
    ASSERT_EQ(manager_->states.size(), 1u);
    end(flow);
    EXPECT_TRUE(manager_->states.empty());
  }
}

// Verifies that an end that waits to be counted keeps its entry until the drain, and that one that nobody
// counted in time gives it back.
TEST_F(GxeStatsMemoryTest, EndThatWaits) {
  const Flow flow = with_mark(udp(in_connection), 0);
  FedStats(&data_).parse(flow);
  end(flow);
  EXPECT_EQ(manager_->states.size(), 1u);
  auto& waiting = NoneTcpNFCTContainer::instance();
  ASSERT_EQ(waiting.size(), 1u);
  Flow other = flow;
  ++other.source.port;
  while (waiting.size() < NoneTcpNFCTContainer::most_waiting)
    waiting.push(make_ct(other));
  EXPECT_EQ(manager_->states.size(), 1u);
  end(other);
  EXPECT_TRUE(manager_->states.empty());
  waiting.clear();
}

// Verifies that a reading that primes takes what waits in, uncounted, and leaves its totals.
TEST_F(StatsMemoryTest, PrimingDrains) {
  set_udp_enabled(true);
  const Flow flow = udp(in_connection);
  FedStats(&data_).parse(flow);
  NoneTcpNFCTContainer::instance().push(make_counted_ct(flow, {4, 400}, {1, 100}));
  ConntrackStats::last_open_sessions = ConntrackStats::last_active_sessions = 7;
  const ConntrackStats primes(&data_, true, false);
  EXPECT_EQ(NoneTcpNFCTContainer::instance().size(), 0u);
  EXPECT_TRUE(manager_->states.empty());
  EXPECT_EQ(ConntrackStats::last_open_sessions, 0u);
  EXPECT_EQ(ConntrackStats::last_active_sessions, 0u);
}

// Verifies that a full memory gives up what two readings in a row haven't met, and not after one; one with
// room gives up nothing.
TEST_F(StatsMemoryTest, FullMemoryHeals) {
  const auto read = [this] { const ConntrackStats reading(&data_, false, false); };
  ASSERT_TRUE(table_->create(in_connection));
  FedStats(&data_).parse(out_connection);  // whose end is never told
  for (int i = 0; i < 4; ++i)
    read();
  ASSERT_EQ(manager_->states.size(), 2u);
  manager_->free_entries.clear();
  FedStats(&data_).parse(out_connection);
  read();
  read();
  EXPECT_EQ(manager_->states.size(), 2u);
  read();
  EXPECT_EQ(manager_->states.size(), 1u);
  EXPECT_EQ(manager_->free_entries.size(), 1u);
  manager_->free_entries.clear();
  for (int i = 0; i < 4; ++i)
    read();
  EXPECT_EQ(manager_->states.size(), 1u);
}

// Verifies that a full memory gives up nothing by readings that didn't reach the end of the table.
TEST_F(StatsMemoryTest, FailedReadingsHealNothing) {
  FedStats(&data_).parse(out_connection);
  manager_->free_entries.clear();
  {
    const FailingQueries failing;
    for (int i = 0; i < 4; ++i)
      EXPECT_FALSE(ConntrackStats(&data_, false, false).is_complete);
  }
  { const ConntrackStats first(&data_, false, false); }
  EXPECT_EQ(manager_->states.size(), 1u);
}

}  // namespace
}  // namespace zol_test
