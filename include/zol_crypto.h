// Signing and secrets of the node. The work is done by libzol_libcrypto over OpenSSL.
#pragma once

#include <string>

namespace zol {

// The digest behind a token; only the first is in use.
enum hash_type_t { HASH_HMAC_SHA256 = 0 };

class Crypto {
 public:
  Crypto() = default;
  virtual ~Crypto() = default;

  // The plain secret of a configured one: base64 of a 12-byte nonce, the AES-256-GCM ciphertext and its
  // 16-byte tag (NIST SP 800-38D). The key is the 32 bytes of the file "zol.key" in the working directory.
  // Empty means failure; the reason is logged, the secret never.
  std::string decrypt(const std::string& enciphered) const;

  // The keyed digest of `message` (RFC 2104 with SHA-256) as 64 lower-case hexadecimal characters. False, and
  // `out` empty, for another hash type or when the digest fails.
  bool hmac(hash_type_t type, const std::string& key, const std::string& message, std::string& out) const;

  // RFC 4648, with padding and without line breaks. Decoding text that is no base64 gives an empty string.
  static std::string base64_encode(const std::string& bytes);
  static std::string base64_decode(const std::string& text);
};

}  // namespace zol
