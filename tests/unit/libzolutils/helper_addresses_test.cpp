#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "fake_settings.h"
#include "zol_helper.h"

using zol::Helper;

namespace {

// Verifies that only four dotted decimal parts make an address.
TEST(HelperAddresses, ValidAddress) {
  for (const char* good : {"0.0.0.0", "10.1.2.3", "255.255.255.255"})
    EXPECT_TRUE(Helper::is_valid_ip_address(good)) << good;
  for (const char* bad : {"", "10.1.2", "10.1.2.3.4", "10.1.2.256", "10.1.2.3 ", " 10.1.2.3", "10.1.2.3/32",
                          "::1", "a.b.c.d", "0x0a.1.2.3", "1", "10.1..3"})
    EXPECT_FALSE(Helper::is_valid_ip_address(bad)) << bad;
  EXPECT_FALSE(Helper::is_valid_ip_address(std::string("10.1.2.3\0x", 10)));
}

// Verifies that the three ranges of RFC 1918 are private up to their edges and nothing else is.
TEST(HelperAddresses, PrivateRanges) {
  for (const char* inside :
       {"10.0.0.0", "10.255.255.255", "172.16.0.0", "172.31.255.255", "192.168.0.0", "192.168.255.255"})
    EXPECT_TRUE(Helper::is_private_address(inside)) << inside;
  for (const char* outside : {"9.255.255.255", "11.0.0.0", "172.15.255.255", "172.32.0.0", "192.167.255.255",
                              "192.169.0.0", "127.0.0.1", "169.254.1.1", "100.64.0.1", "host", ""})
    EXPECT_FALSE(Helper::is_private_address(outside)) << outside;
}

// Verifies that an address in network order becomes its dotted text when nothing asks for a mask.
TEST(HelperAddresses, AddressTextUnmasked) {
  const std::uint32_t address = ::inet_addr("192.0.2.41");
  EXPECT_EQ(Helper::make_anonymous_address(address), "192.0.2.41");
  EXPECT_EQ(Helper::make_log_addr(address), "192.0.2.41");
  zol_test::FakeSettings settings;
  settings.flags["General.mask_client_address"] = false;
  EXPECT_EQ(Helper::make_anonymous_address(address), "192.0.2.41");
  EXPECT_EQ(Helper::make_log_addr("192.0.2.41"), "192.0.2.41");
}

// Verifies that General.mask_client_address hides the last octet of an address in all forms.
TEST(HelperAddresses, AddressTextMasked) {
  zol_test::FakeSettings settings;
  settings.flags["General.mask_client_address"] = true;
  const std::uint32_t address = ::inet_addr("192.0.2.41");
  EXPECT_EQ(Helper::make_anonymous_address(address), "192.0.2.x");
  EXPECT_EQ(Helper::make_anonymous_address("192.0.2.41"), "192.0.2.x");
  EXPECT_EQ(Helper::make_log_addr(address), "192.0.2.x");
  EXPECT_EQ(Helper::make_log_addr("192.0.2.41"), "192.0.2.x");
}

// Verifies that a text that is no address comes back as it is, masked or not.
TEST(HelperAddresses, OtherTextIsLeftAlone) {
  zol_test::FakeSettings settings;
  settings.flags["General.mask_client_address"] = true;
  EXPECT_EQ(Helper::make_log_addr("next.hop.example"), "next.hop.example");
  EXPECT_EQ(Helper::make_anonymous_address(""), "");
}

// Verifies that the kernel's routes choose the source address toward a destination.
TEST(HelperAddresses, SourceTowardLoopback) {
  EXPECT_EQ(Helper::internal_ip_get("127.0.0.1"), "127.0.0.1");
  EXPECT_EQ(Helper::internal_ip_get("127.9.9.9"), "127.0.0.1");
}

// Verifies that a destination that is no address, or that no route leads to, has no source.
TEST(HelperAddresses, NoSource) {
  EXPECT_EQ(Helper::internal_ip_get("loopback"), "");
  EXPECT_EQ(Helper::internal_ip_get(""), "");
  EXPECT_EQ(Helper::internal_ip_get("255.255.255.255"), "");
}

// Verifies that a device's address is found in both forms.
TEST(HelperAddresses, DeviceAddress) {
  std::string text;
  ASSERT_TRUE(Helper::lookup_device_ipv4("lo", text));
  EXPECT_EQ(text, "127.0.0.1");
  in_addr address{};
  ASSERT_TRUE(Helper::lookup_device_ipv4("lo", address));
  EXPECT_EQ(address.s_addr, htonl(INADDR_LOOPBACK));
}

// Verifies that an unknown, an empty and an overlong device name find nothing and leave the result alone.
TEST(HelperAddresses, NoDevice) {
  std::string text = "before";
  EXPECT_FALSE(Helper::lookup_device_ipv4("nosuchdev0", text));
  EXPECT_FALSE(Helper::lookup_device_ipv4("", text));
  EXPECT_FALSE(Helper::lookup_device_ipv4("lo-and-far-more-than-16", text));
  EXPECT_EQ(text, "before");
}

}  // namespace
