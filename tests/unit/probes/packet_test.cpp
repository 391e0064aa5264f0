#include "probes/packet.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace zol_test {
namespace {

using zol::Packet;

template <typename Call>
std::string text_thrown_by(Call call) {
  try {
    call();
  } catch (const std::runtime_error& thrown) {
    return thrown.what();
  }
  return "nothing";
}

// Verifies that a new packet is empty, has no receive time, and begins at the tail of its buffer.
TEST(PacketTest, BeginsEmptyAtItsTail) {
  const Packet packet(100);
  EXPECT_EQ(packet.size, 100);
  EXPECT_EQ(packet.get_length(), 0);
  EXPECT_EQ(packet.data, packet.buffer + 100);
  EXPECT_EQ(packet.timestamp.tv_sec, 0);
  EXPECT_EQ(packet.timestamp.tv_nsec, 0);
}

// Verifies that a packet without a size has no room.
TEST(PacketTest, WithoutRoom) {
  Packet packet;
  EXPECT_EQ(packet.buffer, nullptr);
  EXPECT_EQ(packet.get_length(), 0);
  EXPECT_EQ(text_thrown_by([&] { packet.pull(1); }), "Failed to pull outside of packet boundaries");
}

// Verifies that a packet that can't be had says so.
TEST(PacketTest, WithoutMemory) {
  EXPECT_EQ(text_thrown_by([] { const Packet packet(-1); }), "Unable to allocate packet");
}

// Verifies that pull takes bytes in at the head and push gives them back there, each giving the packet.
TEST(PacketTest, GrowsTowardItsHead) {
  Packet packet(100);
  EXPECT_EQ(&packet.pull(40), &packet);
  EXPECT_EQ(packet.get_length(), 40);
  EXPECT_EQ(packet.data, packet.buffer + 60);
  packet.pull(60);
  EXPECT_EQ(packet.get_length(), 100);
  EXPECT_EQ(packet.data, packet.buffer);
  EXPECT_EQ(&packet.push(30), &packet);
  EXPECT_EQ(packet.get_length(), 70);
  EXPECT_EQ(packet.data, packet.buffer + 30);
}

// Verifies that pull past the size throws and leaves the packet as it was.
TEST(PacketTest, PullPastTheSize) {
  Packet packet(100);
  packet.pull(60);
  EXPECT_EQ(text_thrown_by([&] { packet.pull(41); }), "Failed to pull outside of packet boundaries");
  EXPECT_EQ(text_thrown_by([&] { packet.pull(-61); }), "Failed to pull outside of packet boundaries");
  EXPECT_EQ(text_thrown_by([&] { packet.pull(0x7fffffff); }), "Failed to pull outside of packet boundaries");
  EXPECT_EQ(packet.get_length(), 60);
  EXPECT_EQ(packet.data, packet.buffer + 40);
}

// Verifies that push below an empty packet throws and leaves the packet as it was.
TEST(PacketTest, PushBelowEmpty) {
  Packet packet(100);
  packet.pull(10);
  EXPECT_EQ(text_thrown_by([&] { packet.push(11); }), "Failed to push outside of packet boundaries");
  EXPECT_EQ(text_thrown_by([&] { packet.push(-91); }), "Failed to push outside of packet boundaries");
  EXPECT_EQ(packet.get_length(), 10);
  EXPECT_EQ(packet.data, packet.buffer + 90);
}

// Verifies that a length puts the data at the tail, and that one above the size throws and changes nothing.
TEST(PacketTest, SetLength) {
  Packet packet(100);
  packet.set_length(100);
  EXPECT_EQ(packet.data, packet.buffer);
  packet.set_length(1);
  EXPECT_EQ(packet.data, packet.buffer + 99);
  const std::string text = "Failed to set length that is larger than buffer size";
  EXPECT_EQ(text_thrown_by([&] { packet.set_length(101); }), text);
  EXPECT_EQ(text_thrown_by([&] { packet.set_length(-1); }), text);
  EXPECT_EQ(packet.get_length(), 1);
  EXPECT_EQ(packet.data, packet.buffer + 99);
}

// Verifies that fields of an arrived packet are read from the head of the buffer in network order, and that
// what lies beyond its length, or before it, reads as 0.
TEST(PacketTest, ReadsFieldsWithinItsLength) {
  Packet packet(8);
  for (int i = 0; i < 8; ++i)
    packet.buffer[i] = static_cast<unsigned char>(0xa0 + i);
  packet.set_length(6);
  EXPECT_EQ(zol::packet_u8(packet, 5), 0xa5);
  EXPECT_EQ(zol::packet_u8(packet, 6), 0);
  EXPECT_EQ(zol::packet_u8(packet, -1), 0);
  EXPECT_EQ(zol::packet_u16(packet, 0), 0xa0a1);
  EXPECT_EQ(zol::packet_u16(packet, 5), 0xa500);
  EXPECT_EQ(zol::packet_u32(packet, 2), 0xa2a3a4a5);
  EXPECT_EQ(zol::packet_u32(packet, 4), 0xa4a50000);
}

}  // namespace
}  // namespace zol_test
