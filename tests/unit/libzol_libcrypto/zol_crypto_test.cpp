#include "zol_crypto.h"

#include <gtest/gtest.h>

#include "key_folder.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "zol_libcrypto.h"

namespace {

using zol::Crypto;
using zol_test::KeyFolder;
using zol_test::LogCapture;

const std::string key(32, 'k');
constexpr char secret[] = "the plain secret";

std::string enciphered(const std::string& plain, const std::string& with_key = key) {
  return zol_libcrypto::to_base64(zol_libcrypto::encipher(with_key, plain).value());
}

// Neither form of the secret, nor the key, may ever stand in a log.
void expect_no_secret(const LogCapture& capture, const std::string& text) {
  EXPECT_FALSE(capture.contains(secret));
  EXPECT_FALSE(capture.contains(text));
  EXPECT_FALSE(capture.contains(key));
}

// Verifies that a configured secret is deciphered with the key of the working directory, and nothing is
// logged.
TEST(Crypto, decrypt) {
  const KeyFolder folder;
  KeyFolder::write_file("zol.key", key);
  LogCapture capture;
  EXPECT_EQ(Crypto().decrypt(enciphered(secret)), secret);
  EXPECT_EQ(capture.all(), "");
}

// Verifies that the key file is looked at each time, so that a new key counts at once.
TEST(Crypto, key_file_is_read_each_time) {
  const KeyFolder folder;
  const Crypto crypto;
  KeyFolder::write_file("zol.key", key);
  EXPECT_EQ(crypto.decrypt(enciphered(secret)), secret);
  const std::string other(32, 'o');
  KeyFolder::write_file("zol.key", other);
  EXPECT_EQ(crypto.decrypt(enciphered(secret, other)), secret);
}

// Verifies that text that is no base64 is refused with an error, before any key is looked for.
TEST(Crypto, secret_that_is_no_base64) {
  const KeyFolder folder;
  for (const char* text : {"", "the plain secret", "Zg="}) {
    LogCapture capture;
    EXPECT_EQ(Crypto().decrypt(text), "");
    EXPECT_EQ(capture.all(), "300 Crypto: decrypt: the enciphered secret is no base64 text\n");
  }
}

// Verifies that a missing key file is an error that names it.
TEST(Crypto, missing_key_file) {
  const KeyFolder folder;
  LogCapture capture;
  const std::string text = enciphered(secret);
  EXPECT_EQ(Crypto().decrypt(text), "");
  EXPECT_EQ(capture.all(), "300 Crypto: decrypt: can't open key file zol.key: No such file or directory\n");
  expect_no_secret(capture, text);
}

// Verifies that a key file that the group can read is refused with an error that says what to do.
TEST(Crypto, key_file_open_to_the_group) {
  const KeyFolder folder;
  KeyFolder::write_file("zol.key", key, 0640);
  LogCapture capture;
  const std::string text = enciphered(secret);
  EXPECT_EQ(Crypto().decrypt(text), "");
  EXPECT_EQ(capture.all(),
            "300 Crypto: decrypt: key file zol.key is open to group or others (mode 0640), it must have mode "
            "0600\n");
  expect_no_secret(capture, text);
}

// Verifies that a secret of another key, a tampered one and one that is too short give one error each.
TEST(Crypto, secret_that_the_key_does_not_open) {
  const KeyFolder folder;
  KeyFolder::write_file("zol.key", key);
  std::string tampered = enciphered(secret);
  tampered[20] = tampered[20] == 'A' ? 'B' : 'A';
  for (const std::string& text : {enciphered(secret, std::string(32, 'o')), tampered, std::string("Zm9v")}) {
    LogCapture capture;
    EXPECT_EQ(Crypto().decrypt(text), "");
    EXPECT_EQ(capture.all(),
              "300 Crypto: decrypt: the secret was not enciphered with the key of zol.key, or is damaged\n");
    expect_no_secret(capture, text);
  }
}

// Verifies that an empty secret, which would sign nothing, is said to be one.
TEST(Crypto, empty_secret) {
  const KeyFolder folder;
  KeyFolder::write_file("zol.key", key);
  LogCapture capture;
  EXPECT_EQ(Crypto().decrypt(enciphered("")), "");
  EXPECT_TRUE(capture.contains(log_level::error, "decrypt: the secret is empty"));
}

// Verifies that a token is the keyed digest in lower-case hexadecimal: RFC 4231, test case 2.
TEST(Crypto, hmac) {
  std::string token = "old";
  EXPECT_TRUE(Crypto().hmac(zol::HASH_HMAC_SHA256, "Jefe", "what do ya want for nothing?", token));
  EXPECT_EQ(token, "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

// Verifies that another hash type is refused, and leaves no token.
TEST(Crypto, hmac_of_another_type) {
  LogCapture capture;
  std::string token = "old";
  EXPECT_FALSE(Crypto().hmac(static_cast<zol::hash_type_t>(1), "Jefe", "message", token));
  EXPECT_EQ(token, "");
  EXPECT_EQ(capture.all(), "300 Crypto: hmac: unknown hash type 1\n");
}

}  // namespace
