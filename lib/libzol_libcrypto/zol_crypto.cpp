#include "zol_crypto.h"

#include <optional>
#include <utility>

#include "cleansed.h"
#include "sup_logger.h"
#include "zol_libcrypto.h"

namespace zol {
namespace {

constexpr char key_file[] = "zol.key";  // in the working directory

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("Crypto");
  return l;
}

std::string to_hex(const std::string& bytes) {
  constexpr char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

}  // namespace

std::string Crypto::decrypt(const std::string& enciphered) const {
  const std::optional<std::string> sealed = zol_libcrypto::from_base64(enciphered);
  if (!sealed || sealed->empty()) {
    SUP_LOG(logger(), log_level::error) << "decrypt: the enciphered secret is no base64 text";
    return {};
  }
  std::string error;
  std::optional<std::string> key = zol_libcrypto::read_key_file(key_file, error);
  if (!key) {
    SUP_LOG(logger(), log_level::error) << "decrypt: " << error;
    return {};
  }
  const zol_libcrypto::Cleansed wiped(*key);
  std::optional<std::string> plain = zol_libcrypto::decipher(*key, *sealed);
  if (!plain) {
    SUP_LOG(logger(), log_level::error)
        << "decrypt: the secret was not enciphered with the key of " << key_file << ", or is damaged";
    return {};
  }
  if (plain->empty())
    SUP_LOG(logger(), log_level::error) << "decrypt: the secret is empty";
  return std::move(*plain);
}

bool Crypto::hmac(hash_type_t type, const std::string& key, const std::string& message,
                  std::string& out) const {
  out.clear();
  if (type != HASH_HMAC_SHA256) {
    SUP_LOG(logger(), log_level::error) << "hmac: unknown hash type " << static_cast<int>(type);
    return false;
  }
  const std::optional<std::string> digest = zol_libcrypto::hmac_sha256(key, message);
  if (!digest) {
    SUP_LOG(logger(), log_level::error) << "hmac: the digest failed";
    return false;
  }
  out = to_hex(*digest);
  return true;
}

std::string Crypto::base64_encode(const std::string& bytes) {
  return zol_libcrypto::to_base64(bytes);
}

std::string Crypto::base64_decode(const std::string& text) {
  return zol_libcrypto::from_base64(text).value_or(std::string());
}

}  // namespace zol
