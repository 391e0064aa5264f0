// Base64, RFC 4648 section 4: with padding, without line breaks, one text for each string of bytes.
#include <openssl/evp.h>

#include <algorithm>

#include "zol_libcrypto.h"

namespace zol_libcrypto {
namespace {

// OpenSSL counts in int. Multiples of 3 and 4, so that pieces join without padding between.
constexpr std::size_t plain_piece = std::size_t{3} << 20;
constexpr std::size_t text_piece = std::size_t{4} << 20;

const unsigned char* bytes_of(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}
unsigned char* bytes_of(char* text) {
  return reinterpret_cast<unsigned char*>(text);
}

std::size_t padding_of(const std::string& text) {
  if (text.ends_with("=="))
    return 2;
  return text.ends_with('=') ? 1 : 0;
}

bool is_alphabet(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
}

}  // namespace

std::string to_base64(const std::string& bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');  // OpenSSL ends it with a NUL
  std::size_t size = 0;
  for (std::size_t at = 0; at < bytes.size(); at += plain_piece) {
    const std::size_t piece = std::min(plain_piece, bytes.size() - at);
    size += static_cast<std::size_t>(
        EVP_EncodeBlock(bytes_of(text.data() + size), bytes_of(bytes.data() + at), static_cast<int>(piece)));
  }
  text.resize(size);
  return text;
}

std::optional<std::string> from_base64(const std::string& text) {
  const std::size_t padding = padding_of(text);
  if (text.size() % 4 != 0 ||
      !std::all_of(text.begin(), text.end() - static_cast<long>(padding), is_alphabet))
    return std::nullopt;
  std::string bytes(text.size() / 4 * 3, '\0');
  std::size_t size = 0;
  for (std::size_t at = 0; at < text.size(); at += text_piece) {
    const std::size_t piece = std::min(text_piece, text.size() - at);
    const int decoded =
        EVP_DecodeBlock(bytes_of(bytes.data() + size), bytes_of(text.data() + at), static_cast<int>(piece));
    if (decoded < 0)
      return std::nullopt;
    size += static_cast<std::size_t>(decoded);
  }
  bytes.resize(size - padding);  // OpenSSL counts the padding as bytes
  if (to_base64(bytes) != text)  // bits beyond the last byte are set
    return std::nullopt;
  return bytes;
}

}  // namespace zol_libcrypto
