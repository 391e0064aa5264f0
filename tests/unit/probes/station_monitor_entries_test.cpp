// The entries of the ping manager: targets that come and go, probes that end and begin.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sup_logger.h"
#include "tests/unit/probes/station_monitor_fixture.h"

namespace zol_test {
namespace {

using libvariant::Variant;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t interval_ms = 10000;

class EntriesTest : public testing::Test {
 protected:
  EntriesTest() {
    zol_utils::shared_mem_enabled = false;
    manager.max_probes = 2;
    manager.first_id = 40000;
  }
  ~EntriesTest() override { zol_utils::shared_mem_enabled = shared_mem_enabled_; }

  static MonitoringTarget target(const std::string& key, const std::string& destination = "127.0.0.2") {
    return {key, "127.0.0.1", destination, interval_ms};
  }
  MonitorPingManager::ProbeDataStruct& entry(const std::string& key = "17_general") {
    return manager.probes.at(key);
  }
  // The one entry, whose next probe isn't due for long.
  MonitorPingManager::ProbeDataStruct& lone_entry() {
    manager.update_probes({target("17_general")});
    entry().last_start_ms = zol::Helper::get_timestamp_ms();
    return entry();
  }

  MonitorPingManager manager;
  LogCapture log;

 private:
  const bool shared_mem_enabled_ = zol_utils::shared_mem_enabled;
};

// Verifies that a new target stands without samples, start and probe.
TEST_F(EntriesTest, NewTarget) {
  manager.update_probes({target("17_general"), target("18_general", "127.0.0.3")});
  ASSERT_EQ(manager.probes.size(), 2u);
  EXPECT_THAT(entry().latencies, IsEmpty());
  EXPECT_EQ(entry().last_start_ms, 0u);
  EXPECT_EQ(entry().probe, nullptr);
  EXPECT_EQ(entry().target.destination, "127.0.0.2");
  EXPECT_EQ(entry().target.source, "127.0.0.1");
  EXPECT_EQ(entry().target.interval_ms, interval_ms);
  EXPECT_EQ(entry("18_general").target.destination, "127.0.0.3");
}

// Verifies that of targets that share a key the last one stands.
TEST_F(EntriesTest, SharedKey) {
  manager.update_probes({target("17_general", "127.0.0.3"), target("17_general", "127.0.0.4")});
  ASSERT_EQ(manager.probes.size(), 1u);
  EXPECT_EQ(entry().target.destination, "127.0.0.4");
}

// Verifies that another destination keeps samples, start and the running probe of its key.
TEST_F(EntriesTest, ChangedTarget) {
  lone_entry().latencies = {5};
  entry().last_start_ms = 77;
  entry().probe = waiting_probe(0);
  const auto* probe = entry().probe.get();
  manager.update_probes({target("17_general", "127.0.0.9")});
  EXPECT_EQ(entry().target.destination, "127.0.0.9");
  EXPECT_THAT(entry().latencies, ElementsAre(5));
  EXPECT_EQ(entry().last_start_ms, 77u);
  EXPECT_EQ(entry().probe.get(), probe);
  EXPECT_TRUE(probe->in_progress);
}

// Verifies that a key that is gone loses its samples, and its running probe ends and gives its id back.
TEST_F(EntriesTest, RemovedTarget) {
  lone_entry().latencies = {5};
  auto probe = waiting_probe(0, manager.get_next_probe_id());
  bool gone = false, was_stopped = false;
  probe->when_gone = [&gone, &was_stopped, raw = probe.get()] {
    gone = true;
    was_stopped = !raw->in_progress && !raw->succeeded;
  };
  entry().probe = std::move(probe);
  manager.update_probes({target("18_general")});
  EXPECT_TRUE(gone && was_stopped);
  EXPECT_EQ(manager.probes.count("17_general"), 0u);
  EXPECT_THAT(manager.ids_in_use, IsEmpty());
  EXPECT_TRUE(log.contains(log_level::debug, "probe 127.0.0.1 => 127.0.0.2 is removed")) << log.all();
  EXPECT_FALSE(log.contains("Couldn't find"));
  manager.update_probes({target("17_general")});
  EXPECT_THAT(entry().latencies, IsEmpty());
}

// Verifies that a probe that has its reply leaves its latency and start, and goes with its id.
TEST_F(EntriesTest, RepliedProbe) {
  const std::uint64_t before = zol::Helper::get_timestamp_ms();
  lone_entry().probe = replied_probe(300, 1234);
  entry().probe->set_probe_id(manager.get_next_probe_id());
  manager.handle_probes();
  EXPECT_THAT(entry().latencies, ElementsAre(1234));
  EXPECT_EQ(entry().probe, nullptr);
  EXPECT_THAT(manager.ids_in_use, IsEmpty());
  EXPECT_GE(entry().last_start_ms, before - 300);
  EXPECT_LE(entry().last_start_ms, zol::Helper::get_timestamp_ms() - 300);
  EXPECT_FALSE(log.contains("not in progress")) << log.all();
}

// Verifies that samples stand in the order in which their probes ended.
TEST_F(EntriesTest, SampleOrder) {
  lone_entry();
  for (const long latency : {30, 10, 20}) {
    entry().probe = replied_probe(1, latency);
    manager.handle_probes();
  }
  EXPECT_THAT(entry().latencies, ElementsAre(30, 10, 20));
}

// Verifies that a probe waits on while its 950 ms last.
TEST_F(EntriesTest, WaitingProbe) {
  lone_entry().probe = waiting_probe(800);
  manager.handle_probes();
  ASSERT_NE(entry().probe, nullptr);
  EXPECT_TRUE(entry().probe->in_progress);
  EXPECT_THAT(entry().latencies, IsEmpty());
}

// Verifies that a probe is lost, and stopped, behind its 950 ms.
TEST_F(EntriesTest, LostProbe) {
  lone_entry().probe = waiting_probe(951);
  manager.handle_probes();
  EXPECT_EQ(entry().probe, nullptr);
  EXPECT_THAT(entry().latencies, ElementsAre(-1));
  EXPECT_TRUE(log.contains("Stopped latency test"));
}

// Verifies that a probe whose clock was set back under it is lost at once, and holds up nothing.
TEST_F(EntriesTest, ClockSetBack) {
  lone_entry().probe = waiting_probe(0);
  entry().probe->start_time.tv_sec += 3600;
  manager.handle_probes();
  EXPECT_THAT(entry().latencies, ElementsAre(-1));
  EXPECT_NE(entry().probe, nullptr);  // the next, on its way at once
}

// Verifies that a probe that couldn't be sent counts as lost.
TEST_F(EntriesTest, FailedProbe) {
  lone_entry().probe = waiting_probe(10);
  entry().probe->in_progress = false;
  manager.handle_probes();
  EXPECT_THAT(entry().latencies, ElementsAre(-1));
  EXPECT_EQ(entry().probe, nullptr);
}

// Verifies that a probe starts up to 400 ms before its interval is over, and no earlier.
TEST_F(EntriesTest, DueTime) {
  lone_entry().last_start_ms = zol::Helper::get_timestamp_ms() - interval_ms + 5000;
  manager.handle_probes();
  EXPECT_EQ(entry().probe, nullptr);
  entry().last_start_ms = zol::Helper::get_timestamp_ms() - interval_ms + 399;
  manager.handle_probes();
  ASSERT_NE(entry().probe, nullptr);
  EXPECT_EQ(entry().probe->target, "127.0.0.2");
}

// Verifies that an entry whose probe has ended gets the next in the same pass when that is due.
TEST_F(EntriesTest, NextProbe) {
  lone_entry().probe = replied_probe(interval_ms, 5);
  manager.handle_probes();
  EXPECT_THAT(entry().latencies, ElementsAre(5));
  ASSERT_NE(entry().probe, nullptr);
  EXPECT_EQ(entry().probe->get_report_type(), "ping");
}

// Verifies that the pool's end is a lost sample for who comes last, found on the next tick.
TEST_F(EntriesTest, NoIds) {
  manager.update_probes({target("1_general"), target("2_general"), target("3_general")});
  manager.handle_probes();
  EXPECT_TRUE(log.contains(log_level::error, "No available id for ping probe!")) << log.all();
  EXPECT_THAT(manager.ids_in_use, ElementsAre(40000, 40001));
  EXPECT_FALSE(entry("3_general").probe->in_progress);
  manager.max_probes = 0;
  manager.handle_probes();
  EXPECT_THAT(entry("3_general").latencies, ElementsAre(-1));
}

// Verifies what a probe is made of.
TEST_F(EntriesTest, NewProbe) {
  const auto probe = manager.create_new_probe({"17_general", "127.0.0.5", "127.0.0.6", 1000});
  const auto& icmp = dynamic_cast<zol::ICMPLatencyProbe&>(*probe);
  EXPECT_EQ(icmp.config.target, "127.0.0.6");
  EXPECT_EQ(icmp.config.source, "127.0.0.5");
  EXPECT_EQ(icmp.config.mark, 0x40ff0000u);
  EXPECT_EQ(icmp.config.data_size, 40);
  EXPECT_TRUE(icmp.config.include_ip_header);
  EXPECT_FALSE(icmp.config.fill_payload);
  EXPECT_EQ(icmp.config.seq, 0);
  EXPECT_EQ(icmp.src_ip, "127.0.0.5");
  EXPECT_FALSE(icmp.in_progress);
}

// Verifies the six keys of a report, their types, and that a second read has only what came in between.
TEST_F(EntriesTest, Report) {
  lone_entry().latencies = {1000, -1, 1300, 1100};
  const Variant report = manager.read_and_restart("17", "general");
  EXPECT_EQ(report.Size(), 6u);
  EXPECT_EQ(report.At("ip"), Variant("127.0.0.2"));
  EXPECT_EQ(report.At("source_ip"), Variant("127.0.0.1"));
  EXPECT_EQ(report.At("latency"), Variant(1133u));
  EXPECT_EQ(report.At("latency").kind(), Variant::Kind::Unsigned);
  EXPECT_EQ(report.At("latency_sample_count"), Variant(3u));
  EXPECT_EQ(report.At("loss"), Variant(0.25));
  EXPECT_EQ(report.At("loss").kind(), Variant::Kind::Double);
  EXPECT_EQ(report.At("jitter"), Variant(250u));
  entry().latencies.push_back(7);
  const Variant second = manager.read_and_restart("17", "general");
  EXPECT_EQ(second.At("latency"), Variant(7u));
  EXPECT_EQ(second.At("latency_sample_count"), Variant(1u));
  EXPECT_EQ(second.At("loss"), Variant(0.0));
}

// Verifies that reading leaves the probe under way alone.
TEST_F(EntriesTest, ReportLeavesProbe) {
  lone_entry().probe = waiting_probe(0);
  const auto* probe = entry().probe.get();
  manager.read_and_restart("17", "general");
  EXPECT_EQ(entry().probe.get(), probe);
  EXPECT_TRUE(probe->in_progress);
}

// Verifies that an entry that isn't there is nothing, and says so.
TEST_F(EntriesTest, ReportOfNothing) {
  EXPECT_TRUE(manager.read_and_restart("17", "10.0.0.1_10.0.0.2").IsNull());
  EXPECT_TRUE(log.contains(log_level::debug, "No cached results for probe 10.0.0.1_10.0.0.2")) << log.all();
}

// Verifies that the manager's end stops and deletes what runs.
TEST_F(EntriesTest, End) {
  int gone = 0;
  {
    MonitorPingManager other;
    other.update_probes({target("1_general"), target("2_general")});
    for (auto& [key, entry] : other.probes) {
      auto probe = waiting_probe(0);
      probe->when_gone = [&gone] { ++gone; };
      entry.probe = std::move(probe);
    }
  }
  EXPECT_EQ(gone, 2);
}

}  // namespace
}  // namespace zol_test
