// The buffer that a packet is crafted in, from its tail to its head, and the one that it arrives in.
//
// A sender starts with an empty packet and puts payload, then header by header, in front of what is there:
// `data` is always `buffer + size - length`. The receive path is the exception: what arrived lies at `buffer`
// itself, `length` bytes of it, and is read through the packet_u8, packet_u16 and packet_u32 below.
#pragma once

#include <cstdint>
#include <ctime>

namespace zol {

class Packet {
 public:
  Packet() = default;  // no room at all
  // Room for `capacity` bytes, none of them in the packet; std::runtime_error without memory.
  explicit Packet(int capacity);
  Packet(const Packet&) = delete;
  Packet& operator=(const Packet&) = delete;
  virtual ~Packet();

  // Takes `n` more bytes in at the head, or gives `n` back there. What doesn't fit throws std::runtime_error
  // and leaves the packet as it was.
  Packet& pull(int n);
  Packet& push(int n);
  void set_length(int n);
  int get_length() const { return length; }

  unsigned char* buffer = nullptr;  // malloc's, owned
  int size = 0;                     // capacity
  unsigned char* data = nullptr;    // first byte of what is to be sent
  int length = 0;
  timespec timestamp{};  // the kernel's receive time, wall clock
};

// Fields of a packet that has arrived, in host order, at an offset from its first byte. What lies behind the
// packet's length reads as 0.
std::uint8_t packet_u8(const Packet& packet, int offset);
std::uint16_t packet_u16(const Packet& packet, int offset);
std::uint32_t packet_u32(const Packet& packet, int offset);

}  // namespace zol
