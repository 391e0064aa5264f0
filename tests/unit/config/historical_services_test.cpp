#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "config/services.h"
#include "shared_records.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace {

using testing::ElementsAre;
using zol::Service;
using zol::SHMHistoricalServices;
using zol_test::LogCapture;

using Block = std::array<unsigned char, 4096>;

Service make(std::uint8_t id, const std::string& network, const std::string& host, std::uint16_t port) {
  Service service;
  service.service_id = id;
  service.logical_network_id = network;
  service.host = host;
  service.public_host = "p" + std::to_string(id);
  service.external_port_in = port;
  service.aux_host = "not kept";
  service.internal_port = 1;
  service.external_port_out = 2;
  service.is_tcp = false;
  return service;
}

// Two records: id 2, port 0x1F90 (8080), and id 200, port 0x01BB (443) without a host.
constexpr unsigned char two_records[] = {
    0x02, 0x00, 0x00, 0x00,        // count
    0x02,                          // service_id
    0x90, 0x1F,                    // external_port_in
    'n',  'e',  't',  '2',  0x00,  // logical_network_id
    'h',  'o',  's',  't',  0x00,  // host
    'p',  '2',  0x00,              // public_host
    0xC8,                          // service_id
    0xBB, 0x01,                    // external_port_in
    'n',  0x00,                    // logical_network_id
    0x00,                          // host
    'p',  '2',  '0',  '0',  0x00,  // public_host
};

Block block_of(const unsigned char* bytes, std::size_t size) {
  Block block{};
  std::memcpy(block.data(), bytes, size);
  return block;
}

// Verifies the bytes of the block, records in ascending order of id, zeros behind them.
TEST(HistoricalServices, Serialize) {
  SHMHistoricalServices table;
  table.add({make(200, "n", "", 443), make(2, "net2", "host", 8080)});
  Block block;
  block.fill(0xEE);
  ASSERT_TRUE(table.serialize(block.data(), block.size()));
  EXPECT_EQ(block, block_of(two_records, sizeof(two_records)));
}

// Verifies that an empty table is a block of zeros.
TEST(HistoricalServices, SerializeEmpty) {
  Block block;
  block.fill(0xEE);
  EXPECT_TRUE(SHMHistoricalServices().serialize(block.data(), block.size()));
  EXPECT_EQ(block, Block{});
}

// Verifies that the block reads back, field by field.
TEST(HistoricalServices, Deserialize) {
  SHMHistoricalServices table;
  table.deserialize(block_of(two_records, sizeof(two_records)).data());
  const auto services = table.get_services();
  ASSERT_EQ(services.size(), 2U);
  EXPECT_EQ(services[0].service_id, 2);
  EXPECT_EQ(services[0].external_port_in, 8080);
  EXPECT_EQ(services[0].logical_network_id, "net2");
  EXPECT_EQ(services[0].host, "host");
  EXPECT_EQ(services[0].public_host, "p2");
  EXPECT_EQ(services[1].service_id, 200);
  EXPECT_EQ(services[1].external_port_in, 443);
  EXPECT_EQ(services[1].host, "");
  EXPECT_EQ(services[1].public_host, "p200");
}

// A table whose one record takes `size` bytes of the block, the count left out.
SHMHistoricalServices table_of_size(std::size_t size) {
  SHMHistoricalServices table;
  Service service = make(1, "n", "", 1);  // 1 + 2 + "n" + "p1" + three terminators are 9 bytes
  service.host = std::string(size - 9, 'h');
  table.add({service});
  return table;
}

// Verifies that the last byte of the block stays free: 4091 bytes of records fit, 4092 don't.
TEST(HistoricalServices, SerializeLimit) {
  Block block;
  EXPECT_TRUE(table_of_size(4091).serialize(block.data(), block.size()));
  EXPECT_EQ(block.back(), 0);
  LogCapture log;
  EXPECT_FALSE(table_of_size(4092).serialize(block.data(), block.size()));
  EXPECT_TRUE(log.contains(log_level::fatal,
                           "HistoricalServices::serialize: not enough memory space for all "
                           "hostorical data"))
      << log.all();
}

// Verifies that the limit counts the records before, too, and that one too many fails the whole.
TEST(HistoricalServices, SerializeManyRecords) {
  SHMHistoricalServices table;
  for (int id = 1; id <= 100; ++id)
    table.add({make(static_cast<std::uint8_t>(id), "network", "host.example", 80)});
  Block block;
  EXPECT_TRUE(table.serialize(block.data(), block.size()));
  SHMHistoricalServices again;
  again.deserialize(block.data());
  EXPECT_EQ(again.get_services(), table.get_services());
  for (int id = 101; id <= 255; ++id)
    table.add({make(static_cast<std::uint8_t>(id), "network", "host.example", 80)});
  EXPECT_FALSE(table.serialize(block.data(), block.size()));
}

// Verifies that a buffer too small for the count fails and isn't overrun.
TEST(HistoricalServices, SerializeTinyBuffer) {
  std::array<unsigned char, 3> buffer{};
  EXPECT_FALSE(SHMHistoricalServices().serialize(buffer.data(), buffer.size()));
}

// Verifies that a count beyond the block is logged, and that the whole records before its end are kept.
TEST(HistoricalServices, DeserializeCountTooHigh) {
  Block block;
  block.fill('x');  // texts without an end
  std::memcpy(block.data(), two_records, sizeof(two_records));
  block[0] = 0xFF;
  block[3] = 0xFF;
  LogCapture log;
  SHMHistoricalServices table;
  table.deserialize(block.data());
  EXPECT_EQ(table.get_services().size(), 2U);
  EXPECT_TRUE(
      log.contains(log_level::error, "HistoricalServices::deserialize: the block ends within record 2"))
      << log.all();
}

// Verifies that each place where a block may end within a record is found.
TEST(HistoricalServices, DeserializeTruncatedAnywhere) {
  for (std::size_t tail = 0; tail < 12; ++tail) {
    Block block;
    block.fill('x');
    block[0] = 2;
    block[1] = block[2] = block[3] = 0;
    // One long record that leaves `tail` bytes behind it.
    const std::size_t record_end = block.size() - tail;
    block[record_end - 3] = block[record_end - 2] = block[record_end - 1] = 0;
    SHMHistoricalServices table;
    LogCapture log;
    table.deserialize(block.data());
    EXPECT_EQ(table.get_services().size(), 1U) << tail;
    EXPECT_EQ(log.count("the block ends within record 1 of 2"), 1) << tail << "\n" << log.all();
  }
}

// Verifies that add overwrites the record of an id and that remove passes unknown ids over.
TEST(HistoricalServices, AddAndRemove) {
  SHMHistoricalServices table;
  table.add({make(1, "old", "a", 1), make(2, "two", "b", 2)});
  table.add({make(1, "new", "c", 3)});
  EXPECT_EQ(table.get_by_service_id(1).logical_network_id, "new");
  table.remove({make(2, "", "", 0), make(9, "", "", 0)});
  EXPECT_EQ(table.get_services().size(), 1U);
}

// Verifies what a service made of a record holds, in either form.
TEST(HistoricalServices, ServicesOfRecords) {
  SHMHistoricalServices table;
  table.add({make(5, "net", "host", 80)});
  Service expected;
  expected.service_id = 5;
  expected.logical_network_id = "net";
  expected.public_host = "p5";
  expected.host = "host";
  expected.external_port_in = 80;
  EXPECT_EQ(table.get_by_service_id(5), expected);
  EXPECT_TRUE(table.get_by_service_id(5).is_tcp);
  expected.is_port_owned = true;
  EXPECT_THAT(table.get_services(), ElementsAre(expected));
  EXPECT_TRUE(table.get_services().front().is_tcp);
  EXPECT_EQ(table.get_by_service_id(6), Service());
}

// Verifies the look-ups, and their answers when nothing matches.
TEST(HistoricalServices, Lookups) {
  SHMHistoricalServices table;
  EXPECT_EQ(table.get_max_id(), 0);
  table.add({make(3, "net", "first", 80), make(9, "net", "second", 81), make(4, "other", "third", 80)});
  EXPECT_EQ(table.get_max_id(), 9);
  EXPECT_EQ(table.get_target_by_logical_net_id("net"), "first");
  EXPECT_EQ(table.get_target_by_logical_net_id("absent"), "");
  EXPECT_THAT(table.get_logical_network_ids(), ElementsAre("net", "other"));
  EXPECT_EQ(table.get_by_public_host_port("p4", 80), 4);
  EXPECT_EQ(table.get_by_public_host_port("p4", 81), 0);
  EXPECT_EQ(table.get_by_public_host_port("absent", 80), 0);
}

}  // namespace
