// IPv4 prefixes, and the longest-prefix look-up over many of them. Value types.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <unordered_map>

namespace zol {

inline constexpr int ipv4_bits = 32;

// The lowest address of the prefix of that length, 0 to 32, around an address in host order.
inline constexpr std::uint32_t first_address(std::uint32_t address, int length) {
  return length == 0 ? 0 : address & (0xffffffffu << (ipv4_bits - length));
}

struct Subnet {
  // An unset subnet.
  Subnet() = default;
  // "address/length", or an address alone, which is a /32; the empty text is an unset subnet. Host bits may
  // be set. Throws std::runtime_error: "bad subnet format1: " and the text for a bad address, "bad subnet
  // format2: " for a length outside 0 to 32, "bad subnet format3: " for length 0 with another address than
  // 0.0.0.0.
  explicit Subnet(const std::string& text);
  // The subnet of that length around an address in network order. Throws std::runtime_error on a length
  // outside 0 to 32: "bad subnet prefix: " and the number.
  Subnet(unsigned int ip, int length);
  // The three members as they are.
  Subnet(unsigned int first_ip, unsigned int last_ip, int length);

  // Both ends are in the range. The address in network order; text that is no address is logged at error
  // level and in no range.
  bool is_ip_in_range(unsigned int ip) const;
  bool is_ip_in_range(const in_addr& ip) const { return is_ip_in_range(ip.s_addr); }
  bool is_ip_in_range(const std::string& ip) const;

  // By the last address; of two that end together the narrower comes first.
  bool operator<(const Subnet& other) const;
  bool operator==(const Subnet& other) const = default;
  // "10.0.0.0/8".
  std::string to_str() const;

  std::int32_t prefix = -1;  // the length, -1 when unset
  std::uint32_t first = 0;   // lowest address, host order
  std::uint32_t last = 0;    // highest address, host order

 private:
  void init(unsigned int ip);
};

std::ostream& operator<<(std::ostream& out, const Subnet& subnet);

// The look-up is the routing tables' hot path: at most 32 hash probes and no allocation.
class SubnetMap {
 public:
  SubnetMap() = default;
  virtual ~SubnetMap() = default;
  SubnetMap(const SubnetMap&) = default;
  SubnetMap(SubnetMap&&) = default;
  SubnetMap& operator=(const SubnetMap&) = default;
  SubnetMap& operator=(SubnetMap&&) = default;

  // Takes the place of a subnet with the same length and first address. Lengths 1 to 32; another one throws
  // std::runtime_error: "bad subnet prefix: " and the number.
  virtual void add_subnet(const Subnet& subnet);
  // The longest subnet that holds the address, given in network order; null when none does. The pointer is
  // good until that subnet is replaced or the map is cleared.
  const Subnet* find(unsigned int ip) const;
  void clear();

 private:
  static constexpr int longest = 32;

  // By prefix length less 1, then by first address.
  std::array<std::unordered_map<std::uint32_t, Subnet>, longest> tables_;
};

}  // namespace zol
