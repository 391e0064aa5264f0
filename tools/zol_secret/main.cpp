// zol_secret: makes a node's key file and enciphers a secret for its configuration.
#include <openssl/crypto.h>

#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "zol_libcrypto.h"

namespace {

constexpr int done = 0;
constexpr int failed = 1;
constexpr int bad_usage = 2;

constexpr char usage[] =
    "usage: zol_secret make-key FILE\n"
    "       zol_secret encipher KEYFILE\n"
    "       zol_secret --help\n";

constexpr char help[] =
    "\n"
    "make-key   writes a new random key of 32 bytes to FILE, which must not exist. Only its owner may\n"
    "           read it. The daemon reads its key from zol.key in its working directory.\n"
    "encipher   reads a plain secret from standard input to its end and writes the enciphered one to\n"
    "           standard output, in the form of the setting Monitoring.hmac_secret: base64 of the nonce,\n"
    "           the AES-256-GCM text and its tag. One line feed at the end of the input is no part of the\n"
    "           secret. The same secret gives another text each time.\n"
    "\n"
    "Exit status: 0 done, 1 failed, 2 bad usage.\n";

int fail(const std::string& reason) {
  std::cerr << "zol_secret: " << reason << '\n';
  return failed;
}

int make_key(const std::string& path) {
  std::string error;
  return zol_libcrypto::make_key_file(path, error) ? done : fail(error);
}

std::string read_secret() {
  std::ostringstream input;
  input << std::cin.rdbuf();
  std::string secret = input.str();
  if (secret.ends_with('\n'))
    secret.pop_back();
  if (secret.ends_with('\r'))
    secret.pop_back();
  return secret;
}

int encipher(const std::string& key_path) {
  std::string error;
  std::optional<std::string> key = zol_libcrypto::read_key_file(key_path, error);
  if (!key)
    return fail(error);
  std::string secret = read_secret();
  const std::optional<std::string> sealed =
      secret.empty() ? std::nullopt : zol_libcrypto::encipher(*key, secret);
  const bool was_empty = secret.empty();
  OPENSSL_cleanse(key->data(), key->size());
  OPENSSL_cleanse(secret.data(), secret.size());
  if (was_empty)
    return fail("no secret on standard input");
  if (!sealed)
    return fail("the secret can't be enciphered");
  std::cout << zol_libcrypto::to_base64(*sealed) << std::endl;
  return std::cout ? done : fail("can't write to standard output");
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() == 1 && (arguments[0] == "--help" || arguments[0] == "-h")) {
    std::cout << usage << help;
    return done;
  }
  if (arguments.size() == 2 && arguments[0] == "make-key")
    return make_key(arguments[1]);
  if (arguments.size() == 2 && arguments[0] == "encipher")
    return encipher(arguments[1]);
  std::cerr << usage;
  return bad_usage;
}
