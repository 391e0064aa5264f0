#include "probes/latency_probe_pool.h"

#include <gmock/gmock.h>

#include <deque>

#include "dns/resolver.h"
#include "probes/raw_socket_manager.h"
#include "tests/support/log_capture.h"
#include "tests/unit/probes/latency_probe_fixture.h"

namespace zol_test {
namespace {

using testing::ElementsAre;

constexpr const char* none_left = "No available id for ping probe!";

// A manager whose sends and buffer sizes are only noted.
class RecordingManager : public zol::IcmpRawSocketManager {
 public:
  bool raw_sendto(zol::Packet&, zol::LatencyProbe* probe) override {
    probes[probe->get_probe_id()] = probe;
    return result;
  }

  bool result = true;
};

class PoolTest : public testing::Test {
 protected:
  PoolTest() : pool_("PoolTest") { zol::Resolver::set_instance(nullptr); }

  // With the manager there, as in a running daemon.
  void init(unsigned long most) {
    pool_.init(40000, 65535, most);
    pool_.manager = std::make_unique<RecordingManager>();
  }
  RecordingManager& manager() { return static_cast<RecordingManager&>(*pool_.manager); }
  zol::ICMPLatencyProbe& new_probe() {
    zol::IcmpProbeConfig config;
    config.target = "127.0.0.1";
    return probes_.emplace_back(static_cast<zol::IcmpRawSocketManager*>(pool_.manager.get()), config);
  }

  LogCapture log_;
  std::deque<zol::ICMPLatencyProbe> probes_;
  zol::PingManager pool_;
};

// Verifies that the first init fixes the range of ids.
TEST_F(PoolTest, Init) {
  EXPECT_TRUE(pool_.init(40000, 65535, 255));
  EXPECT_EQ(pool_.first_id, 40000U);
  EXPECT_EQ(pool_.last_id, 65535U);
  EXPECT_EQ(pool_.max_probes, 255U);
  EXPECT_EQ(pool_.logger_name, "PoolTest");
  EXPECT_EQ(pool_.manager, nullptr);
  EXPECT_TRUE(pool_.init(1, 2, 3));
  EXPECT_EQ(pool_.first_id, 1U);
}

// Verifies that an init over a manager leaves the range as it is.
TEST_F(PoolTest, InitOverAManager) {
  init(255);
  EXPECT_TRUE(pool_.init(1, 2, 3));
  EXPECT_EQ(pool_.first_id, 40000U);
  EXPECT_EQ(pool_.last_id, 65535U);
  EXPECT_EQ(pool_.max_probes, 255U);
}

// Verifies that ids go upward from the first, each once.
TEST_F(PoolTest, NextIds) {
  pool_.init(40000, 65535, 3);
  EXPECT_EQ(pool_.get_next_probe_id(), 40000U);
  EXPECT_EQ(pool_.get_next_probe_id(), 40001U);
  EXPECT_EQ(pool_.get_next_probe_id(), 40002U);
  EXPECT_EQ(pool_.get_next_probe_id(), 0U);
  EXPECT_THAT(pool_.ids_in_use, ElementsAre(40000U, 40001U, 40002U));
}

// Verifies that the upper id isn't looked at: the number of probes alone is the limit.
TEST_F(PoolTest, UpperIdIsNotConsulted) {
  pool_.init(40000, 40000, 2);
  pool_.get_next_probe_id();
  EXPECT_EQ(pool_.get_next_probe_id(), 40001U);
}

// Verifies that a pool without room has no id.
TEST_F(PoolTest, NoRoom) {
  EXPECT_EQ(pool_.get_next_probe_id(), 0U);
}

// Verifies that a probe gets an id, starts, and is sent under it.
TEST_F(PoolTest, AddProbe) {
  init(255);
  zol::ICMPLatencyProbe& probe = new_probe();
  EXPECT_TRUE(pool_.add_probe(&probe));
  EXPECT_EQ(probe.get_probe_id(), 40000U);
  EXPECT_TRUE(probe.in_progress);
  EXPECT_THAT(manager().probes, ElementsAre(testing::Pair(40000U, &probe)));
}

// Verifies that 255 probes have ids of their own, and that the next gets none, isn't started, and says why.
TEST_F(PoolTest, Exhausted) {
  init(255);
  for (int i = 0; i < 255; ++i)
    EXPECT_TRUE(pool_.add_probe(&new_probe()));
  EXPECT_EQ(manager().probes.size(), 255U);
  EXPECT_EQ(probes_.back().get_probe_id(), 40254U);
  log_.clear();
  zol::ICMPLatencyProbe& last = new_probe();
  EXPECT_FALSE(pool_.add_probe(&last));
  EXPECT_TRUE(log_.contains(log_level::error, none_left));
  EXPECT_TRUE(log_.contains(log_level::error, "Latency probe test is not in progress"));
  EXPECT_FALSE(last.in_progress);
  EXPECT_EQ(last.get_latency(), -1);
  pool_.notify_probe_done(&probes_[100]);
  EXPECT_TRUE(pool_.add_probe(&last));
  EXPECT_EQ(last.get_probe_id(), 40100U);
}

// Verifies that an id that doesn't fit its 16 bits as anything but 0 isn't used.
TEST_F(PoolTest, IdBeyondSixteenBits) {
  pool_.init(65536, 70000, 1);
  EXPECT_FALSE(pool_.add_probe(&new_probe()));
  EXPECT_TRUE(log_.contains(none_left));
}

// Verifies that a start that fails is said, and keeps the id until the probe is done.
TEST_F(PoolTest, FailedStart) {
  init(2);
  manager().result = false;
  zol::ICMPLatencyProbe& probe = new_probe();
  EXPECT_FALSE(pool_.add_probe(&probe));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to start ping for [127.0.0.1:40000]"));
  EXPECT_FALSE(probe.in_progress);
  EXPECT_TRUE(probe.send_failed);
  EXPECT_THAT(pool_.ids_in_use, ElementsAre(40000U));
  EXPECT_EQ(manager().probes.count(40000), 1U);
  pool_.notify_probe_done(&probe);
  EXPECT_TRUE(pool_.ids_in_use.empty());
  EXPECT_TRUE(manager().probes.empty());
}

// Verifies that a probe whose name doesn't resolve at once is stopped.
TEST_F(PoolTest, NameThatDoesNotResolve) {
  init(2);
  zol::IcmpProbeConfig config;
  config.target = "station.test";
  zol::ICMPLatencyProbe probe(&manager(), config);
  EXPECT_FALSE(pool_.add_probe(&probe));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to start ping for [:40000]"));
  EXPECT_FALSE(probe.in_progress);
}

// Verifies that a probe that is done gives its id back and leaves the manager, still running.
TEST_F(PoolTest, ProbeDone) {
  init(255);
  zol::ICMPLatencyProbe& probe = new_probe();
  pool_.add_probe(&probe);
  pool_.notify_probe_done(&probe);
  EXPECT_TRUE(pool_.ids_in_use.empty());
  EXPECT_TRUE(manager().probes.empty());
  EXPECT_TRUE(probe.in_progress);
}

// Verifies that a probe that isn't known leaves the pool alone but still leaves the manager.
TEST_F(PoolTest, UnknownProbeDone) {
  init(255);
  zol::ICMPLatencyProbe& probe = new_probe();
  pool_.add_probe(&probe);
  pool_.ids_in_use = {40007};
  pool_.notify_probe_done(&probe);
  EXPECT_TRUE(log_.contains(log_level::warning, "notify_probe_done: Couldn't find 40000 in probe pool"));
  EXPECT_THAT(pool_.ids_in_use, ElementsAre(40007U));
  EXPECT_TRUE(manager().probes.empty());
}

// Verifies that a reset stops all probes and frees all ids, and needs no manager.
TEST_F(PoolTest, Reset) {
  pool_.init(1, 2, 2);
  pool_.get_next_probe_id();
  pool_.reset();
  EXPECT_TRUE(pool_.ids_in_use.empty());
  init(255);
  zol::ICMPLatencyProbe& probe = new_probe();
  pool_.add_probe(&probe);
  pool_.reset();
  EXPECT_TRUE(pool_.ids_in_use.empty());
  EXPECT_TRUE(manager().probes.empty());
  EXPECT_FALSE(probe.in_progress);
}

}  // namespace
}  // namespace zol_test
