// What samples become in a report.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "probes/ping_manager.h"

namespace zol_monitor {
namespace {

using ProbeData = MonitorPingManager::ProbeDataStruct;
using ProbeResult = MonitorPingManager::ProbeResult;

ProbeData data_of(std::vector<double> samples) {
  ProbeData data;
  data.latencies = std::move(samples);
  data.target = {"17_general", "10.0.0.1", "10.0.0.2", 250};
  return data;
}

ProbeResult result_of(std::vector<double> samples) {
  return data_of(std::move(samples)).read_and_reset();
}

// Verifies that a new entry's target has an interval of a second, and has neither probe nor start.
TEST(ProbeData, Defaults) {
  const ProbeData data;
  EXPECT_EQ(data.target.interval_ms, 1000u);
  EXPECT_EQ(data.last_start_ms, 0u);
  EXPECT_EQ(data.probe, nullptr);
}

// Verifies mean, loss and jitter, and that the jitter bridges a lost sample.
TEST(ProbeData, Figures) {
  const ProbeResult result = result_of({1000, -1, 1300, 1100});
  EXPECT_EQ(result.latency, 1133u);
  EXPECT_EQ(result.jitter, 250u);
  EXPECT_DOUBLE_EQ(result.loss, 0.25);
  EXPECT_EQ(result.sample_count, 4u);
  EXPECT_EQ(result.latency_sample_count, 3u);
}

// Verifies that the addresses are the target's.
TEST(ProbeData, Addresses) {
  const ProbeResult result = result_of({});
  EXPECT_EQ(result.ip, "10.0.0.2");
  EXPECT_EQ(result.source_ip, "10.0.0.1");
}

// Verifies that no samples are no loss, and all figures 0.
TEST(ProbeData, NoSamples) {
  const ProbeResult result = result_of({});
  EXPECT_EQ(result.latency, 0u);
  EXPECT_EQ(result.jitter, 0u);
  EXPECT_EQ(result.loss, 0);
  EXPECT_EQ(result.sample_count, 0u);
  EXPECT_EQ(result.latency_sample_count, 0u);
}

// Verifies that lost samples alone are a loss of 1 without latency and jitter.
TEST(ProbeData, OnlyLost) {
  const ProbeResult result = result_of({-1, -1, -1});
  EXPECT_EQ(result.latency, 0u);
  EXPECT_EQ(result.jitter, 0u);
  EXPECT_EQ(result.loss, 1);
  EXPECT_EQ(result.sample_count, 3u);
  EXPECT_EQ(result.latency_sample_count, 0u);
}

// Verifies that one good sample has no jitter, also with lost ones around it.
TEST(ProbeData, OneGoodSample) {
  EXPECT_EQ(result_of({700}).jitter, 0u);
  EXPECT_EQ(result_of({-1, 700, -1}).jitter, 0u);
  EXPECT_EQ(result_of({-1, 700, -1}).latency, 700u);
}

// Verifies that a sample of 0, or of less, is lost and leaves the one before it as the jitter's.
TEST(ProbeData, ZeroIsLost) {
  const ProbeResult result = result_of({100, 0, 160, -70});
  EXPECT_EQ(result.latency_sample_count, 2u);
  EXPECT_EQ(result.loss, 0.5);
  EXPECT_EQ(result.latency, 130u);
  EXPECT_EQ(result.jitter, 60u);
}

// Verifies that means are cut and not rounded.
TEST(ProbeData, Truncation) {
  const ProbeResult result = result_of({1, 2, 2, 4});  // means 9/4 and 3/3
  EXPECT_EQ(result.latency, 2u);
  EXPECT_EQ(result.jitter, 1u);
  EXPECT_EQ(result_of({10, 12, 11, 11, 13}).jitter, 1u);  // 5/4
  EXPECT_EQ(result_of({3, 4}).latency, 3u);
}

// Verifies that figures beyond 32 bits, which a set clock may give, are the largest there are.
TEST(ProbeData, FiguresBeyondRange) {
  EXPECT_EQ(result_of({4294967295.0}).latency, 4294967295u);
  const ProbeResult result = result_of({1, 1e15});
  EXPECT_EQ(result.latency, 4294967295u);
  EXPECT_EQ(result.jitter, 4294967295u);
}

// Verifies that samples that nobody reads don't pile up for ever: the newest stay, in their order.
TEST(ProbeData, UnreadSamples) {
  ProbeData data;
  for (std::size_t i = 1; i <= 3 * ProbeData::max_samples; ++i)
    data.add_sample(static_cast<double>(i));
  EXPECT_LE(data.latencies.size(), ProbeData::max_samples);
  EXPECT_GE(data.latencies.size(), ProbeData::max_samples / 2);
  EXPECT_EQ(data.latencies.back(), 3.0 * ProbeData::max_samples);
  EXPECT_EQ(data.latencies.back() - data.latencies.front(), static_cast<double>(data.latencies.size() - 1));
}

// Verifies that a read takes the samples, and only them.
TEST(ProbeData, Reset) {
  ProbeData data = data_of({5, 7});
  data.last_start_ms = 77;
  EXPECT_EQ(data.read_and_reset().sample_count, 2u);
  EXPECT_TRUE(data.latencies.empty());
  EXPECT_EQ(data.read_and_reset().sample_count, 0u);
  EXPECT_EQ(data.last_start_ms, 77u);
  EXPECT_EQ(data.target.key, "17_general");
}

}  // namespace
}  // namespace zol_monitor
