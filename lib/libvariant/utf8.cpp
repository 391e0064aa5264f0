#include "utf8.h"

#include <cstdint>
#include <cstring>

namespace libvariant {
namespace {

constexpr char replacement[] = "\xEF\xBF\xBD";  // U+FFFD

std::size_t ascii_length(std::string_view text) {
  std::size_t at = 0;
  for (; at + 8 <= text.size(); at += 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + at, sizeof(word));
    if ((word & 0x8080808080808080ULL) != 0)
      break;
  }
  while (at < text.size() && static_cast<unsigned char>(text[at]) < 0x80)
    ++at;
  return at;
}

struct Sequence {
  std::size_t length;
  bool valid;
};

// How many bytes follow a lead byte, and the range of the first of them (RFC 3629, section 4).
struct Lead {
  int following;  // -1: no lead byte
  unsigned char low, high;
};

Lead lead_of(unsigned char byte) {
  if (byte < 0x80)
    return {0, 0, 0};
  if (byte >= 0xC2 && byte <= 0xDF)
    return {1, 0x80, 0xBF};
  if (byte >= 0xE0 && byte <= 0xEF)
    return {2, static_cast<unsigned char>(byte == 0xE0 ? 0xA0 : 0x80),
            static_cast<unsigned char>(byte == 0xED ? 0x9F : 0xBF)};
  if (byte >= 0xF0 && byte <= 0xF4)
    return {3, static_cast<unsigned char>(byte == 0xF0 ? 0x90 : 0x80),
            static_cast<unsigned char>(byte == 0xF4 ? 0x8F : 0xBF)};
  return {-1, 0, 0};
}

Sequence sequence_at(std::string_view text, std::size_t at) {
  Lead lead = lead_of(static_cast<unsigned char>(text[at]));
  if (lead.following < 0)
    return {1, false};
  std::size_t length = 1;
  for (; lead.following > 0; --lead.following) {
    if (at + length >= text.size())
      return {length, false};
    const auto byte = static_cast<unsigned char>(text[at + length]);
    if (byte < lead.low || byte > lead.high)
      return {length, false};
    lead.low = 0x80;
    lead.high = 0xBF;
    ++length;
  }
  return {length, true};
}

}  // namespace

std::string_view as_utf8(std::string_view text, std::string& storage) {
  std::size_t at = ascii_length(text);
  while (at < text.size()) {
    const Sequence sequence = sequence_at(text, at);
    if (!sequence.valid)
      break;
    at += sequence.length;
  }
  if (at == text.size())
    return text;
  storage.assign(text.substr(0, at));
  while (at < text.size()) {
    const Sequence sequence = sequence_at(text, at);
    storage += sequence.valid ? text.substr(at, sequence.length) : std::string_view(replacement);
    at += sequence.length;
  }
  return storage;
}

}  // namespace libvariant
