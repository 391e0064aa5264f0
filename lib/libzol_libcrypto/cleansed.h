// Wipes a secret when its scope ends, in the way that a compiler may not leave out.
#pragma once

#include <openssl/crypto.h>

#include <string>

namespace zol_libcrypto {

class Cleansed {
 public:
  explicit Cleansed(std::string& secret) : secret_(secret) {}
  ~Cleansed() { OPENSSL_cleanse(secret_.data(), secret_.size()); }
  Cleansed(const Cleansed&) = delete;
  Cleansed& operator=(const Cleansed&) = delete;

 private:
  std::string& secret_;
};

}  // namespace zol_libcrypto
