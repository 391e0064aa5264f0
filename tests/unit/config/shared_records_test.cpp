// Where the fields of the shared records stand, as other programs see the bytes.
#include "shared_records.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

namespace {

using namespace zol_utils;

template <typename Record>
std::vector<unsigned char> bytes_of(const Record& record) {
  std::vector<unsigned char> bytes(sizeof(Record));
  std::memcpy(bytes.data(), &record, sizeof(Record));
  return bytes;
}

template <typename Value>
Value value_at(const std::vector<unsigned char>& bytes, std::size_t offset) {
  Value value;
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

// Verifies that the header has the pid at 32 and the time at 40.
TEST(SharedRecords, Header) {
  shared_header_t header{};
  header.owner_pid = 0x01020304;
  header.last_update = 0x1122334455667788;
  const auto bytes = bytes_of(header);
  EXPECT_EQ(bytes.size(), 48U);
  EXPECT_EQ(bytes[32], 0x04);
  EXPECT_EQ(bytes[35], 0x01);
  EXPECT_EQ(bytes[40], 0x88);
  EXPECT_EQ(bytes[47], 0x11);
}

// Verifies that fields of the status record land at header plus offset, little-endian.
TEST(SharedRecords, StatusData) {
  ZolStatusData status{};
  status.cpu_usage = 12.5;
  status.failopen_active = 1;
  status.syn_flood_drop = 40;
  status.next_hop_active[1] = {0x0100000A, 7};  // 10.0.0.1
  status.next_hop_open_count = 860;
  status.last_successful_report = 888;
  status.tcp_pool_counters = {1, 2, 3, 4, 5, 6};
  status.prv_hop_active_count = 1868;
  status.traffic_stats.interval_s = 60;
  status.total_retransmissions = 1904;
  const auto bytes = bytes_of(status);
  ASSERT_EQ(bytes.size(), 1960U);
  EXPECT_EQ(value_at<double>(bytes, 48 + 0), 12.5);
  EXPECT_EQ(bytes[48 + 33], 1);
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 48 + 40), 40U);
  EXPECT_EQ(bytes[48 + 56 + 8], 10);
  EXPECT_EQ(bytes[48 + 56 + 11], 1);
  EXPECT_EQ(bytes[48 + 56 + 12], 7);
  EXPECT_EQ(value_at<std::int32_t>(bytes, 48 + 860), 860);
  EXPECT_EQ(value_at<std::int64_t>(bytes, 48 + 888), 888);
  EXPECT_EQ(value_at<std::uint64_t>(bytes, 48 + 1016), 1U);
  EXPECT_EQ(value_at<std::uint64_t>(bytes, 48 + 1048), 5U);
  EXPECT_EQ(value_at<std::uint64_t>(bytes, 48 + 1056), 6U);
  EXPECT_EQ(value_at<std::int32_t>(bytes, 48 + 1868), 1868);
  EXPECT_EQ(value_at<std::int32_t>(bytes, 48 + 1896), 60);
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 48 + 1904), 1904U);
}

// Verifies that the report's text stands at 48 and its terminator at 12336.
TEST(SharedRecords, ReportData) {
  ZolReportData report{};
  std::memset(report.report, 'r', sizeof(report.report));
  const auto bytes = bytes_of(report);
  EXPECT_EQ(bytes[47], 0);
  EXPECT_EQ(bytes[48], 'r');
  EXPECT_EQ(bytes[12335], 'r');
  EXPECT_EQ(bytes[12336], 0);
}

// Verifies that the historical services are one block of 4096 bytes behind the header.
TEST(SharedRecords, HistoricServices) {
  ZolHistoricServices services{};
  services.block[0] = 1;
  services.block[4095] = 2;
  const auto bytes = bytes_of(services);
  ASSERT_EQ(bytes.size(), 4144U);
  EXPECT_EQ(bytes[48], 1);
  EXPECT_EQ(bytes[4143], 2);
}

// Verifies that the memory of counters is 100000 entries of 80 bytes behind the header.
TEST(SharedRecords, ConntrackStates) {
  const auto states = std::make_unique<ConntrackStates>();
  ConntrackEntry& second = states->entries[1];
  second.id[39] = 'i';
  second.orig_packets = 40;
  second.orig_bytes = 48;
  second.repl_packets = 56;
  second.repl_bytes = 64;
  second.known = 72;
  states->entries[99999].reserved[6] = 79;
  const auto bytes = bytes_of(*states);
  ASSERT_EQ(bytes.size(), 8000048U);
  EXPECT_EQ(bytes[48 + 80 + 39], 'i');
  EXPECT_EQ(value_at<std::uint64_t>(bytes, 48 + 80 + 40), 40U);
  EXPECT_EQ(value_at<std::uint64_t>(bytes, 48 + 80 + 48), 48U);
  EXPECT_EQ(value_at<std::uint64_t>(bytes, 48 + 80 + 56), 56U);
  EXPECT_EQ(value_at<std::uint64_t>(bytes, 48 + 80 + 64), 64U);
  EXPECT_EQ(bytes[48 + 80 + 72], 72);
  EXPECT_EQ(bytes.back(), 79);
}

}  // namespace
