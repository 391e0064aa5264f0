// Where RapidJSON's writers put their text.
#pragma once

#include <rapidjson/writer.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

namespace libvariant {

// RapidJSON's output stream (its "Stream" concept) straight into the string that the caller gets. Found by
// argument-dependent look-up: PutReserve, PutUnsafe and PutN.
class TextStream {
 public:
  using Ch = char;

  // Room for so much is made at once; the stream grows at need.
  explicit TextStream(std::size_t expected_size) { grow(expected_size); }
  TextStream(const TextStream&) = delete;
  TextStream& operator=(const TextStream&) = delete;

  void Put(char c) {
    reserve(1);
    *next_++ = c;
  }
  void Flush() {}
  void reserve(std::size_t more) {
    if (static_cast<std::size_t>(end_ - next_) < more)
      grow(more);
  }
  void put_reserved(char c) { *next_++ = c; }
  void put_reserved(char c, std::size_t n) {
    std::memset(next_, c, n);
    next_ += n;
  }
  void put_reserved(const char* text, std::size_t n) {
    std::memcpy(next_, text, n);
    next_ += n;
  }
  std::string take() {
    text_.resize(static_cast<std::size_t>(next_ - text_.data()));
    return std::move(text_);
  }

 private:
  void grow(std::size_t more) {
    const std::size_t used = next_ == nullptr ? 0 : static_cast<std::size_t>(next_ - text_.data());
    text_.resize(std::max(used + more, text_.size() + text_.size() / 2));
    next_ = text_.data() + used;
    end_ = text_.data() + text_.size();
  }

  std::string text_;  // written up to next_
  char* next_ = nullptr;
  char* end_ = nullptr;
};

inline void PutReserve(TextStream& stream, std::size_t n) {
  stream.reserve(n);
}
inline void PutUnsafe(TextStream& stream, char c) {
  stream.put_reserved(c);
}
inline void PutN(TextStream& stream, char c, std::size_t n) {
  stream.reserve(n);
  stream.put_reserved(c, n);
}

namespace text_scan {

constexpr std::uint64_t in_each_byte(unsigned char byte) {
  return byte * 0x0101010101010101ULL;
}

constexpr bool has_zero_byte(std::uint64_t word) {
  return ((word - in_each_byte(0x01)) & ~word & in_each_byte(0x80)) != 0;
}

inline bool is_escaped(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\';
}

// How many bytes at the front of a text go into JSON as they are; eight are looked at together.
inline std::size_t plain_length(const char* text, std::size_t size) {
  std::size_t at = 0;
  for (; at + sizeof(std::uint64_t) <= size; at += sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::memcpy(&word, text + at, sizeof(word));
    const bool control = ((word - in_each_byte(0x20)) & ~word & in_each_byte(0x80)) != 0;
    if (control || has_zero_byte(word ^ in_each_byte('"')) || has_zero_byte(word ^ in_each_byte('\\')))
      break;
  }
  while (at < size && !is_escaped(text[at]))
    ++at;
  return at;
}

}  // namespace text_scan
}  // namespace libvariant

// The place that RapidJSON keeps for a quick way through text: copies what needs no escape. Room is reserved.
template <>
inline bool rapidjson::Writer<libvariant::TextStream>::ScanWriteUnescapedString(StringStream& text,
                                                                                std::size_t size) {
  const std::size_t plain = libvariant::text_scan::plain_length(text.src_, size - text.Tell());
  os_->put_reserved(text.src_, plain);
  text.src_ += plain;
  return text.Tell() < size;
}
