// AES-256-GCM (NIST SP 800-38D) and HMAC-SHA-256 (RFC 2104), by OpenSSL.
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <limits>
#include <memory>

#include "zol_libcrypto.h"

namespace zol_libcrypto {
namespace {

struct FreeContext {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, FreeContext>;

const unsigned char* bytes_of(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned char* bytes_of(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

bool fits(const std::string& key, const std::string& text) {
  return key.size() == key_size && text.size() <= std::numeric_limits<int>::max() / 2;
}

}  // namespace

std::optional<std::string> encipher(const std::string& key, const std::string& plain) {
  const Context context(EVP_CIPHER_CTX_new());
  std::string sealed(nonce_size + plain.size() + tag_size, '\0');
  unsigned char* const nonce = bytes_of(sealed);
  unsigned char* const text = nonce + nonce_size;
  int size = 0;
  int last = 0;
  if (!fits(key, plain) || !context || RAND_bytes(nonce, nonce_size) != 1 ||
      EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, bytes_of(key), nonce) != 1 ||
      EVP_EncryptUpdate(context.get(), text, &size, bytes_of(plain), static_cast<int>(plain.size())) != 1 ||
      EVP_EncryptFinal_ex(context.get(), text + size, &last) != 1 ||
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, tag_size, text + plain.size()) != 1)
    return std::nullopt;
  return sealed;
}

std::optional<std::string> decipher(const std::string& key, const std::string& sealed) {
  if (!fits(key, sealed) || sealed.size() < nonce_size + tag_size)
    return std::nullopt;
  const Context context(EVP_CIPHER_CTX_new());
  const std::size_t text_size = sealed.size() - nonce_size - tag_size;
  const unsigned char* const text = bytes_of(sealed) + nonce_size;
  std::string tag = sealed.substr(nonce_size + text_size);
  std::string plain(text_size, '\0');
  int size = 0;
  int last = 0;
  if (!context ||
      EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, bytes_of(key), bytes_of(sealed)) != 1 ||
      EVP_DecryptUpdate(context.get(), bytes_of(plain), &size, text, static_cast<int>(text_size)) != 1 ||
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, tag_size, tag.data()) != 1 ||
      EVP_DecryptFinal_ex(context.get(), bytes_of(plain) + size, &last) != 1) {
    OPENSSL_cleanse(plain.data(), plain.size());
    return std::nullopt;
  }
  return plain;
}

std::optional<std::string> hmac_sha256(const std::string& key, const std::string& message) {
  std::string digest(32, '\0');
  std::size_t size = 0;
  if (EVP_Q_mac(nullptr, "HMAC", nullptr, "SHA256", nullptr, key.data(), key.size(), bytes_of(message),
                message.size(), bytes_of(digest), digest.size(), &size) == nullptr ||
      size != digest.size())
    return std::nullopt;
  return digest;
}

}  // namespace zol_libcrypto
