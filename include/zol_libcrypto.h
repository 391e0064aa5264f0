// The primitives below zol::Crypto, over OpenSSL's EVP interface. Nothing here logs, and nothing keeps a key.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace zol_libcrypto {

inline constexpr std::size_t key_size = 32;
inline constexpr std::size_t nonce_size = 12;
inline constexpr std::size_t tag_size = 16;

// The 32 bytes of a key file. Empty with `error` set when the file can't be read, has another size, or may be
// read by group or others.
std::optional<std::string> read_key_file(const std::string& path, std::string& error);
// Makes such a file, mode 0600, with random bytes; false when it exists or can't be written.
bool make_key_file(const std::string& path, std::string& error);

// AES-256-GCM: nonce, ciphertext and tag in one string, and the way back. Empty on failure, which for the
// second also means that the text was tampered with.
std::optional<std::string> encipher(const std::string& key, const std::string& plain);
std::optional<std::string> decipher(const std::string& key, const std::string& sealed);

// HMAC-SHA-256, 32 raw bytes.
std::optional<std::string> hmac_sha256(const std::string& key, const std::string& message);

std::string to_base64(const std::string& bytes);
std::optional<std::string> from_base64(const std::string& text);

}  // namespace zol_libcrypto
