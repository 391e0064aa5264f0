// The dotted text of an address.
#include "config/address_text.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

namespace {

// Verifies that every value of an octet, at each place, has the text that inet_ntop gives it.
TEST(AddressText, IsThatOfTheSystem) {
  for (int place = 0; place < 4; ++place) {
    for (std::uint32_t octet = 0; octet < 256; ++octet) {
      const std::uint32_t address = octet << (8 * place) | (place == 0 ? 0xfe000000U : 0x0aU);
      char expected[INET_ADDRSTRLEN];
      ASSERT_NE(inet_ntop(AF_INET, &address, expected, sizeof expected), nullptr);
      EXPECT_EQ(zol::address_text(address), expected);
    }
  }
  EXPECT_EQ(zol::address_text(0), "0.0.0.0");
  EXPECT_EQ(zol::address_text(0xffffffff), "255.255.255.255");
}

}  // namespace
