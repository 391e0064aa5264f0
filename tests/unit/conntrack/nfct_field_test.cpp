#include "conntrack/nfct_field.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "tests/unit/conntrack/conntrack_fixture.h"

namespace zol_monitor {
namespace {

constexpr std::array plain_attributes = {ATTR_ORIG_L3PROTO,
                                         ATTR_ORIG_L4PROTO,
                                         ATTR_ORIG_IPV4_SRC,
                                         ATTR_ORIG_IPV4_DST,
                                         ATTR_ORIG_PORT_SRC,
                                         ATTR_ORIG_PORT_DST,
                                         ATTR_MARK,
                                         ATTR_TCP_STATE,
                                         ATTR_ORIG_COUNTER_BYTES,
                                         ATTR_ORIG_COUNTER_PACKETS,
                                         ATTR_REPL_COUNTER_PACKETS,
                                         ATTR_REPL_COUNTER_BYTES};

NfctHandle filled() {
  NfctHandle ct(nfct_new());
  for (const nf_conntrack_attr attribute : plain_attributes) {
    const std::uint64_t value = 0x0102030405060708 * (attribute + 1ULL);
    nfct_set_attr(ct.get(), attribute, &value);
  }
  return ct;
}

class PlainAttribute : public testing::TestWithParam<nf_conntrack_attr> {};
INSTANTIATE_TEST_SUITE_P(NfctField, PlainAttribute, testing::ValuesIn(plain_attributes),
                         [](const auto& attribute) { return "Number" + std::to_string(attribute.param); });

// Verifies that the library in use tells where the attribute lies: else each reading goes through its
// getters.
TEST_P(PlainAttribute, IsLearned) {
  EXPECT_TRUE(NfctField(GetParam()).is_learned());
}

// Verifies that the field points where the library's getter does, in an object where every other is set too.
TEST_P(PlainAttribute, IsWhereTheLibraryHasIt) {
  const NfctHandle ct = filled();
  const NfctField field(GetParam());
  EXPECT_TRUE(field.is_set(ct.get()));
  EXPECT_EQ(field.get(ct.get()), nfct_get_attr(ct.get(), GetParam()));
}

// Verifies that an attribute that isn't set is null and 0, whatever else is set and whatever its place holds.
TEST_P(PlainAttribute, IsNotThereUntilItIsSet) {
  const NfctHandle ct = filled();
  const NfctField field(GetParam());
  ASSERT_EQ(nfct_attr_unset(ct.get(), GetParam()), 0);
  EXPECT_FALSE(field.is_set(ct.get()));
  EXPECT_EQ(field.get(ct.get()), nullptr);
  EXPECT_EQ(field.value<std::uint8_t>(ct.get()), 0);
}

// Verifies that the value has the library's byte order and width.
TEST(NfctField, ValueIsAsTheLibraryKeepsIt) {
  const NfctHandle ct = filled();
  EXPECT_EQ(NfctField(ATTR_MARK).value<std::uint32_t>(ct.get()), nfct_get_attr_u32(ct.get(), ATTR_MARK));
  EXPECT_EQ(NfctField(ATTR_ORIG_PORT_SRC).value<std::uint16_t>(ct.get()),
            nfct_get_attr_u16(ct.get(), ATTR_ORIG_PORT_SRC));
  EXPECT_EQ(NfctField(ATTR_TCP_STATE).value<std::uint8_t>(ct.get()),
            nfct_get_attr_u8(ct.get(), ATTR_TCP_STATE));
}

// Verifies that what lies outside the object is left to the library's getter.
TEST(NfctField, AnAttributeOutsideTheObjectGoesThroughTheGetter) {
  const NfctHandle ct(nfct_new());
  const NfctField field(ATTR_HELPER_INFO);
  EXPECT_FALSE(field.is_learned());
  EXPECT_EQ(field.get(ct.get()), nullptr);
  const std::array<char, 8> info = {'h', 'e', 'l', 'p', 'e', 'r', 0, 0};
  nfct_set_attr_l(ct.get(), ATTR_HELPER_INFO, info.data(), info.size());
  ASSERT_NE(field.get(ct.get()), nullptr);
  EXPECT_EQ(field.get(ct.get()), nfct_get_attr(ct.get(), ATTR_HELPER_INFO));
  EXPECT_EQ(std::memcmp(field.get(ct.get()), info.data(), info.size()), 0);
}

// Verifies that an attribute that the library doesn't know is never there.
TEST(NfctField, AnUnknownAttributeIsNeverThere) {
  const NfctHandle ct = filled();
  const NfctField field(ATTR_MAX);
  EXPECT_FALSE(field.is_learned());
  EXPECT_FALSE(field.is_set(ct.get()));
}

}  // namespace
}  // namespace zol_monitor
