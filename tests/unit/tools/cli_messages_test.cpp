#include "zol_cli/messages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

// Verifies that hexadecimal text is read with white space anywhere between its digits.
TEST(CliMessagesTest, Hex) {
  EXPECT_THAT(standin::parse_hex("00 fF\n1 2"), Optional(ElementsAre(0x00, 0xff, 0x12)));
  EXPECT_THAT(standin::parse_hex(""), Optional(IsEmpty()));
}

// Verifies that half a byte and foreign letters are refused.
TEST(CliMessagesTest, BrokenHex) {
  EXPECT_EQ(standin::parse_hex("123"), std::nullopt);
  EXPECT_EQ(standin::parse_hex("0g"), std::nullopt);
}

// Verifies that messages are known by the daemon's own names.
TEST(CliMessagesTest, Names) {
  EXPECT_EQ(standin::type_by_name("reloadconf"), msgtype_e::reloadconf);
  EXPECT_EQ(standin::type_by_name("vpn_info"), msgtype_e::vpn_info);
  EXPECT_EQ(standin::type_by_name("failure"), std::nullopt);
}

// Verifies that each record of a burst has a session and a client of its own.
TEST(CliMessagesTest, Burst) {
  const auto first = standin::burst_record(0);
  const auto next = standin::burst_record(1);
  const auto far = standin::burst_record(50000);
  EXPECT_NE(memcmp(first.uuid, next.uuid, sizeof first.uuid), 0);
  const auto port = [](ipc_session_identification_msg_t record) -> unsigned { return record.client_port; };
  const auto address = [](ipc_session_identification_msg_t record) -> unsigned {
    return record.client_address;
  };
  EXPECT_NE(port(first), port(next));
  EXPECT_EQ(port(first), port(far));
  EXPECT_NE(address(first), address(far));
}

}  // namespace
