#include <gtest/gtest.h>

#include "zol_libcrypto.h"

namespace {

using zol_libcrypto::decipher;
using zol_libcrypto::encipher;
using zol_libcrypto::hmac_sha256;

const std::string key(zol_libcrypto::key_size, 'k');

std::string from_hex(const std::string& digits) {
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2)
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  return bytes;
}

// Verifies AES-256-GCM against the vector of NIST's validation set: the key of 32 zero bytes, the nonce of 12
// zero bytes, 16 zero bytes of text.
TEST(Cipher, known_vector) {
  const std::string sealed = from_hex(
      "000000000000000000000000"            // nonce
      "cea7403d4d606b6e074ec5d3baf39d18"    // text
      "d0d1c8a799996bf0265b98b5d48ab919");  // tag
  EXPECT_EQ(decipher(std::string(32, '\0'), sealed), std::string(16, '\0'));
}

// Verifies that a text comes back, and that it is longer by nonce and tag while sealed.
TEST(Cipher, there_and_back) {
  for (const std::string& plain :
       {std::string(), std::string("secret"), std::string("a\0b", 3), std::string(5000, 'x')}) {
    const auto sealed = encipher(key, plain);
    ASSERT_TRUE(sealed);
    EXPECT_EQ(sealed->size(), 12 + plain.size() + 16);
    EXPECT_EQ(decipher(key, *sealed), plain);
  }
}

// Verifies that the nonce is new each time, so that equal texts differ while sealed.
TEST(Cipher, nonce_is_never_repeated) {
  const auto first = encipher(key, "secret");
  const auto second = encipher(key, "secret");
  ASSERT_TRUE(first && second);
  EXPECT_NE(first->substr(0, 12), second->substr(0, 12));
  EXPECT_NE(first->substr(12), second->substr(12));
}

// Verifies that a change of any byte, nonce, text or tag, is found out.
TEST(Cipher, tampering_with_any_byte) {
  const auto sealed = encipher(key, "secret");
  ASSERT_TRUE(sealed);
  for (std::size_t i = 0; i < sealed->size(); ++i) {
    std::string tampered = *sealed;
    tampered[i] = static_cast<char>(tampered[i] ^ 1);
    EXPECT_EQ(decipher(key, tampered), std::nullopt) << "byte " << i;
  }
}

// Verifies that a sealed text that is cut off or grown, down to nothing, is refused.
TEST(Cipher, sealed_text_of_another_length) {
  const auto sealed = encipher(key, "secret");
  ASSERT_TRUE(sealed);
  for (std::size_t size = 0; size < sealed->size(); ++size)
    EXPECT_EQ(decipher(key, sealed->substr(0, size)), std::nullopt) << size;
  EXPECT_EQ(decipher(key, *sealed + "x"), std::nullopt);
}

// Verifies that another key, and a key of another size, open nothing.
TEST(Cipher, other_keys) {
  const auto sealed = encipher(key, "secret");
  ASSERT_TRUE(sealed);
  EXPECT_EQ(decipher(std::string(32, 'x'), *sealed), std::nullopt);
  for (const std::size_t size : {0U, 16U, 31U, 33U}) {
    EXPECT_EQ(decipher(std::string(size, 'k'), *sealed), std::nullopt);
    EXPECT_EQ(encipher(std::string(size, 'k'), "secret"), std::nullopt);
  }
}

struct HmacRow {
  std::string key;
  std::string message;
  const char* digest;
};

class HmacSha256 : public testing::TestWithParam<HmacRow> {};

// Verifies the test cases of RFC 4231, section 4.
TEST_P(HmacSha256, vector) {
  EXPECT_EQ(hmac_sha256(GetParam().key, GetParam().message), from_hex(GetParam().digest));
}

INSTANTIATE_TEST_SUITE_P(
    Rfc4231, HmacSha256,
    testing::Values(
        HmacRow{std::string(20, '\x0b'), "Hi There",
                "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        HmacRow{"Jefe", "what do ya want for nothing?",
                "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
        HmacRow{std::string(20, '\xaa'), std::string(50, '\xdd'),
                "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe"},
        HmacRow{from_hex("0102030405060708090a0b0c0d0e0f10111213141516171819"), std::string(50, '\xcd'),
                "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b"},
        HmacRow{std::string(131, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First",
                "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
        HmacRow{std::string(131, '\xaa'),
                "This is a test using a larger than block-size key and a larger than block-size data. The "
                "key needs to be hashed before being used by the HMAC algorithm.",
                "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2"},
        HmacRow{"", "", "b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad"}));

}  // namespace
