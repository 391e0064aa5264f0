#include <gtest/gtest.h>

#include "zol_crypto.h"
#include "zol_libcrypto.h"

namespace {

using zol_libcrypto::from_base64;
using zol_libcrypto::to_base64;

struct VectorRow {
  const char* plain;
  const char* text;
};

class Base64Vectors : public testing::TestWithParam<VectorRow> {};

// Verifies the test vectors of RFC 4648, section 10, in both directions.
TEST_P(Base64Vectors, both_ways) {
  EXPECT_EQ(to_base64(GetParam().plain), GetParam().text);
  EXPECT_EQ(from_base64(GetParam().text), GetParam().plain);
}

INSTANTIATE_TEST_SUITE_P(Rfc4648, Base64Vectors,
                         testing::Values(VectorRow{"", ""}, VectorRow{"f", "Zg=="}, VectorRow{"fo", "Zm8="},
                                         VectorRow{"foo", "Zm9v"}, VectorRow{"foob", "Zm9vYg=="},
                                         VectorRow{"fooba", "Zm9vYmE="}, VectorRow{"foobar", "Zm9vYmFy"}));

class NoBase64 : public testing::TestWithParam<std::string> {};

// Verifies that text that isn't exactly what encoding gives is refused.
TEST_P(NoBase64, is_refused) {
  EXPECT_EQ(from_base64(GetParam()), std::nullopt);
  EXPECT_EQ(zol::Crypto::base64_decode(GetParam()), "");
}

INSTANTIATE_TEST_SUITE_P(Rows, NoBase64,
                         testing::Values("Z", "Zg", "Zg=", "Zg===", "Z===", "====", "=", "Zm9v\n",
                                         "Zm9vYg==\n", " Zm9v", "Zm9 ", "Zm9vYg==Zm9v", "Z=9v", "Zm-_",
                                         "Zh==", "Zm9=", std::string("Zm9\0", 4), "10.0.0.1", "Zm9v\nZm9v"));

// Verifies that every byte value survives, and a text of many pieces.
TEST(Base64, every_byte_and_long_texts) {
  std::string bytes;
  for (int i = 0; i < 256; ++i)
    bytes += static_cast<char>(i);
  EXPECT_EQ(from_base64(to_base64(bytes)), bytes);
  const std::string large((std::size_t{3} << 20) * 2 + 1, '\xA5');
  const std::string text = to_base64(large);
  EXPECT_EQ(text.size(), (large.size() + 2) / 3 * 4);
  EXPECT_EQ(from_base64(text), large);
}

// Verifies that the node's interface gives the same, without line breaks.
TEST(Base64, through_crypto) {
  EXPECT_EQ(zol::Crypto::base64_encode("foobar"), "Zm9vYmFy");
  EXPECT_EQ(zol::Crypto::base64_decode("Zm9vYmFy"), "foobar");
  EXPECT_EQ(zol::Crypto::base64_encode(std::string(300, 'x')).find('\n'), std::string::npos);
}

}  // namespace
