#include "probes/packet.h"

#include <cstdlib>
#include <stdexcept>

namespace zol {

Packet::Packet(int capacity) {
  if (capacity >= 0)
    buffer = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(capacity)));
  if (buffer == nullptr)
    throw std::runtime_error("Unable to allocate packet");
  size = capacity;
  set_length(0);
}

Packet::~Packet() {
  std::free(buffer);
}

Packet& Packet::pull(int n) {
  if (n > size - length || n < -length)
    throw std::runtime_error("Failed to pull outside of packet boundaries");
  length += n;
  data -= n;
  return *this;
}

Packet& Packet::push(int n) {
  if (n > length || n < length - size)
    throw std::runtime_error("Failed to push outside of packet boundaries");
  length -= n;
  data += n;
  return *this;
}

void Packet::set_length(int n) {
  if (n > size || n < 0)
    throw std::runtime_error("Failed to set length that is larger than buffer size");
  length = n;
  data = buffer + (size - n);
}

std::uint8_t packet_u8(const Packet& packet, int offset) {
  return offset >= 0 && offset < packet.length ? packet.buffer[offset] : 0;
}

std::uint16_t packet_u16(const Packet& packet, int offset) {
  return static_cast<std::uint16_t>(packet_u8(packet, offset) << 8 | packet_u8(packet, offset + 1));
}

std::uint32_t packet_u32(const Packet& packet, int offset) {
  return std::uint32_t{packet_u16(packet, offset)} << 16 | packet_u16(packet, offset + 2);
}

}  // namespace zol
