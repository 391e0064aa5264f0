// The keys of the session table and their hashes.
#pragma once

#include <uuid/uuid.h>

#include <cstdint>
#include <cstring>

namespace zol_monitor {

constexpr std::uint64_t leg_key(std::uint32_t address, std::uint16_t port) {
  return std::uint64_t{address} << 32 | port;
}

// Random numbers drawn once at start, so that nobody who chooses addresses and ports can choose buckets.
struct HashSeeds {
  HashSeeds();
  std::uint64_t first;
  std::uint64_t second;
};
extern const HashSeeds hash_seeds;

// Every bit of the operands reaches the low bits of the result, which the maps use.
inline std::uint64_t mix(std::uint64_t a, std::uint64_t b) {
  const unsigned __int128 product = static_cast<unsigned __int128>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

// Addresses in network order and ports differ in few bits, in the wrong places for the identity.
struct LegKeyHash {
  std::size_t operator()(std::uint64_t key) const noexcept {
    return mix(key ^ hash_seeds.first, hash_seeds.second);
  }
};

// A session's UUID in its 16 bytes; the 36-character text is for logs and reports.
struct SessionId {
  explicit SessionId(const unsigned char* uuid) { std::memcpy(words, uuid, sizeof words); }
  bool operator==(const SessionId&) const = default;

  std::uint64_t words[2];
};
static_assert(sizeof(SessionId) == sizeof(uuid_t));

struct SessionIdHash {
  std::size_t operator()(const SessionId& id) const noexcept {
    return mix(id.words[0] ^ hash_seeds.first, id.words[1] ^ hash_seeds.second);
  }
};

}  // namespace zol_monitor
